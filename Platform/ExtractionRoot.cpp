#include "Platform/ExtractionRoot.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/WalkHook.h"

namespace platform {

namespace {
std::atomic<bool> gUsesOpenat2{true};
// Set once the kernel (or a sandbox in front of it) has refused openat2 itself.
std::atomic<bool> gOpenat2Missing{false};
// Temporary names are unique across every root of the process.
std::atomic<unsigned> gTemporaryCounter{0};

mode_t currentUmask() {
    static const mode_t mask = [] {
        mode_t m = umask(022);
        umask(m);
        return m;
    }();
    return mask;
}

std::pair<std::string, std::string> splitParent(const std::string& relativePath) {
    auto slash = relativePath.rfind('/');
    if (slash == std::string::npos) return {"", relativePath};
    return {relativePath.substr(0, slash), relativePath.substr(slash + 1)};
}

bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

struct timespec timespecFor(const Date& date) {
    double whole = std::floor(date.secondsSince1970);
    return {time_t(whole), long((date.secondsSince1970 - whole) * 1e9)};
}
}  // namespace

void ExtractionRoot::setUsesOpenat2(bool uses) { gUsesOpenat2 = uses; }

ExtractionRoot::ExtractionRoot(int fd, std::string path) : rootFd_(fd), path_(std::move(path)), umask_(currentUmask()) {}

std::unique_ptr<ExtractionRoot> ExtractionRoot::duplicate() const {
    int fd = fcntl(rootFd_, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    return std::unique_ptr<ExtractionRoot>(new ExtractionRoot(fd, path_));
}

std::string ExtractionRoot::_temporaryName(const std::string& name) const {
    return fmt::format(".{}.xartmp{}-{}", name.substr(0, 64), getpid(), ++gTemporaryCounter);
}

ExtractionRoot::~ExtractionRoot() {
    if (cachedFd_ >= 0) close(cachedFd_);
    close(rootFd_);
}

std::unique_ptr<ExtractionRoot> ExtractionRoot::open(const std::string& directory, bool create, Error* error) {
    if (create && !fs::exists(directory) && !fs::createDirectories(directory, 0755, error)) return nullptr;
    int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        if (error) *error = fs::posixError(errno, directory);
        return nullptr;
    }
    return std::unique_ptr<ExtractionRoot>(new ExtractionRoot(fd, directory));
}

Error ExtractionRoot::_error(int code, const std::string& relativePath) const {
    return fs::posixError(code, path::appendComponent(path_, relativePath));
}

int ExtractionRoot::_openBeneath(const std::string& relativeDirectory) const {
    if (gUsesOpenat2 && !gOpenat2Missing) {
        struct open_how how {};
        how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        int fd = int(syscall(SYS_openat2, rootFd_, relativeDirectory.c_str(), &how, sizeof how));
        // A path past PATH_MAX is walked a component at a time below.
        if (fd >= 0 || (errno != ENOSYS && errno != EPERM && errno != ENAMETOOLONG)) return fd;
        if (errno != ENAMETOOLONG) gOpenat2Missing = true;
    }
    // One component at a time, never following a link and never climbing.
    int current = dup(rootFd_);
    size_t start = 0;
    while (current >= 0 && start < relativeDirectory.size()) {
        size_t slash = relativeDirectory.find('/', start);
        if (slash == std::string::npos) slash = relativeDirectory.size();
        std::string name = relativeDirectory.substr(start, slash - start);
        start = slash + 1;
        if (!isPlainName(name)) {
            close(current);
            errno = EXDEV;
            return -1;
        }
        int next = openat(current, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        int saved = errno;
        close(current);
        errno = saved;
        current = next;
    }
    return current;
}

int ExtractionRoot::_directoryFd(const std::string& relativeDirectory) {
    if (relativeDirectory.empty()) return rootFd_;
    if (cachedFd_ >= 0 && cachedDirectory_ == relativeDirectory) return cachedFd_;
    int fd = _openBeneath(relativeDirectory);
    if (fd < 0) return -1;
    if (cachedFd_ >= 0) close(cachedFd_);
    cachedFd_ = fd;
    cachedDirectory_ = relativeDirectory;
    return fd;
}

bool ExtractionRoot::makeDirectory(const std::string& relativePath, mode_t mode, Error* error) {
    fs::detail::walkReached(relativePath);
    if (relativePath.empty()) return true;
    auto [parent, name] = splitParent(relativePath);
    if (!isPlainName(name)) return (error ? (*error = _error(EINVAL, relativePath), false) : false);
    int dirFd = _directoryFd(parent);
    if (dirFd < 0) return (error ? (*error = _error(errno, relativePath), false) : false);
    // Owner access is kept while entries are written below; the final mode comes later.
    if (mkdirat(dirFd, name.c_str(), (mode & 07777) | 0700) == 0) return true;
    if (errno != EEXIST) return (error ? (*error = _error(errno, relativePath), false) : false);
    struct stat st {};
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode)) return true;
    // Something else holds the name (a link, a file): it is replaced, never followed.
    if (unlinkat(dirFd, name.c_str(), 0) != 0 || mkdirat(dirFd, name.c_str(), (mode & 07777) | 0700) != 0)
        return (error ? (*error = _error(errno, relativePath), false) : false);
    return true;
}

