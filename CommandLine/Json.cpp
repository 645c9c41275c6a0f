#include "CommandLine/Json.h"

#include <cmath>

#include "CommandLine/Text.h"
#include "Platform/Base64.h"

namespace commandline {

void setName(Json& object, const std::string& key, std::string_view bytes) {
    if (isValidUTF8(bytes)) {
        object[key] = std::string(bytes);
        return;
    }
    object[key] = withReplacementCharacters(bytes);
    object[key + "_base64"] =
        platform::base64::encode({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

std::string jsonLine(const Json& object) {
    // Replacement, never an exception: a name that slipped past setName still prints.
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json toJson(const platform::Value& v) {
    using Type = platform::Value::Type;
    switch (v.type()) {
    case Type::Null:
    case Type::Foreign: return nullptr;
    case Type::Boolean: return *v.boolean();
    case Type::Integer: return *v.integer();
    case Type::UnsignedInteger: return *v.unsignedInteger();
    case Type::Real: return std::isfinite(*v.real()) ? Json(*v.real()) : Json(nullptr);
    case Type::String: return *v.string();
    case Type::Data: return platform::base64::encode(*v.data());
    case Type::Date: return v.date()->iso8601();
    case Type::Array: {
        Json array = Json::array();
        for (const auto& item : *v.array())
            if (item.type() != Type::Foreign) array.push_back(toJson(item));
        return array;
    }
    case Type::Dictionary: {
        Json object = Json::object();
        for (const auto& [key, item] : *v.dictionary())
            if (item.type() != Type::Foreign) object[key] = toJson(item);
        return object;
    }
    }
    return nullptr;
}

namespace {
std::string sanitized(const std::string& text, std::vector<std::string>* damaged) {
    if (isValidUTF8(text)) return text;
    damaged->push_back(text);
    return withReplacementCharacters(text);
}
}  // namespace

platform::Value sanitizedStrings(const platform::Value& value, std::vector<std::string>* damaged) {
    using Type = platform::Value::Type;
    switch (value.type()) {
    case Type::String: return platform::Value(sanitized(*value.string(), damaged));
    case Type::Array: {
        platform::Array array;
        for (const auto& item : *value.array()) array.push_back(sanitizedStrings(item, damaged));
        return platform::Value(std::move(array));
    }
    case Type::Dictionary: {
        platform::Dictionary dictionary;
        for (const auto& [key, item] : *value.dictionary())
            dictionary.set(sanitized(key, damaged), sanitizedStrings(item, damaged));
        return platform::Value(std::move(dictionary));
    }
    default: return value;
    }
}

}  // namespace commandline
