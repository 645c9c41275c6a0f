#include "Platform/ItemStatus.h"

#include <string_view>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#include <acl/libacl.h>

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

std::optional<std::string> linkDestination(const std::string& path) {
    std::string buf(256, '\0');
    for (;;) {
        ssize_t n = readlink(path.c_str(), buf.data(), buf.size());
        if (n < 0) return std::nullopt;
        if (size_t(n) < buf.size()) {
            buf.resize(size_t(n));
            return buf;
        }
        buf.resize(buf.size() * 2);
    }
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

bool hasExtendedACL(const std::string& path) {
    acl_t acl = acl_get_file(path.c_str(), ACL_TYPE_ACCESS);
    if (!acl) return false;
    bool extended = acl_equiv_mode(acl, nullptr) == 1;
    acl_free(acl);
    return extended;
}
}  // namespace

bool hasCopyableMetadata(const std::string& path, bool includeACLs) {
    struct stat st {};
    if (path.empty() || lstat(path.c_str(), &st) != 0) return false;
    if (hasExtendedAttributes(path)) return true;
    // acl_get_file follows links, and links carry no ACL of their own here.
    return includeACLs && !S_ISLNK(st.st_mode) && hasExtendedACL(path);
}

}  // namespace platform::fs
