#include "Platform/AtomicFile.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/FileDetail.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace platform::fs {

namespace {
std::atomic<unsigned> gCounter{0};

std::string directoryOf(const std::string& path) {
    std::string dir = path::deletingLastComponent(path);
    if (dir.empty()) return path.size() > 0 && path[0] == '/' ? "/" : ".";
    return dir;
}

std::string temporaryNameFor(const std::string& path) {
    return fmt::format(".{}.{}-{}.tmp", path::lastComponent(path).substr(0, 64), getpid(), ++gCounter);
}
}  // namespace

std::optional<Error> AtomicFile::refusalFor(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 || S_ISREG(st.st_mode)) return std::nullopt;
    return posixError(S_ISDIR(st.st_mode) ? EISDIR : EEXIST, path,
                      fmt::format("is {}, not a regular file; it is left as it is", detail::kindOfMode(st.st_mode)));
}

AtomicFile::AtomicFile(File file, File directory, std::string path, std::string temporaryName)
    : file_(std::move(file)), directory_(std::move(directory)), path_(std::move(path)),
      temporaryName_(std::move(temporaryName)) {}

AtomicFile::AtomicFile(AtomicFile&& other) noexcept
    : file_(std::move(other.file_)), directory_(std::move(other.directory_)), path_(std::move(other.path_)),
      temporaryName_(std::move(other.temporaryName_)), done_(other.done_) {
    other.done_ = true;
}

AtomicFile& AtomicFile::operator=(AtomicFile&& other) noexcept {
    if (this != &other) {
        discard();
        file_ = std::move(other.file_);
        directory_ = std::move(other.directory_);
        path_ = std::move(other.path_);
        temporaryName_ = std::move(other.temporaryName_);
        done_ = other.done_;
        other.done_ = true;
    }
    return *this;
}

AtomicFile::~AtomicFile() { discard(); }

std::optional<AtomicFile> AtomicFile::create(const std::string& path, Error* error) {
    if (auto refusal = refusalFor(path)) {
        if (error) *error = *refusal;
        return std::nullopt;
    }
    Error directoryError;
    auto directory = File::open(directoryOf(path), {.directory = true}, &directoryError);
    if (!directory) {
        // Named after the file asked for: its directory is missing or not one.
        if (error) *error = posixError(int(directoryError.code), path);
        return std::nullopt;
    }
    int fd = openat(directory->descriptor(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (fd >= 0) return AtomicFile(File::adopt(fd, path), std::move(*directory), path, "");
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
        if (error) *error = posixError(errno, path);
        return std::nullopt;
    }
    // No unnamed files here: a hidden name beside the path, made only by us.
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = temporaryNameFor(path);
        auto file = File::openAt(*directory, name,
                                 {.access = OpenOptions::Access::ReadWrite, .create = true, .exclusive = true,
                                  .followFinalLink = false},
                                 nullptr);
        if (file) return AtomicFile(std::move(*file), std::move(*directory), path, name);
        if (errno != EEXIST) break;
    }
    if (error) *error = posixError(errno, path);
    return std::nullopt;
}

bool AtomicFile::commit(Error* error) {
    if (done_) {
        if (error) *error = posixError(EBADF, path_);
        return false;
    }
    auto fail = [&](int code) {
        if (error) *error = posixError(code, path_);
        discard();
        return false;
    };
    if (!file_.sync(error)) return discard(), false;
    std::string name = path::lastComponent(path_);
    if (temporaryName_.empty()) {
        // Give the unnamed file a hidden name first: a name cannot be linked over another.
        std::string temporary = temporaryNameFor(path_);
        std::string procPath = fmt::format("/proc/self/fd/{}", file_.descriptor());
        if (linkat(file_.descriptor(), "", directory_.descriptor(), temporary.c_str(), AT_EMPTY_PATH) != 0 &&
            linkat(AT_FDCWD, procPath.c_str(), directory_.descriptor(), temporary.c_str(), AT_SYMLINK_FOLLOW) != 0)
            return fail(errno);
        temporaryName_ = temporary;
    }
    // Whatever came to the path meanwhile is judged again, just before it is replaced.
    if (auto refusal = refusalFor(path_)) {
        if (error) *error = *refusal;
        discard();
        return false;
    }
    if (renameat(directory_.descriptor(), temporaryName_.c_str(), directory_.descriptor(), name.c_str()) != 0)
        return fail(errno);
    temporaryName_.clear();
    done_ = true;
    Error closeError;
    bool closed = file_.close(&closeError);
    // The rename is durable once the directory is.
    directory_.sync();
    if (!closed && error) *error = closeError;
    return closed;
}

void AtomicFile::discard() {
    if (done_) return;
    done_ = true;
    if (!temporaryName_.empty() && directory_) unlinkat(directory_.descriptor(), temporaryName_.c_str(), 0);
    temporaryName_.clear();
    file_.close();
}

}  // namespace platform::fs
