// The disk picker's model on a fixture machine: which mounts are volumes, how they group
// into disks, their names, sizes and versions, the reapable sizes against the reaper's,
// eligibility with its messages, and cancelling the analyses.
#include <gtest/gtest.h>

#include <atomic>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "DiskPicker/Model/TAVByteCountFormatter.h"
#include "DiskPicker/Model/TAVVolumeModel.h"
#include "Platform/PropertyList.h"
#include "support/DiskPickerFixture.h"
#include "support/FrameworkFixture.h"
#include "support/TempDir.h"

using namespace testsupport;

namespace {

class VolumeModelTest : public ::testing::Test {
protected:
    void SetUp() override {
        bundle.setEmptyRuleData();
    }

    std::shared_ptr<TAVVolumeModel> model(TAVInstallRequest request = {}, platform::Error* error = nullptr) {
        TAVVolumeModelOptions options{fixture.mountInfo(), fixture.sysfs(), std::move(request)};
        return TAVVolumeModel::modelWithOptions(options, error);
    }

    // The volume mounted at the fixture's folder `name`.
    static const TAVVolume& volumeNamed(const std::vector<TAVDisk>& disks, const std::string& mountPoint) {
        for (const auto& disk : disks)
            for (const auto& volume : disk.volumes)
                if (volume.mountPoint == mountPoint) return volume;
        throw std::runtime_error("no volume at " + mountPoint);
    }

    // What the reaper binary prints as "ReapableSize" for the root and target.
    std::optional<uint64_t> reaperSize(const std::string& root, const std::string& target) {
        int status = -1;
        std::string out = runCommand("env FERRYHOLD_FRAMEWORK_PATH=" + shellQuote(bundle.path()) + " " +
                                         shellQuote(std::string(FERRYHOLD_BINARY_DIR) + "/reaper") + " " +
                                         shellQuote(root) + " " + shellQuote(target) + " 2>/dev/null",
                                     &status);
        if (status != 0) return std::nullopt;
        platform::Data bytes(out.begin(), out.end());
        auto document = platform::plist::readBytes(bytes);
        const platform::Dictionary* answer = document ? document->dictionary() : nullptr;
        const platform::Value* size = answer ? answer->find("ReapableSize") : nullptr;
        if (!size) return std::nullopt;
        return size->unsignedInteger();
    }

