#include "Platform/FileTree.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace platform::fs {

namespace {
bool fail(Error* error, const std::string& path, int code = errno) {
    if (error) *error = posixError(code, path);
    return false;
}

bool copyRegularFile(const std::string& source, const std::string& destination, mode_t mode, Error* error) {
    int in = open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (in < 0) return fail(error, source);
    int out = open(destination.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode & 07777);
    if (out < 0) {
        int saved = errno;
        close(in);
        return fail(error, destination, saved);
    }
    struct stat st {};
    bool ok = fstat(in, &st) == 0 && appendRange(in, 0, uint64_t(st.st_size), out) && fchmod(out, mode & 07777) == 0;
    int saved = errno;
    close(in);
    close(out);
    return ok || fail(error, destination, saved);
}
}  // namespace

bool appendRange(int inFd, uint64_t offset, uint64_t length, int outFd) {
    loff_t position = loff_t(offset);
    while (length > 0) {
        ssize_t n = copy_file_range(inFd, &position, outFd, nullptr, length, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) break;
        if (n <= 0) return n == 0 ? (errno = EIO, false) : false;
        length -= uint64_t(n);
    }
    std::vector<char> buffer(1 << 20);
    while (length > 0) {
        ssize_t n = pread(inFd, buffer.data(), std::min<uint64_t>(length, buffer.size()), position);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n == 0 ? (errno = EIO, false) : false;
        if (!writeAll(outFd, std::span(reinterpret_cast<const uint8_t*>(buffer.data()), size_t(n)))) return false;
        position += n;
        length -= uint64_t(n);
    }
    return true;
}

bool writeFile(const std::string& path, std::span<const uint8_t> bytes, Error* error) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return fail(error, path);
    bool ok = writeAll(fd, bytes);
    int saved = errno;
    ok = (close(fd) == 0) && ok;
    return ok || fail(error, path, saved);
}

std::optional<std::string> readSymbolicLink(const std::string& path) {
    std::string target(256, '\0');
    for (;;) {
        ssize_t n = readlink(path.c_str(), target.data(), target.size());
        if (n < 0) return std::nullopt;
        if (size_t(n) < target.size()) {
            target.resize(size_t(n));
            return target;
        }
        target.resize(target.size() * 2);
    }
}

bool copyItem(const std::string& source, const std::string& destination, Error* error) {
    struct stat st {};
    if (lstat(source.c_str(), &st) != 0) return fail(error, source);
    if (S_ISLNK(st.st_mode)) {
        auto target = readSymbolicLink(source);
        if (!target) return fail(error, source);
        return symlink(target->c_str(), destination.c_str()) == 0 || fail(error, destination);
    }
    if (S_ISREG(st.st_mode)) return copyRegularFile(source, destination, st.st_mode, error);
    if (!S_ISDIR(st.st_mode)) return fail(error, source, ENOTSUP);
    if (mkdir(destination.c_str(), 0700) != 0) return fail(error, destination);
    auto names = contentsOfDirectory(source, error);
    if (!names) return false;
    for (const auto& name : *names) {
        if (!copyItem(path::appendComponent(source, name), path::appendComponent(destination, name), error))
            return false;
    }
    return chmod(destination.c_str(), st.st_mode & 07777) == 0 || fail(error, destination);
}

bool removeTree(const std::string& path, Error* error) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return fail(error, path);
    if (S_ISDIR(st.st_mode)) {
        chmod(path.c_str(), (st.st_mode & 07777) | 0700);
        auto names = contentsOfDirectory(path, error);
        if (!names) return false;
        for (const auto& name : *names)
            if (!removeTree(path::appendComponent(path, name), error)) return false;
        return rmdir(path.c_str()) == 0 || fail(error, path);
    }
    return unlink(path.c_str()) == 0 || fail(error, path);
}

}  // namespace platform::fs
