// A seam for tests: makes reads of chosen files fail or end early, so that every reader
// can be shown to report a file it could not read whole rather than believe half of it.
//
// It is compiled into every build and does nothing until a test arms it. Armed, every
// read through File (and every file MappedFile maps) whose path ends with `pathSuffix`
// sees the file only up to `offset`: a read that reaches that byte gets the bytes
// before it and then fails with `errorCode` (an I/O error, say), or, with `errorCode`
// 0, finds the file ending there (a short read, as when the file is cut underneath).
// A mapping of such a file fails with `errorCode`, or holds only the first `offset`
// bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform::fs {

struct ReadFault {
    std::string pathSuffix;
    uint64_t offset = 0;
    int errorCode = 0;  // 0: the file seems to end at `offset`
};

// Arms the seam (replacing a fault armed before) or, with nothing, disarms it.
void setReadFault(std::optional<ReadFault> fault);

// Disarms the seam when it goes out of scope.
class ScopedReadFault {
public:
    explicit ScopedReadFault(ReadFault fault) { setReadFault(std::move(fault)); }
    ~ScopedReadFault() { setReadFault(std::nullopt); }
    ScopedReadFault(const ScopedReadFault&) = delete;
    ScopedReadFault& operator=(const ScopedReadFault&) = delete;
};

namespace detail {
// For the platform's readers: the fault that applies to `path`, if armed for it.
std::optional<ReadFault> readFaultFor(const std::string& path);
}  // namespace detail

}  // namespace platform::fs
