#include "support/DiskPickerFixture.h"

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

namespace fs = std::filesystem;

namespace testsupport {

namespace {

// Three system receipts, as the analysis wants them, for an installed release.
std::string systemDescription(const std::string& version) {
    return "system " + version + R"(
package com.quarn.pkg.BaseSystem version=)" + version + R"( groups=com.quarn.FindSystemFiles.pkg-group
    dir /System/Library/CoreServices
    file /System/Library/CoreServices/boot.efi size=60000 fill
    file /sbin/launchd size=20000 fill
package com.quarn.pkg.Essentials version=)" + version + R"( groups=com.quarn.FindSystemFiles.pkg-group
    file /bin/ls size=10000 fill
    file /usr/bin/awk size=3000
package com.quarn.pkg.BSD version=)" + version + R"( groups=com.quarn.FindSystemFiles.pkg-group
    file /usr/lib/libc.dylib size=50000 fill
    generate 40 /usr/share/man fanout=10
user alice uid=501 gid=20
file /Users/alice/Documents/notes.txt text="mine\n" owner=501 group=20
)";
}

struct FixtureVolume {
    const char* folder;
    const char* kernelName;
    const char* system;  // empty: none
    bool readOnly;
};

constexpr FixtureVolume kVolumes[] = {
    {"System", "vfa1", "10.6.8", false}, {"Locked", "vfa2", "10.6.8", true}, {"Empty", "vfb1", "", false},
    {"Newer", "vfb2", "10.8", false},    {"Spare", "vfc", "10.5.8", false},
};

void link(const std::string& target, const std::string& at) {
    fs::create_directories(fs::path(at).parent_path());
    fs::create_symlink(target, at);
}

}  // namespace

DiskPickerFixture::DiskPickerFixture(std::string dir) : dir_(std::move(dir)) {
    fs::create_directories(dir_);
    _buildVolumes();
    _writeSysfs();
    _writeLabelledImage(dir_ + "/dev/vfb2", "Archive");
    _writeMountInfo();
}

const std::vector<std::string>& DiskPickerFixture::volumeNames() {
    static const std::vector<std::string> names{"System", "Locked", "Empty", "Newer", "Spare"};
    return names;
}

std::string DiskPickerFixture::environment() const {
    return "FERRYHOLD_MOUNTINFO=" + shellQuote(mountInfo()) + " FERRYHOLD_SYSFS=" + shellQuote(sysfs());
}

void DiskPickerFixture::_buildVolumes() const {
    for (const auto& v : kVolumes) {
        VolumeBuilder volume(mountPoint(v.folder));
        if (*v.system) volume.load(systemDescription(v.system), v.folder);
        else volume.file("/Users/Shared/readme.txt", 0, {.text = "nothing installed here\n"});
        volume.build();
    }
}

void DiskPickerFixture::_writeSysfs() const {
    std::string devices = sysfs() + "/devices/virtual/block";
    auto disk = [&](const std::string& name, uint64_t sectors, const char* model) {
        writeFile(devices + "/" + name + "/size", std::to_string(sectors) + "\n");
        if (model) writeFile(devices + "/" + name + "/device/model", model);
        link("../../devices/virtual/block/" + name, sysfs() + "/class/block/" + name);
    };
    auto partition = [&](const std::string& diskName, const std::string& name, int number) {
        writeFile(devices + "/" + diskName + "/" + name + "/partition", std::to_string(number) + "\n");
        writeFile(devices + "/" + diskName + "/" + name + "/size", "1024\n");
        link("../../devices/virtual/block/" + diskName + "/" + name, sysfs() + "/class/block/" + name);
    };
    disk("vfa", 2097152, "  Fixture Disk A  \n");
    partition("vfa", "vfa1", 1);
    partition("vfa", "vfa2", 2);
    disk("vfb", 4194304, nullptr);
    partition("vfb", "vfb1", 1);
    partition("vfb", "vfb2", 2);
    disk("vfc", 1048576, nullptr);
}

// An ext2 superblock, enough for a prober to name the file system and its label.
void DiskPickerFixture::_writeLabelledImage(const std::string& path, const std::string& label) const {
    std::string image(65536, '\0');
    auto put32 = [&](size_t offset, uint32_t v) { std::memcpy(&image[1024 + offset], &v, 4); };
    auto put16 = [&](size_t offset, uint16_t v) { std::memcpy(&image[1024 + offset], &v, 2); };
    put32(0, 16);       // inodes
    put32(4, 64);       // blocks of 1 KiB
    put32(32, 8192);    // blocks per group
    put32(40, 16);      // inodes per group
    put16(56, 0xEF53);  // magic
    put16(58, 1);       // clean
    put32(76, 1);       // dynamic revision
    put32(84, 11);      // first inode
    put16(88, 128);     // inode size
    for (int i = 0; i < 16; ++i) image[1024 + 104 + i] = char(i + 1);  // UUID
    std::memcpy(&image[1024 + 120], label.data(), std::min<size_t>(label.size(), 16));
    writeFile(path, image);
}

void DiskPickerFixture::_writeMountInfo() const {
    std::string table =
        "22 1 0:21 / /proc rw,nosuid,nodev,noexec,relatime shared:5 - proc proc rw\n"
        "23 1 0:22 / /sys rw,nosuid,nodev,noexec,relatime shared:6 - sysfs sysfs rw\n"
        "24 1 0:23 / " + dir_ + "/tmp rw,relatime - tmpfs tmpfs rw,size=1024k\n";
    int id = 30;
    int minor = 1;
    for (const auto& v : kVolumes) {
        std::string source = std::string(v.kernelName) == "vfb2" ? dir_ + "/dev/vfb2" : "/dev/" + std::string(v.kernelName);
        std::string options = v.readOnly ? "ro,relatime" : "rw,relatime";
        table += std::to_string(id++) + " 1 254:" + std::to_string(minor++) + " / " + mountPoint(v.folder) + " " +
                 options + " - ext4 " + source + " " + (v.readOnly ? "ro" : "rw") + "\n";
    }
    // The same device a second time, a file mounted onto a file, and a network share.
    writeFile(dir_ + "/again/.keep", "");
    writeFile(dir_ + "/hostname", "fixture\n");
    table += "40 1 254:1 / " + dir_ + "/again rw,relatime - ext4 /dev/vfa1 rw\n";
    table += "41 1 254:9 /etc/hostname " + dir_ + "/hostname rw,relatime - ext4 /dev/vfd1 rw\n";
    table += "42 1 0:40 / " + dir_ + " rw,relatime - nfs4 server:/export rw,addr=10.0.0.1\n";
    writeFile(mountInfo(), table);
}

}  // namespace testsupport
