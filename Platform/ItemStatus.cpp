#include "Platform/ItemStatus.h"

#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include "Platform/Acl.h"

namespace platform::fs {

std::optional<ItemStatus> itemStatus(const std::string& path) {
    struct stat st {};
    if (path.empty() || lstat(path.c_str(), &st) != 0) return std::nullopt;
    ItemStatus s;
    s.mode = st.st_mode;
    s.uid = st.st_uid;
    s.gid = st.st_gid;
    s.modificationTime = st.st_mtim.tv_sec;
    s.size = uint64_t(st.st_size);
    s.deviceMajor = major(st.st_rdev);
    s.deviceMinor = minor(st.st_rdev);
    return s;
}

namespace {
bool isStoredACL(std::string_view name) {
    return name == "system.posix_acl_access" || name == "system.posix_acl_default";
}

bool hasExtendedAttributes(const std::string& path) {
    ssize_t size = llistxattr(path.c_str(), nullptr, 0);
    if (size <= 0) return false;
    std::vector<char> names(size_t(size) + 1);
    size = llistxattr(path.c_str(), names.data(), names.size());
    if (size <= 0) return false;
    for (ssize_t at = 0; at < size;) {
        std::string_view name(names.data() + at);
        if (!name.empty() && !isStoredACL(name)) return true;
        at += ssize_t(name.size()) + 1;
    }
    return false;
}
}  // namespace

bool hasCopyableMetadata(const std::string& path, bool includeACLs) {
    struct stat st {};
    if (path.empty() || lstat(path.c_str(), &st) != 0) return false;
    if (hasExtendedAttributes(path)) return true;
    return includeACLs && acl::hasExtendedACL(path);
}

}  // namespace platform::fs
