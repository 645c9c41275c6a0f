// A BOM being built in memory: items are inserted (or gathered from a directory tree),
// masked, and finally laid out byte for byte as the BOM file format prescribes.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMTree.h"

namespace crateworks::bom {

class BOMWriter : public BOMTree {
public:
    BOMWriter() = default;

    // Adds the tree under `directory` (the directory itself as "."), links not followed,
    // names in byte order. False when an item cannot be read; the writer is then partial.
    bool addDirectory(const std::string& directory, bool allData);

    // Inserts an entry at its path name ("." or "./a/b"); the parent must be present. An
    // existing entry is replaced (its children stay) only when `replace` is set.
    bool insert(const BOMEntry& entry, bool replace);
    // Removes every item, the root excepted, whose stored path matches one of the fnmatch
    // patterns (no flags: "*" also crosses "/"), together with everything below it.
    void mask(const std::vector<std::string>& patterns);
    // The file's bytes; absent when there is no root or the layout does not fit 32-bit offsets.
    std::optional<std::vector<uint8_t>> serialize() const;

    std::optional<NodeIndex> root() const override;
    std::span<const NodeIndex> children(NodeIndex node) const override { return nodes_[node].children; }
    std::string_view name(NodeIndex node) const override { return nodes_[node].name; }
    std::optional<NodeIndex> parent(NodeIndex node) const override;
    std::optional<NodeIndex> child(NodeIndex node, std::string_view name) const override;
    void fill(NodeIndex node, BOMEntry& entry) const override;
    uint32_t count() const override { return uint32_t(index_.size()); }
    uint64_t bytesRepresented() const override;

private:
    struct Node {
        BOMEntry entry;  // without its path name, which index_ holds
        std::string name;
        NodeIndex parent;
        std::vector<NodeIndex> children;  // ordered by name
    };
    class Layout;

    NodeIndex _addNode(NodeIndex parent, std::string name, BOMEntry entry);
    bool _addChildren(const std::string& directory, NodeIndex node, const std::string& path, bool allData);
    void _remove(NodeIndex node, const std::string& path);

    std::vector<Node> nodes_;  // removed nodes stay as unreachable slots
    std::unordered_map<std::string, NodeIndex> index_;  // stored path to live node
};

}  // namespace crateworks::bom
