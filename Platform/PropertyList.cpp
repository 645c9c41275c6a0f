#include "Platform/PropertyList.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <plist/plist.h>

#include "Platform/FileSystem.h"
#include "Platform/PropertyListFailure.h"
#include "Platform/Strings.h"

namespace platform::plist {

namespace {

// Seconds between 1970-01-01 and 2001-01-01, the epoch libplist counts dates from.
constexpr double kEpochOffset = 978307200.0;

struct NodeDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

// libplist keeps one integer type; the sign is known only to its XML writer, which
// prints values that were stored as unsigned 128-bit integers without a sign.
bool storedAsUnsigned(plist_t node) {
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(node, &xml, &length);
    bool unsignedForm = xml && std::string_view(xml, length).find("<integer>-") == std::string_view::npos;
    if (xml) plist_to_xml_free(xml);
    return unsignedForm;
}

Value fromNode(plist_t node, int depth) {
    if (!node || depth > 512) return Value();
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
    }
    case PLIST_UINT: {
        uint64_t u = 0;
        plist_get_uint_val(node, &u);
        if (u <= uint64_t(INT64_MAX)) return Value(int64_t(u));
        if (storedAsUnsigned(node)) return Value(u);
        return Value(int64_t(u));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(d);
    }
    case PLIST_STRING: {
        // Read with its length: asking for a copy of a string whose length disagrees with
        // its C string fails an assertion of the library (holdsNulCharacter keeps such
        // documents away; this keeps to the first NUL should one come through).
        uint64_t length = 0;
        const char* s = plist_get_string_ptr(node, &length);
        return Value(s ? std::string(s, strnlen(s, length)) : std::string());
    }
    case PLIST_KEY: {
        char* s = nullptr;
        plist_get_key_val(node, &s);
        Value v(std::string(s ? s : ""));
        free(s);
        return v;
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        Data data(reinterpret_cast<uint8_t*>(bytes), reinterpret_cast<uint8_t*>(bytes) + length);
        free(bytes);
        return Value(std::move(data));
    }
    case PLIST_DATE: {
        // The library splits a date into its whole seconds, cut toward zero, and the
        // size of what is left: before 2001 the microseconds count back from `sec`.
        // (Within the second before 2001 the sign is lost: such a date reads as after.)
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        double fraction = std::abs(usec) / 1e6;
        return Value(Date{kEpochOffset + sec + (sec < 0 ? -fraction : fraction)});
    }
    case PLIST_UID: {
        uint64_t u = 0;
        plist_get_uid_val(node, &u);
        return Value(u);
    }
    case PLIST_ARRAY: {
        Array out;
        uint32_t n = plist_array_get_size(node);
        out.reserve(n);
        for (uint32_t i = 0; i < n; ++i) out.push_back(fromNode(plist_array_get_item(node, i), depth + 1));
        return Value(std::move(out));
    }
    case PLIST_DICT: {
        Dictionary out;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!item) {
                free(key);
                break;
            }
            out.set(key ? key : "", fromNode(item, depth + 1));
            free(key);
        }
        free(it);
        return Value(std::move(out));
    }
    default: return Value();
    }
}

plist_t bigUnsignedNode(uint64_t u) {
    // Only the XML parser makes an integer node that both writers treat as unsigned.
    std::string xml = "<plist version=\"1.0\"><integer>" + std::to_string(u) + "</integer></plist>";
    plist_t node = nullptr;
    plist_from_xml(xml.data(), uint32_t(xml.size()), &node);
    return node ? node : plist_new_uint(u);
}

