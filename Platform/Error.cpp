#include "Platform/Error.h"

#include <fmt/format.h>

namespace platform {

std::string Error::description() const {
    if (auto* text = userInfo.findString(kErrorDescriptionKey)) return *text;
    return fmt::format("{} error {}", domain, code);
}

Error corruptFileError(const std::string& path, const std::string& reason) {
    Dictionary info;
    if (!path.empty()) info.set(kFilePathErrorKey, path);
    if (!reason.empty()) info.set(kFailureReasonKey, reason);
    info.set(kErrorDescriptionKey, path.empty() ? reason : reason.empty() ? path : path + ": " + reason);
    return Error{kGeneralErrorDomain, kFileReadCorruptFileError, std::move(info)};
}

}  // namespace platform
