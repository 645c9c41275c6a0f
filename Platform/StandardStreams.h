// Standard output pointed at standard error for a while, so that nothing printed in the
// meantime can reach the real standard output (a tool's document goes there after).
#pragma once

#include <optional>

#include "Platform/Error.h"
#include "Platform/File.h"

namespace platform {

class DivertedStandardOutput {
public:
    // Flushes stdout and points descriptor 1 at standard error. Absent, with the POSIX
    // error, when standard output cannot be kept or diverted.
    static std::optional<DivertedStandardOutput> begin(Error* error = nullptr);

    // Flushes stdout and points descriptor 1 back where it was. False, with the POSIX
    // error, when it cannot be; either way the kept descriptor is closed. A diversion
    // never restored stays in place.
    bool restore(Error* error = nullptr);

private:
    explicit DivertedStandardOutput(fs::File saved) : saved_(std::move(saved)) {}
    fs::File saved_;
};

}  // namespace platform
