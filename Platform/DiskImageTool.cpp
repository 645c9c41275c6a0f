#include "Platform/DiskImageTool.h"

#include <cstdlib>

namespace platform {

std::string diskImageToolPath() {
    const char* chosen = std::getenv(kDiskImageToolEnvironmentVariable);
    return chosen && *chosen ? chosen : kDiskImageToolPath;
}

}  // namespace platform
