#include "CrateworksCore/Package_API/BOM/BOMReader.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>

#include "CrateworksCore/Package_API/BOM/BOMCursor.h"
#include "CrateworksCore/Package_API/BOM/BOMFormat.h"

namespace crateworks::bom {

using namespace format;

namespace {
constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

bool fits(uint64_t offset, uint64_t length, size_t size) { return offset + length <= size; }

// Maps item ids to node indices: a plain table when the ids are dense, as a writer
// numbers them, and a sorted list otherwise.
class IdIndex {
public:
    // False when an id occurs twice.
    bool build(const std::vector<uint32_t>& ids) {
        uint64_t maxId = ids.empty() ? 0 : *std::max_element(ids.begin(), ids.end());
        dense_ = maxId <= 2 * uint64_t(ids.size()) + 64;
        if (dense_) {
            table_.assign(size_t(maxId) + 1, kNone);
            for (uint32_t i = 0; i < ids.size(); ++i) {
                if (table_[ids[i]] != kNone) return false;
                table_[ids[i]] = i;
            }
            return true;
        }
        sorted_.reserve(ids.size());
        for (uint32_t i = 0; i < ids.size(); ++i) sorted_.emplace_back(ids[i], i);
        std::sort(sorted_.begin(), sorted_.end());
        return std::adjacent_find(sorted_.begin(), sorted_.end(),
                                  [](auto& a, auto& b) { return a.first == b.first; }) == sorted_.end();
    }
    std::optional<uint32_t> find(uint32_t id) const {
        if (dense_) return id < table_.size() && table_[id] != kNone ? std::optional(table_[id]) : std::nullopt;
        auto it = std::lower_bound(sorted_.begin(), sorted_.end(), std::pair(id, 0u));
        return it != sorted_.end() && it->first == id ? std::optional(it->second) : std::nullopt;
    }

private:
    bool dense_ = true;
    std::vector<uint32_t> table_;
    std::vector<std::pair<uint32_t, uint32_t>> sorted_;
};
}  // namespace

BOMReader::BOMReader(std::span<const uint8_t> bytes, std::shared_ptr<const void> owner)
    : bytes_(bytes), owner_(std::move(owner)) {}

std::shared_ptr<BOMReader> BOMReader::open(std::span<const uint8_t> bytes, std::shared_ptr<const void> owner) {
    std::shared_ptr<BOMReader> reader(new BOMReader(bytes, std::move(owner)));
    if (!reader->_open()) return nullptr;
    return reader;
}

bool BOMReader::_open() {
    if (bytes_.size() < kHeaderSize || std::memcmp(bytes_.data(), kMagic.data(), kMagic.size()) != 0) return false;
    if (readU32(bytes_.data() + 8) != kVersion || !_readBlockTable()) return false;
    auto paths = _variable(kPaths);
    if (!paths) return false;
    auto header = block(*paths);
    if (!header || header->size() < kTreeHeaderSize) return false;
    auto leaf = _firstLeafOf(*paths);
    if (!leaf) return false;
    pathsHeader_ = *paths;
    firstLeaf_ = *leaf;
    return _readSize64();
}

bool BOMReader::_readBlockTable() {
    uint32_t offset = readU32(bytes_.data() + 16), length = readU32(bytes_.data() + 20);
    if (length < 4 || !fits(offset, length, bytes_.size())) return false;
    uint64_t count = readU32(bytes_.data() + offset);
    if (count == 0 || 4 + count * 8 > length) return false;
    blockTable_ = bytes_.subspan(size_t(offset) + 4, size_t(count) * 8);
    blockCount_ = uint32_t(count);
    return true;
}

std::optional<uint32_t> BOMReader::_variable(std::string_view name) const {
    uint32_t offset = readU32(bytes_.data() + 24), length = readU32(bytes_.data() + 28);
    if (length < 4 || !fits(offset, length, bytes_.size())) return std::nullopt;
    auto table = bytes_.subspan(offset, length);
    uint32_t count = readU32(table.data());
    size_t at = 4;
    for (uint32_t i = 0; i < count && at + 5 <= table.size(); ++i) {
        uint32_t block = readU32(table.data() + at);
        size_t nameLength = table[at + 4];
        at += 5;
        if (at + nameLength > table.size()) return std::nullopt;
        if (std::string_view(reinterpret_cast<const char*>(table.data() + at), nameLength) == name) return block;
        at += nameLength;
    }
    return std::nullopt;
}

std::optional<uint32_t> BOMReader::_treeRoot(uint32_t headerBlock) const {
    auto header = block(headerBlock);
    if (!header || header->size() < kTreeHeaderSize) return std::nullopt;
    if (std::memcmp(header->data(), kTreeMagic.data(), kTreeMagic.size()) != 0) return std::nullopt;
    if (readU32(header->data() + 4) != kVersion) return std::nullopt;
    return readU32(header->data() + 8);
}

std::optional<BOMReader::Node> BOMReader::node(uint32_t index) const {
    auto bytes = block(index);
    if (!bytes || bytes->size() < kNodeHeaderSize) return std::nullopt;
    uint16_t isLeaf = readU16(bytes->data()), count = readU16(bytes->data() + 2);
    if (isLeaf > 1 || kNodeHeaderSize + size_t(count) * 8 > bytes->size()) return std::nullopt;
    return Node{isLeaf == 1, readU32(bytes->data() + 4), bytes->subspan(kNodeHeaderSize, size_t(count) * 8)};
}

// Down by the first pair of each branch, at most kMaxTreeDepth levels.
std::optional<uint32_t> BOMReader::_firstLeafOf(uint32_t headerBlock) const {
    auto nodeBlock = _treeRoot(headerBlock);
    if (!nodeBlock) return std::nullopt;
    for (int depth = 0; depth < kMaxTreeDepth; ++depth) {
        auto n = node(*nodeBlock);
        if (!n) return std::nullopt;
        if (n->isLeaf) return nodeBlock;
        if (n->pairs.empty()) return std::nullopt;
        nodeBlock = readU32(n->pairs.data());
    }
    return std::nullopt;
}

template <typename Visit>
bool BOMReader::_walkLeaves(uint32_t headerBlock, Visit&& visit) const {
    auto first = _firstLeafOf(headerBlock);
    if (!first) return false;
    std::vector<bool> seen(blockCount_);
    std::optional<Node> leaf;
    for (uint32_t at = *first; at != 0; at = leaf->forward) {
        leaf = node(at);
        if (!leaf || !leaf->isLeaf || seen[at]) return false;
        seen[at] = true;
        for (size_t i = 0; i < leaf->pairs.size(); i += 8)
            if (!visit(readU32(leaf->pairs.data() + i), readU32(leaf->pairs.data() + i + 4))) return false;
    }
    return true;
}

// A writer numbers its items 1, 2, ... in leaf order, which is walk order, so each item's
// parent is the item before it or one of that item's ancestors. While a file keeps to
// that, items are placed as they come, with their depths and the ends of their subtrees.
// From the first item that departs from it on, ids and parents' ids are kept instead
// (ids_ no longer empty), for _orderByWalk.
bool BOMReader::_readPaths(std::vector<uint32_t>& parentIds) {
    const uint32_t headerBlock = pathsHeader_;
    // Every item needs a value block of its own, so more items than blocks means a loop;
    // the tree header's count is believed only as far as the block table bears it out.
    const size_t maxItems = blockCount_;
    if (auto header = block(headerBlock); header && header->size() >= kTreeHeaderSize) {
        size_t expected = std::min<size_t>(readU32(header->data() + 16), maxItems / 2);
        walk_.reserve(expected);
        infoBlocks_.reserve(expected);
    }
    bool inWalkOrder = true;
    std::vector<NodeIndex> ancestors;  // of the item last placed, itself included
    size_t depth = 0;                  // ancestors in use
    auto place = [&](NodeIndex node, uint32_t id, uint32_t parentId, WalkNode& walk) {
        if (id != uint64_t(node) + 1 || (node == 0) != (parentId == 0) || parentId > node) return false;
        if (node > 0) {
            NodeIndex parent = parentId - 1;
            while (depth > 0 && ancestors[depth - 1] != parent) walk_[ancestors[--depth]].end = node;
            if (depth == 0) return false;
        }
        walk.depth = uint32_t(depth);
        if (depth == ancestors.size()) ancestors.push_back(node);
        ancestors[depth++] = node;
        return true;
    };
    auto leaveWalkOrder = [&](NodeIndex node) {
        inWalkOrder = false;
        ids_.reserve(walk_.capacity());
        parentIds.reserve(walk_.capacity());
        // The items placed so far were numbered as a writer numbers them.
        for (NodeIndex i = 0; i < node; ++i) {
            ids_.push_back(i + 1);
            uint32_t d = walk_[i].depth;
            ancestors[d] = i;
            parentIds.push_back(d == 0 ? 0 : ancestors[d - 1] + 1);
        }
    };
    bool read = _walkLeaves(headerBlock, [&](uint32_t valueBlock, uint32_t keyBlock) {
        if (walk_.size() >= maxItems) return false;
        auto value = block(valueBlock), key = block(keyBlock);
        if (!value || value->size() < 8 || !key || key->size() < 5) return false;
        uint32_t id = readU32(value->data()), parentId = readU32(key->data()), infoBlock = readU32(value->data() + 4);
        auto info = block(infoBlock);
        if (!info || info->size() < kInfoFixedSize) return false;
        const size_t keyOffset = size_t(key->data() - bytes_.data());
        const std::string_view name = keyName(key->data(), key->size(), bytes_.size() - keyOffset, parentId == 0);
        if (name.empty()) return false;
        const uint64_t nameOffset = keyOffset + 4;
        if (nameOffset > kNone) return false;
        WalkNode walk{uint32_t(nameOffset), uint32_t(name.size()), 0, 0};
        NodeIndex node = NodeIndex(walk_.size());
        if (inWalkOrder && !place(node, id, parentId, walk)) leaveWalkOrder(node);
        if (!inWalkOrder) {
            ids_.push_back(id);
            parentIds.push_back(parentId);
        }
        walk_.push_back(walk);
        infoBlocks_.push_back(infoBlock);
        return true;
    });
    if (!read || walk_.empty()) return false;
    if (inWalkOrder)
        while (depth > 0) walk_[ancestors[--depth]].end = NodeIndex(walk_.size());
    return true;
}

bool BOMReader::_readSize64() {
    auto header = _variable(kSize64);
    if (!header) return true;
    bool ok = _walkLeaves(*header, [this](uint32_t valueBlock, uint32_t keyBlock) {
        auto value = block(valueBlock), key = block(keyBlock);
        if (!value || value->size() < 8 || !key || key->size() < 4 || sizes64_.size() >= blockCount_)
            return false;
        sizes64_.emplace_back(readU32(key->data()), readU64(value->data()));
        return true;
    });
    std::sort(sizes64_.begin(), sizes64_.end());
    return ok;
}

// Links parents by id and renumbers the items in walk order. Every item has exactly one
// parent, so an item the walk from the root does not reach sits on an id cycle.
bool BOMReader::_orderByWalk(std::vector<uint32_t>& parentIds) {
    const size_t count = walk_.size();
    IdIndex index;
    if (!index.build(ids_)) return false;
    std::optional<NodeIndex> root;
    std::vector<uint32_t> start(count + 1, 0);  // children of item i: kids[start[i] .. start[i + 1])
    for (NodeIndex i = 0; i < count; ++i) {
        uint32_t& parent = parentIds[i];
        if (parent == 0) {
            if (root) return false;
            root = i;
            parent = kNone;
            continue;
        }
        auto found = index.find(parent);
        if (!found) return false;
        parent = *found;
        ++start[parent + 1];
    }
    if (!root) return false;
    for (size_t i = 1; i <= count; ++i) start[i] += start[i - 1];
    std::vector<NodeIndex> kids(start.back());
    {
        std::vector<uint32_t> next(start.begin(), start.end() - 1);
        for (NodeIndex i = 0; i < count; ++i)
            if (parentIds[i] != kNone) kids[next[parentIds[i]]++] = i;
    }
    parentIds = {};

    std::vector<NodeIndex> order;
    order.reserve(count);
    std::vector<WalkNode> walk;
    walk.reserve(count);
    struct Frame {
        NodeIndex item;
        uint32_t nextChild;
        NodeIndex node;  // its new number
    };
    std::vector<Frame> stack;
    auto visit = [&](NodeIndex item) {
        WalkNode node = walk_[item];
        node.depth = uint32_t(stack.size());
        stack.push_back(Frame{item, start[item], NodeIndex(order.size())});
        order.push_back(item);
        walk.push_back(node);
    };
    visit(*root);
    while (!stack.empty()) {
        Frame& frame = stack.back();
        if (frame.nextChild < start[frame.item + 1]) {
            visit(kids[frame.nextChild++]);
            continue;
        }
        walk[frame.node].end = NodeIndex(order.size());
        stack.pop_back();
    }
    if (order.size() != count) return false;

    std::vector<uint32_t> infoBlocks(count), ids(count);
    for (NodeIndex node = 0; node < count; ++node) {
        infoBlocks[node] = infoBlocks_[order[node]];
        ids[node] = ids_[order[node]];
    }
    walk_ = std::move(walk);
    infoBlocks_ = std::move(infoBlocks);
    ids_ = std::move(ids);
    return true;
}

// In walk order a node's parent is the last node before it one level up.
void BOMReader::_buildParents() const {
    parents_.resize(walk_.size());
    std::vector<NodeIndex> last;
    for (NodeIndex node = 0; node < walk_.size(); ++node) {
        uint32_t depth = walk_[node].depth;
        last.resize(depth);
        parents_[node] = depth == 0 ? kNone : last[depth - 1];
        last.push_back(node);
    }
}

void BOMReader::_buildChildren() const {
    std::call_once(parentsOnce_, [this] { _buildParents(); });
    const size_t count = walk_.size();
    childStart_.assign(count + 1, 0);
    for (NodeIndex parent : parents_)
        if (parent != kNone) ++childStart_[parent + 1];
    for (size_t i = 1; i <= count; ++i) childStart_[i] += childStart_[i - 1];
    children_.resize(childStart_.back());
    std::vector<uint32_t> next(childStart_.begin(), childStart_.end() - 1);
    for (NodeIndex i = 0; i < count; ++i)
        if (parents_[i] != kNone) children_[next[parents_[i]]++] = i;
    sortedChildren_ = children_;
    for (NodeIndex node = 0; node < count; ++node)
        std::sort(sortedChildren_.begin() + childStart_[node], sortedChildren_.begin() + childStart_[node + 1],
                  [this](NodeIndex a, NodeIndex b) { return name(a) < name(b); });
}

const WalkOrder* BOMReader::index() const {
    std::call_once(indexOnce_, [this] {
        auto* self = const_cast<BOMReader*>(this);
        self->indexGood_ = self->_buildIndex();
        indexBuilt_.store(true, std::memory_order_release);
    });
    return indexGood_ ? &walkOrder_ : nullptr;
}

bool BOMReader::_buildIndex() {
    std::vector<uint32_t> parentIds;  // filled only for a file not in walk order
    if (!_readPaths(parentIds)) return false;
    if (!ids_.empty() && !_orderByWalk(parentIds)) return false;
    walkOrder_ = WalkOrder{reinterpret_cast<const char*>(bytes_.data()), walk_};
    return true;
}

std::optional<NodeIndex> BOMReader::root() const {
    return index() ? std::optional<NodeIndex>(0) : std::nullopt;
}

std::span<const NodeIndex> BOMReader::children(NodeIndex node) const {
    if (!index()) return {};
    std::call_once(childrenOnce_, [this] { _buildChildren(); });
    return {children_.data() + childStart_[node], childStart_[node + 1] - childStart_[node]};
}

std::optional<NodeIndex> BOMReader::parent(NodeIndex node) const {
    if (!index()) return std::nullopt;
    std::call_once(parentsOnce_, [this] { _buildParents(); });
    return parents_[node] == kNone ? std::nullopt : std::optional(parents_[node]);
}

std::optional<NodeIndex> BOMReader::child(NodeIndex node, std::string_view childName) const {
    if (!index()) return std::nullopt;
    std::call_once(childrenOnce_, [this] { _buildChildren(); });
    auto first = sortedChildren_.begin() + childStart_[node], last = sortedChildren_.begin() + childStart_[node + 1];
    auto it = std::lower_bound(first, last, childName, [this](NodeIndex a, std::string_view n) { return name(a) < n; });
    return it != last && name(*it) == childName ? std::optional(*it) : std::nullopt;
}

uint64_t BOMReader::sizeOf(uint32_t id, uint32_t storedSize) const {
    if (sizes64_.empty()) return storedSize;
    auto it = std::lower_bound(sizes64_.begin(), sizes64_.end(), std::pair(id, uint64_t(0)));
    return it != sizes64_.end() && it->first == id ? it->second : storedSize;
}

void BOMReader::fill(NodeIndex node, BOMEntry& entry) const {
    std::string path = std::move(entry.pathName);
    entry = BOMEntryView(this, infoBlocks_[node], idOfNode(node), name(node), {}, nullptr).toEntry();
    entry.pathName = std::move(path);
}

uint32_t BOMReader::count() const {
    std::call_once(countOnce_, [this] {
        if (hasIndex()) {
            count_ = uint32_t(walk_.size());
            return;
        }
        // The leaves' counts, each leaf at most once.
        uint64_t total = 0;
        uint32_t leaves = 0;
        std::optional<Node> leaf;
        for (uint32_t at = firstLeaf_; at != 0; at = leaf->forward) {
            leaf = node(at);
            if (!leaf || !leaf->isLeaf || ++leaves > blockCount_) return;
            total += leaf->count();
        }
        count_ = uint32_t(std::min<uint64_t>(total, std::numeric_limits<uint32_t>::max()));
    });
    return count_;
}

uint64_t BOMReader::bytesRepresented() const {
    std::call_once(bytesOnce_, [this] {
        auto walk = BOMCursor::atPath(shared_from_this(), ".");
        if (!walk) return;
        uint64_t total = 0;
        auto status = walk->forEachRemaining([&total](const BOMEntryView& entry) {
            total += entry.size();
            return BOMVisit::kContinue;
        });
        if (status == BOMWalkStatus::kComplete) bytesRepresented_ = total;
    });
    return bytesRepresented_;
}

}  // namespace crateworks::bom
