// A destination directory that files are created below without ever leaving it: every
// item is reached relative to the directory's descriptor, no symbolic link is followed
// on the way (openat2 with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS where the kernel has
// it, one O_NOFOLLOW step per component otherwise), and new files are written under a
// temporary name and renamed into place only once their content has been accepted.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>

#include "Platform/Error.h"
#include "Platform/File.h"
#include "Platform/Value.h"

namespace platform {

class ExtractionRoot {
public:
    // The root at `directory`, created (with missing parents) when `create` is set.
    // Null with a POSIX error when it cannot be opened as a directory.
    static std::unique_ptr<ExtractionRoot> open(const std::string& directory, bool create, Error* error = nullptr);
    ~ExtractionRoot();
    ExtractionRoot(const ExtractionRoot&) = delete;
    ExtractionRoot& operator=(const ExtractionRoot&) = delete;

    // A file being written: `file` is open for writing under a temporary name beside its
    // final place. Exactly one of commit() or discard() ends it.
    struct PendingFile {
        int directoryFd = -1;  // owned by the root's cache; not closed by the file
        fs::File file;
        std::string temporaryName;
        std::string finalName;
        std::string relativePath;
        mode_t createdMode = 0;  // the permission bits the file has now
    };

    // Relative paths are "/"-separated with no empty, "." or ".." component; the empty
    // path is the root itself. All answer false (or absent) with a POSIX error.
    bool makeDirectory(const std::string& relativePath, mode_t mode, Error* error = nullptr);
    // The file is created with the permission bits of `mode` already (commit() then only
    // changes them when the umask or special bits call for it).
    std::optional<PendingFile> createFile(const std::string& relativePath, mode_t mode = 0600, Error* error = nullptr);
    // Sets the permission bits and modification time on the open file, then renames it
    // over whatever is at the final name (a symbolic link there is replaced, not followed).
    bool commit(PendingFile& file, mode_t mode, std::optional<Date> modificationDate, Error* error = nullptr);
    void discard(PendingFile& file);
    // Writes bytes that have already been checked as a whole: straight under the final
    // name when nothing is there (O_CREAT | O_EXCL | O_NOFOLLOW, removed again if the
    // write fails), through a temporary file and a rename otherwise.
    bool writeFile(const std::string& relativePath, std::span<const uint8_t> bytes, mode_t mode,
                   std::optional<Date> modificationDate, Error* error = nullptr);
    bool makeSymbolicLink(const std::string& relativePath, const std::string& target,
                          std::optional<Date> modificationDate, Error* error = nullptr);
    // Permission bits and modification time of an existing directory (not followed if a link).
    bool setDirectoryAttributes(const std::string& relativePath, mode_t mode, std::optional<Date> modificationDate,
                                Error* error = nullptr);

    // Another root on the same directory, for use on another thread.
    std::unique_ptr<ExtractionRoot> duplicate() const;

    // Test seam: false forces the component-wise walk even where openat2 exists.
    static void setUsesOpenat2(bool uses);

private:
    ExtractionRoot(int fd, std::string path);
    std::string _temporaryName(const std::string& name) const;
    // Descriptor of the directory at `relativeDirectory` (cached); -1 with errno set.
    int _directoryFd(const std::string& relativeDirectory);
    int _openBeneath(const std::string& relativeDirectory) const;
    Error _error(int code, const std::string& relativePath) const;

    int rootFd_;
    std::string path_;
    std::string cachedDirectory_;
    int cachedFd_ = -1;
    mode_t umask_ = 022;
};

}  // namespace platform
