#include "CrateworksCore/Package_API/BOM/BOMTree.h"

#include <algorithm>
#include <vector>

namespace crateworks::bom {

std::optional<NodeIndex> BOMTree::find(std::string_view path) const {
    auto node = root();
    if (!node) return std::nullopt;
    if (path == ".") return node;
    if (path.substr(0, 2) != "./") return std::nullopt;
    path.remove_prefix(2);
    while (!path.empty()) {
        size_t slash = path.find('/');
        std::string_view component = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
        if (component.empty()) continue;
        node = child(*node, component);
        if (!node) return std::nullopt;
    }
    return node;
}

std::string BOMTree::pathOf(NodeIndex node) const {
    std::vector<std::string_view> names;
    for (auto at = std::optional<NodeIndex>(node); at && at != root(); at = parent(*at)) names.push_back(name(*at));
    std::string path = ".";
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        path += '/';
        path += *it;
    }
    return path;
}

}  // namespace crateworks::bom
