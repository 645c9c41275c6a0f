#include "Platform/URLRequest.h"

#include <algorithm>

#include "Platform/URLResponse.h"

namespace platform {

void URLRequest::setValue(std::string value, std::string_view field) {
    for (auto& [name, existing] : headerFields) {
        if (equalsIgnoringCase(name, field)) {
            existing = std::move(value);
            return;
        }
    }
    headerFields.emplace_back(std::string(field), std::move(value));
}

std::optional<std::string> URLRequest::valueForHeaderField(std::string_view field) const {
    for (const auto& [name, value] : headerFields)
        if (equalsIgnoringCase(name, field)) return value;
    return std::nullopt;
}

}  // namespace platform
