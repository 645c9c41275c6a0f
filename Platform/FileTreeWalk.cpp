#include "Platform/FileTreeWalk.h"

#include <fts.h>
#include <sys/types.h>
#include <utility>

namespace platform {

static_assert(FileTreeWalk::kCommandLineFollow == FTS_COMFOLLOW && FileTreeWalk::kLogical == FTS_LOGICAL &&
              FileTreeWalk::kNoStat == FTS_NOSTAT && FileTreeWalk::kPhysical == FTS_PHYSICAL &&
              FileTreeWalk::kCrossDevice == FTS_XDEV);

struct FileTreeWalk::State {
    FTS* fts;
    FTSENT* last = nullptr;
    bool finished = false;
};

FileTreeWalk::FileTreeWalk(std::unique_ptr<State> state) : state_(std::move(state)) {}

std::unique_ptr<FileTreeWalk> FileTreeWalk::open(const std::string& path, int options) {
    char* paths[] = {const_cast<char*>(path.c_str()), nullptr};
    // Never change the working directory of the whole process for one walk: other
    // threads and relative paths depend on it.
    FTS* fts = fts_open(paths, options | FTS_NOCHDIR, nullptr);
    if (!fts) return nullptr;
    return std::unique_ptr<FileTreeWalk>(new FileTreeWalk(std::make_unique<State>(State{fts})));
}

FileTreeWalk::~FileTreeWalk() { fts_close(state_->fts); }

std::optional<FileTreeWalk::Entry> FileTreeWalk::read() {
    // fts is not asked again once it has said the walk is over.
    if (state_->finished) return std::nullopt;
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
