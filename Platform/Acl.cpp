#include "Platform/Acl.h"

#include <acl/libacl.h>
#include <cerrno>
#include <sys/acl.h>
#include <sys/stat.h>

#include "Platform/FileSystem.h"

namespace platform::acl {

namespace {
struct AclHandle {
    acl_t acl;
    ~AclHandle() {
        if (acl) acl_free(acl);
    }
};
}  // namespace

std::optional<std::string> extendedACLText(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) return std::nullopt;
    AclHandle handle{acl_get_file(path.c_str(), ACL_TYPE_ACCESS)};
    if (!handle.acl) return std::nullopt;
    // 0: the ACL says no more than the permission bits; 1: it has extended entries.
    if (acl_equiv_mode(handle.acl, nullptr) != 1) return std::nullopt;
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
