// Reads a BOM file in place. Opening checks the header, the block table and the way
// down to the first leaf of the path tree (and reads the small table of 64-bit sizes);
// nothing else is read until it is asked for. Walks and look-ups go through the leaves
// as the file lays them out (BOMCursor), checking each block they follow, so a damaged
// or hostile file is refused where a walk reaches the damage and never makes the
// reader read outside its bytes, loop or recurse without bound.
//
// A writer lays its items out in walk order and numbers them 1, 2, ... in that order,
// which the cursor relies on and checks as it goes. For a file that departs from it the
// reader builds, once, an index of the whole path tree (items renumbered in walk order,
// one small record each, names left in the mapped bytes) and walks that instead.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMTree.h"

namespace crateworks::bom {

class BOMReader : public BOMTree, public std::enable_shared_from_this<BOMReader> {
public:
    // Null when the bytes are not a BOM (magic, version, tables, path tree header, the
    // way down to its first leaf, the 64-bit size table). The bytes must outlive the
    // reader; `owner` (may be null) is kept to guarantee that.
    static std::shared_ptr<BOMReader> open(std::span<const uint8_t> bytes, std::shared_ptr<const void> owner);

    // A node block of a tree: leaf or branch, its pairs and the next leaf.
    struct Node {
        bool isLeaf = false;
        uint32_t forward = 0;
        std::span<const uint8_t> pairs;  // count × {u32 value, u32 key}
        uint32_t count() const { return uint32_t(pairs.size() / 8); }
    };

    // The block table and the bytes it points into, copied out so that a loop over many
    // blocks keeps them in registers.
    struct Blocks {
        const uint8_t* table;  // the pairs, pair 0 included
        uint32_t count;
        const uint8_t* bytes;
        size_t size;

        // The bytes of a block; absent for the null block, an index past the table or a
        // block that does not lie inside the file.
        std::optional<std::span<const uint8_t>> block(uint32_t index) const {
            const uint8_t* at = nullptr;
            uint32_t length = 0;
            if (!blockAtLeast(index, 0, at, length)) return std::nullopt;
            return std::span<const uint8_t>(at, length);
        }
        // Sets `at` and `length` to the bytes of a block at least `least` long; false
        // when it is absent, shorter or outside the file. (There is always a block 0, so
        // count > 0.)
        bool blockAtLeast(uint32_t index, uint32_t least, const uint8_t*& at, uint32_t& length) const {
            if (index - 1u >= count - 1u) return false;
            const uint8_t* pair = table + size_t(index) * 8;
            const uint64_t address = _u32(pair);
            length = _u32(pair + 4);
            if (length < least || address + length > size) return false;
            at = bytes + address;
            return true;
        }
        // Asks the processor to start loading the bytes `distance` past `at` (a place in
        // the file), when they are in the file.
        void prefetchAhead(const uint8_t* at, size_t distance) const {
            const size_t offset = size_t(at - bytes) + distance;
            if (offset < size) _prefetch(bytes + offset);
        }
    };
    Blocks blocks() const { return {blockTable_.data(), blockCount_, bytes_.data(), bytes_.size()}; }
    std::optional<std::span<const uint8_t>> block(uint32_t index) const { return blocks().block(index); }
    // A node block; absent when it is missing or too short for its count.
    std::optional<Node> node(uint32_t index) const;
    uint32_t blockCount() const { return blockCount_; }
    // The first leaf of the path tree (reached at open).
    uint32_t firstLeaf() const { return firstLeaf_; }
    // An item's size: from the 64-bit table when it has the item, else the stored 32 bits.
    uint64_t sizeOf(uint32_t id, uint32_t storedSize) const;

    // The whole-file index, built on the first request; null when the file is damaged.
    // Only files that depart from the writer's layout need it.
    const WalkOrder* index() const;
    bool hasIndex() const { return indexBuilt_.load(std::memory_order_acquire) && indexGood_; }
    uint32_t idOfNode(NodeIndex node) const { return ids_.empty() ? node + 1 : ids_[node]; }
    uint32_t infoBlockOfNode(NodeIndex node) const { return infoBlocks_[node]; }

    // BOMTree, answered from the index (built when first needed).
    std::optional<NodeIndex> root() const override;
    std::span<const NodeIndex> children(NodeIndex node) const override;
    std::string_view name(NodeIndex node) const override {
        return {walkOrder_.names + walk_[node].nameOffset, walk_[node].nameLength};
    }
    std::optional<NodeIndex> parent(NodeIndex node) const override;
    std::optional<NodeIndex> child(NodeIndex node, std::string_view name) const override;
    void fill(NodeIndex node, BOMEntry& entry) const override;
    // The items in the path tree's leaves (0 when the leaves are damaged).
    uint32_t count() const override;
    // The sizes of all items added up (0 when a walk over them reaches damage).
    uint64_t bytesRepresented() const override;
    const WalkOrder* walkOrder() const override { return index(); }

private:
    // GCC drops a __builtin_prefetch whose address it computed behind a condition, so
    // on x86 the instruction is written out.
    static void _prefetch(const uint8_t* address) {
#if defined(__x86_64__) || defined(__i386__)
        asm volatile("prefetcht0 %0" : : "m"(*address));
#else
        __builtin_prefetch(address);
#endif
    }
    BOMReader(std::span<const uint8_t> bytes, std::shared_ptr<const void> owner);
    bool _open();
    bool _readBlockTable();
    std::optional<uint32_t> _variable(std::string_view name) const;
    static uint32_t _u32(const uint8_t* p) {
        return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
    }
    std::optional<uint32_t> _treeRoot(uint32_t headerBlock) const;
    std::optional<uint32_t> _firstLeafOf(uint32_t headerBlock) const;
    template <typename Visit> bool _walkLeaves(uint32_t headerBlock, Visit&& visit) const;
    bool _readSize64();
    // The index.
    bool _buildIndex();
    bool _readPaths(std::vector<uint32_t>& parentIds);
    bool _orderByWalk(std::vector<uint32_t>& parentIds);
    void _buildParents() const;
    void _buildChildren() const;

    std::span<const uint8_t> bytes_;
    std::shared_ptr<const void> owner_;
    std::span<const uint8_t> blockTable_;  // the pairs, pair 0 included
    uint32_t blockCount_ = 0;
    uint32_t pathsHeader_ = 0;
    uint32_t firstLeaf_ = 0;
    std::vector<std::pair<uint32_t, uint64_t>> sizes64_;  // by id, ascending

    // The index, by node in walk order, made on first request.
    mutable std::once_flag indexOnce_;
    mutable std::atomic<bool> indexBuilt_{false};
    bool indexGood_ = false;
    std::vector<WalkNode> walk_;
    std::vector<uint32_t> infoBlocks_;
    std::vector<uint32_t> ids_;  // empty when every node's id is its index plus one, as a writer numbers them
    WalkOrder walkOrder_{};
    // Made on first request: each node's parent, and its children in walk order and
    // ordered by name.
    mutable std::once_flag parentsOnce_;
    mutable std::vector<NodeIndex> parents_;
    mutable std::once_flag childrenOnce_;
    mutable std::vector<uint32_t> childStart_;  // children of node i: [childStart_[i], childStart_[i + 1])
    mutable std::vector<NodeIndex> children_;
    mutable std::vector<NodeIndex> sortedChildren_;
    mutable std::once_flag countOnce_;
    mutable uint32_t count_ = 0;
    mutable std::once_flag bytesOnce_;
    mutable uint64_t bytesRepresented_ = 0;
};

}  // namespace crateworks::bom
