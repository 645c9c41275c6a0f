// The object a host program (a migration or installer front end) holds for one volume:
// used and free space, the children of a folder with system files left out, the sizes
// of items, and their bundle information, attributes and checksums.
//
// Children lists and sizes are cached per path for the facade's lifetime and never
// invalidated: a changed volume needs a new facade. System-file questions go to the
// volume's shared FHPathAnalyzer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Platform/Value.h"

class FHPathAnalyzer;

class FHPathAnalysis {
public:
    using PathList = std::vector<std::string>;

    // Record keys of incompatibleAppsInfoForPaths.
    static constexpr const char* kInfoKey = "info";
    static constexpr const char* kCRCKey = "CRC";

    // Null when the root is missing or empty, or when system exclusion is asked for and
    // the volume's analyzer cannot be made. The root is kept exactly as given.
    static std::shared_ptr<FHPathAnalysis> initWithRootPath(const std::optional<std::string>& rootPath,
                                                            bool excludingSystem);

    // Bytes in use and free (what an ordinary user may still fill) on the file system
    // holding the root; 0 when its figures cannot be read.
    uint64_t usedSize() const;
    uint64_t freeSize() const;

    // The on-disk size of the item at a volume-relative path as FileSizer gives it, cached
    // (the 0 it gives for an item it cannot read included).
    uint64_t sizeForAbsolutePath(const std::string& path);
    // The sum of sizeForAbsolutePath over the list, wrapping at 2^64; a path listed
    // twice counts twice.
    uint64_t sizeForPaths(const PathList& paths);

    // The analyzer's pruned system paths; absent without an analyzer.
    std::optional<PathList> systemPaths();

    // The paths below a volume-relative folder: the user paths when there is an analyzer
    // and `excludingSystemPaths` is set, else the plain walk's listing. Cached by the
    // folder alone: later calls for the same folder answer the first list whatever
    // their omit list and flags. Absent when the analyzer finds no system paths.
    std::optional<PathList> childrenAtPath(const std::string& path, const std::optional<PathList>& omittingSubpaths,
                                           bool excludingSystemPaths, bool expandingBundles);
    // The same with system paths excluded and bundles not expanded.
    std::optional<PathList> childrenAtPath(const std::string& path, const std::optional<PathList>& omittingSubpaths);

    // Names of the folder's immediate subdirectories that are not packages, in
    // enumeration order.
    std::vector<std::string> directoriesAtPath(const std::string& path) const;
    // The bundle information found at each path, merged; a later path's bundle replaces
    // an earlier one of the same path.
    platform::Dictionary bundleInformationAtPaths(const PathList& paths) const;
    // For each path whose item exists: a record with "info" (the bundle's information
    // dictionary, property-list safe) and "CRC" (the file checksum as "%u"), each only
    // when it can be had.
    platform::Dictionary incompatibleAppsInfoForPaths(const PathList& paths) const;
    // Path to attribute dictionary, and path to checksum text, for the items that can be read.
    platform::Dictionary itemAttributesAtPaths(const PathList& paths) const;
    platform::Dictionary itemCRCsAtPaths(const PathList& paths) const;
    // A copy without the top-level entries that a property list cannot hold; nested
    // values are left as they are.
    platform::Dictionary _plistSafeDictionaryWithDictionary(const platform::Dictionary& dictionary) const;

    // Cancels the analyzer and every sizing in the process. Any thread.
    void cancel();
    bool isCancelled() const { return _isCancelled; }

    // Forwarded to the analyzer; absent without one.
    std::optional<PathList> _extraPrinterPathsForUpgradeFromTamarindOrBetter();
    std::optional<PathList> _nonSystemReceiptStoragePaths();

    const std::string& rootPath() const { return _rootPath; }

private:
    FHPathAnalysis() = default;
    std::string _onVolume(const std::string& path) const;

    std::string _rootPath;
    std::shared_ptr<FHPathAnalyzer> _pathAnalyzer;
    std::unordered_map<std::string, PathList> _pathToSubpathsCache;
    std::mutex _subpathsMonitor;
    std::unordered_map<std::string, uint64_t> _pathToFileSizeCache;
    // Guards the size map itself only; sizings are not serialised by the facade.
    mutable std::mutex _sizeCacheLock;
    std::atomic<bool> _isCancelled{false};
};
