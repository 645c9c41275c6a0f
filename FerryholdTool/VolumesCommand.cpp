#include "FerryholdTool/VolumesCommand.h"

#include "DiskPicker/Model/TAVVolumeModel.h"

namespace ferryhold {

namespace {

platform::Value volumeDocument(const TAVVolume& volume) {
    platform::Dictionary entry{
        {"Name", volume.name},
        {"MountPoint", volume.mountPoint},
        {"Device", volume.device},
        {"FileSystem", volume.fileSystem},
        {"Size", volume.size},
        {"FreeSize", volume.freeSize},
        {"ReadOnly", volume.readOnly},
        {"Eligible", volume.eligible},
    };
    if (volume.installedVersion) entry.set("InstalledVersion", *volume.installedVersion);
    if (volume.reapableSize) entry.set("ReapableSize", *volume.reapableSize);
    if (volume.message) entry.set("Message", *volume.message);
    if (volume.warning) entry.set("Warning", *volume.warning);
    return platform::Value(std::move(entry));
}

}  // namespace

Outcome volumesCommand(const Invocation& call) {
    TAVVolumeModelOptions options = TAVVolumeModelOptions::fromEnvironment();
    options.request = {call.target, call.requiredSize};
    platform::Error error;
    auto model = TAVVolumeModel::modelWithOptions(options, &error);
    if (!model) return Outcome{std::nullopt, "the mount table cannot be read: " + error.description()};
    model->startSizing();
    model->waitUntilSized();

    platform::Array disks;
    for (const auto& disk : model->disks()) {
        platform::Array volumes;
        for (const auto& volume : disk.volumes) volumes.push_back(volumeDocument(volume));
        disks.push_back(platform::Value(platform::Dictionary{
            {"Name", disk.name}, {"Device", disk.device}, {"Size", disk.size}, {"Volumes", std::move(volumes)}}));
    }
    return Outcome{platform::Value(platform::Dictionary{{"Disks", std::move(disks)}}), {}};
}

}  // namespace ferryhold
