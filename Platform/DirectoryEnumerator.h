// The enumerator interfaces shared by every walk: over a directory tree, a BOM, a
// fixed path list, or a child process's output lines.
#pragma once

#include <optional>
#include <string>

#include "Platform/FileSystem.h"
#include "Platform/Value.h"

namespace platform {

// Yields one object per call; absent at the end, and absent for ever after.
class Enumerator {
public:
    virtual ~Enumerator() = default;
    virtual std::optional<std::string> nextObject() = 0;
};

// An enumerator of paths that can skip the descendants of the item it last returned.
class DirectoryEnumerator : public Enumerator {
public:
    // Attributes of the item last returned; absent when there is none or it cannot be read.
    virtual std::optional<Dictionary> fileAttributes() { return std::nullopt; }
    // Attributes of the directory being walked.
    virtual std::optional<Dictionary> directoryAttributes() { return std::nullopt; }
    // Do not descend into the item last returned.
    virtual void skipDescendents() = 0;
    // Whether the item last returned is a directory: by default the file type of
    // fileAttributes(); false when there are none.
    virtual bool isDirectory() {
        auto attributes = fileAttributes();
        if (!attributes) return false;
        auto* type = attributes->findString(fs::kFileType);
        return type && *type == fs::kFileTypeDirectory;
    }
};

}  // namespace platform
