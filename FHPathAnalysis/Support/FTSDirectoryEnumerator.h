// Walks a directory tree with fts, yielding each entry's path relative to the directory.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/DirectoryEnumerator.h"
#include "Platform/FileTreeWalk.h"

class FTSDirectoryEnumerator : public platform::DirectoryEnumerator {
public:
    // The options the path analysis walks with: FTS_COMFOLLOW | FTS_LOGICAL | FTS_NOSTAT | FTS_XDEV.
    static constexpr int32_t kAnalysisOptions = 75;

    // Null for an absent directory or when fts cannot be opened. Options are fts bits;
    // 0 means FTS_PHYSICAL.
    static std::shared_ptr<FTSDirectoryEnumerator> initWithDirectory(const std::optional<std::string>& directory,
                                                                     int32_t options);

    // The next entry below the directory, post-order visits left out: for the directory
    // /Volumes/T the entry /Volumes/T/Library gives "/Library", and for a directory
    // ending in "/" (such as "/") the entry /Library gives "Library". The directory
    // itself is never returned.
    std::optional<std::string> nextObject() override;
    // Attributes of the entry last returned (a final symbolic link not followed).
    std::optional<platform::Dictionary> fileAttributes() override;
    std::optional<platform::Dictionary> directoryAttributes() override;
    // Do not descend into the entry last returned; right after creation, skips everything.
    void skipDescendents() override;

private:
    FTSDirectoryEnumerator(std::string directory, std::unique_ptr<platform::FileTreeWalk> fts);

    std::string _directory;
    uint64_t _directoryLength;
    std::unique_ptr<platform::FileTreeWalk> _fts;
    std::optional<std::string> _currentPath;  // full path of the entry last read
};
