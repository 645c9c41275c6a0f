// The mount table, read through libmount from a file in the format of
// /proc/self/mountinfo.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Error.h"

namespace platform::mounts {

struct MountEntry {
    std::string source;          // what is mounted, as the table gives it ("/dev/sda1", "proc")
    std::string mountPoint;      // where
    std::string fileSystemType;  // "ext4", "tmpfs", ...
    std::string root;            // the directory of the file system mounted there ("/" for all of it)
    bool readOnly = false;       // "ro" among the mount's or its file system's options
    bool pseudo = false;         // a pseudo file system (proc, sysfs, tmpfs, cgroup, ...)
    bool network = false;        // a network file system (nfs, cifs, ...)
    bool sourceIsPath = false;   // the source names a file or device by an absolute path
};

// The entries of the mount table in `path`, in the table's order. Only a regular file
// (procfs files are) is read, opened without blocking. Nothing when it cannot be
// opened or read, or a line is not a mount table entry; `error` then says which
// (POSIX domain; a bad line names its number in the description).
std::optional<std::vector<MountEntry>> readMountInfo(const std::string& path, Error* error = nullptr);

}  // namespace platform::mounts
