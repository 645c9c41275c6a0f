#include "CrateworksCore/Package_API/BOM/BOMWriter.h"

#include <algorithm>
#include <fnmatch.h>
#include <limits>

#include "CrateworksCore/Package_API/BOM/BOMFormat.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace crateworks::bom {

using namespace format;

namespace {
constexpr NodeIndex kNoParent = std::numeric_limits<NodeIndex>::max();

// "." or "./a/b" with no empty, "." or ".." components below the root.
bool isStoredPath(std::string_view path) {
    if (path == ".") return true;
    if (path.substr(0, 2) != "./") return false;
    for (size_t at = 2; at <= path.size();) {
        size_t slash = std::min(path.find('/', at), path.size());
        std::string_view component = path.substr(at, slash - at);
        if (component.empty() || component == "." || component == "..") return false;
        at = slash + 1;
    }
    return true;
}

std::vector<uint8_t> infoBlock(const BOMEntry& e) {
    std::vector<uint8_t> b;
    appendU8(b, e.type);
    appendU8(b, 1);
    appendU16(b, e.architecture);
    appendU16(b, e.mode);
    appendU32(b, e.uid);
    appendU32(b, e.gid);
    appendU32(b, e.modificationTime);
    appendU32(b, uint32_t(e.size));
    appendU8(b, 1);
    appendU32(b, e.checksum);
    appendU32(b, e.linkTarget ? uint32_t(e.linkTarget->size() + 1) : 0);
    if (e.linkTarget) {
        appendBytes(b, *e.linkTarget);
        appendU8(b, 0);
    }
    return b;
}
}  // namespace

// The file's bytes as they are laid out: the padded header, the blocks, then the block
// table and the variables.
class BOMWriter::Layout {
public:
    using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;  // {value, key}

    Layout() : bytes_(kHeaderPadding, 0), blocks_{{0, 0}} {}

    uint32_t add(const std::vector<uint8_t>& block, size_t paddedSize = 0) {
        bytes_.resize((bytes_.size() + 3) & ~size_t(3), 0);
        size_t address = bytes_.size();
        bytes_.insert(bytes_.end(), block.begin(), block.end());
        size_t length = std::max(block.size(), paddedSize);
        bytes_.resize(address + length, 0);
        blocks_.emplace_back(uint32_t(address), uint32_t(length));
        return uint32_t(blocks_.size() - 1);
    }

    // Writes the nodes and the header of a tree over the pairs; answers the header's block.
    uint32_t tree(const Pairs& pairs, uint32_t nodeSize, size_t perNode) {
        size_t leafCount = std::max<size_t>(1, (pairs.size() + perNode - 1) / perNode);
        uint32_t first = uint32_t(blocks_.size());
        Pairs level;  // {node block, key of its last entry}
        for (size_t i = 0; i < leafCount; ++i) {
            auto begin = pairs.begin() + std::ptrdiff_t(std::min(pairs.size(), i * perNode));
            auto end = pairs.begin() + std::ptrdiff_t(std::min(pairs.size(), (i + 1) * perNode));
            uint32_t forward = i + 1 < leafCount ? first + uint32_t(i) + 1 : 0;
            uint32_t backward = i > 0 ? first + uint32_t(i) - 1 : 0;
            uint32_t block = add(node(true, forward, backward, begin, end), nodeSize);
            level.emplace_back(block, begin == end ? 0 : (end - 1)->second);
        }
        while (level.size() > 1) {
            Pairs upper;
            for (size_t at = 0; at < level.size(); at += perNode) {
                auto begin = level.begin() + std::ptrdiff_t(at);
                auto end = level.begin() + std::ptrdiff_t(std::min(level.size(), at + perNode));
                upper.emplace_back(add(node(false, 0, 0, begin, end), nodeSize), (end - 1)->second);
            }
            level = std::move(upper);
        }
        std::vector<uint8_t> header;
        appendBytes(header, kTreeMagic);
        appendU32(header, kVersion);
        appendU32(header, level[0].first);
        appendU32(header, nodeSize);
        appendU32(header, uint32_t(pairs.size()));
        appendU8(header, 0);
        return add(header);
    }

    void variable(std::string_view name, uint32_t block) { variables_.emplace_back(name, block); }
    // The index the next block added will have.
    uint32_t nextBlock() const { return uint32_t(blocks_.size()); }

