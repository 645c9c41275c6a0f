#include "DiskPicker/Model/TAVDiskTopology.h"

#include <cstdlib>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace path = platform::path;

namespace {

constexpr uint64_t kSectorSize = 512;

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

TAVDiskTopology::TAVDiskTopology(std::string sysfsRoot) : _sysfsRoot(std::move(sysfsRoot)) {}

std::string TAVDiskTopology::defaultSysfsRoot() {
    const char* root = std::getenv("FERRYHOLD_SYSFS");
    return root && *root ? root : "/sys";
}

std::string TAVDiskTopology::_blockPath(const std::string& name) const {
    return path::appendComponent(path::appendComponent(_sysfsRoot, "class/block"), name);
}

// Attributes are short text files; one that cannot be read counts as empty.
std::string TAVDiskTopology::_attribute(const std::string& file) const {
    auto bytes = platform::fs::readRegularFile(file);
    if (!bytes || bytes->size() > 4096) return {};
    return trimmed(std::string(bytes->begin(), bytes->end()));
}

std::string TAVDiskTopology::diskOfDevice(const std::string& kernelName) const {
    // A name that could climb out of the class directory is nobody's partition.
    if (kernelName.empty() || kernelName.find('/') != std::string::npos || kernelName == "." || kernelName == "..")
        return kernelName;
    std::string device = _blockPath(kernelName);
    if (!platform::fs::exists(path::appendComponent(device, "partition"))) return kernelName;
    auto resolved = platform::fs::resolvedPath(device);
    if (!resolved) return kernelName;
    std::string disk = path::lastComponent(path::deletingLastComponent(*resolved));
    return disk.empty() ? kernelName : disk;
}

uint64_t TAVDiskTopology::diskSize(const std::string& disk) const {
    std::string sectors = _attribute(path::appendComponent(_blockPath(disk), "size"));
    if (sectors.empty() || sectors.find_first_not_of("0123456789") != std::string::npos || sectors.size() > 16)
        return 0;
    return std::strtoull(sectors.c_str(), nullptr, 10) * kSectorSize;
}

std::string TAVDiskTopology::diskName(const std::string& disk) const {
    std::string model = _attribute(path::appendComponent(_blockPath(disk), "device/model"));
    return model.empty() ? disk : model;
}
