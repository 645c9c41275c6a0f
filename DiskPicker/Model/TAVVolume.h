// One volume an installation may target, as the disk picker shows it: where it is
// mounted, what it holds and whether it may be chosen.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// Where the reapable size of a volume stands.
enum class TAVSizingState {
    NotRequested,  // no target version was given, or the volume holds no installed system
    Pending,       // its analysis is queued or running
    Done,          // the analysis finished (reapableSize is absent when it gave none)
    Cancelled,     // the analysis was cancelled before it finished
};

struct TAVVolume {
    size_t index = 0;                 // position among all volumes of the model, disk by disk
    std::string name;                 // the file system's label, else the mount point's last component
    std::string mountPoint;
    std::string device;               // the mount table's source ("/dev/sda1")
    std::string kernelName;           // the device's name in sysfs ("sda1")
    std::string diskKernelName;       // the disk it lies on ("sda")
    std::string diskName;             // that disk's display name
    std::string fileSystem;           // "ext4", ...
    uint64_t size = 0;                // bytes, f_blocks × f_frsize
    uint64_t freeSize = 0;            // bytes, f_bavail × f_frsize
    bool readOnly = false;
    std::optional<std::string> installedVersion;  // "ProductVersion" of the installed system
    std::optional<uint64_t> reapableSize;         // what an installation of the target reaps
    TAVSizingState sizing = TAVSizingState::NotRequested;
    bool eligible = false;
    std::optional<std::string> message;           // why it cannot be chosen; absent when it can
    std::optional<std::string> warning;           // something to know about an eligible volume
};
