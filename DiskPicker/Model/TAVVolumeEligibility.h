// Whether a volume may be chosen for an installation, and when not, the one reason
// given for it. The reasons, first that applies: mounted read-only; no installed
// system; the installed system not older than the target; not enough space (the free
// size plus the reapable size below the size the host requires).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "DiskPicker/Model/TAVVolume.h"

struct TAVInstallRequest {
    std::optional<std::string> targetVersion;  // the release to be installed
    std::optional<uint64_t> requiredSize;      // bytes the installation needs
};

class TAVVolumeEligibility {
public:
    TAVVolumeEligibility() = delete;

    // Sets `eligible`, `message` and `warning` of the volume from its other fields. While
    // its reapable size is pending and only the space decides, it cannot be chosen yet.
    static void judgeVolume(TAVVolume& volume, const TAVInstallRequest& request);
};
