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

// The POSIX errno domain and the key under which errors carry their description.
inline constexpr const char* kPOSIXErrorDomain = "POSIXErrorDomain";
inline constexpr const char* kErrorDescriptionKey = "description";

}  // namespace platform
