// The BOM library of the package library: opens BOM files (mapped, read-only) or BOM
// bytes, builds new BOMs entry by entry or from a directory tree, looks entries up by
// their stored path ("." or "./usr/bin/ls"), walks them depth first and commits new
// BOMs to disk. CWBOM, CWMutableBOM and CWBOMDirectoryEnumerator sit on top of it.
#pragma once

#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMEntry.h"
#include "CrateworksCore/Package_API/BOM/BOMTree.h"

namespace crateworks::bom {

class BOMWriter;

// Patterns for masking: fnmatch wildcards matched against the stored "./" path.
using BOMPatternList = std::vector<std::string>;

// Walks a BOM depth first, each directory before its contents, children in the order
// the file lists them (byte order of their names in a writer's file). The first entry
// is the starting entry itself; the walk stays below it. The enumerator keeps its BOM's
// data alive; changing a BOM while one of its enumerators is in use is not supported.
class BOMEnumerator {
public:
    BOMEnumerator(std::shared_ptr<const BOMTree> tree, NodeIndex start, std::string startPath);

    // The next entry, valid until the next call; null at the end.
    const BOMEntry* next() { return advance() ? &entry() : nullptr; }
    // Moves to the next entry without decoding it; false at the end.
    bool advance() { return walkOrder_ && started_ ? _advanceInWalkOrder() : _advance(); }
    // The stored path of the entry moved to last.
    const std::string& path() const { return entry_.pathName; }
    // The entry moved to last, decoded on the first request; only after advance() said true.
    const BOMEntry& entry();
    // Do not descend into the entry last returned.
    void skipDescendants() { skip_ = true; }

private:
    struct Frame {
        NodeIndex directory;
        uint32_t nextChild;
        size_t pathLength;  // of the directory's path
    };

    bool _advance();
    // A subtree is the run of nodes up to its end, so the walk is a step to the next node
    // or, when skipping, to the end of the entry's own subtree.
    bool _advanceInWalkOrder() {
        if (!last_) return false;
        decoded_ = false;
        NodeIndex next = skip_ ? walkOrder_->nodes[*last_].end : *last_ + 1;
        skip_ = false;
        if (next >= stop_) {
            last_.reset();
            return false;
        }
        const WalkNode& node = walkOrder_->nodes[next];
        // The parent came before: it is the entry last reached one level up.
        size_t level = node.depth - startDepth_;
        if (level >= pathLengths_.size()) pathLengths_.resize(level + 1);
        _setPath(pathLengths_[level - 1], walkOrder_->names + node.nameOffset, node.nameLength);
        pathLengths_[level] = entry_.pathName.size();
        last_ = next;
        return true;
    }
    // The first `parentLength` bytes of the path, a slash and the name.
    void _setPath(size_t parentLength, const char* name, size_t nameLength) {
        std::string& path = entry_.pathName;
        path.resize(parentLength + 1 + nameLength);
        path[parentLength] = '/';
        std::memcpy(path.data() + parentLength + 1, name, nameLength);
    }

    std::shared_ptr<const BOMTree> tree_;
    const WalkOrder* walkOrder_;  // null for a tree not numbered in walk order
    std::optional<NodeIndex> last_;  // absent before the first entry and after the last
    bool started_ = false;
    bool skip_ = false;
    bool decoded_ = false;
    std::vector<Frame> stack_;
    // In walk order: the end of the starting entry's subtree, its depth, and the path
    // length of the entry last reached at each depth below it.
    NodeIndex stop_ = 0;
    uint32_t startDepth_ = 0;
    std::vector<size_t> pathLengths_;
    BOMEntry entry_;  // its path name doubles as the walk's path buffer
};

class BOMStore {
public:
    // Opens a BOM file, mapped read-only; null when it is missing or not a sound BOM.
    static std::shared_ptr<BOMStore> openFile(const std::string& path);
    // Opens BOM bytes in place; null when they are not a sound BOM. The bytes must
    // outlive the store and every enumerator made from it.
    static std::shared_ptr<BOMStore> openBytes(std::span<const uint8_t> bytes);
    // A new, empty BOM to be committed to `path`; null when the path's directory does not exist.
    static std::shared_ptr<BOMStore> newBOM(const std::string& path);
    // A new BOM of the tree under `directory` (links not followed), to be committed to
    // `path`; with `allData`, checksums of files and link targets are recorded. Null when
    // an item cannot be read.
    static std::shared_ptr<BOMStore> newFromDirectory(const std::string& path, const std::string& directory,
                                                      bool allData);

    bool isWritable() const { return writer_ != nullptr; }

    std::optional<BOMEntry> rootEntry() const;
    // The entry at a stored path ("." or "./a/b"); absent when there is none.
    std::optional<BOMEntry> entryAtPath(std::string_view path) const;
    bool entryExists(std::string_view path) const;
    // Inserts an entry at its path name, replacing an existing one when `replace` is set.
    // False for a BOM opened for reading, a malformed path or a missing parent.
    bool insertEntry(const BOMEntry& entry, bool replace = true);
    // The number of entries, the root included.
    uint32_t entryCount() const;
    // The sizes of all entries added up.
    uint64_t bytesRepresented() const;
    // A walk starting at `start` (found again by its path name); null when it is not in the BOM.
    std::unique_ptr<BOMEnumerator> newEnumerator(const BOMEntry& start) const;
    // Removes every entry (the root excepted) whose stored path matches one of the
    // patterns, together with its descendants. False for a BOM opened for reading.
    bool mask(const BOMPatternList& patterns);
    // Writes a new BOM to its path (atomically). False for a BOM opened for reading or
    // when the file cannot be written.
    bool commit();

private:
    BOMStore(std::shared_ptr<const BOMTree> tree, std::shared_ptr<BOMWriter> writer, std::string path);

    std::shared_ptr<const BOMTree> tree_;
    std::shared_ptr<BOMWriter> writer_;  // the same tree, for a BOM being built
    std::string path_;
};

}  // namespace crateworks::bom
