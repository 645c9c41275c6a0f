#include "Platform/ProcessInfo.h"

#include <cerrno>
#include <unistd.h>

#include "Platform/Path.h"

namespace platform::process {

std::string processName() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n > 0) return path::lastComponent(std::string(buf, size_t(n)));
    return program_invocation_short_name;
}

}  // namespace platform::process
