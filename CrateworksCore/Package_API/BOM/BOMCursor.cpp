#include "CrateworksCore/Package_API/BOM/BOMCursor.h"

#include <algorithm>
#include <cstring>

#include "CrateworksCore/Package_API/BOM/BOMFormat.h"

namespace crateworks::bom {

using format::readU32;

namespace {
// How far ahead of an item's key a walk asks for the bytes it will need: some thirty
// items of a writer's file.
constexpr size_t kPrefetchBytes = 1024;
}  // namespace

std::unique_ptr<BOMCursor> BOMCursor::atPath(std::shared_ptr<const BOMReader> reader, std::string_view path,
                                             bool* damaged) {
    if (damaged) *damaged = false;
    if (!reader || (path != "." && path.substr(0, 2) != "./")) return nullptr;
    std::unique_ptr<BOMCursor> cursor(new BOMCursor(std::move(reader)));
    Found found = cursor->reader_->hasIndex() ? Found::departs : cursor->_descend(path);
    if (found == Found::departs) {
        cursor->depth_ = 0;
        found = cursor->_startIndexed(path) ? Found::yes : cursor->damaged_ ? Found::damaged : Found::no;
    }
    if (found == Found::damaged && damaged) *damaged = true;
    return found == Found::yes ? std::move(cursor) : nullptr;
}

bool BOMCursor::_enterLeaf(uint32_t block) {
    auto leaf = reader_->node(block);
    // Every leaf is entered once: more leaves than blocks means they loop.
    if (!leaf || !leaf->isLeaf || ++leavesEntered_ > reader_->blockCount()) return false;
    pairs_ = leaf->pairs.data();
    pairCount_ = leaf->count();
    pairIndex_ = 0;
    forward_ = leaf->forward;
    return true;
}

[[gnu::always_inline]] inline std::string_view BOMCursor::_name(const Item& item) const {
    return format::keyName(item.key, item.keyLength, blocks_.size - size_t(item.key - blocks_.bytes), item.parent == 0);
}

[[gnu::always_inline]] inline BOMCursor::Read BOMCursor::_read(Item& item) {
    while (pairIndex_ >= pairCount_) {
        if (forward_ == 0) return Read::end;
        if (!_enterLeaf(forward_)) return Read::damaged;
    }
    const uint8_t* pair = pairs_ + size_t(pairIndex_) * 8;
    const uint8_t *value, *key;
    uint32_t valueLength, keyLength;
    if (!blocks_.blockAtLeast(readU32(pair), 8, value, valueLength) ||
        !blocks_.blockAtLeast(readU32(pair + 4), 5, key, keyLength))
        return Read::damaged;
    // A writer lays the items' keys and values out one after another: what the items
    // some way ahead will need lies that far past these.
    blocks_.prefetchAhead(key, kPrefetchBytes);
    item.id = readU32(value);
    item.parent = readU32(key);
    if (item.id != uint64_t(lastId_) + 1 || item.parent >= item.id) return Read::departs;
    item.infoBlock = readU32(value + 4);
    item.key = key;
    item.keyLength = keyLength;
    ++pairIndex_;
    lastId_ = item.id;
    return Read::item;
}

// Whether the rest of the current leaf lies inside the subtree of `skipFrom`, of which
// every item read since it is a part. In the writer's layout a subtree is one run of
// items, so it is enough that the leaf's last item is inside: its chain of directories
// reaches an item already read (inside when its id is not below skipFrom) through items
// of this same leaf.
bool BOMCursor::_skipLeaves(uint32_t skipFrom) {
    for (;;) {
        while (pairIndex_ >= pairCount_) {
            if (forward_ == 0) return true;
            if (!_enterLeaf(forward_)) return false;
        }
        const uint32_t remaining = pairCount_ - pairIndex_;
        auto idAt = [&](uint32_t index, uint32_t* parent) -> std::optional<uint32_t> {
            const uint8_t* pair = pairs_ + size_t(index) * 8;
            auto value = reader_->block(readU32(pair));
            auto key = reader_->block(readU32(pair + 4));
            if (!value || value->size() < 8 || !key || key->size() < 5) return std::nullopt;
            *parent = readU32(key->data());
            return readU32(value->data());
        };
        uint32_t parent = 0;
        uint32_t item = lastId_ + remaining;
        auto id = idAt(pairCount_ - 1, &parent);
        if (!id || *id != item) return true;  // read item by item
        bool inside = false;
        for (;;) {
            if (parent < skipFrom || parent >= item) break;
            if (parent <= lastId_) {
                inside = true;
                break;
            }
            uint32_t index = pairIndex_ + (parent - lastId_ - 1);
            item = parent;
            id = idAt(index, &parent);
            if (!id || *id != item) break;
        }
        if (!inside) return true;
        lastId_ += remaining;
        pairIndex_ = pairCount_;
    }
}

std::string_view BOMCursor::_extendPath(size_t base, std::string_view name) {
    const size_t length = base + 1 + name.size();
    if (length > format::kMaxStoredPathLength) return {};
    path_[base] = '/';
    std::memcpy(path_.get() + base + 1, name.data(), name.size());
    pathLength_ = length;
    return {path_.get(), length};
}

bool BOMCursor::_setPath(std::string_view path) {
    if (path.size() > format::kMaxStoredPathLength) return false;
    std::memcpy(path_.get(), path.data(), path.size());
    pathLength_ = path.size();
    return true;
}

void BOMCursor::_growStack() {
    const size_t capacity = std::max<size_t>(16, 2 * stackCapacity_);
    std::unique_ptr<Frame[]> grown(new Frame[capacity]);
    std::copy(stack_.get(), stack_.get() + stackCapacity_, grown.get());
    stack_ = std::move(grown);
    stackCapacity_ = capacity;
}

// The name is checked and copied into the path in one go: a short name whose block is
// followed by enough bytes of the file is read and copied sixteen bytes at once (the
// path buffer keeps room for that after the longest path).
[[gnu::always_inline]] inline bool BOMCursor::_place(const Item& item, size_t level) {
    const size_t base = stack_[level].pathLength;
    char* const at = path_.get() + base;
    const char* const stored = reinterpret_cast<const char*>(item.key) + 4;
    const size_t storedSize = item.keyLength - 4;
    const size_t readable = blocks_.size - size_t(item.key - blocks_.bytes) - 4;
    size_t length;
    if (storedSize <= kCopyBytes && readable >= kCopyBytes) {
        length = format::copyShortName(stored, storedSize, at + 1);
        if (length == std::string_view::npos) return false;
    } else {
        length = format::storedNameLength(stored, storedSize, readable);
        if (length == std::string_view::npos || base + 1 + length > format::kMaxStoredPathLength) return false;
        std::memcpy(at + 1, stored, length);
    }
    const std::string_view name(stored, length);
    const size_t pathLength = base + 1 + length;
    if (format::isReservedName(name) || pathLength > format::kMaxStoredPathLength) [[unlikely]]
        return false;
    *at = '/';
    _setFrame(level + 1, Frame{item.id, uint32_t(pathLength)});
    view_.moveTo(item.infoBlock, item.id, name, {path_.get(), pathLength});
    return true;
}

bool BOMCursor::_placeRoot(const Item& item) {
    std::string_view name = _name(item);
    if (name.empty()) return false;
    _setPath(".");
    _setFrame(0, Frame{item.id, 1});
    view_.moveTo(item.infoBlock, item.id, name, _path());
    return true;
}

BOMCursor::Found BOMCursor::_descend(std::string_view path) {
    if (!_enterLeaf(reader_->firstLeaf())) return Found::damaged;
    Item item{};
    switch (_read(item)) {
    case Read::item: break;
    case Read::end: return Found::damaged;  // no root
    case Read::departs: return Found::departs;
    case Read::damaged: return Found::damaged;
    }
    if (item.parent != 0) return Found::departs;
    if (!_placeRoot(item)) return Found::damaged;
    path.remove_prefix(std::min<size_t>(path.size(), 2));
    while (!path.empty()) {
        size_t slash = path.find('/');
        std::string_view component = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
        if (component.empty()) continue;
        const size_t parentLevel = depth_ - 1;
        const uint32_t parent = _top().id;
        uint32_t skipFrom = 0;
        bool freshSkip = false;
        for (;;) {
            if (skipFrom && (freshSkip || pairIndex_ == 0 || pairIndex_ >= pairCount_)) {
                if (!_skipLeaves(skipFrom)) return Found::damaged;
                freshSkip = false;
            }
            switch (_read(item)) {
            case Read::item: break;
            case Read::end: return Found::no;
            case Read::departs: return Found::departs;
            case Read::damaged: return Found::damaged;
            }
            if (item.parent == parent) {
                std::string_view name = _name(item);
                if (name.empty()) return Found::damaged;
                if (name == component) {
                    if (!_place(item, parentLevel)) return Found::damaged;
                    break;
                }
                skipFrom = item.id;
                freshSkip = true;
                continue;
            }
            if (skipFrom && item.parent >= skipFrom) continue;
            // Past the directory's contents: it has no such child.
            for (size_t level = 0; level < parentLevel; ++level)
                if (stack_[level].id == item.parent) return Found::no;
            return Found::departs;
        }
    }
    startLevel_ = depth_ - 1;
    return Found::yes;
}

bool BOMCursor::_startIndexed(std::string_view path) {
    order_ = reader_->index();
    if (!order_) {
        damaged_ = true;
        return false;
    }
    auto node = reader_->find(path);
    if (!node) return false;
    if (!_setPath(reader_->pathOf(*node))) {
        damaged_ = true;
        return false;
    }
    const WalkNode& walk = order_->nodes[*node];
    node_ = *node;
    stop_ = walk.end;
    pathLengths_.assign(size_t(walk.depth) + 1, 0);
    pathLengths_[walk.depth] = uint32_t(pathLength_);
    view_.moveTo(reader_->infoBlockOfNode(node_), reader_->idOfNode(node_), reader_->name(node_), _path());
    return true;
}

[[gnu::always_inline]] inline bool BOMCursor::_advanceInLeaves(const uint32_t skipFrom) {
    bool freshSkip = skipFrom != 0;
    for (;;) {
        if (skipFrom && (freshSkip || pairIndex_ == 0 || pairIndex_ >= pairCount_)) {
            if (!_skipLeaves(skipFrom)) return _fail();
            freshSkip = false;
        }
        Item item{};
        switch (_read(item)) {
        case Read::item: break;
        case Read::end: return _finish();
        case Read::departs: return _switchToIndex(skipFrom, lastId_);
        case Read::damaged: return _fail();
        }
        if (skipFrom && item.parent >= skipFrom) continue;
        size_t level = depth_;
        const Frame* frames = stack_.get();
        while (level > 0 && frames[level - 1].id != item.parent) --level;
        if (level == 0) return _switchToIndex(skipFrom, item.id - 1);
        if (level - 1 < startLevel_) return _finish();  // past the starting entry's subtree
        if (!_place(item, level - 1)) return _fail();
        delivered_ = true;
        return true;
    }
}

[[gnu::always_inline]] inline bool BOMCursor::_next() {
    if (held_ || fieldsDamaged_) [[unlikely]]
        return _advanceHeld();
    return _advanceInLeaves(0);
}

bool BOMCursor::advance() { return _next(); }

// The same loop as every walk's, with the next entry found inline rather than through
// a virtual call.
BOMWalkStatus BOMCursor::visitRemaining(BOMVisitor& visitor) {
    return _visitWith(visitor, [this] { return _next(); });
}

bool BOMCursor::_advanceHeld() {
    if (done_ || fieldsDamaged_) return false;
    if (!started_) {
        started_ = true;
        held_ = order_ != nullptr || skip_;
        return true;
    }
    const bool skip = skip_;
    skip_ = false;
    if (order_) return _advanceInIndex(skip);
    held_ = false;
    return _advanceInLeaves(skip ? _top().id : 0);
}

bool BOMCursor::_switchToIndex(uint32_t skipFrom, uint32_t passed) {
    order_ = reader_->index();
    held_ = true;
    if (!order_) return _fail();
    const NodeIndex startNode = stack_[startLevel_].id - 1;
    // The items read so far must be the first ones of the index's walk order, so that
    // the walk can go on from there.
    bool prefix = passed <= order_->nodes.size();
    for (NodeIndex node = 0; prefix && node < passed; ++node) prefix = reader_->idOfNode(node) == node + 1;
    if (!prefix) {
        if (delivered_) return _fail();
        // Nothing below the start handed out yet: start again from it through the index.
        std::string start(path_.get(), stack_[startLevel_].pathLength);
        bool skipped = skipFrom != 0;
        depth_ = 0;
        if (!_startIndexed(start)) return _fail();
        if (skipped) return _finish();
        return _advanceInIndex(false);
    }
    stop_ = order_->nodes[startNode].end;
    NodeIndex next = passed;
    if (skipFrom) next = std::max(next, order_->nodes[skipFrom - 1].end);
    pathLengths_.resize(depth_);
    for (size_t level = 0; level < depth_; ++level) pathLengths_[level] = stack_[level].pathLength;
    if (next >= stop_) return _finish();
    return _showNode(next) || _fail();
}

bool BOMCursor::_advanceInIndex(bool skip) {
    NodeIndex next = skip ? order_->nodes[node_].end : node_ + 1;
    if (next >= stop_) return _finish();
    return _showNode(next) || _fail();
}

bool BOMCursor::_showNode(NodeIndex node) {
    const WalkNode& walk = order_->nodes[node];
    if (pathLengths_.size() <= walk.depth) pathLengths_.resize(size_t(walk.depth) + 1);
    std::string_view name(order_->names + walk.nameOffset, walk.nameLength);
    std::string_view path = _extendPath(pathLengths_[walk.depth - 1], name);
    if (path.empty()) return false;
    pathLengths_[walk.depth] = uint32_t(path.size());
    node_ = node;
    delivered_ = true;
    view_.moveTo(reader_->infoBlockOfNode(node), reader_->idOfNode(node), name, path);
    return true;
}

}  // namespace crateworks::bom
