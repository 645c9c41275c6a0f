// One walk of the user-path analysis: decides, entry by entry below a parent
// directory, which paths of the volume are kept as user paths, and where the walk
// must not descend.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class FHUserPathWalk {
public:
    using PathList = std::vector<std::string>;
    using PathSet = std::unordered_set<std::string>;

    // `systemPaths` must be sorted in plain ascending order.
    FHUserPathWalk(std::string root, std::string parent, const PathList& systemPaths, PathSet searchPaths,
                   PathSet searchChildrenOfPaths, const PathList& omittingPaths);

    // Walks the volume below the parent; false when the walk cannot be started.
    bool run();
    // The kept paths, a path kept twice listed twice; unsorted.
    PathList result() const;

private:
    enum class Step { Descend, Prune };
    Step judge(const std::string& path);
    Step keep(const std::string& path);
    Step descendUnlessDirectory(const std::string& path) const;
    std::string onVolume(const std::string& path) const;

    std::string root_;
    std::string parent_;
    const PathList& systemPaths_;
    PathSet searchPaths_;
    PathSet searchChildrenOfPaths_;
    const PathList& omittingPaths_;
    std::unordered_map<std::string, int> kept_;
};
