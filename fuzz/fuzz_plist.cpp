// Fuzzes the property-list reader, XML and binary, into the value type. Whatever reads
// must survive both writers and read back from the binary form as the same value: the
// binary form is how values travel between the tools.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "FuzzSupport.h"
#include "Platform/PropertyList.h"

namespace {

// Values the writers cannot give back as they are: a real that is not a number (it
// equals nothing), and a date beyond the whole seconds from 2001 that 32 bits hold
// (written as the nearest date that fits).
bool holdsUnwritable(const platform::Value& value) {
    if (value.type() == platform::Value::Type::Real) return std::isnan(*value.real());
    if (value.type() == platform::Value::Type::Date) {
        double since2001 = value.date()->secondsSince1970 - 978307200.0;
        return !(since2001 >= -2147483648.0 && since2001 <= 2147483647.0);
    }
    if (auto* array = value.array())
        for (const auto& item : *array)
            if (holdsUnwritable(item)) return true;
    if (auto* dictionary = value.dictionary())
        for (const auto& [key, item] : *dictionary)
            if (holdsUnwritable(item)) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    platform::Error error;
    auto value = platform::plist::readBytes({data, size}, &error);
    if (!value) return 0;
    (void)value->description();
    std::string xml = platform::plist::toXML(*value);
    (void)platform::plist::readBytes({reinterpret_cast<const uint8_t*>(xml.data()), xml.size()});
    platform::Data binary = platform::plist::toBinary(*value);
    auto again = platform::plist::readBytes(binary);
    // The writer's own output must read, and read as what was written.
    if (!again) abort();
    if (!(*again == *value) && !holdsUnwritable(*value)) abort();
    return 0;
}
