// Whole-tree file operations: recursive copy and removal, link targets, and writing a
// file in place.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Platform/Error.h"

namespace platform::fs {

// Copies `source` to `destination` (which must not exist): a regular file with its
// bytes and permission bits, a symbolic link as a link, a directory with everything
// below it. False with a POSIX error at the first failure.
bool copyItem(const std::string& source, const std::string& destination, Error* error = nullptr);
// Writes `bytes` to `path` in place (created 0666 & ~umask, or truncated), following a
// final symbolic link as a plain write does.
bool writeFile(const std::string& path, std::span<const uint8_t> bytes, Error* error = nullptr);
// Removes the item and, for a directory, everything below it; links are not followed.
bool removeTree(const std::string& path, Error* error = nullptr);
// The target of a symbolic link, byte for byte, however long (a final link is the one
// read, not followed); absent when the item is not a link or cannot be read.
std::optional<std::string> readSymbolicLink(const std::string& path);

}  // namespace platform::fs
