// ferryhold volumes: the disk picker's model as one document.
#pragma once

#include "FerryholdTool/Commands.h"

namespace ferryhold {

// "Disks": each disk's "Name", "Device", "Size" and "Volumes", each volume with its
// name, mount point, device, file system, sizes, read-only flag, installed version,
// reapable size (with a target) and whether it may be chosen, or why not.
Outcome volumesCommand(const Invocation& call);

}  // namespace ferryhold
