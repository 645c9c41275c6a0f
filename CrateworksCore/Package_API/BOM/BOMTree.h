// The item tree behind a BOM store: what the walk and the look-ups need from either a
// mapped BOM file (BOMReader) or a BOM being built (BOMWriter). Nodes are indices.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "CrateworksCore/Package_API/BOM/BOMEntry.h"

namespace crateworks::bom {

using NodeIndex = uint32_t;

// A node of a tree whose nodes are numbered in walk order: depth first, each directory
// before its contents, children in the order the file lists them. A subtree is then the
// run of nodes from its top to `end`.
struct WalkNode {
    uint32_t nameOffset;  // into WalkOrder::names
    uint32_t nameLength;
    NodeIndex end;   // the first node after the subtree
    uint32_t depth;  // 0 for the root
};

struct WalkOrder {
    const char* names;
    std::span<const WalkNode> nodes;
};

class BOMTree {
public:
    virtual ~BOMTree() = default;

    // Absent when the tree has no root yet (a new BOM before its "." is inserted).
    virtual std::optional<NodeIndex> root() const = 0;
    // The children in walk order; the span is valid until the tree is changed.
    virtual std::span<const NodeIndex> children(NodeIndex node) const = 0;
    virtual std::string_view name(NodeIndex node) const = 0;
    virtual std::optional<NodeIndex> parent(NodeIndex node) const = 0;
    // The child of `node` with this name.
    virtual std::optional<NodeIndex> child(NodeIndex node, std::string_view name) const = 0;
    // Fills `entry` with the node's data, all but its path name, which the caller knows
    // (a walk builds it as it goes) and which is left as it is.
    virtual void fill(NodeIndex node, BOMEntry& entry) const = 0;
    virtual uint32_t count() const = 0;
    virtual uint64_t bytesRepresented() const = 0;
    // The tree's nodes in walk order, for a tree numbered that way; null otherwise.
    virtual const WalkOrder* walkOrder() const { return nullptr; }

    // The node at a stored path ("." or "./a/b"); empty components are ignored.
    std::optional<NodeIndex> find(std::string_view path) const;
    // The stored path of a node, built from its ancestors.
    std::string pathOf(NodeIndex node) const;
};

}  // namespace crateworks::bom
