// Files: attributes, existence, directory listings, whole-file reads and atomic writes.
// The only code (with the other Platform files) that calls the operating system for files.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

#include "Platform/Error.h"
#include "Platform/Value.h"

namespace platform::fs {

// Keys of an attribute dictionary, and the values of kFileType.
inline constexpr const char* kFileType = "FileType";
inline constexpr const char* kFileSize = "FileSize";
inline constexpr const char* kFileCreationDate = "FileCreationDate";
inline constexpr const char* kFileModificationDate = "FileModificationDate";
inline constexpr const char* kFileOwnerAccountID = "FileOwnerAccountID";
inline constexpr const char* kFileGroupOwnerAccountID = "FileGroupOwnerAccountID";
inline constexpr const char* kFileOwnerAccountName = "FileOwnerAccountName";
inline constexpr const char* kFileGroupOwnerAccountName = "FileGroupOwnerAccountName";
inline constexpr const char* kFilePosixPermissions = "FilePosixPermissions";

inline constexpr const char* kFileTypeRegular = "FileTypeRegular";
inline constexpr const char* kFileTypeDirectory = "FileTypeDirectory";
inline constexpr const char* kFileTypeSymbolicLink = "FileTypeSymbolicLink";
inline constexpr const char* kFileTypeSocket = "FileTypeSocket";
inline constexpr const char* kFileTypeCharacterSpecial = "FileTypeCharacterSpecial";
inline constexpr const char* kFileTypeBlockSpecial = "FileTypeBlockSpecial";
inline constexpr const char* kFileTypeUnknown = "FileTypeUnknown";

// The file-type value for the type bits of a mode (S_IFMT part of st_mode).
const char* fileTypeForMode(mode_t mode);

// The attribute dictionary of the item itself (a final symbolic link is not followed):
// type, size, creation date (birth time where the file system keeps one, else the
// status-change time), modification date, owner and group ids and names, and the
// permission bits (mode & 07777). Absent when the item cannot be read.
std::optional<Dictionary> attributes(const std::string& path, Error* error = nullptr);

// The file type of the item itself (a final symbolic link not followed), one of the
// kFileType... values; null when it cannot be read. Cheaper than attributes(): no
// account names are looked up.
const char* fileType(const std::string& path);
// Whether the item itself (not a link's target) is a directory.
bool isDirectoryNoFollow(const std::string& path);

// Whether something exists at the path, following symbolic links; when it does and
// `isDirectory` is given, whether it is a directory.
bool exists(const std::string& path, bool* isDirectory = nullptr);
// Whether the item itself exists (a dangling symbolic link counts).
bool existsNoFollow(const std::string& path);

// The path with every symbolic link and "." or ".." resolved (realpath); absent when
// some component does not exist or cannot be read.
std::optional<std::string> resolvedPath(const std::string& path);

// The names in a directory, one level, hidden names included, in file-system order.
std::optional<std::vector<std::string>> contentsOfDirectory(const std::string& path, Error* error = nullptr);

std::optional<Data> readFile(const std::string& path, Error* error = nullptr);
// readFile for what a volume, an archive or a download names: only a regular file (a
// final link followed) is read, and a FIFO or a device in its place neither blocks nor
// streams forever.
std::optional<Data> readRegularFile(const std::string& path, Error* error = nullptr);

// Reads a regular file without following a symbolic link at `path`, and gives the
// attributes of the very file that was read (no race between check and read).
// Absent for a link, a directory or anything else that is not a regular file.
std::optional<Data> readRegularFileNoFollow(const std::string& path, Dictionary* attributes);

// Writes through a temporary file beside `path` created with O_CREAT|O_EXCL|O_NOFOLLOW
// and mode 0666 (so the result is 0666 & ~umask), then renames it into place. Never
// writes through a symbolic link at either path.
bool writeFileAtomically(const std::string& path, std::span<const uint8_t> bytes, Error* error = nullptr);

bool removeItem(const std::string& path, Error* error = nullptr);  // unlink, or rmdir for a directory
// rename(2): replaces an item at `to` (a symbolic link there is replaced, not followed).
bool moveItem(const std::string& from, const std::string& to, Error* error = nullptr);
// Whether the path leads to a regular file, following symbolic links.
bool isRegularFile(const std::string& path);
// The size of the item itself (a final symbolic link not followed); absent when it cannot be read.
std::optional<uint64_t> fileSize(const std::string& path);
// The modification date of what the path leads to, symbolic links followed; absent when
// it cannot be read.
std::optional<Date> modificationDateFollowingLinks(const std::string& path);
// Reads a file front to back in pieces of at most `chunkSize` bytes, reusing one buffer,
// and hands each to `consume`, which answers false to stop early. False (with the error)
// when the file cannot be opened or read, or is not a regular file (refused without
// blocking); true at the end or when stopped.
bool readInChunks(const std::string& path, size_t chunkSize,
                  const std::function<bool(std::span<const uint8_t> chunk)>& consume, Error* error = nullptr);
bool createDirectories(const std::string& path, mode_t mode = 0755, Error* error = nullptr);
// lchown; ids of -1 leave that id alone.
bool setOwner(const std::string& path, uid_t uid, gid_t gid, Error* error = nullptr);

struct FileSystemSize {
    uint64_t totalBytes = 0;  // f_blocks × f_frsize
    uint64_t freeBytes = 0;   // f_bavail × f_frsize: what an ordinary user may still fill
};
std::optional<FileSystemSize> fileSystemSize(const std::string& path);

// The real user id of the process. Tests may pretend to be another user.
uid_t realUserID();
void setRealUserIDOverride(std::optional<uid_t> uid);

std::optional<std::string> userName(uid_t uid);
std::optional<std::string> groupName(gid_t gid);

// An Error in the POSIX domain for an errno value, with its text as description.
Error posixError(int code, const std::string& path = {});
// The same with a reason of our own in place of the errno text: "path: reason".
Error posixError(int code, const std::string& path, const std::string& reason);

}  // namespace platform::fs
