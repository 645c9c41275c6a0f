// Walks a directory tree through open directory descriptors, so that no path is ever
// longer than one name: trees whose paths pass PATH_MAX are walked whole. Items come
// parents before children, names in byte order within a directory; symbolic links are
// yielded and never followed.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Error.h"
#include "Platform/File.h"

namespace platform::fs {

class TreeWalk {
public:
    struct Item {
        std::string relativePath;  // below the root, "/"-separated
        std::string name;          // the last component
        unsigned depth = 1;        // 1 for the root's own children
        bool isDirectory = false;
    };

    // Absent, with the error, when `root` cannot be opened as a directory.
    static std::optional<TreeWalk> open(const std::string& root, Error* error = nullptr);

    // The next item; absent at the end, or (with `error` set and failed() true) when a
    // directory cannot be opened or listed or an item vanished on the way.
    std::optional<Item> next(Error* error = nullptr);
    bool failed() const { return failed_; }
    // Do not descend into the directory next() returned last.
    void skipDescendants() { skip_ = true; }
    // The open directory that holds the item next() returned last, and the item's path
    // as people read it (the root joined with its relative path).
    const File& directory() const { return levels_.back().directory; }
    std::string displayPath(const Item& item) const;
    const File& root() const { return levels_.front().directory; }

private:
    struct Level {
        File directory;
        std::string relativePath;
        std::vector<std::pair<std::string, unsigned char>> names;  // with their d_type
        size_t next = 0;
    };
    TreeWalk(std::string rootPath) : rootPath_(std::move(rootPath)) {}
    bool _push(File directory, std::string relativePath, Error* error);
    bool _fail(Error* error, Error cause);

    std::string rootPath_;
    std::vector<Level> levels_;
    std::optional<Item> current_;
    bool skip_ = false;
    bool failed_ = false;
};

}  // namespace platform::fs
