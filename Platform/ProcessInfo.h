// Facts about the running process.
#pragma once

#include <string>

namespace platform::process {

// The name of the running program: the last component of its executable's path.
std::string processName();

}  // namespace platform::process