std::optional<ExtractionRoot::PendingFile> ExtractionRoot::createFile(const std::string& relativePath, mode_t mode,
                                                                     Error* error) {
    fs::detail::walkReached(relativePath);
    auto [parent, name] = splitParent(relativePath);
    if (!isPlainName(name)) {
        if (error) *error = _error(EINVAL, relativePath);
        return std::nullopt;
    }
    int dirFd = _directoryFd(parent);
    if (dirFd < 0) {
        if (error) *error = _error(errno, relativePath);
        return std::nullopt;
    }
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string temporary = _temporaryName(name);
        int fd = openat(dirFd, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        (mode & 0777) | 0200);
        if (fd >= 0)
            return PendingFile{dirFd, fs::File::adopt(fd, path::appendComponent(path_, relativePath)), temporary, name,
                               relativePath, ((mode & 0777) | 0200) & ~umask_};
        if (errno != EEXIST) break;
    }
    if (error) *error = _error(errno, relativePath);
    return std::nullopt;
}

bool ExtractionRoot::commit(PendingFile& file, mode_t mode, std::optional<Date> modificationDate, Error* error) {
    // The file was created with these bits; the umask, a missing owner-write bit or the
    // special bits are what a change is still needed for.
    bool ok = (mode & 07777) == file.createdMode || file.file.setMode(mode);
    if (ok && modificationDate) ok = file.file.setModificationDate(*modificationDate);
    ok = ok && renameat(file.directoryFd, file.temporaryName.c_str(), file.directoryFd, file.finalName.c_str()) == 0;
    int saved = errno;
    if (!ok) unlinkat(file.directoryFd, file.temporaryName.c_str(), 0);
    Error closeError;
    bool closed = file.file.close(&closeError);
    if (!ok && error) *error = _error(saved, file.relativePath);
    if (ok && !closed && error) *error = closeError;
    return ok && closed;
}

void ExtractionRoot::discard(PendingFile& file) {
    if (!file.file) return;
    unlinkat(file.directoryFd, file.temporaryName.c_str(), 0);
    file.file.close();
}

bool ExtractionRoot::writeFile(const std::string& relativePath, std::span<const uint8_t> bytes, mode_t mode,
                               std::optional<Date> modificationDate, Error* error) {
    fs::detail::walkReached(relativePath);
    auto [parent, name] = splitParent(relativePath);
    int dirFd = isPlainName(name) ? _directoryFd(parent) : (errno = EINVAL, -1);
    if (dirFd < 0) return (error ? (*error = _error(errno, relativePath), false) : false);
    mode_t created = ((mode & 0777) | 0200) & ~umask_;
    int fd = openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, created);
    if (fd < 0) {
        if (errno != EEXIST) return (error ? (*error = _error(errno, relativePath), false) : false);
        // Something is there already: it is replaced by a rename, never opened.
        auto pending = createFile(relativePath, mode, error);
        if (!pending) return false;
        if (!pending->file.writeAll(bytes, error)) {
            discard(*pending);
            return false;
        }
        return commit(*pending, mode, modificationDate, error);
    }
    fs::File file = fs::File::adopt(fd, path::appendComponent(path_, relativePath));
    bool ok = file.writeAll(bytes, error) && ((mode & 07777) == created || file.setMode(mode, error));
    if (ok && modificationDate) ok = file.setModificationDate(*modificationDate, error);
    ok = file.close(ok ? error : nullptr) && ok;
    if (!ok) unlinkat(dirFd, name.c_str(), 0);
    return ok;
}

bool ExtractionRoot::makeSymbolicLink(const std::string& relativePath, const std::string& target,
                                      std::optional<Date> modificationDate, Error* error) {
    fs::detail::walkReached(relativePath);
    auto [parent, name] = splitParent(relativePath);
    int dirFd = isPlainName(name) ? _directoryFd(parent) : (errno = EINVAL, -1);
    if (dirFd < 0) return (error ? (*error = _error(errno, relativePath), false) : false);
    std::string temporary = _temporaryName(name);
    if (symlinkat(target.c_str(), dirFd, temporary.c_str()) != 0)
        return (error ? (*error = _error(errno, relativePath), false) : false);
    if (modificationDate) {
        struct timespec times[2] = {{0, UTIME_OMIT}, timespecFor(*modificationDate)};
        utimensat(dirFd, temporary.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
    if (renameat(dirFd, temporary.c_str(), dirFd, name.c_str()) != 0) {
        int saved = errno;
        unlinkat(dirFd, temporary.c_str(), 0);
        return (error ? (*error = _error(saved, relativePath), false) : false);
    }
    return true;
}

bool ExtractionRoot::setDirectoryAttributes(const std::string& relativePath, mode_t mode,
                                            std::optional<Date> modificationDate, Error* error) {
    int fd = relativePath.empty() ? dup(rootFd_) : _openBeneath(relativePath);
    if (fd < 0) return (error ? (*error = _error(errno, relativePath), false) : false);
    bool ok = fchmod(fd, mode & 07777) == 0;
    if (ok && modificationDate) {
        struct timespec times[2] = {{0, UTIME_OMIT}, timespecFor(*modificationDate)};
        ok = futimens(fd, times) == 0;
    }
    int saved = errno;
    close(fd);
    if (!ok && error) *error = _error(saved, relativePath);
    return ok;
}

}  // namespace platform
