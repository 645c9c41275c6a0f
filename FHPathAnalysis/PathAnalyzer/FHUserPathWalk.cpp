#include "FHPathAnalysis/PathAnalyzer/FHUserPathWalk.h"

#include <algorithm>

#include "FHPathAnalysis/Support/FTSDirectoryEnumerator.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/Strings.h"

namespace path = platform::path;

namespace {

// Inside "/Network", or named "Caches".
bool inSkippedArea(const std::string& p) {
    return path::isInside(p, "/Network") || path::lastComponent(p) == "Caches";
}

size_t componentCount(const std::string& p) { return path::components(p).size(); }

}  // namespace

FHUserPathWalk::FHUserPathWalk(std::string root, std::string parent, const PathList& systemPaths, PathSet searchPaths,
                               PathSet searchChildrenOfPaths, const PathList& omittingPaths)
    : root_(std::move(root)),
      parent_(std::move(parent)),
      systemPaths_(systemPaths),
      searchPaths_(std::move(searchPaths)),
      searchChildrenOfPaths_(std::move(searchChildrenOfPaths)),
      omittingPaths_(omittingPaths) {
    // The directories between the parent and an omitted path are walked through, never kept.
    for (const auto& omitted : omittingPaths_) {
        if (!platform::str::hasPrefix(omitted, parent_)) continue;
        for (std::string up = path::deletingLastComponent(omitted); up != parent_ && up.size() >= 2;
             up = path::deletingLastComponent(up))
            searchPaths_.insert(up);
    }
}

std::string FHUserPathWalk::onVolume(const std::string& p) const { return path::appendComponent(root_, p); }

bool FHUserPathWalk::run() {
    auto walk = FTSDirectoryEnumerator::initWithDirectory(onVolume(parent_), FTSDirectoryEnumerator::kAnalysisOptions);
    if (!walk) return false;
    while (auto entry = walk->nextObject()) {
        if (judge(path::appendComponent(parent_, *entry)) == Step::Prune) walk->skipDescendents();
    }
    return true;
}

FHUserPathWalk::Step FHUserPathWalk::descendUnlessDirectory(const std::string& p) const {
    bool isDirectory = false;
    return platform::fs::exists(onVolume(p), &isDirectory) && isDirectory ? Step::Prune : Step::Descend;
}

FHUserPathWalk::Step FHUserPathWalk::judge(const std::string& p) {
    if (componentCount(p) == 1) return Step::Descend;
    if (inSkippedArea(p)) return Step::Prune;
    for (const auto& omitted : omittingPaths_)
        if (p == omitted || path::isInside(p, omitted)) return Step::Prune;

    if (searchPaths_.count(p)) {
        bool isDirectory = false;
        if (platform::fs::exists(onVolume(p), &isDirectory) && !isDirectory)
            platform::consoleLog("  (WARN-FSF) " + p + " is a 'searchPath', yet not a directory.");
        return Step::Descend;
    }
    if (componentCount(p) >= 3 && searchChildrenOfPaths_.count(path::deletingLastComponent(p))) {
        if (platform::fs::isDirectoryNoFollow(onVolume(p))) return Step::Descend;
    }

    // At most two neighbours of the sorted system paths are examined. A path sorting
    // after the last one goes straight to being kept, even inside that last one.
    auto at = std::lower_bound(systemPaths_.begin(), systemPaths_.end(), p);
    if (at == systemPaths_.end()) return keep(p);
    const std::string& next = *at;
    if (p == next) return descendUnlessDirectory(p);
    if (path::isInside(next, p)) return Step::Descend;
    const std::string& previous = at == systemPaths_.begin() ? next : *(at - 1);
    if (path::isInside(p, previous) && !searchPaths_.count(previous)) return descendUnlessDirectory(p);
    return keep(p);
}

FHUserPathWalk::Step FHUserPathWalk::keep(const std::string& p) {
    ++kept_[p];
    for (const auto& ancestor : path::parentDirectories(p)) kept_.erase(ancestor);
    return descendUnlessDirectory(p);
}

FHUserPathWalk::PathList FHUserPathWalk::result() const {
    PathList out;
    for (const auto& [p, count] : kept_) out.insert(out.end(), size_t(count), p);
    return out;
}
