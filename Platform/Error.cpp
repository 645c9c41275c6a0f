#include "Platform/Error.h"

#include <fmt/format.h>

namespace platform {

std::string Error::description() const {
    if (auto* text = userInfo.findString(kErrorDescriptionKey)) return *text;
    return fmt::format("{} error {}", domain, code);
}

}  // namespace platform
