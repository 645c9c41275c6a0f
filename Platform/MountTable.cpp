#include "Platform/MountTable.h"

#include <cerrno>
#include <cstdio>
#include <libmount.h>
#include <memory>

#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/LazyLibrary.h"

namespace platform::mounts {

namespace {

// libmount, loaded when a mount table is first read (Platform/LazyLibrary).
#define FERRYHOLD_MOUNT_FUNCTIONS(X, ...)                                                                  \
    X(__VA_ARGS__, new_table) X(__VA_ARGS__, unref_table) X(__VA_ARGS__, table_get_userdata)                 \
    X(__VA_ARGS__, table_set_userdata) X(__VA_ARGS__, table_set_parser_errcb) X(__VA_ARGS__, table_parse_stream) \
    X(__VA_ARGS__, new_iter) X(__VA_ARGS__, free_iter) X(__VA_ARGS__, table_next_fs)                          \
    X(__VA_ARGS__, optstr_get_option) X(__VA_ARGS__, fs_get_source) X(__VA_ARGS__, fs_get_target)             \
    X(__VA_ARGS__, fs_get_fstype) X(__VA_ARGS__, fs_get_root) X(__VA_ARGS__, fs_get_vfs_options)              \
    X(__VA_ARGS__, fs_get_fs_options) X(__VA_ARGS__, fs_is_pseudofs) X(__VA_ARGS__, fs_is_netfs)              \
    X(__VA_ARGS__, fs_get_srcpath)
FERRYHOLD_LAZY_TABLE(MountLibrary, "libmount.so.1", FERRYHOLD_MOUNT_FUNCTIONS, mnt_);

// Only ever called once the table has loaded.
const MountLibrary& mnt() { return *detail::lazyTable<MountLibrary>(); }

// A mount table is a few kilobytes; anything far larger was not written by the kernel.
constexpr uint64_t kMaxTableSize = 16u << 20;

struct TableDeleter {
    void operator()(libmnt_table* table) const { mnt().unref_table(table); }
};
struct StreamDeleter {
    void operator()(FILE* stream) const { fclose(stream); }
};

// libmount numbers the lines it cannot take; the first one is kept, and parsing stops.
int rememberBadLine(libmnt_table* table, const char*, int line) {
    auto* firstBadLine = static_cast<int*>(mnt().table_get_userdata(table));
    if (*firstBadLine == 0) *firstBadLine = line;
    return -EINVAL;
}

bool hasOption(const char* options, const char* name) {
    return options && mnt().optstr_get_option(options, name, nullptr, nullptr) == 0;
}

MountEntry entryOf(libmnt_fs* fs) {
    auto text = [](const char* s) { return s ? std::string(s) : std::string(); };
    MountEntry entry;
    entry.source = text(mnt().fs_get_source(fs));
    entry.mountPoint = text(mnt().fs_get_target(fs));
    entry.fileSystemType = text(mnt().fs_get_fstype(fs));
    entry.root = text(mnt().fs_get_root(fs));
    entry.readOnly = hasOption(mnt().fs_get_vfs_options(fs), "ro") || hasOption(mnt().fs_get_fs_options(fs), "ro");
    entry.pseudo = mnt().fs_is_pseudofs(fs) != 0;
    entry.network = mnt().fs_is_netfs(fs) != 0;
    entry.sourceIsPath = mnt().fs_get_srcpath(fs) != nullptr && entry.source.starts_with("/");
    return entry;
}

}  // namespace

std::optional<std::vector<MountEntry>> readMountInfo(const std::string& path, Error* error) {
    auto file = fs::File::open(path, {.regularFile = true}, error);
    if (!file) return std::nullopt;
    auto size = file->size(error);
    if (!size) return std::nullopt;
    if (*size > kMaxTableSize) {
        setError(error, fs::posixError(EFBIG, path, "larger than any mount table (16 MiB)"));
        return std::nullopt;
    }
    auto bytes = file->readToEnd(error);
    if (!bytes) return std::nullopt;
    if (bytes->empty()) {
        setError(error, fs::posixError(EINVAL, path, "no mount table entries"));
        return std::nullopt;
    }

    std::string why;
    if (!detail::lazyTable<MountLibrary>(&why)) {
        setError(error, fs::posixError(ENOSYS, path, std::string(MountLibrary::kFileName) + " cannot be loaded: " + why));
        return std::nullopt;
    }
    std::unique_ptr<libmnt_table, TableDeleter> table(mnt().new_table());
    std::unique_ptr<FILE, StreamDeleter> stream(fmemopen(bytes->data(), bytes->size(), "r"));
    if (!table || !stream) {
        setError(error, fs::posixError(ENOMEM, path));
        return std::nullopt;
    }
    int firstBadLine = 0;
    mnt().table_set_userdata(table.get(), &firstBadLine);
    mnt().table_set_parser_errcb(table.get(), rememberBadLine);
    int rc = mnt().table_parse_stream(table.get(), stream.get(), path.c_str());
    if (rc != 0 || firstBadLine != 0) {
        std::string reason = firstBadLine ? "line " + std::to_string(firstBadLine) + " is not a mount table entry"
                                          : "not a mount table";
        setError(error, fs::posixError(EINVAL, path, reason));
        return std::nullopt;
    }

    std::vector<MountEntry> entries;
    libmnt_iter* iterator = mnt().new_iter(MNT_ITER_FORWARD);
    if (!iterator) {
        setError(error, fs::posixError(ENOMEM, path));
        return std::nullopt;
    }
    libmnt_fs* fs = nullptr;
    while (mnt().table_next_fs(table.get(), iterator, &fs) == 0) entries.push_back(entryOf(fs));
    mnt().free_iter(iterator);
    return entries;
}

}  // namespace platform::mounts