    // The finished file; absent when it outgrew 32-bit offsets.
    std::optional<std::vector<uint8_t>> finish() && {
        bytes_.resize((bytes_.size() + 3) & ~size_t(3), 0);
        size_t tableOffset = bytes_.size();
        appendU32(bytes_, uint32_t(blocks_.size()));
        for (auto [address, length] : blocks_) {
            appendU32(bytes_, address);
            appendU32(bytes_, length);
        }
        appendU32(bytes_, 2);  // the free list: two empty pairs
        bytes_.resize(bytes_.size() + 16, 0);
        size_t varsOffset = bytes_.size();
        appendU32(bytes_, uint32_t(variables_.size()));
        for (auto& [name, block] : variables_) {
            appendU32(bytes_, block);
            appendU8(bytes_, uint8_t(name.size()));
            appendBytes(bytes_, name);
        }
        if (bytes_.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
        std::copy(kMagic.begin(), kMagic.end(), bytes_.begin());
        storeU32(bytes_, 8, kVersion);
        storeU32(bytes_, 12, uint32_t(blocks_.size() - 1));
        storeU32(bytes_, 16, uint32_t(tableOffset));
        storeU32(bytes_, 20, uint32_t(varsOffset - tableOffset));
        storeU32(bytes_, 24, uint32_t(varsOffset));
        storeU32(bytes_, 28, uint32_t(bytes_.size() - varsOffset));
        return std::move(bytes_);
    }

private:
    static std::vector<uint8_t> node(bool isLeaf, uint32_t forward, uint32_t backward, Pairs::const_iterator begin,
                                     Pairs::const_iterator end) {
        std::vector<uint8_t> b;
        appendU16(b, isLeaf ? 1 : 0);
        appendU16(b, uint16_t(end - begin));
        appendU32(b, forward);
        appendU32(b, backward);
        for (auto it = begin; it != end; ++it) {
            appendU32(b, it->first);
            appendU32(b, it->second);
        }
        return b;
    }

    std::vector<uint8_t> bytes_;
    std::vector<std::pair<uint32_t, uint32_t>> blocks_;
    std::vector<std::pair<std::string_view, uint32_t>> variables_;
};

std::optional<NodeIndex> BOMWriter::root() const {
    auto it = index_.find(".");
    return it == index_.end() ? std::nullopt : std::optional(it->second);
}

std::optional<NodeIndex> BOMWriter::parent(NodeIndex node) const {
    return nodes_[node].parent == kNoParent ? std::nullopt : std::optional(nodes_[node].parent);
}

std::optional<NodeIndex> BOMWriter::child(NodeIndex node, std::string_view childName) const {
    const auto& kids = nodes_[node].children;
    auto it = std::lower_bound(kids.begin(), kids.end(), childName,
                               [this](NodeIndex a, std::string_view n) { return nodes_[a].name < n; });
    return it != kids.end() && nodes_[*it].name == childName ? std::optional(*it) : std::nullopt;
}

void BOMWriter::fill(NodeIndex node, BOMEntry& entry) const {
    std::string path = std::move(entry.pathName);
    entry = nodes_[node].entry;
    entry.pathName = std::move(path);
    if (entry.shortName.empty()) entry.shortName = nodes_[node].name;
}

uint64_t BOMWriter::bytesRepresented() const {
    uint64_t total = 0;
    for (const auto& [path, node] : index_) total += nodes_[node].entry.size;
    return total;
}

NodeIndex BOMWriter::_addNode(NodeIndex parent, std::string name, BOMEntry entry) {
    auto index = NodeIndex(nodes_.size());
    entry.pathName.clear();
    nodes_.push_back(Node{std::move(entry), std::move(name), parent, {}});
    if (parent == kNoParent) return index;
    auto& kids = nodes_[parent].children;
    const std::string& own = nodes_[index].name;
    if (kids.empty() || nodes_[kids.back()].name < own) {
        kids.push_back(index);
    } else {
        auto at = std::lower_bound(kids.begin(), kids.end(), own,
                                   [this](NodeIndex a, const std::string& n) { return nodes_[a].name < n; });
        kids.insert(at, index);
    }
    return index;
}

bool BOMWriter::insert(const BOMEntry& entry, bool replace) {
    const std::string& path = entry.pathName;
    if (!isStoredPath(path)) return false;
    if (auto existing = index_.find(path); existing != index_.end()) {
        if (!replace) return false;
        Node& node = nodes_[existing->second];
        node.entry = entry;
        node.entry.pathName.clear();
        return true;
    }
    NodeIndex parentNode = kNoParent;
    std::string name = ".";
    if (path != ".") {
        size_t slash = path.rfind('/');
        auto parentIt = index_.find(path.substr(0, slash));
        if (parentIt == index_.end()) return false;
        parentNode = parentIt->second;
        name = path.substr(slash + 1);
    }
    index_.emplace(path, _addNode(parentNode, std::move(name), entry));
    return true;
}

bool BOMWriter::addDirectory(const std::string& directory, bool allData) {
    auto top = entryFromFile(directory, allData);
    if (!top || top->type != kEntryDirectory || root()) return false;
    top->shortName.assign(1, '.');
    NodeIndex rootNode = _addNode(kNoParent, ".", std::move(*top));
    index_.emplace(".", rootNode);
    return _addChildren(directory, rootNode, ".", allData);
}

bool BOMWriter::_addChildren(const std::string& directory, NodeIndex node, const std::string& path, bool allData) {
    auto names = platform::fs::contentsOfDirectory(directory);
    if (!names) return false;
    std::sort(names->begin(), names->end());
    for (std::string& name : *names) {
        std::string file = platform::path::appendComponent(directory, name);
        auto entry = entryFromFile(file, allData);
        if (!entry) return false;
        std::string childPath = path + "/" + name;
        entry->shortName = name;
        bool isDirectory = entry->type == kEntryDirectory;
        NodeIndex child = _addNode(node, std::move(name), std::move(*entry));
        index_.emplace(childPath, child);
        if (isDirectory && !_addChildren(file, child, childPath, allData)) return false;
    }
    return true;
}

void BOMWriter::_remove(NodeIndex node, const std::string& path) {
    std::vector<std::pair<NodeIndex, std::string>> stack{{node, path}};
    while (!stack.empty()) {
        auto [at, atPath] = std::move(stack.back());
        stack.pop_back();
        index_.erase(atPath);
        for (NodeIndex kid : nodes_[at].children) stack.emplace_back(kid, atPath + "/" + nodes_[kid].name);
        nodes_[at].children.clear();
    }
    auto& siblings = nodes_[nodes_[node].parent].children;
    siblings.erase(std::find(siblings.begin(), siblings.end(), node));
}

void BOMWriter::mask(const std::vector<std::string>& patterns) {
    auto top = root();
    if (!top || patterns.empty()) return;
    std::vector<std::pair<NodeIndex, std::string>> matched;
    std::vector<std::pair<NodeIndex, std::string>> stack;
    for (NodeIndex kid : nodes_[*top].children) stack.emplace_back(kid, "./" + nodes_[kid].name);
    while (!stack.empty()) {
        auto [node, path] = std::move(stack.back());
        stack.pop_back();
        const char* candidate = path.c_str();
        bool hit = std::any_of(patterns.begin(), patterns.end(),
                               [candidate](const std::string& p) { return fnmatch(p.c_str(), candidate, 0) == 0; });
        if (hit) {
            matched.emplace_back(node, std::move(path));
            continue;
        }
        for (NodeIndex kid : nodes_[node].children) stack.emplace_back(kid, path + "/" + nodes_[kid].name);
    }
    for (auto& [node, path] : matched) _remove(node, path);
}

std::optional<std::vector<uint8_t>> BOMWriter::serialize() const {
    auto top = root();
    if (!top) return std::nullopt;
    Layout layout;
    std::vector<uint8_t> bomInfo;
    for (uint32_t v : {kVersion, count(), 1u, 0u, 0u, 0u, 0u}) appendU32(bomInfo, v);
    layout.variable(kBomInfo, layout.add(bomInfo));

    // Depth first, each directory before its contents; ids follow that order.
    std::vector<NodeIndex> order;
    for (std::vector<NodeIndex> stack{*top}; !stack.empty();) {
        NodeIndex node = stack.back();
        stack.pop_back();
        order.push_back(node);
        stack.insert(stack.end(), nodes_[node].children.rbegin(), nodes_[node].children.rend());
    }
    // The keys and values come first, each item's side by side, and the info blocks after
    // them all: a walk over the paths reads one run of the file and passes the rest by.
    std::vector<uint32_t> idOf(nodes_.size(), 0);
    Layout::Pairs paths;
    std::vector<std::pair<uint32_t, uint64_t>> sizes;
    const uint32_t firstInfo = layout.nextBlock() + 2 * uint32_t(order.size());
    for (size_t i = 0; i < order.size(); ++i) {
        const Node& n = nodes_[order[i]];
        uint32_t id = idOf[order[i]] = uint32_t(i + 1);
        std::vector<uint8_t> key, value;
        appendU32(key, n.parent == kNoParent ? 0 : idOf[n.parent]);
        appendBytes(key, n.name);
        appendU8(key, 0);
        appendU32(value, id);
        appendU32(value, firstInfo + uint32_t(i));
        uint32_t keyBlock = layout.add(key);
        paths.emplace_back(layout.add(value), keyBlock);
        if (n.entry.size > std::numeric_limits<uint32_t>::max()) sizes.emplace_back(id, n.entry.size);
    }
    for (NodeIndex node : order) layout.add(infoBlock(nodes_[node].entry));
    layout.variable(kPaths, layout.tree(paths, kPathsNodeSize, kPathsPairsPerNode));
    layout.variable(kHLIndex, layout.tree({}, kPathsNodeSize, kPathsPairsPerNode));
    std::vector<uint8_t> vindex;
    appendU32(vindex, 1);
    appendU32(vindex, layout.tree({}, kSmallNodeSize, kSmallPairsPerNode));
    appendU32(vindex, 0);
    appendU8(vindex, 0);
    layout.variable(kVIndex, layout.add(vindex));
    Layout::Pairs size64;
    for (auto [id, size] : sizes) {
        std::vector<uint8_t> key, value;
        appendU32(key, id);
        appendU64(value, size);
        uint32_t keyBlock = layout.add(key);
        size64.emplace_back(layout.add(value), keyBlock);
    }
    layout.variable(kSize64, layout.tree(size64, kSmallNodeSize, kSmallPairsPerNode));
    return std::move(layout).finish();
}

}  // namespace crateworks::bom
