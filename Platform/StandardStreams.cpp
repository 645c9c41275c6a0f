#include "Platform/StandardStreams.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "Platform/FileSystem.h"

namespace platform {

namespace {
constexpr const char* kStandardOutputName = "standard output";
}

std::optional<DivertedStandardOutput> DivertedStandardOutput::begin(Error* error) {
    fflush(stdout);
    // Above the standard descriptors, so that a closed standard error fails the diversion
    // rather than receiving the saved output; close-on-exec, so that a tool started
    // meanwhile cannot write to the real output.
    int saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (saved < 0) {
        setError(error, fs::posixError(errno, kStandardOutputName));
        return std::nullopt;
    }
    auto kept = fs::File::adopt(saved, kStandardOutputName);
    if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        setError(error, fs::posixError(errno, kStandardOutputName));
        return std::nullopt;
    }
    return DivertedStandardOutput(std::move(kept));
}

bool DivertedStandardOutput::restore(Error* error) {
    if (!saved_) return true;
    fflush(stdout);
    bool restored = dup2(saved_.descriptor(), STDOUT_FILENO) >= 0;
    int code = errno;
    saved_.close();
    if (!restored) setError(error, fs::posixError(code, kStandardOutputName));
    return restored;
}

}  // namespace platform
