#include "Platform/FileTree.h"

#include <cerrno>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/File.h"
#include "Platform/FileDetail.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace platform::fs {

namespace {
bool fail(Error* error, const std::string& path, int code = errno) {
    if (error) *error = posixError(code, path);
    return false;
}

bool copyRegularFile(const std::string& source, const std::string& destination, mode_t mode, Error* error) {
    auto in = File::open(source, {.followFinalLink = false}, error);
    if (!in) return false;
    auto out = File::open(destination,
                          {.access = OpenOptions::Access::Write, .create = true, .exclusive = true,
                           .followFinalLink = false, .mode = mode & 07777},
                          error);
    if (!out) return false;
    // Whatever step fails, the error names the copy being made.
    Error failure;
    auto size = in->size(&failure);
    bool ok = size && out->appendRangeOf(*in, 0, *size, &failure) && out->setMode(mode, &failure) &&
              out->close(&failure);
    return ok || fail(error, destination, int(failure.code));
}
}  // namespace

bool writeFile(const std::string& path, std::span<const uint8_t> bytes, Error* error) {
    auto file = File::open(path, {.access = OpenOptions::Access::Write, .create = true, .truncate = true}, error);
    return file && file->writeAll(bytes, error) && file->close(error);
}

std::optional<std::string> readSymbolicLink(const std::string& path) { return detail::readLinkAt(AT_FDCWD, path.c_str()); }

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
