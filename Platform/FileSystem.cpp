#include "Platform/FileSystem.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <mutex>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <unordered_map>

#include "Platform/File.h"
#include "Platform/FileDetail.h"
#include "Platform/Path.h"

namespace platform::fs {

Error posixError(int code, const std::string& path) {
    Dictionary info;
    info.set(kErrorDescriptionKey, path.empty() ? std::string(strerror(code)) : path + ": " + strerror(code));
    if (!path.empty()) info.set(kFilePathErrorKey, path);
    return Error{kPOSIXErrorDomain, code, std::move(info)};
}

Error posixError(int code, const std::string& path, const std::string& reason) {
    Error error = posixError(code, path);
    error.userInfo.set(kFailureReasonKey, reason);
    error.userInfo.set(kErrorDescriptionKey, path.empty() ? reason : path + ": " + reason);
    return error;
}

namespace {
bool fail(Error* error, const std::string& path, int code = errno) {
    if (error) *error = posixError(code, path);
    return false;
}
}  // namespace

const char* fileTypeForMode(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG: return kFileTypeRegular;
    case S_IFDIR: return kFileTypeDirectory;
    case S_IFLNK: return kFileTypeSymbolicLink;
    case S_IFSOCK: return kFileTypeSocket;
    case S_IFCHR: return kFileTypeCharacterSpecial;
    case S_IFBLK: return kFileTypeBlockSpecial;
    default: return kFileTypeUnknown;
    }
}

std::optional<Dictionary> attributes(const std::string& path, Error* error) {
    struct statx sx {};
    if (path.empty() || statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) {
        fail(error, path, path.empty() ? ENOENT : errno);
        return std::nullopt;
    }
    return detail::attributesFromStatx(sx);
}

std::optional<Data> readRegularFileNoFollow(const std::string& path, Dictionary* attributes) {
    auto file = File::open(path, {.followFinalLink = false, .nonBlocking = true});
    if (!file) return std::nullopt;
    struct statx sx {};
    if (statx(file->descriptor(), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) return std::nullopt;
    if (!S_ISREG(sx.stx_mode)) return std::nullopt;
    auto out = file->readToEnd();
    if (out && attributes) *attributes = detail::attributesFromStatx(sx);
    return out;
}

const char* fileType(const std::string& path) {
    struct stat st {};
    if (path.empty() || lstat(path.c_str(), &st) != 0) return nullptr;
    return fileTypeForMode(st.st_mode);
}

std::optional<std::string> resolvedPath(const std::string& path) {
    if (path.empty()) return std::nullopt;
    std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
    if (!resolved) return std::nullopt;
    return std::string(resolved.get());
}

bool isDirectoryNoFollow(const std::string& path) {
    struct stat st {};
    return !path.empty() && lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string& path, bool* isDirectory) {
    struct stat st {};
    if (path.empty() || stat(path.c_str(), &st) != 0) return false;
    if (isDirectory) *isDirectory = S_ISDIR(st.st_mode);
    return true;
}

bool existsNoFollow(const std::string& path) {
    struct stat st {};
    return !path.empty() && lstat(path.c_str(), &st) == 0;
}

std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path, Error* error) {
    DIR* dir = opendir(path.c_str());
    if (!dir) {
        fail(error, path);
        return std::nullopt;
    }
    std::vector<std::string> names;
    while (struct dirent* e = readdir(dir)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        names.emplace_back(e->d_name);
    }
    closedir(dir);
    return names;
}

std::optional<Data> readFile(const std::string& path, Error* error) {
    auto file = File::open(path, {.regularFile = true}, error);
    if (!file) return std::nullopt;
    return file->readToEnd(error);
}

std::optional<Data> readRegularFile(const std::string& path, Error* error) {
    auto file = File::open(path, {.regularFile = true}, error);
    if (!file) return std::nullopt;
    return file->readToEnd(error);
}

bool writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes, Error* error) {
    static std::atomic<unsigned> counter{0};
    std::string dir = path::deletingLastComponent(path);
    std::string temp = path::appendComponent(dir.empty() ? "." : dir,
                                             "." + path::lastComponent(path) + ".tmp." + std::to_string(getpid()) +
                                                 "." + std::to_string(counter++));
    // Failures name the file asked for, not the scratch name nobody will see.
    Error scratchError;
    auto file = File::open(temp,
                           {.access = OpenOptions::Access::Write, .create = true, .exclusive = true,
                            .followFinalLink = false, .mode = 0666},
                           &scratchError);
    if (!file) return fail(error, path, int(scratchError.code));
    if (!file->writeAll(bytes, &scratchError) || !file->close(&scratchError)) {
        unlink(temp.c_str());
        return fail(error, path, int(scratchError.code));
    }
    // rename replaces a symbolic link at `path` itself rather than writing through it.
    if (rename(temp.c_str(), path.c_str()) != 0) {
        int saved = errno;
        unlink(temp.c_str());
        return fail(error, path, saved);
    }
    return true;
}

