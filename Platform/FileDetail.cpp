#include "Platform/FileDetail.h"

#include <unistd.h>

#include "Platform/FileSystem.h"

namespace platform::fs::detail {

Dictionary attributesFromStatx(const struct statx& sx) {
    auto date = [](const struct statx_timestamp& t) { return Date{double(t.tv_sec) + t.tv_nsec / 1e9}; };
    Dictionary d;
    d.set(kFileType, fileTypeForMode(sx.stx_mode));
    d.set(kFileSize, uint64_t(sx.stx_size));
    d.set(kFileCreationDate, date((sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_ctime));
    d.set(kFileModificationDate, date(sx.stx_mtime));
    d.set(kFileOwnerAccountID, uint64_t(sx.stx_uid));
    d.set(kFileGroupOwnerAccountID, uint64_t(sx.stx_gid));
    if (auto name = userName(sx.stx_uid)) d.set(kFileOwnerAccountName, *name);
    if (auto name = groupName(sx.stx_gid)) d.set(kFileGroupOwnerAccountName, *name);
    d.set(kFilePosixPermissions, uint64_t(sx.stx_mode & 07777));
    return d;
}

std::optional<std::string> readLinkAt(int directoryFd, const char* name) {
    std::string target(256, '\0');
    for (;;) {
        ssize_t n = readlinkat(directoryFd, name, target.data(), target.size());
        if (n < 0) return std::nullopt;
        if (size_t(n) < target.size()) {
            target.resize(size_t(n));
            return target;
        }
        target.resize(target.size() * 2);
    }
}

const char* kindOfMode(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG: return "a regular file";
    case S_IFDIR: return "a directory";
    case S_IFLNK: return "a symbolic link";
    case S_IFCHR: return "a character device";
    case S_IFBLK: return "a block device";
    case S_IFIFO: return "a FIFO";
    case S_IFSOCK: return "a socket";
    default: return "of an unknown type";
    }
}

}  // namespace platform::fs::detail
