// The errors the archive classes hand back: POSIX codes, and the general domain's
// "file is corrupt" code, each carrying the file path it concerns.
#pragma once

#include <string>

#include "Platform/Error.h"
#include "Platform/FileSystem.h"

namespace crateworks {

inline constexpr const char* kGeneralErrorDomain = "GeneralErrorDomain";
inline constexpr int64_t kFileReadCorruptFileError = 259;
// The user-info key of the path an error concerns (the same key POSIX errors use).
inline constexpr const char* kFilePathErrorKey = "path";

inline void setPOSIXError(platform::Error* out, int code, const std::string& path = {}) {
    if (out) *out = platform::fs::posixError(code, path);
}

inline void setCorruptFileError(platform::Error* out, const std::string& path = {}) {
    platform::Dictionary info;
    if (!path.empty()) {
        info.set(kFilePathErrorKey, path);
        info.set(platform::kErrorDescriptionKey, path + ": the archive entry is corrupt");
    }
    platform::setError(out, kGeneralErrorDomain, kFileReadCorruptFileError, std::move(info));
}

}  // namespace crateworks
