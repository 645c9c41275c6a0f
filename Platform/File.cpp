#include "Platform/File.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/FileDetail.h"
#include "Platform/ReadFault.h"

namespace platform::fs {

namespace {
// One read or write asks for at most this much, so that the count fits ssize_t
// everywhere and a huge request does not look like a failure.
constexpr size_t kMaxTransfer = size_t(1) << 30;

std::string joinedPath(const File& directory, const std::string& name, const std::string& displayPath) {
    if (!displayPath.empty()) return displayPath;
    return directory.path().empty() ? name : path::appendComponent(directory.path(), name);
}

bool failWith(Error* error, const std::string& path, int code) {
    if (error) *error = posixError(code, path);
    return false;
}
}  // namespace

int openFlags(const OpenOptions& o) {
    int flags = O_CLOEXEC | O_NOCTTY;
    switch (o.access) {
    case OpenOptions::Access::Read: flags |= O_RDONLY; break;
    case OpenOptions::Access::Write: flags |= O_WRONLY; break;
    case OpenOptions::Access::ReadWrite: flags |= O_RDWR; break;
    }
    if (o.create) flags |= O_CREAT;
    if (o.create && o.exclusive) flags |= O_EXCL;
    if (o.truncate) flags |= O_TRUNC;
    if (o.append) flags |= O_APPEND;
    if (!o.followFinalLink) flags |= O_NOFOLLOW;
    if (o.nonBlocking || o.regularFile) flags |= O_NONBLOCK;
    if (o.directory) flags |= O_DIRECTORY;
    return flags;
}

File::~File() {
    if (fd_ >= 0) ::close(fd_);
}

File::File(File&& other) noexcept : fd_(other.fd_), path_(std::move(other.path_)) { other.fd_ = -1; }

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.fd_;
        path_ = std::move(other.path_);
        other.fd_ = -1;
    }
    return *this;
}

// The type is the open descriptor's, so that nothing swapped in after a check is read.
// Regular files never block, so their reads go back to blocking mode.
// A refusal names what was found: "path: is a FIFO, not a regular file".
static bool checkRegular(int fd, const OpenOptions& options, int* code, std::string* reason) {
    if (!options.regularFile) return true;
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        *code = errno;
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *code = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        *reason = std::string("is ") + detail::kindOfMode(st.st_mode) + ", not a regular file";
        return false;
    }
    if (!options.nonBlocking) {
        int flags = fcntl(fd, F_GETFL);
        if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
            *code = errno;
            return false;
        }
    }
    return true;
}

std::optional<File> File::_openRelative(int directoryFd, const std::string& name, const OpenOptions& options,
                                        Error* error, std::string shownPath) {
    if (name.empty()) {
        failWith(error, shownPath, ENOENT);
        return std::nullopt;
    }
    int fd = ::openat(directoryFd, name.c_str(), openFlags(options), options.mode);
    if (fd < 0) {
        failWith(error, shownPath, errno);
        return std::nullopt;
    }
    File file(fd, std::move(shownPath));
    int code = 0;
    std::string reason;
    if (!checkRegular(fd, options, &code, &reason)) {
        if (error) *error = reason.empty() ? posixError(code, file.path_) : posixError(code, file.path_, reason);
        return std::nullopt;
    }
    return file;
}

std::optional<File> File::open(const std::string& path, const OpenOptions& options, Error* error) {
    return _openRelative(AT_FDCWD, path, options, error, path);
}

std::optional<File> File::openAt(const File& directory, const std::string& name, const OpenOptions& options,
                                 Error* error, const std::string& displayPath) {
    return _openRelative(directory.fd_, name, options, error, joinedPath(directory, name, displayPath));
}

File File::adopt(int descriptor, std::string path) { return File(descriptor, std::move(path)); }

std::optional<File> File::createTemporary(const std::string& directory, Error* error,
                                          const std::string& displayPath) {
    std::string shown = displayPath.empty() ? directory : displayPath;
    int fd = ::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0) return File(fd, shown);
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
        failWith(error, directory, errno);
        return std::nullopt;
    }
    std::string name = path::appendComponent(directory, ".scratch.XXXXXX");
    fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) {
        failWith(error, directory, errno);
        return std::nullopt;
    }
    unlink(name.c_str());
    return File(fd, shown);
}

bool File::_fail(Error* error, int code) const { return failWith(error, path_, code); }

