// The walk over a BOM file (BOMReader): reads the path tree's leaves in order and
// builds each entry's path in one buffer from a stack of its ancestors, so a walk of
// any size allocates nothing per entry and keeps only as much state as the tree is
// deep. Skipped subtrees are passed over a leaf at a time where a leaf's last item
// shows that the whole leaf lies inside them. Finding the starting entry descends the
// same way: the children of each directory on the path are compared, the subtrees of
// the others skipped.
//
// This relies on the writer's layout (items in walk order, numbered 1, 2, ... in that
// order, each one's directory among the ancestors of the item before it) and checks it
// item by item. At the first item that departs from it the walk goes on through the
// reader's whole-file index, from the same place; a file whose departure would reorder
// entries already handed out, or whose index cannot be built, ends the walk as damaged.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMEnumerator.h"
#include "CrateworksCore/Package_API/BOM/BOMFormat.h"
#include "CrateworksCore/Package_API/BOM/BOMReader.h"

namespace crateworks::bom {

class BOMCursor : public BOMEnumerator {
public:
    // A walk over the entry at the stored path ("." or "./a/b"; empty components are
    // ignored) and everything below it. Null when there is no such entry, or when the
    // way to it reaches damage (then `damaged`, when given, is set).
    static std::unique_ptr<BOMCursor> atPath(std::shared_ptr<const BOMReader> reader, std::string_view path,
                                             bool* damaged = nullptr);

    bool advance() override;
    BOMWalkStatus visitRemaining(BOMVisitor& visitor) override;
    void skipDescendants() override {
        skip_ = true;
        held_ = true;
    }
    bool damaged() const override { return damaged_ || fieldsDamaged_; }

private:
    enum class Read { item, end, departs, damaged };
    struct Item {
        uint32_t id;
        uint32_t parent;
        uint32_t infoBlock;
        uint32_t keyLength;
        const uint8_t* key;  // its name is read only when it is needed
    };
    static constexpr size_t kCopyBytes = 16;
    // Room for the longest stored path, and for a short name copied whole after it.
    static constexpr size_t kPathBufferSize = format::kMaxStoredPathLength + 1 + kCopyBytes;
    struct Frame {
        uint32_t id;
        uint32_t pathLength;
    };

    explicit BOMCursor(std::shared_ptr<const BOMReader> reader)
        : reader_(std::move(reader)), blocks_(reader_->blocks()), path_(new char[kPathBufferSize]) {
        view_ = BOMEntryView(reader_.get(), 0, 0, {}, {}, &fieldsDamaged_);
    }

    // Finding the start.
    enum class Found { yes, no, departs, damaged };
    Found _descend(std::string_view path);
    bool _startIndexed(std::string_view path);

    // The next item of the leaves, checked against the writer's numbering.
    Read _read(Item& item);
    bool _enterLeaf(uint32_t block);
    // While skipping the subtree of `skipFrom`, passes over whole leaves that lie in it.
    bool _skipLeaves(uint32_t skipFrom);
    // The item's name, checked; empty when it is not a sound name.
    std::string_view _name(const Item& item) const;
    // Makes the item the current entry below the frame at `level`; false when its name
    // is damaged. Its info block is read when a field of the view is asked for.
    bool _place(const Item& item, size_t level);
    // Makes the root item the current entry, at level 0.
    bool _placeRoot(const Item& item);
    // The frame at `level` becomes the deepest one.
    void _setFrame(size_t level, Frame frame) {
        if (level == stackCapacity_) [[unlikely]]
            _growStack();
        stack_[level] = frame;
        depth_ = level + 1;
    }
    void _growStack();
    const Frame& _top() const { return stack_[depth_ - 1]; }
    // The current path: the first `base` bytes of the one before, a slash and `name`;
    // empty when that is longer than a stored path may be.
    std::string_view _extendPath(size_t base, std::string_view name);
    // False when the path is longer than a stored path may be.
    bool _setPath(std::string_view path);
    std::string_view _path() const { return {path_.get(), pathLength_}; }
    // The next item of the leaves, the subtree of `skipFrom` passed over when it is not 0.
    bool _advanceInLeaves(uint32_t skipFrom);
    // advance() off its common path: the first call, a skip, the index, the end.
    bool _advanceHeld();
    // What advance() does, inline in the cursor's own visiting loop.
    bool _next();
    // Goes on through the whole-file index after a departure, `passed` items having
    // been read before it (the subtree of `skipFrom` being skipped, when not 0).
    bool _switchToIndex(uint32_t skipFrom, uint32_t passed);
    bool _advanceInIndex(bool skip);
    // False when the node's path is too long to be believed.
    bool _showNode(NodeIndex node);
    bool _fail() {
        damaged_ = true;
        return _finish();
    }
    bool _finish() {
        done_ = true;
        held_ = true;
        return false;
    }

    std::shared_ptr<const BOMReader> reader_;
    const BOMReader::Blocks blocks_;  // the reader's table, kept at hand
    // The leaves.
    const uint8_t* pairs_ = nullptr;
    uint32_t pairCount_ = 0;
    uint32_t pairIndex_ = 0;
    uint32_t forward_ = 0;
    uint32_t leavesEntered_ = 0;
    uint32_t lastId_ = 0;  // of the last item read
    // The current entry and its ancestors, by depth (the first depth_ frames); the walk's
    // start is at startLevel_. An array with its capacity beside it rather than a vector:
    // testing a vector's size for room cost six instructions an entry, 4 % of a walk.
    std::unique_ptr<Frame[]> stack_;
    size_t stackCapacity_ = 0;
    size_t depth_ = 0;
    size_t startLevel_ = 0;
    std::unique_ptr<char[]> path_;  // kPathBufferSize bytes, the path in the first pathLength_
    size_t pathLength_ = 0;
    // After a departure (or for a file indexed before), nodes of the index instead.
    const WalkOrder* order_ = nullptr;
    NodeIndex node_ = 0;
    NodeIndex stop_ = 0;
    std::vector<uint32_t> pathLengths_;  // by depth

    // Set whenever advance() cannot take its common path (not started, a skip asked for,
    // walking the index, done), so that one test keeps it there.
    bool held_ = true;
    bool started_ = false;
    bool delivered_ = false;  // an entry after the start has been handed out
    bool skip_ = false;
    bool done_ = false;
    bool damaged_ = false;
    bool fieldsDamaged_ = false;  // set by a view whose info block is damaged
};

}  // namespace crateworks::bom
