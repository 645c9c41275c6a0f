#include "FHPathAnalysis/Support/FTSDirectoryEnumerator.h"

#include <algorithm>
#include <utility>

#include "Platform/FileSystem.h"

std::shared_ptr<FTSDirectoryEnumerator> FTSDirectoryEnumerator::initWithDirectory(
    const std::optional<std::string>& directory, int32_t options) {
    if (!directory) return nullptr;
    auto fts = platform::FileTreeWalk::open(*directory, options == 0 ? platform::FileTreeWalk::kPhysical : options);
    if (!fts) return nullptr;
    return std::shared_ptr<FTSDirectoryEnumerator>(new FTSDirectoryEnumerator(*directory, std::move(fts)));
}

FTSDirectoryEnumerator::FTSDirectoryEnumerator(std::string directory, std::unique_ptr<platform::FileTreeWalk> fts)
    : _directory(std::move(directory)), _directoryLength(_directory.size()), _fts(std::move(fts)) {
    // The first entry is the directory itself: current, so that it can be skipped, but never returned.
    if (auto root = _fts->read()) _currentPath = std::string(root->path);
}

std::optional<std::string> FTSDirectoryEnumerator::nextObject() {
    std::optional<platform::FileTreeWalk::Entry> entry;
    do {
        entry = _fts->read();
    } while (entry && entry->postOrder);
    if (!entry) {
        _currentPath.reset();
        return std::nullopt;
    }
    _currentPath = std::string(entry->path);
    // fts does not double the separator after a directory ending in "/", so the
    // remainder then has no leading "/".
    return _currentPath->substr(std::min<uint64_t>(_directoryLength, _currentPath->size()));
}

std::optional<platform::Dictionary> FTSDirectoryEnumerator::fileAttributes() {
    if (!_currentPath) return std::nullopt;
    return platform::fs::attributes(*_currentPath);
}

std::optional<platform::Dictionary> FTSDirectoryEnumerator::directoryAttributes() {
    return platform::fs::attributes(_directory);
}

void FTSDirectoryEnumerator::skipDescendents() {
    if (_currentPath) _fts->skipLast();
}
