#include "CrateworksCore/Package_API/BOM/BOMReader.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "CrateworksCore/Package_API/BOM/BOMFormat.h"

namespace crateworks::bom {

using namespace format;

namespace {
constexpr uint32_t kNone = std::numeric_limits<uint32_t>::max();

bool fits(uint64_t offset, uint64_t length, size_t size) { return offset + length <= size; }

bool isValidName(std::string_view name, bool isRoot) {
    if (isRoot) return name == ".";
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

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
    if (!reader->_parse()) return nullptr;
    return reader;
}

bool BOMReader::_parse() {
    if (bytes_.size() < kHeaderSize || std::memcmp(bytes_.data(), kMagic.data(), kMagic.size()) != 0) return false;
    if (readU32(bytes_.data() + 8) != kVersion || !_readBlockTable()) return false;
    auto paths = _variable(kPaths);
    if (!paths) return false;
    if (auto header = _block(*paths); header && header->size() >= kTreeHeaderSize)
        nodes_.reserve(std::min<size_t>(readU32(header->data() + 16), blockTable_.size() / 16));
    if (!_walkLeaves(*paths, [this](uint32_t value, uint32_t key) { return _addPathPair(value, key); })) return false;
    return _readSize64() && _linkParents() && _buildChildren() && _allReachable();
}

bool BOMReader::_readBlockTable() {
    uint32_t offset = readU32(bytes_.data() + 16), length = readU32(bytes_.data() + 20);
    if (length < 4 || !fits(offset, length, bytes_.size())) return false;
    uint64_t count = readU32(bytes_.data() + offset);
    if (count == 0 || 4 + count * 8 > length) return false;
    blockTable_ = bytes_.subspan(size_t(offset) + 4, size_t(count) * 8);
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
    auto header = _block(headerBlock);
    if (!header || header->size() < kTreeHeaderSize) return std::nullopt;
    if (std::memcmp(header->data(), kTreeMagic.data(), kTreeMagic.size()) != 0) return std::nullopt;
    if (readU32(header->data() + 4) != kVersion) return std::nullopt;
    return readU32(header->data() + 8);
}

// A node block's pairs, or absent when the block is missing or too short for its count.
struct BOMReader::Leaf {
    bool isLeaf = false;
    uint32_t forward = 0;
    std::span<const uint8_t> pairs;

