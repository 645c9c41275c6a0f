// JSON for every --json output, through nlohmann-json: always valid, names that are not
// UTF-8 carried losslessly beside their readable form.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Platform/Value.h"

namespace commandline {

using Json = nlohmann::ordered_json;

// Sets object[key] to `bytes` as text (U+FFFD for each byte that is not valid UTF-8)
// and, only when some byte was not, object[key + "_base64"] to the exact bytes.
void setName(Json& object, const std::string& key, std::string_view bytes);

// One line of a JSON listing: the object on one line, without the newline.
std::string jsonLine(const Json& object);

// A property-list value as a JSON document: data as Base64, dates as ISO 8601, reals
// that JSON cannot hold as null; values of no property-list type are left out.
// Strings must already be valid UTF-8 (see sanitizedStrings).
Json toJson(const platform::Value& value);

// `value` with every string and dictionary key made valid UTF-8 (U+FFFD for each bad
// byte); `damaged` receives the original bytes of each one changed, in order.
platform::Value sanitizedStrings(const platform::Value& value, std::vector<std::string>* damaged);

}  // namespace commandline