// How much of a read of `length` bytes at `offset` a fault armed for the file lets
// through; `failure` is set to the fault's error when the read reaches it, else 0.
static size_t allowedByFault(const std::optional<ReadFault>& fault, uint64_t offset, size_t length, int* failure) {
    *failure = 0;
    if (!fault || length == 0) return length;
    size_t allowed = offset >= fault->offset ? 0 : size_t(std::min<uint64_t>(length, fault->offset - offset));
    if (allowed < length) *failure = fault->errorCode;
    return allowed;
}

std::optional<size_t> File::read(std::span<uint8_t> buffer, Error* error) {
    if (auto fault = detail::readFaultFor(path_)) {
        off_t position = lseek(fd_, 0, SEEK_CUR);
        int failure = 0;
        size_t allowed = allowedByFault(fault, uint64_t(std::max<off_t>(position, 0)), buffer.size(), &failure);
        if (allowed == 0 && failure != 0) {
            _fail(error, failure);
            return std::nullopt;
        }
        buffer = buffer.first(allowed);
    }
    for (;;) {
        ssize_t n = ::read(fd_, buffer.data(), std::min(buffer.size(), kMaxTransfer));
        if (n >= 0) return size_t(n);
        if (errno == EINTR) continue;
        _fail(error, errno);
        return std::nullopt;
    }
}

