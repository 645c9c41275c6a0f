// Reads a BOM file in place. Opening checks the layout and builds a compact index for
// the walk and for look-ups by path: the items renumbered in walk order, one small record
// each, their names left in the mapped bytes. A damaged or hostile file is refused at
// open: it never makes the reader read outside its bytes, loop or recurse without bound.
#pragma once

#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMTree.h"

namespace crateworks::bom {

class BOMReader : public BOMTree {
public:
    // Null when the bytes are not a sound BOM. The bytes must outlive the reader;
    // `owner` (may be null) is kept to guarantee that.
    static std::shared_ptr<BOMReader> open(std::span<const uint8_t> bytes, std::shared_ptr<const void> owner);

    std::optional<NodeIndex> root() const override { return std::optional<NodeIndex>(0); }
    std::span<const NodeIndex> children(NodeIndex node) const override;
    std::string_view name(NodeIndex node) const override {
        return {walkOrder_.names + walk_[node].nameOffset, walk_[node].nameLength};
    }
    std::optional<NodeIndex> parent(NodeIndex node) const override;
    std::optional<NodeIndex> child(NodeIndex node, std::string_view name) const override;
    void fill(NodeIndex node, BOMEntry& entry) const override;
    uint32_t count() const override { return uint32_t(walk_.size()); }
    uint64_t bytesRepresented() const override;
    const WalkOrder* walkOrder() const override { return &walkOrder_; }

private:
    struct Leaf;

    BOMReader(std::span<const uint8_t> bytes, std::shared_ptr<const void> owner);
    bool _parse();
    bool _readBlockTable();
    std::optional<uint32_t> _variable(std::string_view name) const;
    // The bytes of a block; absent for the null block, an index past the table or a
    // block that does not lie inside the file.
    std::optional<std::span<const uint8_t>> _block(uint32_t index) const {
        if (index == 0 || uint64_t(index) >= blockTable_.size() / 8) return std::nullopt;
        const uint8_t* pair = blockTable_.data() + size_t(index) * 8;
        uint64_t address = _u32(pair), length = _u32(pair + 4);
        if (address + length > bytes_.size()) return std::nullopt;
        return bytes_.subspan(size_t(address), size_t(length));
    }
    static uint32_t _u32(const uint8_t* p) {
        return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
    }
    std::optional<uint32_t> _treeRoot(uint32_t headerBlock) const;
    template <typename Visit> bool _walkLeaves(uint32_t headerBlock, Visit&& visit) const;
    bool _readPaths(uint32_t headerBlock, std::vector<uint32_t>& parentIds);
    bool _readSize64();
    bool _orderByWalk(std::vector<uint32_t>& parentIds);
    void _buildParents() const;
    void _buildChildren() const;
    uint32_t _id(NodeIndex node) const { return ids_.empty() ? node + 1 : ids_[node]; }
    uint64_t _size(NodeIndex node, uint32_t storedSize) const;

    std::span<const uint8_t> bytes_;
    std::shared_ptr<const void> owner_;
    std::span<const uint8_t> blockTable_;  // the pairs, pair 0 included
    // By node, in walk order once open.
    std::vector<WalkNode> walk_;
    std::vector<uint32_t> infoBlocks_;
    std::vector<uint32_t> ids_;  // empty when every node's id is its index plus one, as a writer numbers them
    WalkOrder walkOrder_{};
    std::vector<std::pair<uint32_t, uint64_t>> sizes64_;  // by id, ascending
    // Made on first request: each node's parent, and its children in walk order and
    // ordered by name.
    mutable std::once_flag parentsOnce_;
    mutable std::vector<NodeIndex> parents_;
    mutable std::once_flag childrenOnce_;
    mutable std::vector<uint32_t> childStart_;  // children of node i: [childStart_[i], childStart_[i + 1])
    mutable std::vector<NodeIndex> children_;
    mutable std::vector<NodeIndex> sortedChildren_;
    mutable std::once_flag bytesOnce_;
    mutable uint64_t bytesRepresented_ = 0;
};

}  // namespace crateworks::bom
