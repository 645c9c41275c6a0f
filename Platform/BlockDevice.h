// Block devices: the label of the file system a device (or an image file) holds, read
// through libblkid.
#pragma once

#include <optional>
#include <string>

namespace platform::blockdevice {

// The label of the file system on `device`; absent when the device cannot be opened
// for reading, holds no file system that libblkid knows, or that file system has no
// label. Opened read-only and without blocking; only block devices and regular files
// are probed.
std::optional<std::string> fileSystemLabel(const std::string& device);

}  // namespace platform::blockdevice