    static std::optional<Leaf> read(std::optional<std::span<const uint8_t>> block) {
        if (!block || block->size() < kNodeHeaderSize) return std::nullopt;
        uint16_t isLeaf = readU16(block->data()), count = readU16(block->data() + 2);
        if (isLeaf > 1 || kNodeHeaderSize + size_t(count) * 8 > block->size()) return std::nullopt;
        return Leaf{isLeaf == 1, readU32(block->data() + 4), block->subspan(kNodeHeaderSize, size_t(count) * 8)};
    }
};

template <typename Visit>
bool BOMReader::_walkLeaves(uint32_t headerBlock, Visit&& visit) const {
    auto nodeBlock = _treeRoot(headerBlock);
    if (!nodeBlock) return false;
    std::optional<Leaf> node;
    for (int depth = 0;; ++depth) {
        node = Leaf::read(_block(*nodeBlock));
        if (!node || depth >= kMaxTreeDepth) return false;
        if (node->isLeaf) break;
        if (node->pairs.empty()) return false;
        nodeBlock = readU32(node->pairs.data());
    }
    std::vector<bool> seen(blockTable_.size() / 8);
    for (uint32_t block = *nodeBlock; block != 0; block = node->forward) {
        node = Leaf::read(_block(block));
        if (!node || !node->isLeaf || seen[block]) return false;
        seen[block] = true;
        for (size_t at = 0; at < node->pairs.size(); at += 8)
            if (!visit(readU32(node->pairs.data() + at), readU32(node->pairs.data() + at + 4))) return false;
    }
    return true;
}

bool BOMReader::_addPathPair(uint32_t valueBlock, uint32_t keyBlock) {
    // Every item needs a value block of its own, so more items than blocks means a loop.
    if (nodes_.size() >= blockTable_.size() / 8) return false;
    auto value = _block(valueBlock), key = _block(keyBlock);
    if (!value || value->size() < 8 || !key || key->size() < 5) return false;
    uint32_t infoBlock = readU32(value->data() + 4);
    auto info = _block(infoBlock);
    if (!info || info->size() < kInfoFixedSize) return false;
    const uint8_t* name = key->data() + 4;
    auto* nul = static_cast<const uint8_t*>(std::memchr(name, 0, key->size() - 4));
    uint64_t nameOffset = uint64_t(name - bytes_.data());
    if (!nul || nameOffset > kNone) return false;
    uint32_t parentId = readU32(key->data());
    std::string_view nameView(reinterpret_cast<const char*>(name), size_t(nul - name));
    if (!isValidName(nameView, parentId == 0)) return false;
    nodes_.push_back(Node{readU32(value->data()), parentId, uint32_t(nameOffset), uint32_t(nameView.size()), infoBlock});
    return true;
}

bool BOMReader::_readSize64() {
    auto header = _variable(kSize64);
    if (!header) return true;
    bool ok = _walkLeaves(*header, [this](uint32_t valueBlock, uint32_t keyBlock) {
        auto value = _block(valueBlock), key = _block(keyBlock);
        if (!value || value->size() < 8 || !key || key->size() < 4 || sizes64_.size() >= blockTable_.size() / 8)
            return false;
        sizes64_.emplace_back(readU32(key->data()), readU64(value->data()));
        return true;
    });
    std::sort(sizes64_.begin(), sizes64_.end());
    return ok;
}

bool BOMReader::_linkParents() {
    // A writer numbers items 1, 2, ... in leaf order, so an item's index is its id less one.
    bool numberedInOrder = true;
    for (size_t i = 0; i < nodes_.size() && numberedInOrder; ++i) numberedInOrder = nodes_[i].id == i + 1;
    IdIndex index;
    if (!numberedInOrder) {
        std::vector<uint32_t> ids(nodes_.size());
        for (size_t i = 0; i < nodes_.size(); ++i) ids[i] = nodes_[i].id;
        if (!index.build(ids)) return false;
    }
    parentsFirst_ = true;
    for (NodeIndex i = 0; i < nodes_.size(); ++i) {
        Node& node = nodes_[i];
        if (node.parent == 0) {
            if (root_) return false;
            root_ = i;
            node.parent = kNone;
            continue;
        }
        auto parent = numberedInOrder ? (node.parent <= nodes_.size() ? std::optional(node.parent - 1) : std::nullopt)
                                      : index.find(node.parent);
        if (!parent) return false;
        node.parent = *parent;
        parentsFirst_ = parentsFirst_ && *parent < i;
    }
    return root_.has_value();
}

bool BOMReader::_buildChildren() {
    childStart_.assign(nodes_.size() + 1, 0);
    for (const Node& node : nodes_)
        if (node.parent != kNone) ++childStart_[node.parent + 1];
    for (size_t i = 1; i < childStart_.size(); ++i) childStart_[i] += childStart_[i - 1];
    children_.resize(childStart_.back());
    std::vector<uint32_t> next(childStart_.begin(), childStart_.end() - 1);
    for (NodeIndex i = 0; i < nodes_.size(); ++i)
        if (nodes_[i].parent != kNone) children_[next[nodes_[i].parent]++] = i;
    return true;
}

// Every item has exactly one parent, so an item the root cannot reach sits on an id cycle.
// When every parent comes before its children, following parents always ends at the
// root and no walk is needed.
bool BOMReader::_allReachable() const {
    if (parentsFirst_) return true;
    std::vector<NodeIndex> stack{*root_};
    size_t reached = 0;
    while (!stack.empty()) {
        NodeIndex node = stack.back();
        stack.pop_back();
        ++reached;
        auto kids = children(node);
        stack.insert(stack.end(), kids.begin(), kids.end());
    }
    return reached == nodes_.size();
}

std::span<const NodeIndex> BOMReader::children(NodeIndex node) const {
    return {children_.data() + childStart_[node], childStart_[node + 1] - childStart_[node]};
}

std::string_view BOMReader::name(NodeIndex node) const {
    return {reinterpret_cast<const char*>(bytes_.data()) + nodes_[node].nameOffset, nodes_[node].nameLength};
}

std::optional<NodeIndex> BOMReader::parent(NodeIndex node) const {
    return nodes_[node].parent == kNone ? std::nullopt : std::optional(nodes_[node].parent);
}

void BOMReader::_buildLookup() const {
    sortedChildren_ = children_;
    for (NodeIndex node = 0; node < nodes_.size(); ++node)
        std::sort(sortedChildren_.begin() + childStart_[node], sortedChildren_.begin() + childStart_[node + 1],
                  [this](NodeIndex a, NodeIndex b) { return name(a) < name(b); });
}

std::optional<NodeIndex> BOMReader::child(NodeIndex node, std::string_view childName) const {
    std::call_once(lookupOnce_, [this] { _buildLookup(); });
    auto first = sortedChildren_.begin() + childStart_[node], last = sortedChildren_.begin() + childStart_[node + 1];
    auto it = std::lower_bound(first, last, childName, [this](NodeIndex a, std::string_view n) { return name(a) < n; });
    return it != last && name(*it) == childName ? std::optional(*it) : std::nullopt;
}

uint64_t BOMReader::_size(const Node& node, uint32_t storedSize) const {
    if (sizes64_.empty()) return storedSize;
    auto it = std::lower_bound(sizes64_.begin(), sizes64_.end(), std::pair(node.id, uint64_t(0)));
    return it != sizes64_.end() && it->first == node.id ? it->second : storedSize;
}

void BOMReader::fill(NodeIndex index, BOMEntry& entry) const {
    const Node& node = nodes_[index];
    auto info = *_block(node.infoBlock);  // checked at open
    const uint8_t* p = info.data();
    entry.type = p[0];
    entry.architecture = readU16(p + 2);
    entry.mode = readU16(p + 4);
    entry.uid = readU32(p + 6);
    entry.gid = readU32(p + 10);
    entry.modificationTime = readU32(p + 14);
    entry.size = _size(node, readU32(p + 18));
    entry.checksum = readU32(p + 23);
    uint32_t linkLength = readU32(p + 27);
    if (linkLength > 0 && kInfoFixedSize + uint64_t(linkLength) <= info.size()) {
        const char* link = reinterpret_cast<const char*>(p + kInfoFixedSize);
        entry.linkTarget.emplace(link, strnlen(link, linkLength));
    } else {
        entry.linkTarget.reset();
    }
    entry.shortName.assign(name(index));
}

uint64_t BOMReader::bytesRepresented() const {
    std::call_once(bytesOnce_, [this] {
        for (const Node& node : nodes_) bytesRepresented_ += _size(node, readU32(_block(node.infoBlock)->data() + 18));
    });
    return bytesRepresented_;
}

}  // namespace crateworks::bom
