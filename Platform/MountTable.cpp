#include "Platform/MountTable.h"

#include <cerrno>
#include <cstdio>
#include <libmount.h>
#include <memory>

#include "Platform/File.h"
#include "Platform/FileSystem.h"

namespace platform::mounts {

namespace {

// A mount table is a few kilobytes; anything far larger was not written by the kernel.
constexpr uint64_t kMaxTableSize = 16u << 20;

struct TableDeleter {
    void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct StreamDeleter {
    void operator()(FILE* stream) const { fclose(stream); }
};

// libmount numbers the lines it cannot take; the first one is kept, and parsing stops.
int rememberBadLine(libmnt_table* table, const char*, int line) {
    auto* firstBadLine = static_cast<int*>(mnt_table_get_userdata(table));
    if (*firstBadLine == 0) *firstBadLine = line;
    return -EINVAL;
}

bool hasOption(const char* options, const char* name) {
    return options && mnt_optstr_get_option(options, name, nullptr, nullptr) == 0;
}

MountEntry entryOf(libmnt_fs* fs) {
    auto text = [](const char* s) { return s ? std::string(s) : std::string(); };
    MountEntry entry;
    entry.source = text(mnt_fs_get_source(fs));
    entry.mountPoint = text(mnt_fs_get_target(fs));
    entry.fileSystemType = text(mnt_fs_get_fstype(fs));
    entry.root = text(mnt_fs_get_root(fs));
    entry.readOnly = hasOption(mnt_fs_get_vfs_options(fs), "ro") || hasOption(mnt_fs_get_fs_options(fs), "ro");
    entry.pseudo = mnt_fs_is_pseudofs(fs) != 0;
    entry.network = mnt_fs_is_netfs(fs) != 0;
    entry.sourceIsPath = mnt_fs_get_srcpath(fs) != nullptr && entry.source.starts_with("/");
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

    std::unique_ptr<libmnt_table, TableDeleter> table(mnt_new_table());
    std::unique_ptr<FILE, StreamDeleter> stream(fmemopen(bytes->data(), bytes->size(), "r"));
    if (!table || !stream) {
        setError(error, fs::posixError(ENOMEM, path));
        return std::nullopt;
    }
    int firstBadLine = 0;
    mnt_table_set_userdata(table.get(), &firstBadLine);
    mnt_table_set_parser_errcb(table.get(), rememberBadLine);
    int rc = mnt_table_parse_stream(table.get(), stream.get(), path.c_str());
    if (rc != 0 || firstBadLine != 0) {
        std::string reason = firstBadLine ? "line " + std::to_string(firstBadLine) + " is not a mount table entry"
                                          : "not a mount table";
        setError(error, fs::posixError(EINVAL, path, reason));
        return std::nullopt;
    }

    std::vector<MountEntry> entries;
    libmnt_iter* iterator = mnt_new_iter(MNT_ITER_FORWARD);
    if (!iterator) {
        setError(error, fs::posixError(ENOMEM, path));
        return std::nullopt;
    }
    libmnt_fs* fs = nullptr;
    while (mnt_table_next_fs(table.get(), iterator, &fs) == 0) entries.push_back(entryOf(fs));
    mnt_free_iter(iterator);
    return entries;
}

}  // namespace platform::mounts
