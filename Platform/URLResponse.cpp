#include "Platform/URLResponse.h"

#include <strings.h>

namespace platform {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<std::string> URLResponse::valueForHeaderField(std::string_view field) const {
    for (const auto& [name, value] : headerFields)
        if (equalsIgnoringCase(name, field) && value.string()) return *value.string();
    return std::nullopt;
}

}  // namespace platform
