#include "Platform/FileTreeEnumerator.h"

#include <algorithm>
#include <sys/stat.h>

#include "Platform/Path.h"

namespace platform {

FileTreeEnumerator::FileTreeEnumerator(std::string root) : root_(std::move(root)) { _push(""); }

void FileTreeEnumerator::_push(const std::string& relativePath) {
    auto names = fs::contentsOfDirectory(path::appendComponent(root_, relativePath));
    if (!names) return;
    std::sort(names->begin(), names->end());
    stack_.push_back(Level{relativePath, std::move(*names), 0});
}

std::optional<std::string> FileTreeEnumerator::nextObject() {
    if (current_ && currentIsDirectory_ && !skipCurrent_) _push(*current_);
    current_.reset();
    skipCurrent_ = false;
    while (!stack_.empty()) {
        Level& level = stack_.back();
        if (level.next == level.names.size()) {
            stack_.pop_back();
            continue;
        }
        std::string relative = level.relativePath.empty() ? level.names[level.next]
                                                           : level.relativePath + "/" + level.names[level.next];
        ++level.next;
        struct stat st {};
        currentIsDirectory_ = lstat(path::appendComponent(root_, relative).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        current_ = relative;
        return current_;
    }
    return std::nullopt;
}

void FileTreeEnumerator::skipDescendents() { skipCurrent_ = true; }

bool FileTreeEnumerator::isDirectory() { return current_ && currentIsDirectory_; }

std::optional<Dictionary> FileTreeEnumerator::fileAttributes() {
    if (!current_) return std::nullopt;
    return fs::attributes(path::appendComponent(root_, *current_));
}

std::optional<Dictionary> FileTreeEnumerator::directoryAttributes() { return fs::attributes(root_); }

}  // namespace platform
