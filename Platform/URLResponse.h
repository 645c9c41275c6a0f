// The answer to a request: for HTTP its status and header fields.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/URL.h"
#include "Platform/Value.h"

namespace platform {

struct URLResponse {
    explicit URLResponse(URL url) : url(std::move(url)) {}

    URL url;
    bool isHTTP = false;
    int statusCode = 0;
    // Field names as the server sent them; repeated fields joined with ", ".
    Dictionary headerFields;
    // The body's length as announced, -1 when unknown.
    int64_t expectedContentLength = -1;

    // The value of a header field, its name compared case-insensitively.
    std::optional<std::string> valueForHeaderField(std::string_view field) const;
};

bool equalsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace platform
