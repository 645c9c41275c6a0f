// Fuzzes the property-list reader, XML and binary, into the value type. Whatever reads
// must survive both writers and read back from the binary form as the same value: the
// binary form is how values travel between the tools.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "FuzzSupport.h"
#include "Platform/PropertyList.h"

namespace {

// Whether `again`, read from what was written of `value`, is the same value. The
// library passes a date to the microsecond, as whole seconds from 2001 in 32 bits (a date beyond
// them is written as the nearest that fits), and a real that is not a number equals
// nothing, so those compare by what the writers can keep.
bool sameAfterWriting(const platform::Value& value, const platform::Value& again) {
    using Type = platform::Value::Type;
    // An integer may come back signed or unsigned; the value type's equality judges those.
    if (value.type() != again.type()) return value == again;
    switch (value.type()) {
    case Type::Real: {
        double a = *value.real(), b = *again.real();
        return a == b || (std::isnan(a) && std::isnan(b));
    }
    case Type::Date: {
        double a = value.date()->secondsSince1970 - 978307200.0, b = again.date()->secondsSince1970 - 978307200.0;
        if (!(a >= -2147483648.0 && a <= 2147483647.0)) return true;
        // Written rounded to the microsecond, read back cut to it.
        return std::fabs(a - b) <= 2e-6;
    }
    case Type::Array: {
        const auto& x = *value.array();
        const auto& y = *again.array();
        if (x.size() != y.size()) return false;
        for (size_t i = 0; i < x.size(); ++i)
            if (!sameAfterWriting(x[i], y[i])) return false;
        return true;
    }
    case Type::Dictionary: {
        const auto& x = *value.dictionary();
        const auto& y = *again.dictionary();
        if (x.size() != y.size()) return false;
        for (const auto& [key, item] : x) {
            const platform::Value* other = y.find(key);
            if (!other || !sameAfterWriting(item, *other)) return false;
        }
        return true;
    }
    default: return value == again;
    }
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
    if (!sameAfterWriting(*value, *again)) abort();
    return 0;
}
