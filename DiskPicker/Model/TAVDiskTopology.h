// Which disk a block device lies on, and what that disk is called and holds, as sysfs
// shows it.
#pragma once

#include <cstdint>
#include <string>

class TAVDiskTopology {
public:
    // `sysfsRoot` stands for /sys.
    explicit TAVDiskTopology(std::string sysfsRoot);

    // FERRYHOLD_SYSFS when set, else "/sys".
    static std::string defaultSysfsRoot();

    // The disk of the device `kernelName`: when SYSFS/class/block/NAME/partition exists,
    // the name of the directory holding the resolved SYSFS/class/block/NAME; otherwise
    // the device is a disk of its own.
    std::string diskOfDevice(const std::string& kernelName) const;
    // SYSFS/class/block/DISK/size × 512; 0 when it cannot be read.
    uint64_t diskSize(const std::string& disk) const;
    // SYSFS/class/block/DISK/device/model with blanks trimmed, or the kernel name.
    std::string diskName(const std::string& disk) const;

private:
    std::string _blockPath(const std::string& name) const;
    std::string _attribute(const std::string& path) const;

    std::string _sysfsRoot;
};
