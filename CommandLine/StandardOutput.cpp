#include "CommandLine/StandardOutput.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

namespace commandline {

namespace {
constexpr size_t kBufferSize = 64 * 1024;
}

StandardOutput& StandardOutput::shared() {
    static StandardOutput output(platform::fs::File::adopt(STDOUT_FILENO, "standard output"));
    return output;
}

StandardOutput::StandardOutput(platform::fs::File file) : file_(std::move(file)) {
    buffer_.reserve(kBufferSize);
}

void StandardOutput::write(std::string_view text) {
    if (failure_) return;
    buffer_.append(text);
    if (buffer_.size() >= kBufferSize || (eachLine_ && text.find('\n') != std::string_view::npos)) _writeBuffer();
}

void StandardOutput::line(std::string_view text) {
    if (failure_) return;
    buffer_.append(text);
    write("\n");
}

bool StandardOutput::_writeBuffer() {
    if (failure_) return false;
    if (buffer_.empty()) return true;
    platform::Error error;
    bool written = file_.writeAll({reinterpret_cast<const uint8_t*>(buffer_.data()), buffer_.size()}, &error);
    buffer_.clear();
    if (!written) failure_ = error.domain == platform::kPOSIXErrorDomain ? int(error.code) : EIO;
    return written;
}

bool StandardOutput::flush() { return _writeBuffer(); }

int StandardOutput::finish(int status, std::string_view program) {
    _writeBuffer();
    platform::Error error;
    if (file_.isOpen() && !file_.close(&error) && !failure_)
        failure_ = error.domain == platform::kPOSIXErrorDomain ? int(error.code) : EIO;
    if (!failure_) return status;
    if (*failure_ == EPIPE) return kClosedPipeStatus;
    fmt::print(stderr, "{}: write error: {}\n", program, strerror(*failure_));
    return 1;
}

}  // namespace commandline
