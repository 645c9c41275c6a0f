// A walk over a directory tree with glibc's fts, one entry per read.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class FileTreeWalk {
public:
    // Option bits, with the values of fts.
    static constexpr int kCommandLineFollow = 0x01;  // FTS_COMFOLLOW
    static constexpr int kLogical = 0x02;            // FTS_LOGICAL
    static constexpr int kNoStat = 0x08;             // FTS_NOSTAT
    static constexpr int kPhysical = 0x10;           // FTS_PHYSICAL
    static constexpr int kCrossDevice = 0x40;        // FTS_XDEV

    struct Entry {
        std::string_view path;  // the root as given, then "/" and the names below it
        bool postOrder;         // a directory seen again after its descendants
        int64_t level;          // 0 for the root
    };

    // Opens the walk of the one root `path`, children in directory order. Null when fts
    // cannot be opened (an empty path, for one).
    static std::unique_ptr<FileTreeWalk> open(const std::string& path, int options);
    ~FileTreeWalk();
    FileTreeWalk(const FileTreeWalk&) = delete;
    FileTreeWalk& operator=(const FileTreeWalk&) = delete;

    // The next entry, valid until the next read; absent at the end of the walk (a read
    // error ends it too) and for ever after.
    std::optional<Entry> read();
    // Do not descend into the entry last read; nothing when there is none.
    void skipLast();

private:
    struct State;
    explicit FileTreeWalk(std::unique_ptr<State> state);

    std::unique_ptr<State> state_;
};

}  // namespace platform