bool removeItem(const std::string& path, Error* error) {
    if (unlink(path.c_str()) == 0) return true;
    if (errno == EISDIR || errno == EPERM) {
        if (rmdir(path.c_str()) == 0) return true;
    }
    return fail(error, path);
}

bool moveItem(const std::string& from, const std::string& to, Error* error) {
    if (rename(from.c_str(), to.c_str()) == 0) return true;
    return fail(error, to);
}

bool isRegularFile(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::optional<uint64_t> fileSize(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return std::nullopt;
    return uint64_t(st.st_size);
}

std::optional<Date> modificationDateFollowingLinks(const std::string& path) {
    struct stat st {};
    if (path.empty() || stat(path.c_str(), &st) != 0) return std::nullopt;
    return Date{double(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9};
}

bool readInChunks(const std::string& path, size_t chunkSize,
                  const std::function<bool(std::span<const uint8_t> chunk)>& consume, Error* error) {
    // Only a regular file is read: a FIFO or a device planted where a checksum is taken
    // would otherwise block or never end.
    auto file = File::open(path, {.regularFile = true}, error);
    if (!file) return false;
    posix_fadvise(file->descriptor(), 0, 0, POSIX_FADV_SEQUENTIAL);
    std::vector<uint8_t> buffer(std::max<size_t>(chunkSize, 1));
    for (;;) {
        auto n = file->read(buffer, error);
        if (!n) return false;
        if (*n == 0 || !consume(std::span<const uint8_t>(buffer.data(), *n))) return true;
    }
}

bool createDirectories(const std::string& path, mode_t mode, Error* error) {
    if (path.empty()) return fail(error, path, ENOENT);
    bool isDir = false;
    if (exists(path, &isDir)) return isDir ? true : fail(error, path, EEXIST);
    std::string parent = path::deletingLastComponent(path);
    if (!parent.empty() && parent != path && !createDirectories(parent, mode, error)) return false;
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return fail(error, path);
    return true;
}

bool setOwner(const std::string& path, uid_t uid, gid_t gid, Error* error) {
    if (lchown(path.c_str(), uid, gid) != 0) return fail(error, path);
    return true;
}

std::optional<FileSystemSize> fileSystemSize(const std::string& path) {
    struct statvfs sv {};
    if (statvfs(path.c_str(), &sv) != 0) return std::nullopt;
    return FileSystemSize{uint64_t(sv.f_blocks) * sv.f_frsize, uint64_t(sv.f_bavail) * sv.f_frsize};
}

namespace {
std::mutex uidMutex;
std::optional<uid_t> uidOverride;
}  // namespace

uid_t realUserID() {
    std::lock_guard lock(uidMutex);
    return uidOverride ? *uidOverride : getuid();
}

void setRealUserIDOverride(std::optional<uid_t> uid) {
    std::lock_guard lock(uidMutex);
    uidOverride = uid;
}

namespace {
// Account names are looked up once per id: walks ask for them for every item.
template <typename Lookup>
std::optional<std::string> cachedName(std::unordered_map<unsigned, std::optional<std::string>>& cache, unsigned id,
                                      Lookup lookup) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    auto it = cache.find(id);
    if (it != cache.end()) return it->second;
    return cache[id] = lookup(id);
}
std::unordered_map<unsigned, std::optional<std::string>> userNames, groupNames;
}  // namespace

std::optional<std::string> userName(uid_t uid) {
    return cachedName(userNames, uid, [](unsigned id) -> std::optional<std::string> {
        struct passwd pw {};
        struct passwd* result = nullptr;
        char buf[4096];
        if (getpwuid_r(id, &pw, buf, sizeof buf, &result) != 0 || !result) return std::nullopt;
        return std::string(pw.pw_name);
    });
}

std::optional<std::string> groupName(gid_t gid) {
    return cachedName(groupNames, gid, [](unsigned id) -> std::optional<std::string> {
        struct group gr {};
        struct group* result = nullptr;
        char buf[4096];
        if (getgrgid_r(id, &gr, buf, sizeof buf, &result) != 0 || !result) return std::nullopt;
        return std::string(gr.gr_name);
    });
}

}  // namespace platform::fs
