// Pieces the platform's file calls share, by path and by descriptor alike.
#pragma once

#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "Platform/Value.h"

namespace platform::fs::detail {

// Type, size, creation date (birth time where kept, else the status-change time),
// modification date, owner and group ids and names, permission bits.
Dictionary attributesFromStatx(const struct statx& sx);

// The target of the symbolic link `name` relative to `directoryFd` (AT_FDCWD for a
// path), byte for byte, however long; absent with errno set.
std::optional<std::string> readLinkAt(int directoryFd, const char* name);

// What an item of this mode is, for messages: "a directory", "a FIFO", "a socket", ...
const char* kindOfMode(mode_t mode);

}  // namespace platform::fs::detail
