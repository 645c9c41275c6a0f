// One disk and the volumes on it, as the disk picker groups them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DiskPicker/Model/TAVVolume.h"

struct TAVDisk {
    std::string kernelName;  // "sda"
    std::string name;        // the device's model, or the kernel name when it has none
    std::string device;      // "/dev/" + kernelName
    uint64_t size = 0;       // bytes (sysfs sectors × 512); 0 when sysfs does not say
    std::vector<TAVVolume> volumes;
};
