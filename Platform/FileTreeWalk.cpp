#include "Platform/FileTreeWalk.h"

#include <fts.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

#include "Platform/WalkHook.h"

namespace platform {

static_assert(FileTreeWalk::kCommandLineFollow == FTS_COMFOLLOW && FileTreeWalk::kLogical == FTS_LOGICAL &&
              FileTreeWalk::kNoStat == FTS_NOSTAT && FileTreeWalk::kPhysical == FTS_PHYSICAL &&
              FileTreeWalk::kCrossDevice == FTS_XDEV);

struct FileTreeWalk::State {
    FTS* fts;
    FTSENT* last = nullptr;
    bool finished = false;
    bool followsLinks = false;
};

FileTreeWalk::FileTreeWalk(std::unique_ptr<State> state) : state_(std::move(state)) {}

std::unique_ptr<FileTreeWalk> FileTreeWalk::open(const std::string& path, int options) {
    char* paths[] = {const_cast<char*>(path.c_str()), nullptr};
    // Never change the working directory of the whole process for one walk: other
    // threads and relative paths depend on it.
    FTS* fts = fts_open(paths, options | FTS_NOCHDIR, nullptr);
    if (!fts) return nullptr;
    return std::unique_ptr<FileTreeWalk>(
        new FileTreeWalk(std::make_unique<State>(State{fts, nullptr, false, (options & FTS_LOGICAL) != 0})));
}

FileTreeWalk::~FileTreeWalk() { fts_close(state_->fts); }

std::optional<FileTreeWalk::Entry> FileTreeWalk::read() {
    // fts is not asked again once it has said the walk is over.
    if (state_->finished) return std::nullopt;
    // fts reads a directory's children by its path when asked for the next entry. A
    // directory that was replaced since it was looked at (by a symbolic link to somewhere
    // else, or by another directory) is not descended into: its path no longer leads to
    // the directory the walk found.
    FTSENT* last = state_->last;
    if (last && last->fts_info == FTS_D) {
        fs::detail::walkReached(std::string_view(last->fts_name, last->fts_namelen));
        struct stat now {};
        int looked = state_->followsLinks ? stat(last->fts_accpath, &now) : lstat(last->fts_accpath, &now);
        // fts keeps the device and inode in the entry itself (its stat buffer is absent
        // when the walk was opened without one).
        if (looked != 0 || !S_ISDIR(now.st_mode) || now.st_dev != last->fts_dev || now.st_ino != last->fts_ino)
            fts_set(state_->fts, last, FTS_SKIP);
    }
    FTSENT* entry = state_->last = fts_read(state_->fts);
    if (!entry) {
        state_->finished = true;
        return std::nullopt;
    }
    return Entry{std::string_view(entry->fts_path, entry->fts_pathlen), entry->fts_info == FTS_DP,
                 static_cast<int64_t>(entry->fts_level)};
}

void FileTreeWalk::skipLast() {
    if (state_->last) fts_set(state_->fts, state_->last, FTS_SKIP);
}

}  // namespace platform
