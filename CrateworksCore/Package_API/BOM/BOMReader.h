// Reads a BOM file in place. Opening checks the layout and builds a compact index (one
// small record per item, the names left in the mapped bytes) for the walk and for
// look-ups by path. A damaged or hostile file is refused at open: it never makes the
// reader read outside its bytes, loop or recurse without bound.
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

    std::optional<NodeIndex> root() const override { return root_; }
    std::span<const NodeIndex> children(NodeIndex node) const override;
    std::string_view name(NodeIndex node) const override;
    std::optional<NodeIndex> parent(NodeIndex node) const override;
    std::optional<NodeIndex> child(NodeIndex node, std::string_view name) const override;
    void fill(NodeIndex node, BOMEntry& entry) const override;
    uint32_t count() const override { return uint32_t(nodes_.size()); }
    uint64_t bytesRepresented() const override;

private:
    struct Node {
        uint32_t id;
        NodeIndex parent;  // the parent's id until the index is linked
        uint32_t nameOffset;
        uint32_t nameLength;
        uint32_t infoBlock;
    };
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
    bool _addPathPair(uint32_t valueBlock, uint32_t keyBlock);
    bool _readSize64();
    bool _linkParents();
    bool _buildChildren();
    bool _allReachable() const;
    void _buildLookup() const;
    uint64_t _size(const Node& node, uint32_t storedSize) const;

    std::span<const uint8_t> bytes_;
    std::shared_ptr<const void> owner_;
    std::span<const uint8_t> blockTable_;  // the pairs, pair 0 included
    std::vector<Node> nodes_;
    std::vector<uint32_t> childStart_;  // children of node i: children_[childStart_[i] .. childStart_[i + 1])
    std::vector<NodeIndex> children_;
    std::vector<std::pair<uint32_t, uint64_t>> sizes64_;  // by id, ascending
    std::optional<NodeIndex> root_;
    bool parentsFirst_ = false;  // every parent's index is below its children's
    // Children of each node ordered by name, made on the first look-up by path.
    mutable std::once_flag lookupOnce_;
    mutable std::vector<NodeIndex> sortedChildren_;
    mutable std::once_flag bytesOnce_;
    mutable uint64_t bytesRepresented_ = 0;
};

}  // namespace crateworks::bom