    FrameworkFixture bundle;
    TempDir dir;
    DiskPickerFixture fixture{dir / "machine"};
};

TEST_F(VolumeModelTest, MountsThatAreVolumesGroupedByTheirDisks) {
    platform::Error error;
    auto volumes = model({}, &error);
    ASSERT_TRUE(volumes) << error.description();
    auto disks = volumes->disks();
    ASSERT_EQ(3u, disks.size());

    // Proc, sysfs, tmpfs, the network share, the second mount of vfa1 and the file
    // mounted onto a file are left out; the rest keep the table's order.
    EXPECT_EQ("vfa", disks[0].kernelName);
    EXPECT_EQ("Fixture Disk A", disks[0].name);  // the model, blanks trimmed
    EXPECT_EQ("/dev/vfa", disks[0].device);
    EXPECT_EQ(2097152ull * 512, disks[0].size);
    EXPECT_EQ("vfb", disks[1].name);  // no model: the kernel name
    EXPECT_EQ(4194304ull * 512, disks[1].size);
    EXPECT_EQ("vfc", disks[2].kernelName);  // no partition file: a disk of its own
    EXPECT_EQ(1048576ull * 512, disks[2].size);

    std::vector<std::vector<std::string>> mountPoints;
    for (const auto& disk : disks) {
        mountPoints.emplace_back();
        for (const auto& volume : disk.volumes) mountPoints.back().push_back(volume.mountPoint);
    }
    EXPECT_EQ((std::vector<std::vector<std::string>>{
                  {fixture.mountPoint("System"), fixture.mountPoint("Locked")},
                  {fixture.mountPoint("Empty"), fixture.mountPoint("Newer")},
                  {fixture.mountPoint("Spare")}}),
              mountPoints);
    EXPECT_EQ(5u, volumes->volumeCount());
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(i, volumes->volumeAtIndex(i)->index);
    EXPECT_FALSE(volumes->volumeAtIndex(5));
}

TEST_F(VolumeModelTest, NamesDevicesVersionsAndSizes) {
    auto disks = model()->disks();
    const TAVVolume& system = volumeNamed(disks, fixture.mountPoint("System"));
    // /dev/vfa1 cannot be read here: the mount point's last component names it.
    EXPECT_EQ("System", system.name);
    EXPECT_EQ("/dev/vfa1", system.device);
    EXPECT_EQ("vfa1", system.kernelName);
    EXPECT_EQ("ext4", system.fileSystem);
    EXPECT_EQ("Fixture Disk A", system.diskName);
    EXPECT_EQ("10.6.8", system.installedVersion);
    EXPECT_FALSE(system.readOnly);
    // The image file behind vfb2 holds a labelled file system: the label names it.
    const TAVVolume& newer = volumeNamed(disks, fixture.mountPoint("Newer"));
    EXPECT_EQ("Archive", newer.name);
    EXPECT_EQ("vfb2", newer.kernelName);
    EXPECT_EQ("10.8", newer.installedVersion);
    EXPECT_TRUE(volumeNamed(disks, fixture.mountPoint("Locked")).readOnly);
    EXPECT_FALSE(volumeNamed(disks, fixture.mountPoint("Empty")).installedVersion);

    // Sizes as statvfs gives them, in units of f_frsize. The free size moves as other
    // programs write to the same file system, so it is held to a band around statvfs's.
    struct statvfs sv {};
    ASSERT_EQ(0, statvfs(system.mountPoint.c_str(), &sv));
    EXPECT_EQ(uint64_t(sv.f_blocks) * sv.f_frsize, system.size);
    uint64_t freeNow = uint64_t(sv.f_bavail) * sv.f_frsize;
    EXPECT_NEAR(double(freeNow), double(system.freeSize), double(256u << 20));
    EXPECT_LE(system.freeSize, system.size);
}

TEST_F(VolumeModelTest, ReapableSizesAreTheReapersAndJudgeEligibility) {
    auto volumes = model({"10.7", std::nullopt});
    std::atomic<int> told{0};
    volumes->addObserver([&](const TAVVolume& volume) {
        EXPECT_NE(TAVSizingState::Pending, volume.sizing);
        ++told;
    });
    // Only volumes with an installed system are analysed.
    EXPECT_EQ(4u, volumes->sizingVolumeCount());
    volumes->startSizing();
    volumes->waitUntilSized();
    EXPECT_EQ(4, told.load());
    EXPECT_EQ(4u, volumes->sizedVolumeCount());

    auto disks = volumes->disks();
    for (const char* name : {"System", "Locked", "Newer", "Spare"}) {
        const TAVVolume& volume = volumeNamed(disks, fixture.mountPoint(name));
        EXPECT_EQ(TAVSizingState::Done, volume.sizing) << name;
        ASSERT_TRUE(volume.reapableSize) << name;
        EXPECT_GT(*volume.reapableSize, 60000u) << name;  // at least boot.efi's bytes
        EXPECT_EQ(reaperSize(volume.mountPoint, "10.7"), volume.reapableSize) << name;
    }
    EXPECT_EQ(TAVSizingState::NotRequested, volumeNamed(disks, fixture.mountPoint("Empty")).sizing);

    auto verdict = [&](const char* name) {
        const TAVVolume& v = volumeNamed(disks, fixture.mountPoint(name));
        return std::make_pair(v.eligible, v.message.value_or(""));
    };
    EXPECT_EQ(std::make_pair(true, std::string()), verdict("System"));
    EXPECT_EQ(std::make_pair(true, std::string()), verdict("Spare"));
    EXPECT_EQ(std::make_pair(false, std::string("The volume is mounted read-only.")), verdict("Locked"));
    EXPECT_EQ(std::make_pair(false, std::string("No installed system was found on this volume.")), verdict("Empty"));
    EXPECT_EQ(std::make_pair(false, std::string("The installed system (10.8) is not older than 10.7.")),
              verdict("Newer"));
}

TEST_F(VolumeModelTest, SpaceCountsTheFreeAndTheReapableSize) {
    // More than any disk holds: no volume has room, and the message gives the figures.
    uint64_t huge = uint64_t(1) << 60;
    auto volumes = model({"10.7", huge});
    // Before its analysis is done a volume cannot be chosen yet, for want of the figure.
    EXPECT_EQ("Still working out how much space the installation frees.",
              volumeNamed(volumes->disks(), fixture.mountPoint("System")).message);
    volumes->startSizing();
    volumes->waitUntilSized();
    const TAVVolume system = volumeNamed(volumes->disks(), fixture.mountPoint("System"));
    EXPECT_FALSE(system.eligible);
    EXPECT_EQ("Not enough space: " + TAVByteCountFormatter::stringFromByteCount(system.freeSize) + " free and " +
                  TAVByteCountFormatter::stringFromByteCount(*system.reapableSize) + " reapable, " +
                  TAVByteCountFormatter::stringFromByteCount(huge) + " required.",
              system.message);

    // Judged alone: exactly the free plus the reapable size is enough, a byte more is not.
    TAVVolume volume;
    volume.installedVersion = "10.6.8";
    volume.freeSize = 1000;
    volume.reapableSize = 500;
    volume.sizing = TAVSizingState::Done;
    TAVVolumeEligibility::judgeVolume(volume, {"10.7", 1500});
    EXPECT_TRUE(volume.eligible);
    EXPECT_FALSE(volume.message);
    TAVVolumeEligibility::judgeVolume(volume, {"10.7", 1501});
    EXPECT_EQ("Not enough space: 1 KB free and 500 bytes reapable, 1.5 KB required.", volume.message);
    // The first reason that applies is the one given.
    volume.readOnly = true;
    volume.installedVersion = "10.9";
    TAVVolumeEligibility::judgeVolume(volume, {"10.7", 1501});
    EXPECT_EQ("The volume is mounted read-only.", volume.message);
    // Versions compare numerically: 10.10 is newer than 10.9.
    volume.readOnly = false;
    volume.installedVersion = "10.9";
    TAVVolumeEligibility::judgeVolume(volume, {"10.10", std::nullopt});
    EXPECT_TRUE(volume.eligible);
    // An analysis that gave no size leaves an eligible volume with a warning.
    volume.reapableSize.reset();
    TAVVolumeEligibility::judgeVolume(volume, {"10.10", std::nullopt});
    EXPECT_TRUE(volume.eligible);
    EXPECT_TRUE(volume.warning);
}

TEST_F(VolumeModelTest, CancellingStopsTheAnalysesStillToCome) {
    auto volumes = model({"10.7", std::nullopt});
    // The analyses take turns; the first to finish cancels the rest from its own thread.
    std::atomic<int> done{0}, cancelled{0};
    volumes->addObserver([&](const TAVVolume& volume) {
        if (volume.sizing == TAVSizingState::Done && done++ == 0) volumes->cancel();
        if (volume.sizing == TAVSizingState::Cancelled) {
            ++cancelled;
            EXPECT_FALSE(volume.reapableSize);
        }
    });
    volumes->startSizing();
    volumes->waitUntilSized();
    EXPECT_EQ(1, done.load());
    EXPECT_EQ(3, cancelled.load());
    EXPECT_EQ(4u, volumes->sizedVolumeCount());

    // Cancelled before it starts, nothing is analysed; destroying a model under way
    // cancels and waits for its threads.
    auto early = model({"10.7", std::nullopt});
    early->cancel();
    early->waitUntilSized();
    for (const auto& disk : early->disks())
        for (const auto& volume : disk.volumes) EXPECT_NE(TAVSizingState::Pending, volume.sizing);
    auto dropped = model({"10.7", std::nullopt});
    dropped->startSizing();
    dropped.reset();
}

TEST_F(VolumeModelTest, AMountTableThatCannotBeReadIsAnError) {
    platform::Error error;
    TAVVolumeModelOptions options{dir / "missing", fixture.sysfs(), {}};
    EXPECT_FALSE(TAVVolumeModel::modelWithOptions(options, &error));
    EXPECT_NE(std::string::npos, error.description().find(dir / "missing")) << error.description();

    writeFile(dir / "garbled", "22 1 0:21 / /proc rw - proc proc rw\nnot a mount table line\n");
    options.mountInfoPath = dir / "garbled";
    EXPECT_FALSE(TAVVolumeModel::modelWithOptions(options, &error));
    EXPECT_NE(std::string::npos, error.description().find("line 2")) << error.description();

    writeFile(dir / "empty", "");
    options.mountInfoPath = dir / "empty";
    EXPECT_FALSE(TAVVolumeModel::modelWithOptions(options, &error));

    // A FIFO in its place is refused without blocking.
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0644));
    options.mountInfoPath = dir / "fifo";
    EXPECT_FALSE(TAVVolumeModel::modelWithOptions(options, &error));

    // A table with no volumes in it is read, and is empty.
    writeFile(dir / "pseudo", "22 1 0:21 / /proc rw - proc proc rw\n");
    options.mountInfoPath = dir / "pseudo";
    auto none = TAVVolumeModel::modelWithOptions(options, &error);
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->disks().empty());
}

TEST(ByteCountFormatter, ThreeSignificantDigitsInDecimalUnits) {
    EXPECT_EQ("0 bytes", TAVByteCountFormatter::stringFromByteCount(0));
    EXPECT_EQ("1 byte", TAVByteCountFormatter::stringFromByteCount(1));
    EXPECT_EQ("999 bytes", TAVByteCountFormatter::stringFromByteCount(999));
    EXPECT_EQ("1 KB", TAVByteCountFormatter::stringFromByteCount(1000));
    EXPECT_EQ("1.5 KB", TAVByteCountFormatter::stringFromByteCount(1500));
    EXPECT_EQ("12.3 MB", TAVByteCountFormatter::stringFromByteCount(12345678));
    EXPECT_EQ("250 GB", TAVByteCountFormatter::stringFromByteCount(250400000000));
    // 999,999 rounds up into the next unit rather than to "1000 KB".
    EXPECT_EQ("1 MB", TAVByteCountFormatter::stringFromByteCount(999999));
    EXPECT_EQ("18.4 EB", TAVByteCountFormatter::stringFromByteCount(UINT64_MAX));
}

}  // namespace
