// Errors handed back to callers: a domain, a code and a dictionary of details,
// returned through an optional out-pointer (null when the caller does not care).
#pragma once

#include <string>

#include "Platform/Value.h"

namespace platform {

struct Error {
    std::string domain;
    int64_t code = 0;
    Dictionary userInfo;

    // The "description" detail when there is one, else "domain error code".
    std::string description() const;
};

// Stores an error through `out` when the caller asked for one.
inline void setError(Error* out, std::string domain, int64_t code, Dictionary userInfo = {}) {
    if (out) *out = Error{std::move(domain), code, std::move(userInfo)};
}
inline void setError(Error* out, Error error) {
    if (out) *out = std::move(error);
}

// The POSIX errno domain: the code is the errno value.
inline constexpr const char* kPOSIXErrorDomain = "POSIXErrorDomain";

// The platform's general domain and its codes, shared by archives, downloads and products.
inline constexpr const char* kGeneralErrorDomain = "GeneralErrorDomain";
inline constexpr int64_t kFileReadCorruptFileError = 259;       // the file is damaged or not of its kind
inline constexpr int64_t kFileReadNoSuchFileError = 260;        // the file (or its attributes) cannot be read
inline constexpr int64_t kFileWriteUnsupportedSchemeError = 518;  // the URL's scheme cannot be written to

// User-info keys, the same in every domain.
inline constexpr const char* kErrorDescriptionKey = "description";  // one line for people
inline constexpr const char* kFilePathErrorKey = "path";            // the file the error concerns
inline constexpr const char* kURLErrorKey = "URL";                  // the URL the error concerns
inline constexpr const char* kFailureReasonKey = "reason";          // why, without the path or URL
inline constexpr const char* kUnderlyingErrorKey = "underlyingError";

// A general-domain 259 for a damaged file: `reason` says what is wrong and where,
// the description is "path: reason".
Error corruptFileError(const std::string& path, const std::string& reason);

}  // namespace platform
