#include "DiskPicker/Model/TAVVolumeModel.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include "DiskPicker/Model/TAVDiskTopology.h"
#include "DiskPicker/Model/TAVReapableSizer.h"
#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "Platform/BlockDevice.h"
#include "Platform/FileSystem.h"
#include "Platform/MountTable.h"
#include "Platform/Path.h"

namespace path = platform::path;

namespace {

// A file system backed by a block device: its source names a device by path, it is
// neither a pseudo nor a network file system, and it is mounted on a directory (a
// file mounted onto a file is a binding, not a volume).
bool isVolume(const platform::mounts::MountEntry& entry) {
    if (!entry.sourceIsPath || entry.pseudo || entry.network) return false;
    bool directory = false;
    return platform::fs::exists(entry.mountPoint, &directory) && directory;
}

// The kernel's name for the device: the last component of the path it resolves to
// (/dev/mapper/root names dm-0), or of the path as given when it does not resolve.
std::string kernelNameOf(const std::string& device) {
    auto resolved = platform::fs::resolvedPath(device);
    return path::lastComponent(resolved ? *resolved : device);
}

TAVVolume volumeOf(const platform::mounts::MountEntry& entry, const TAVDiskTopology& topology,
                   const TAVInstallRequest& request) {
    TAVVolume volume;
    volume.mountPoint = entry.mountPoint;
    volume.device = entry.source;
    volume.kernelName = kernelNameOf(entry.source);
    volume.diskKernelName = topology.diskOfDevice(volume.kernelName);
    volume.diskName = topology.diskName(volume.diskKernelName);
    volume.fileSystem = entry.fileSystemType;
    volume.readOnly = entry.readOnly;
    std::string last = path::lastComponent(entry.mountPoint);
    volume.name = platform::blockdevice::fileSystemLabel(entry.source).value_or(last.empty() ? entry.mountPoint : last);
    if (auto space = platform::fs::fileSystemSize(entry.mountPoint)) {
        volume.size = space->totalBytes;
        volume.freeSize = space->freeBytes;
    }
    volume.installedVersion = FHPathAnalyzer::installedSystemVersion(entry.mountPoint);
    if (request.targetVersion && volume.installedVersion) volume.sizing = TAVSizingState::Pending;
    return volume;
}

// The analysis's sizer and rule caches are process-wide: the analyses of every model
// in the process take turns.
const std::shared_ptr<std::mutex>& analysisTurn() {
    static const auto turn = std::make_shared<std::mutex>();
    return turn;
}

}  // namespace

TAVVolumeModelOptions TAVVolumeModelOptions::fromEnvironment() {
    TAVVolumeModelOptions options;
    const char* table = std::getenv("FERRYHOLD_MOUNTINFO");
    options.mountInfoPath = table && *table ? table : "/proc/self/mountinfo";
    options.sysfsRoot = TAVDiskTopology::defaultSysfsRoot();
    return options;
}

std::shared_ptr<TAVVolumeModel> TAVVolumeModel::modelWithOptions(const TAVVolumeModelOptions& options,
                                                                 platform::Error* error) {
    auto entries = platform::mounts::readMountInfo(options.mountInfoPath, error);
    if (!entries) return nullptr;
    TAVDiskTopology topology(options.sysfsRoot);
    std::vector<TAVDisk> disks;
    std::set<std::string> seenDevices;
    for (const auto& entry : *entries) {
        if (!isVolume(entry) || !seenDevices.insert(entry.source).second) continue;
        TAVVolume volume = volumeOf(entry, topology, options.request);
        auto disk = std::find_if(disks.begin(), disks.end(),
                                 [&](const TAVDisk& d) { return d.kernelName == volume.diskKernelName; });
        if (disk == disks.end()) {
            disk = disks.insert(disks.end(), TAVDisk{volume.diskKernelName, volume.diskName,
                                                     "/dev/" + volume.diskKernelName,
                                                     topology.diskSize(volume.diskKernelName), {}});
        }
        disk->volumes.push_back(std::move(volume));
    }
    return modelWithDisks(std::move(disks), options.request);
}

std::shared_ptr<TAVVolumeModel> TAVVolumeModel::modelWithDisks(std::vector<TAVDisk> disks,
                                                               const TAVInstallRequest& request) {
    std::shared_ptr<TAVVolumeModel> model(new TAVVolumeModel());
    model->_request = request;
    model->_disks = std::move(disks);
    model->_index();
    return model;
}

void TAVVolumeModel::_index() {
    size_t index = 0;
    for (auto& disk : _disks) {
        for (auto& volume : disk.volumes) {
            volume.index = index++;
            volume.diskKernelName = disk.kernelName;
            volume.diskName = disk.name;
            TAVVolumeEligibility::judgeVolume(volume, _request);
        }
    }
}

