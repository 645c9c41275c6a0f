// Thread names. The kernel keeps at most 15 bytes of a name, so the full name is kept
// beside it for the thread itself to read.
#pragma once

#include <string>

namespace platform::thread {

// Names the calling thread: the full name for currentName(), and for tools such as ps
// the last dot-separated part of it, cut to 15 bytes.
void setCurrentName(const std::string& name);
// The name given with setCurrentName(), "" when none was.
std::string currentName();

}  // namespace platform::thread
