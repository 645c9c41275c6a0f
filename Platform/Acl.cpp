#include "Platform/Acl.h"

#include <acl/libacl.h>
#include <cerrno>
#include <sys/acl.h>
#include <sys/stat.h>
#include <utility>

#include "Platform/FileSystem.h"

namespace platform::acl {

namespace {
struct AclHandle {
    explicit AclHandle(acl_t a = nullptr) : acl(a) {}
    AclHandle(AclHandle&& other) noexcept : acl(std::exchange(other.acl, nullptr)) {}
    AclHandle& operator=(AclHandle&&) = delete;
    ~AclHandle() {
        if (acl) acl_free(acl);
    }
    acl_t acl;
};

// The item's access ACL when it says more than the permission bits; null otherwise.
AclHandle extendedAccessACL(const std::string& path) {
    struct stat st {};
    // acl_get_file follows links, and links carry no ACL of their own here.
    if (lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) return AclHandle();
    AclHandle handle{acl_get_file(path.c_str(), ACL_TYPE_ACCESS)};
    // 0: the ACL says no more than the permission bits; 1: it has extended entries.
    if (!handle.acl || acl_equiv_mode(handle.acl, nullptr) != 1) return AclHandle();
    return handle;
}
}  // namespace

bool hasExtendedACL(const std::string& path) { return extendedAccessACL(path).acl != nullptr; }

std::optional<std::string> extendedACLText(const std::string& path) {
    AclHandle handle = extendedAccessACL(path);
    if (!handle.acl) return std::nullopt;
    char* text = acl_to_text(handle.acl, nullptr);
    if (!text) return std::nullopt;
    std::string out(text);
    acl_free(text);
    return out;
}

bool setACLText(const std::string& path, const std::string& text, Error* error) {
    AclHandle handle{acl_from_text(text.c_str())};
    if (!handle.acl) {
        if (error) *error = fs::posixError(EINVAL, path);
        return false;
    }
    if (acl_set_file(path.c_str(), ACL_TYPE_ACCESS, handle.acl) != 0) {
        if (error) *error = fs::posixError(errno, path);
        return false;
    }
    return true;
}

}  // namespace platform::acl
