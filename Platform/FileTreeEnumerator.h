// Walks a directory tree, yielding the paths below it relative to it, parents before
// their children and names in byte order within a directory. Symbolic links are
// yielded and never descended into.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/DirectoryEnumerator.h"

namespace platform {

class FileTreeEnumerator : public DirectoryEnumerator {
public:
    explicit FileTreeEnumerator(std::string root);

    std::optional<std::string> nextObject() override;
    void skipDescendents() override;
    bool isDirectory() override;
    std::optional<Dictionary> fileAttributes() override;
    std::optional<Dictionary> directoryAttributes() override;

private:
    struct Level {
        std::string relativePath;
        std::vector<std::string> names;
        size_t next = 0;
    };
    void _push(const std::string& relativePath);

    std::string root_;
    std::vector<Level> stack_;
    std::optional<std::string> current_;
    bool currentIsDirectory_ = false;
    bool skipCurrent_ = false;
};

}  // namespace platform
