// What an item records about itself without following a final symbolic link: the raw
// status a bill of materials stores, and whether copying the item's metadata (extended
// attributes, optionally its access-control list) would carry anything beyond the mode
// bits. A link's destination is fs::readSymbolicLink (FileTree.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform::fs {

struct ItemStatus {
    uint32_t mode = 0;  // type bits and permission bits, as st_mode
    uint32_t uid = 0;
    uint32_t gid = 0;
    int64_t modificationTime = 0;  // seconds since 1970-01-01 UTC
    uint64_t size = 0;
    uint32_t deviceMajor = 0;  // of the device a special file stands for
    uint32_t deviceMinor = 0;
};

// lstat of the item; absent when it cannot be read.
std::optional<ItemStatus> itemStatus(const std::string& path);

// Whether packing the item's extended attributes (and, with includeACLs, an access ACL
// that says more than the mode bits) would carry anything. Links are not followed.
// Stored ACLs count only through includeACLs, never as plain extended attributes.
bool hasCopyableMetadata(const std::string& path, bool includeACLs);

}  // namespace platform::fs
