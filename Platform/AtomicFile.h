// A new file that takes the place of a path only once it is complete.
//
// It is written as an unnamed file in the path's directory (O_TMPFILE), so that a crash,
// a signal or a full disk leaves nothing behind and whatever was at the path untouched;
// commit() syncs it, gives it a name and renames it over the path. Where the file system
// has no unnamed files, a hidden temporary name beside the path stands in, removed again
// on every path out but a killed process.
//
// Only a regular file is ever replaced: a device, a FIFO, a socket, a directory or a
// symbolic link at the path is refused when the file is created and again at commit,
// and is never unlinked, followed or written through.
#pragma once

#include <optional>
#include <string>

#include "Platform/Error.h"
#include "Platform/File.h"

namespace platform::fs {

class AtomicFile {
public:
    // Absent, with the error, when something other than a regular file is at `path`
    // (EEXIST, or EISDIR for a directory, with a description naming what is there) or
    // when the directory refuses a new file.
    static std::optional<AtomicFile> create(const std::string& path, Error* error = nullptr);
    ~AtomicFile();
    AtomicFile(AtomicFile&& other) noexcept;
    AtomicFile& operator=(AtomicFile&& other) noexcept;
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    // The new file, open for reading and writing.
    File& file() { return file_; }
    const std::string& path() const { return path_; }

    // Syncs the file, then puts it at the path (0666 & ~umask) and syncs the directory.
    // False, with the error, leaving the path as it was.
    bool commit(Error* error = nullptr);
    // Drops the new file; the path stays as it was. Also done on destruction.
    void discard();

    // Refuses what must not be replaced: absent when nothing or a regular file is at
    // `path`, else the error that names it.
    static std::optional<Error> refusalFor(const std::string& path);

private:
    AtomicFile(File file, File directory, std::string path, std::string temporaryName);

    File file_;
    File directory_;
    std::string path_;
    std::string temporaryName_;  // empty for an unnamed file
    bool done_ = false;
};

}  // namespace platform::fs
