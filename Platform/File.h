// An open file, owned: the one place that reads, writes, syncs and closes descriptors.
// EINTR is retried and short reads and writes are looped here, so that callers see a
// call either do all it was asked or fail with the reason.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <sys/types.h>

#include "Platform/Error.h"
#include "Platform/Value.h"

namespace platform::fs {

// How a file is opened. The defaults open an existing item for reading, following a
// final symbolic link.
struct OpenOptions {
    enum class Access { Read, Write, ReadWrite };
    Access access = Access::Read;
    bool create = false;            // create it when missing, with `mode` & ~umask
    bool exclusive = false;         // with create: fail when something is there
    bool truncate = false;
    bool append = false;
    bool followFinalLink = true;    // false: a symbolic link at the path fails (ELOOP)
    bool nonBlocking = false;       // a FIFO or a device does not block the open
    bool directory = false;         // it must be a directory
    // It must be a regular file: opened without blocking (so a FIFO planted in its place
    // cannot stall the open) and judged by fstat on the open descriptor; anything else
    // fails with EISDIR for a directory, EINVAL otherwise.
    bool regularFile = false;
    mode_t mode = 0666;
};

class File {
public:
    File() = default;
    ~File();
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Absent, with a POSIX error naming the path, when the open is refused.
    static std::optional<File> open(const std::string& path, const OpenOptions& options = {}, Error* error = nullptr);
    // `name` relative to the open directory `directory`; `displayPath` is what errors
    // name (the directory's path joined with `name` when empty).
    static std::optional<File> openAt(const File& directory, const std::string& name, const OpenOptions& options = {},
                                      Error* error = nullptr, const std::string& displayPath = {});
    // Takes ownership of a descriptor another call made; `path` is what errors name.
    static File adopt(int descriptor, std::string path);
    // Gives the descriptor up to the caller, who closes it; the File is closed after.
    int release() { return std::exchange(fd_, -1); }
    // A new unnamed file in `directory` for scratch data, gone when closed (O_TMPFILE;
    // a name unlinked at once where the file system has no unnamed files). Its errors
    // name `displayPath`, or the directory when that is empty.
    static std::optional<File> createTemporary(const std::string& directory, Error* error = nullptr,
                                               const std::string& displayPath = {});

    bool isOpen() const { return fd_ >= 0; }
    explicit operator bool() const { return isOpen(); }
    // The path the file was opened by (for messages); the descriptor, for the platform layer.
    const std::string& path() const { return path_; }
    int descriptor() const { return fd_; }

    // Reads at the file position: the number of bytes read, 0 at the end.
    std::optional<size_t> read(std::span<uint8_t> buffer, Error* error = nullptr);
    // Reads from `offset` until `buffer` is full or the file ends: the number read.
    std::optional<size_t> readAt(uint64_t offset, std::span<uint8_t> buffer, Error* error = nullptr) const;
    // Everything from the file position to the end; `expectedSize`, when known, spares
    // asking the file for its size.
    std::optional<Data> readToEnd(Error* error = nullptr, std::optional<uint64_t> expectedSize = std::nullopt);
    // All of `buffer` from `offset`; a file that ends sooner is an error (EIO).
    bool readExactlyAt(uint64_t offset, std::span<uint8_t> buffer, Error* error = nullptr) const;
    // All of `bytes` at the file position / at `offset`.
    bool writeAll(std::span<const uint8_t> bytes, Error* error = nullptr);
    bool writeAt(uint64_t offset, std::span<const uint8_t> bytes, Error* error = nullptr);
    // Appends `length` bytes of `source` from `offset` at this file's position, inside
    // the kernel where it can.
    bool appendRangeOf(const File& source, uint64_t offset, uint64_t length, Error* error = nullptr);

    std::optional<uint64_t> size(Error* error = nullptr) const;
    // The attribute dictionary of the open file (see fs::attributes).
    std::optional<Dictionary> attributes(Error* error = nullptr) const;
    bool isRegularFile() const;
    bool isDirectory() const;
    bool sync(Error* error = nullptr);
    // Starts writing the range back to the disk without waiting for it, so that a
    // later sync has less left to wait for. A hint: nothing is reported.
    void startWriteback(uint64_t offset, uint64_t length);
    bool truncate(uint64_t length, Error* error = nullptr);
    // Permission bits and modification date of the open file.
    bool setMode(mode_t mode, Error* error = nullptr);
    bool setModificationDate(const Date& date, Error* error = nullptr);
    // Another descriptor for the same open file.
    std::optional<File> duplicate(Error* error = nullptr) const;

    // Closes now and reports what close says; a file not closed this way is closed,
    // silently, when it is destroyed. Either way it is closed exactly once.
    bool close(Error* error = nullptr);

private:
    File(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
    // `name` opened relative to `directoryFd` (AT_FDCWD for a path); errors name `shownPath`.
    static std::optional<File> _openRelative(int directoryFd, const std::string& name, const OpenOptions& options,
                                             Error* error, std::string shownPath);
    bool _fail(Error* error, int code) const;

    int fd_ = -1;
    std::string path_;
};

// Whether `path` is `directory` or lies anywhere below it, judged by device and inode
// up the path's chain of parents (so links and "..", however spelt, cannot hide it).
// False when `path`'s directory cannot be opened.
bool liesWithin(const std::string& path, const File& directory);

// The open flags for `options`.
int openFlags(const OpenOptions& options);

// The attribute dictionary of `name` in the open directory, not following a final link.
std::optional<Dictionary> attributesAt(const File& directory, const std::string& name, Error* error = nullptr,
                                       const std::string& displayPath = {});
// The file type (kFileType... value) of `name` in the directory, following a final link
// when asked; null when it cannot be read.
const char* fileTypeAt(const File& directory, const std::string& name, bool followFinalLink);
// The target of the symbolic link `name` in the directory, byte for byte; absent (with
// the error) when it is not a link or cannot be read.
std::optional<std::string> readSymbolicLinkAt(const File& directory, const std::string& name, Error* error = nullptr,
                                              const std::string& displayPath = {});

}  // namespace platform::fs
