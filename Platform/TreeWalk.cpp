#include "Platform/TreeWalk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/WalkHook.h"

namespace platform::fs {

std::optional<TreeWalk> TreeWalk::open(const std::string& root, Error* error) {
    auto directory = File::open(root, {.directory = true}, error);
    if (!directory) return std::nullopt;
    TreeWalk walk(root);
    if (!walk._push(std::move(*directory), "", error)) return std::nullopt;
    return walk;
}

std::string TreeWalk::displayPath(const Item& item) const { return path::appendComponent(rootPath_, item.relativePath); }

bool TreeWalk::_fail(Error* error, Error cause) {
    failed_ = true;
    if (error) *error = std::move(cause);
    return false;
}

bool TreeWalk::_push(File directory, std::string relativePath, Error* error) {
    std::string shown = relativePath.empty() ? rootPath_ : path::appendComponent(rootPath_, relativePath);
    // The listing reads through its own descriptor, so the level keeps one for *at calls.
    int fd = fcntl(directory.descriptor(), F_DUPFD_CLOEXEC, 0);
    DIR* dir = fd < 0 ? nullptr : fdopendir(fd);
    if (!dir) {
        int saved = errno;
        if (fd >= 0) ::close(fd);
        return _fail(error, posixError(saved, shown));
    }
    std::vector<std::pair<std::string, unsigned char>> names;
    errno = 0;
    while (struct dirent* e = readdir(dir)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name, e->d_type);
        errno = 0;
    }
    int listingError = errno;
    closedir(dir);
    if (listingError != 0) return _fail(error, posixError(listingError, shown));
    std::sort(names.begin(), names.end());
    levels_.push_back(Level{std::move(directory), std::move(relativePath), std::move(names), 0});
    return true;
}

std::optional<TreeWalk::Item> TreeWalk::next(Error* error) {
    if (failed_) return std::nullopt;
    if (current_ && current_->isDirectory && !skip_) {
        std::string shown = displayPath(*current_);
        auto child = File::openAt(levels_.back().directory, current_->name,
                                  {.followFinalLink = false, .directory = true}, error, shown);
        if (!child) {
            failed_ = true;
            return std::nullopt;
        }
        if (!_push(std::move(*child), current_->relativePath, error)) return std::nullopt;
    }
    current_.reset();
    skip_ = false;
    while (!levels_.empty()) {
        Level& level = levels_.back();
        if (level.next == level.names.size()) {
            // The root's level stays, so that directory() and root() remain valid.
            if (levels_.size() == 1) return std::nullopt;
            levels_.pop_back();
            continue;
        }
        const auto& [name, type] = level.names[level.next++];
        Item item;
        item.name = name;
        item.relativePath = level.relativePath.empty() ? name : level.relativePath + "/" + name;
        item.depth = unsigned(levels_.size());
        detail::walkReached(name);
        // The listing's type where the file system gives one; a look otherwise.
        struct stat st {};
        if (type != DT_UNKNOWN) {
            item.isDirectory = type == DT_DIR;
        } else if (fstatat(level.directory.descriptor(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            item.isDirectory = S_ISDIR(st.st_mode);
        } else {
            _fail(error, posixError(errno, displayPath(item)));
            return std::nullopt;
        }
        current_ = item;
        return item;
    }
    return std::nullopt;
}

}  // namespace platform::fs