TAVVolumeModel::~TAVVolumeModel() {
    cancel();
    _sizers.clear();  // each joins its thread
}

TAVVolume* TAVVolumeModel::_volume(size_t index) {
    for (auto& disk : _disks)
        for (auto& volume : disk.volumes)
            if (volume.index == index) return &volume;
    return nullptr;
}

std::vector<TAVDisk> TAVVolumeModel::disks() const {
    std::lock_guard lock(_lock);
    return _disks;
}

size_t TAVVolumeModel::volumeCount() const {
    std::lock_guard lock(_lock);
    size_t count = 0;
    for (const auto& disk : _disks) count += disk.volumes.size();
    return count;
}

std::optional<TAVVolume> TAVVolumeModel::volumeAtIndex(size_t index) const {
    std::lock_guard lock(_lock);
    if (auto* volume = const_cast<TAVVolumeModel*>(this)->_volume(index)) return *volume;
    return std::nullopt;
}

size_t TAVVolumeModel::sizedVolumeCount() const {
    std::lock_guard lock(_lock);
    size_t count = 0;
    for (const auto& disk : _disks)
        for (const auto& volume : disk.volumes)
            count += volume.sizing == TAVSizingState::Done || volume.sizing == TAVSizingState::Cancelled;
    return count;
}

size_t TAVVolumeModel::sizingVolumeCount() const {
    std::lock_guard lock(_lock);
    size_t count = 0;
    for (const auto& disk : _disks)
        for (const auto& volume : disk.volumes) count += volume.sizing != TAVSizingState::NotRequested;
    return count;
}

size_t TAVVolumeModel::addObserver(Observer observer) {
    std::lock_guard lock(_lock);
    _observers.emplace_back(_nextObserverToken, std::move(observer));
    return _nextObserverToken++;
}

void TAVVolumeModel::removeObserver(size_t token) {
    std::unique_lock lock(_lock);
    std::erase_if(_observers, [token](const auto& entry) { return entry.first == token; });
    // A call already handed out may still be running on an analysis thread.
    _told.wait(lock, [this] { return _telling == 0; });
}

void TAVVolumeModel::startSizing() {
    if (!_request.targetVersion) return;
    std::lock_guard lock(_lock);
    if (!_sizers.empty()) return;
    for (const auto& disk : _disks) {
        for (const auto& volume : disk.volumes) {
            if (volume.sizing != TAVSizingState::Pending) continue;
            size_t index = volume.index;
            _sizers.push_back(std::make_unique<TAVReapableSizer>(
                volume.mountPoint, *_request.targetVersion, analysisTurn(),
                [this, index](std::optional<uint64_t> size, bool cancelled) {
                    reapableSizeDidArrive(index, size, cancelled);
                }));
        }
    }
    for (auto& sizer : _sizers) sizer->start();
}

void TAVVolumeModel::cancel() {
    std::vector<TAVReapableSizer*> sizers;
    {
        std::lock_guard lock(_lock);
        for (auto& sizer : _sizers) sizers.push_back(sizer.get());
        // Volumes whose analysis never started are settled here; the others when their
        // sizer reports.
        if (_sizers.empty()) {
            for (auto& disk : _disks)
                for (auto& volume : disk.volumes)
                    if (volume.sizing == TAVSizingState::Pending) {
                        volume.sizing = TAVSizingState::Cancelled;
                        TAVVolumeEligibility::judgeVolume(volume, _request);
                    }
            _sized.notify_all();
        }
    }
    for (auto* sizer : sizers) sizer->cancel();
}

void TAVVolumeModel::waitUntilSized() const {
    std::unique_lock lock(_lock);
    _sized.wait(lock, [this] {
        if (_telling > 0) return false;
        for (const auto& disk : _disks)
            for (const auto& volume : disk.volumes)
                if (volume.sizing == TAVSizingState::Pending) return false;
        return true;
    });
}

void TAVVolumeModel::reapableSizeDidArrive(size_t index, std::optional<uint64_t> size, bool cancelled) {
    std::vector<Observer> observers;
    TAVVolume changed;
    {
        std::lock_guard lock(_lock);
        TAVVolume* volume = _volume(index);
        if (!volume) return;
        volume->reapableSize = size;
        volume->sizing = cancelled ? TAVSizingState::Cancelled : TAVSizingState::Done;
        TAVVolumeEligibility::judgeVolume(*volume, _request);
        changed = *volume;
        for (const auto& entry : _observers) observers.push_back(entry.second);
        ++_telling;
    }
    for (const auto& observer : observers) observer(changed);
    std::lock_guard lock(_lock);
    --_telling;
    _sized.notify_all();
    _told.notify_all();
}
