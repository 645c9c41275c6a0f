#include "DiskPicker/Model/TAVVolumeEligibility.h"

#include <fmt/format.h>

#include "DiskPicker/Model/TAVByteCountFormatter.h"
#include "Platform/Strings.h"

namespace {

std::string bytes(uint64_t count) { return TAVByteCountFormatter::stringFromByteCount(count); }

std::optional<std::string> reasonAgainst(const TAVVolume& volume, const TAVInstallRequest& request) {
    if (volume.readOnly) return "The volume is mounted read-only.";
    if (!volume.installedVersion) return "No installed system was found on this volume.";
    if (request.targetVersion && platform::str::numericCompare(*volume.installedVersion, *request.targetVersion) >= 0)
        return fmt::format("The installed system ({}) is not older than {}.", *volume.installedVersion,
                           *request.targetVersion);
    if (!request.requiredSize) return std::nullopt;
    uint64_t reapable = volume.reapableSize.value_or(0);
    uint64_t available = volume.freeSize + reapable;
    if (available < volume.freeSize) available = UINT64_MAX;  // cannot wrap: more than any need
    if (available >= *request.requiredSize) return std::nullopt;
    if (volume.sizing == TAVSizingState::Pending) return "Still working out how much space the installation frees.";
    return fmt::format("Not enough space: {} free and {} reapable, {} required.", bytes(volume.freeSize),
                       bytes(reapable), bytes(*request.requiredSize));
}

}  // namespace

void TAVVolumeEligibility::judgeVolume(TAVVolume& volume, const TAVInstallRequest& request) {
    volume.message = reasonAgainst(volume, request);
    volume.eligible = !volume.message;
    volume.warning.reset();
    if (volume.eligible && request.targetVersion && volume.sizing == TAVSizingState::Done && !volume.reapableSize)
        volume.warning = "The space the installation frees could not be worked out.";
}
