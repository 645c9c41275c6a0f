// The BOM library of the package library: opens BOM files (mapped, read-only) or BOM
// bytes, builds new BOMs entry by entry or from a directory tree, looks entries up by
// their stored path ("." or "./usr/bin/ls"), walks them depth first and commits new
// BOMs to disk. CWBOM, CWMutableBOM and CWBOMDirectoryEnumerator sit on top of it.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMEntry.h"
#include "CrateworksCore/Package_API/BOM/BOMEnumerator.h"
#include "CrateworksCore/Package_API/BOM/BOMTree.h"
#include "Platform/Error.h"

namespace crateworks::bom {

class BOMReader;
class BOMWriter;

// Patterns for masking: fnmatch wildcards matched against the stored "./" path.
using BOMPatternList = std::vector<std::string>;

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
    // A walk starting at the entry at a stored path; null when there is none. Finding it
    // reads only the directories on the way (a file opened for reading is not indexed).
    std::unique_ptr<BOMEnumerator> enumeratorAtPath(std::string_view path) const;
    // Hands the entry at a stored path and everything below it to `visitor`, each as a
    // view; absent when there is no such entry (or the way to it is damaged: kDamaged).
    std::optional<BOMWalkStatus> walk(std::string_view path, BOMVisitor& visitor) const;
    // The same with any callable taking a view and answering a BOMVisit.
    template <typename Visit> std::optional<BOMWalkStatus> forEachAtPath(std::string_view path, Visit&& visit) const {
        struct Calls : BOMVisitor {
            explicit Calls(Visit& v) : v_(v) {}
            BOMVisit visit(const BOMEntryView& entry) override { return v_(entry); }
            Visit& v_;
        } calls(visit);
        return walk(path, static_cast<BOMVisitor&>(calls));
    }
    // Removes every entry (the root excepted) whose stored path matches one of the
    // patterns, together with its descendants. False for a BOM opened for reading.
    bool mask(const BOMPatternList& patterns);
    // Writes a new BOM to its path (atomically). False for a BOM opened for reading or
    // when the file cannot be written (with the reason, such as a full disk, in `error`).
    bool commit(platform::Error* error = nullptr);

private:
    BOMStore(std::shared_ptr<const BOMTree> tree, std::shared_ptr<const BOMReader> reader,
             std::shared_ptr<BOMWriter> writer, std::string path);

    std::shared_ptr<const BOMTree> tree_;
    std::shared_ptr<const BOMReader> reader_;  // the same tree, for a BOM file
    std::shared_ptr<BOMWriter> writer_;  // the same tree, for a BOM being built
    std::string path_;
};

}  // namespace crateworks::bom
