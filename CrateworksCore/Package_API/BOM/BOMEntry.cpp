#include "CrateworksCore/Package_API/BOM/BOMEntry.h"

#include <span>
#include <sys/stat.h>

#include "Platform/Checksum.h"
#include "Platform/FileTree.h"
#include "Platform/ItemStatus.h"

namespace crateworks::bom {

namespace {
uint8_t typeForMode(uint32_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG: return kEntryFile;
    case S_IFDIR: return kEntryDirectory;
    case S_IFLNK: return kEntrySymbolicLink;
    case S_IFBLK:
    case S_IFCHR: return kEntryDevice;
    default: return kEntryUnknown;
    }
}

uint16_t modeForType(uint8_t type) {
    switch (type) {
    case kEntryFile: return S_IFREG | 0644;
    case kEntryDirectory: return S_IFDIR | 0755;
    case kEntrySymbolicLink: return S_IFLNK | 0755;
    default: return 0644;
    }
}

// The traditional 32-bit device number: major in the high byte, minor below it.
uint32_t deviceNumber(const platform::fs::ItemStatus& s) { return (s.deviceMajor << 24) | (s.deviceMinor & 0xffffff); }

bool fillFileData(BOMEntry& entry, const std::string& path, const platform::fs::ItemStatus& s, bool allData) {
    switch (entry.type) {
    case kEntryFile: {
        entry.size = s.size;
        if (!allData) return true;
        auto sum = platform::checksum::ofFile(path);
        if (!sum) return false;
        entry.checksum = *sum;
        return true;
    }
    case kEntrySymbolicLink: {
        auto target = platform::fs::readSymbolicLink(path);
        if (!target) return false;
        entry.size = target->size();
        if (allData)
            entry.checksum = platform::checksum::compute(
                std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(target->data()), target->size()));
        entry.linkTarget = std::move(*target);
        return true;
    }
    case kEntryDevice: entry.checksum = deviceNumber(s); return true;
    default: return true;
    }
}
}  // namespace

BOMEntry newEntry(uint8_t type) {
    BOMEntry entry;
    entry.type = type;
    entry.mode = modeForType(type);
    return entry;
}

std::optional<BOMEntry> entryFromFile(const std::string& path, bool allData) {
    auto status = platform::fs::itemStatus(path);
    if (!status) return std::nullopt;
    BOMEntry entry;
    entry.type = typeForMode(status->mode);
    entry.mode = uint16_t(status->mode);
    entry.uid = status->uid;
    entry.gid = status->gid;
    entry.modificationTime = uint32_t(status->modificationTime);
    if (!fillFileData(entry, path, *status, allData)) return std::nullopt;
    return entry;
}

}  // namespace crateworks::bom
