#include "Platform/ProcessInfo.h"

#include <cerrno>
#include <unistd.h>

#include "Platform/FileTree.h"
#include "Platform/Path.h"

namespace platform::process {

std::string processName() {
    if (auto executable = fs::readSymbolicLink("/proc/self/exe"); executable && !executable->empty())
        return path::lastComponent(*executable);
    return program_invocation_short_name;
}

}  // namespace platform::process