plist_t toNode(const Value& value) {
    switch (value.type()) {
    case Value::Type::Null:
    case Value::Type::Foreign: return nullptr;
    case Value::Type::Boolean: return plist_new_bool(*value.boolean());
    case Value::Type::Integer: return plist_new_uint(uint64_t(*value.integer()));
    case Value::Type::UnsignedInteger: {
        uint64_t u = *value.unsignedInteger();
        return u > uint64_t(INT64_MAX) ? bigUnsignedNode(u) : plist_new_uint(u);
    }
    case Value::Type::Real: return plist_new_real(*value.real());
    case Value::Type::String: return plist_new_string(value.string()->c_str());
    case Value::Type::Data: {
        const Data& d = *value.data();
        return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    case Value::Type::Date: {
        // The library holds a date as whole seconds from 2001 in 32 bits and microseconds:
        // a date outside that span is written as the nearest one it holds, and a date that
        // is not a number as 2001-01-01.
        double t = value.date()->secondsSince1970 - kEpochOffset;
        t = std::isnan(t) ? 0 : std::clamp(t, double(INT32_MIN), double(INT32_MAX));
        double whole = std::floor(t);
        return plist_new_date(int32_t(whole), int32_t(std::lround((t - whole) * 1e6)));
    }
    case Value::Type::Array: {
        plist_t node = plist_new_array();
        for (const auto& item : *value.array())
            if (plist_t child = toNode(item)) plist_array_append_item(node, child);
        return node;
    }
    case Value::Type::Dictionary: {
        plist_t node = plist_new_dict();
        for (const auto& [key, item] : *value.dictionary())
            if (plist_t child = toNode(item)) plist_dict_set_item(node, key.c_str(), child);
        return node;
    }
    }
    return nullptr;
}

bool allTextIsUTF8(const Value& value) {
    if (const std::string* text = value.string()) return str::isValidUTF8(*text);
    if (const Array* array = value.array()) {
        for (const Value& item : *array)
            if (!allTextIsUTF8(item)) return false;
    } else if (const Dictionary* dictionary = value.dictionary()) {
        for (const auto& [key, item] : *dictionary)
            if (!str::isValidUTF8(key) || !allTextIsUTF8(item)) return false;
    }
    return true;
}

uint64_t bigEndian(const uint8_t* bytes, size_t size) {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value = value << 8 | bytes[i];
    return value;
}

// Whether the document's text holds a NUL character. The library keeps such a string
// or key with a length that disagrees with its C string, and fails an assertion when
// asked for it; no property list written as text or by a writer holds one. In XML: a
// NUL byte (no XML document holds one) or a reference to character 0. In binary form:
// an ASCII or UTF-16 string object with a NUL unit; a document whose tables do not
// hold together is left for the library to refuse.
bool holdsNulCharacter(std::span<const uint8_t> bytes) {
    constexpr std::string_view kMagic = "bplist00";
    if (bytes.size() < kMagic.size() || std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) != 0) {
        std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        if (text.find('\0') != std::string_view::npos) return true;
        for (size_t at = text.find("&#"); at != std::string_view::npos; at = text.find("&#", at + 2)) {
            size_t digits = at + 2 + (at + 2 < text.size() && (text[at + 2] == 'x' || text[at + 2] == 'X'));
            size_t end = text.find_first_not_of('0', digits);
            if (end != digits && end < text.size() && text[end] == ';') return true;
        }
        return false;
    }
    constexpr size_t kTrailerSize = 32;
    if (bytes.size() < kMagic.size() + kTrailerSize) return false;
    const uint8_t* trailer = bytes.data() + bytes.size() - kTrailerSize;
    size_t offsetSize = trailer[6];
    uint64_t objects = bigEndian(trailer + 8, 8), table = bigEndian(trailer + 24, 8);
    size_t end = bytes.size() - kTrailerSize;
    if (offsetSize < 1 || offsetSize > 8 || table > end || objects > (end - table) / offsetSize) return false;
    for (uint64_t i = 0; i < objects; ++i) {
        uint64_t offset = bigEndian(bytes.data() + table + i * offsetSize, offsetSize);
        if (offset >= end) continue;
        uint8_t marker = bytes[offset];
        size_t unit = marker >> 4 == 0x5 ? 1 : marker >> 4 == 0x6 ? 2 : 0;
        if (!unit) continue;
        uint64_t count = marker & 0xF, start = offset + 1;
        if (count == 0xF) {
            // The count follows as an integer object of 1, 2, 4 or 8 bytes.
            if (start >= end || bytes[start] >> 4 != 0x1 || (bytes[start] & 0xF) > 3) continue;
            size_t size = size_t(1) << (bytes[start] & 0xF);
            if (start + 1 + size > end) continue;
            count = bigEndian(bytes.data() + start + 1, size);
            start += 1 + size;
        }
        if (count > (end - start) / unit) continue;
        for (uint64_t c = 0; c < count; ++c)
            if (bytes[start + c * unit] == 0 && (unit == 1 || bytes[start + c * unit + 1] == 0)) return true;
    }
    return false;
}

}  // namespace

