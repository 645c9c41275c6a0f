// One item of a bill of materials, as the BOM store hands it out and takes it in.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace crateworks::bom {

// Type codes of the BOM file format.
enum EntryType : uint8_t {
    kEntryUnknown = 0,
    kEntryFile = 1,
    kEntryDirectory = 2,
    kEntrySymbolicLink = 3,
    kEntryDevice = 4,
};

struct BOMEntry {
    uint8_t type = kEntryUnknown;
    uint16_t architecture = 3;
    uint16_t mode = 0;  // type bits and permission bits, as st_mode
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint32_t modificationTime = 0;  // seconds since 1970-01-01 UTC
    uint64_t size = 0;
    // Checksum of a file's contents or a link's target; the device number of a device.
    uint32_t checksum = 0;
    std::optional<std::string> linkTarget;
    std::string pathName;   // the stored form: "." or "./usr/bin/ls"
    std::string shortName;  // the last component: "." or "ls"
};

// A fresh entry of the type, with matching type bits and permissions 0755 for a
// directory, 0644 otherwise.
BOMEntry newEntry(uint8_t type);

// An entry describing the item at `path` (a final link not followed): type, mode, ids,
// modification time, size and the link's target. With `allData`, the checksum of a
// file's contents or a link's target is computed too. Absent when the item cannot be
// read. The path name is left empty for the caller to set.
std::optional<BOMEntry> entryFromFile(const std::string& path, bool allData);

}  // namespace crateworks::bom
