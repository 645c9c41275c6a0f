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
        cursor->stack_.clear();
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

[[gnu::always_inline]] inline std::string_view BOMCursor::_extendPath(size_t base, std::string_view name) {
    const size_t length = base + 1 + name.size();
    if (length > format::kMaxStoredPathLength) return {};
    // The buffer keeps sixteen bytes to spare, so that a short name whose bytes in the
    // file are followed by enough others is copied in one fixed-size move.
    if (length + kCopyBytes > path_.size()) path_.resize(std::max(length + kCopyBytes, 2 * path_.size()));
    char* at = path_.data() + base;
    *at = '/';
    const auto* from = reinterpret_cast<const uint8_t*>(name.data());
    if (name.size() <= kCopyBytes && blocks_.size - size_t(from - blocks_.bytes) >= kCopyBytes)
        std::memcpy(at + 1, name.data(), kCopyBytes);
    else
        std::memcpy(at + 1, name.data(), name.size());
    pathLength_ = length;
    return {path_.data(), length};
}

void BOMCursor::_setPath(std::string_view path) {
    if (path.size() > path_.size()) path_.resize(path.size());
    std::memcpy(path_.data(), path.data(), path.size());
    pathLength_ = path.size();
}

[[gnu::always_inline]] inline bool BOMCursor::_place(const Item& item, size_t level) {
    bool root = item.parent == 0;
    std::string_view name = _name(item);
    if (name.empty()) return false;
    std::string_view path;
    if (root) {
        _setPath(".");
        path = _path();
        stack_.assign(1, Frame{item.id, 1});
    } else {
        if (stack_.size() > level + 1) stack_.resize(level + 1);
        path = _extendPath(stack_[level].pathLength, name);
        if (path.empty()) return false;
        stack_.push_back(Frame{item.id, uint32_t(path.size())});
    }
    view_.moveTo(item.infoBlock, item.id, name, path);
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
    if (!_place(item, 0)) return Found::damaged;
    path.remove_prefix(std::min<size_t>(path.size(), 2));
    while (!path.empty()) {
        size_t slash = path.find('/');
        std::string_view component = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
        if (component.empty()) continue;
        const size_t parentLevel = stack_.size() - 1;
        const uint32_t parent = stack_.back().id;
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
    startLevel_ = stack_.size() - 1;
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
    _setPath(reader_->pathOf(*node));
    const WalkNode& walk = order_->nodes[*node];
    node_ = *node;
    stop_ = walk.end;
    pathLengths_.assign(size_t(walk.depth) + 1, 0);
    pathLengths_[walk.depth] = uint32_t(pathLength_);
    view_.moveTo(reader_->infoBlockOfNode(node_), reader_->idOfNode(node_), reader_->name(node_), _path());
    return true;
}

[[gnu::always_inline]] inline bool BOMCursor::_advanceInLeaves() {
    const uint32_t skipFrom = skip_ ? stack_.back().id : 0;
    skip_ = false;
    bool freshSkip = skipFrom != 0;
    for (;;) {
        if (skipFrom && (freshSkip || pairIndex_ == 0 || pairIndex_ >= pairCount_)) {
            if (!_skipLeaves(skipFrom)) return _fail();
            freshSkip = false;
        }
        Item item{};
        switch (_read(item)) {
        case Read::item: break;
        case Read::end: done_ = true; return false;
        case Read::departs: return _switchToIndex(skipFrom, lastId_);
        case Read::damaged: return _fail();
        }
        if (skipFrom && item.parent >= skipFrom) continue;
        size_t level = stack_.size();
        while (level > 0 && stack_[level - 1].id != item.parent) --level;
        if (level == 0) return _switchToIndex(skipFrom, item.id - 1);
        if (level - 1 < startLevel_) {  // past the starting entry's subtree
            done_ = true;
            return false;
        }
        if (!_place(item, level - 1)) return _fail();
        delivered_ = true;
        return true;
    }
}

bool BOMCursor::advance() {
    if (done_ || fieldsDamaged_) return false;
    if (!started_) {
        started_ = true;
        return true;
    }
    return order_ ? _advanceInIndex() : _advanceInLeaves();
}

bool BOMCursor::_switchToIndex(uint32_t skipFrom, uint32_t passed) {
    order_ = reader_->index();
    if (!order_) return _fail();
    const NodeIndex startNode = stack_[startLevel_].id - 1;
    // The items read so far must be the first ones of the index's walk order, so that
    // the walk can go on from there.
    bool prefix = passed <= order_->nodes.size();
    for (NodeIndex node = 0; prefix && node < passed; ++node) prefix = reader_->idOfNode(node) == node + 1;
    if (!prefix) {
        if (delivered_) return _fail();
        // Nothing below the start handed out yet: start again from it through the index.
        std::string start(path_.data(), stack_[startLevel_].pathLength);
        bool skipped = skipFrom != 0;
        stack_.clear();
        if (!_startIndexed(start)) return _fail();
        if (skipped) {
            done_ = true;
            return false;
        }
        return _advanceInIndex();
    }
    stop_ = order_->nodes[startNode].end;
    NodeIndex next = passed;
    if (skipFrom) next = std::max(next, order_->nodes[skipFrom - 1].end);
    pathLengths_.resize(stack_.size());
    for (size_t level = 0; level < stack_.size(); ++level) pathLengths_[level] = stack_[level].pathLength;
    if (next >= stop_) {
        done_ = true;
        return false;
    }
    return _showNode(next) || _fail();
}

bool BOMCursor::_advanceInIndex() {
    NodeIndex next = skip_ ? order_->nodes[node_].end : node_ + 1;
    skip_ = false;
    if (next >= stop_) {
        done_ = true;
        return false;
    }
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