std::optional<size_t> File::readAt(uint64_t offset, std::span<uint8_t> buffer, Error* error) const {
    int faultFailure = 0;
    if (auto fault = detail::readFaultFor(path_))
        buffer = buffer.first(allowedByFault(fault, offset, buffer.size(), &faultFailure));
    size_t done = 0;
    while (done < buffer.size()) {
        ssize_t n = ::pread(fd_, buffer.data() + done, std::min(buffer.size() - done, kMaxTransfer),
                            off_t(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            _fail(error, errno);
            return std::nullopt;
        }
        if (n == 0) break;
        done += size_t(n);
    }
    if (faultFailure != 0 && done == buffer.size()) {
        _fail(error, faultFailure);
        return std::nullopt;
    }
    return done;
}

std::optional<Data> File::readToEnd(Error* error, std::optional<uint64_t> expectedSize) {
    Data out;
    struct stat st {};
    if (expectedSize) out.reserve(size_t(*expectedSize));
    else if (fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) out.reserve(size_t(st.st_size));
    uint8_t buffer[65536];
    for (;;) {
        auto n = read(buffer, error);
        if (!n) return std::nullopt;
        if (*n == 0) return out;
        out.insert(out.end(), buffer, buffer + *n);
    }
}

bool File::readExactlyAt(uint64_t offset, std::span<uint8_t> buffer, Error* error) const {
    auto n = readAt(offset, buffer, error);
    if (!n) return false;
    return *n == buffer.size() || _fail(error, EIO);
}

bool File::writeAll(std::span<const uint8_t> bytes, Error* error) {
    while (!bytes.empty()) {
        ssize_t n = ::write(fd_, bytes.data(), std::min(bytes.size(), kMaxTransfer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return _fail(error, n == 0 ? EIO : errno);
        bytes = bytes.subspan(size_t(n));
    }
    return true;
}

bool File::writeAt(uint64_t offset, std::span<const uint8_t> bytes, Error* error) {
    while (!bytes.empty()) {
        ssize_t n = ::pwrite(fd_, bytes.data(), std::min(bytes.size(), kMaxTransfer), off_t(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return _fail(error, n == 0 ? EIO : errno);
        bytes = bytes.subspan(size_t(n));
        offset += uint64_t(n);
    }
    return true;
}

bool File::appendRangeOf(const File& source, uint64_t offset, uint64_t length, Error* error) {
    loff_t position = loff_t(offset);
    while (length > 0) {
        ssize_t n = copy_file_range(source.fd_, &position, fd_, nullptr, std::min<uint64_t>(length, kMaxTransfer), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) break;
        if (n < 0) return _fail(error, errno);
        if (n == 0) return source._fail(error, EIO);  // the source ended early
        length -= uint64_t(n);
    }
    std::vector<uint8_t> buffer(size_t(std::min<uint64_t>(length, 1 << 20)));
    while (length > 0) {
        size_t chunk = size_t(std::min<uint64_t>(length, buffer.size()));
        if (!source.readExactlyAt(uint64_t(position), {buffer.data(), chunk}, error)) return false;
        if (!writeAll({buffer.data(), chunk}, error)) return false;
        position += loff_t(chunk);
        length -= chunk;
    }
    return true;
}

std::optional<uint64_t> File::size(Error* error) const {
    struct stat st {};
    if (fstat(fd_, &st) != 0) {
        _fail(error, errno);
        return std::nullopt;
    }
    return uint64_t(st.st_size);
}

std::optional<Dictionary> File::attributes(Error* error) const {
    struct statx sx {};
    if (statx(fd_, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) {
        _fail(error, errno);
        return std::nullopt;
    }
    return detail::attributesFromStatx(sx);
}

bool File::isRegularFile() const {
    struct stat st {};
    return fd_ >= 0 && fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
}

bool File::isDirectory() const {
    struct stat st {};
    return fd_ >= 0 && fstat(fd_, &st) == 0 && S_ISDIR(st.st_mode);
}

bool File::sync(Error* error) { return ::fsync(fd_) == 0 || _fail(error, errno); }

void File::startWriteback(uint64_t offset, uint64_t length) {
    sync_file_range(fd_, off64_t(offset), off64_t(length), SYNC_FILE_RANGE_WRITE);
}

bool File::truncate(uint64_t length, Error* error) {
    for (;;) {
        if (::ftruncate(fd_, off_t(length)) == 0) return true;
        if (errno != EINTR) return _fail(error, errno);
    }
}

bool File::setMode(mode_t mode, Error* error) { return fchmod(fd_, mode & 07777) == 0 || _fail(error, errno); }

bool File::setModificationDate(const Date& date, Error* error) {
    double whole = std::floor(date.secondsSince1970);
    struct timespec times[2] = {{0, UTIME_OMIT}, {time_t(whole), long((date.secondsSince1970 - whole) * 1e9)}};
    return futimens(fd_, times) == 0 || _fail(error, errno);
}

std::optional<File> File::duplicate(Error* error) const {
    int fd = fcntl(fd_, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
        _fail(error, errno);
        return std::nullopt;
    }
    return File(fd, path_);
}

bool File::close(Error* error) {
    if (fd_ < 0) return true;
    int fd = fd_;
    fd_ = -1;
    // The descriptor is gone whatever close answers (EINTR included): never close twice.
    if (::close(fd) == 0 || errno == EINTR) return true;
    return _fail(error, errno);
}

bool liesWithin(const std::string& path, const File& directory) {
    struct stat target {};
    if (fstat(directory.descriptor(), &target) != 0) return false;
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0 && st.st_dev == target.st_dev && st.st_ino == target.st_ino) return true;
    std::string parent = path::deletingLastComponent(path);
    auto current = File::open(parent.empty() ? "." : parent, {.directory = true});
    while (current) {
        if (fstat(current->descriptor(), &st) != 0) return false;
        if (st.st_dev == target.st_dev && st.st_ino == target.st_ino) return true;
        struct stat up {};
        auto parentDirectory = File::openAt(*current, "..", {.directory = true});
        if (!parentDirectory || fstat(parentDirectory->descriptor(), &up) != 0) return false;
        if (up.st_dev == st.st_dev && up.st_ino == st.st_ino) return false;  // reached "/"
        current = std::move(parentDirectory);
    }
    return false;
}

std::optional<Dictionary> attributesAt(const File& directory, const std::string& name, Error* error,
                                       const std::string& displayPath) {
    struct statx sx {};
    if (statx(directory.descriptor(), name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) {
        failWith(error, joinedPath(directory, name, displayPath), errno);
        return std::nullopt;
    }
    return detail::attributesFromStatx(sx);
}

const char* fileTypeAt(const File& directory, const std::string& name, bool followFinalLink) {
    struct stat st {};
    if (fstatat(directory.descriptor(), name.c_str(), &st, followFinalLink ? 0 : AT_SYMLINK_NOFOLLOW) != 0)
        return nullptr;
    return fileTypeForMode(st.st_mode);
}

std::optional<std::string> readSymbolicLinkAt(const File& directory, const std::string& name, Error* error,
                                              const std::string& displayPath) {
    auto target = detail::readLinkAt(directory.descriptor(), name.c_str());
    if (!target) failWith(error, joinedPath(directory, name, displayPath), errno);
    return target;
}

}  // namespace platform::fs
