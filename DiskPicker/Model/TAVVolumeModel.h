// The volumes an installation may target, grouped by disk: what the disk picker's
// views, the `ferryhold volumes` command and their tests show.
//
// Volumes are the mounted file systems backed by a block device (pseudo, virtual and
// network file systems left out, and a device mounted twice counted once), read from
// the mount table through the platform's libmount reader; their disks as sysfs shows
// them. Given a target release, the reapable size of each volume holding an installed
// system is worked out in the background (TAVReapableSizer) and the volume judged
// again when it arrives (TAVVolumeEligibility).
//
// Thread-safe: the accessors answer copies, taken under the model's lock.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "DiskPicker/Model/TAVDisk.h"
#include "DiskPicker/Model/TAVVolumeEligibility.h"
#include "Platform/Error.h"

class TAVReapableSizer;

struct TAVVolumeModelOptions {
    std::string mountInfoPath;  // a file in the format of /proc/self/mountinfo
    std::string sysfsRoot;      // stands for /sys
    TAVInstallRequest request;

    // FERRYHOLD_MOUNTINFO (else /proc/self/mountinfo) and FERRYHOLD_SYSFS (else /sys).
    static TAVVolumeModelOptions fromEnvironment();
};

class TAVVolumeModel {
public:
    // Called after a volume changed (its reapable size arrived, or its analysis was
    // cancelled), on the thread that changed it: a view hands it on to its own thread.
    using Observer = std::function<void(const TAVVolume& volume)>;

    // The model of the mount table the options name; null when the table cannot be read,
    // with `error` naming it and why.
    static std::shared_ptr<TAVVolumeModel> modelWithOptions(const TAVVolumeModelOptions& options,
                                                            platform::Error* error = nullptr);
    // A model of the disks given, judged for the request (for hosts that know their
    // volumes otherwise, and for tests of the views). Indexes are renumbered.
    static std::shared_ptr<TAVVolumeModel> modelWithDisks(std::vector<TAVDisk> disks, const TAVInstallRequest& request);

    // Cancels the analyses and waits for their threads.
    ~TAVVolumeModel();
    TAVVolumeModel(const TAVVolumeModel&) = delete;
    TAVVolumeModel& operator=(const TAVVolumeModel&) = delete;

    const TAVInstallRequest& request() const { return _request; }
    std::vector<TAVDisk> disks() const;
    size_t volumeCount() const;
    // The volume at `index` (see TAVVolume::index); absent past the end.
    std::optional<TAVVolume> volumeAtIndex(size_t index) const;
    // How many of the volumes whose reapable size was asked for have it (or were cancelled).
    size_t sizedVolumeCount() const;
    size_t sizingVolumeCount() const;

    // Adds an observer (before startSizing, to hear of every volume); it must not destroy
    // the model. Answers a token for removeObserver.
    size_t addObserver(Observer observer);
    // After it returns the observer is not called again (it waits for a call under way,
    // so it must not be called from an observer).
    void removeObserver(size_t token);
    // Starts the analyses of the volumes whose sizing is pending. Nothing without a target.
    void startSizing();
    // Cancels every analysis not yet finished; any thread.
    void cancel();
    // Waits until no analysis is pending and the observer has been told of each.
    void waitUntilSized() const;

    // Records the outcome of a volume's analysis and judges it again, then tells the
    // observer. The sizers call it; a host that works sizes out otherwise may too.
    void reapableSizeDidArrive(size_t index, std::optional<uint64_t> size, bool cancelled);

private:
    TAVVolumeModel() = default;
    void _index();
    TAVVolume* _volume(size_t index);

    TAVInstallRequest _request;
    mutable std::mutex _lock;
    mutable std::condition_variable _sized;
    std::vector<TAVDisk> _disks;
    std::vector<std::pair<size_t, Observer>> _observers;
    size_t _nextObserverToken = 1;
    int _telling = 0;  // observer calls under way
    std::condition_variable _told;
    std::vector<std::unique_ptr<TAVReapableSizer>> _sizers;
};