std::optional<Value> readBytes(std::span<const uint8_t> bytes, Error* error) {
    if (holdsNulCharacter(bytes)) {
        if (error) *error = corruptFileError({}, "a string or key holds a NUL character");
        return std::nullopt;
    }
    plist_t node = nullptr;
    if (!bytes.empty() && bytes.size() <= UINT32_MAX)
        plist_from_memory(reinterpret_cast<const char*>(bytes.data()), uint32_t(bytes.size()), &node);
    if (!node) {
        if (error) *error = corruptFileError({}, detail::failureReason(bytes));
        return std::nullopt;
    }
    Node owner(node);
    Value value = fromNode(node, 0);
    // Strings are Unicode text: bytes that are not UTF-8 could be written, but not read back.
    if (!allTextIsUTF8(value)) {
        if (error) *error = corruptFileError({}, "a string or key is not UTF-8 text");
        return std::nullopt;
    }
    return value;
}

std::optional<Value> readFile(const std::string& path) {
    auto bytes = fs::readRegularFile(path);
    if (!bytes) return std::nullopt;
    return readBytes(*bytes);
}

std::optional<Dictionary> readDictionaryFile(const std::string& path) {
    auto value = readFile(path);
    if (!value || !value->dictionary()) return std::nullopt;
    return std::move(*value->dictionary());
}

std::optional<Array> readArrayFile(const std::string& path) {
    auto value = readFile(path);
    if (!value || !value->array()) return std::nullopt;
    return std::move(*value->array());
}

std::string toXML(const Value& value) {
    Node node(toNode(value));
    if (!node) node.reset(plist_new_string(""));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(static_cast<plist_t>(node.get()), &xml, &length);
    std::string_view text(xml, length);
    std::string out;
    out.reserve(length + 64);
    for (size_t i = 0; i < text.size(); ++i) {
        // The optional document type line is left out: readers need only the root element.
        if (text.compare(i, 9, "<!DOCTYPE") == 0) {
            size_t end = text.find('>', i);
            if (end == std::string_view::npos) break;
            i = end + 1 < text.size() && text[end + 1] == '\n' ? end + 1 : end;
            continue;
        }
        // libplist writes a carriage return raw, and XML readers normalise a raw one to a
        // line feed; the writer itself only ever emits line feeds between elements.
        if (text[i] == '\r')
            out += "&#13;";
        else
            out += text[i];
    }
    plist_to_xml_free(xml);
    return out;
}

Data toBinary(const Value& value) {
    Node node(toNode(value));
    if (!node) node.reset(plist_new_string(""));
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(node.get()), &bin, &length);
    Data out(reinterpret_cast<uint8_t*>(bin), reinterpret_cast<uint8_t*>(bin) + length);
    plist_to_bin_free(bin);
    return out;
}

bool writeXMLFile(const Value& value, const std::string& path, Error* error) {
    std::string xml = toXML(value);
    return fs::writeFileAtomically(path, std::span(reinterpret_cast<const uint8_t*>(xml.data()), xml.size()), error);
}

}  // namespace platform::plist
