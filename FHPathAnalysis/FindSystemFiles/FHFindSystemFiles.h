// Which paths of a volume belong to the installed operating system.
//
// The finder walks the BOM files of the system's own receipts (or, when those are
// missing or not sane, a fallback list of paths) and reports each installed item
// either by itself or by the highest directory the exclusion list lets it report
// whole. Prune paths (the exclusion list's "Preserve" plus whatever the owner adds)
// are never reported, nor is any directory above them. The answer is cached on the
// analysed volume (see FHSystemPathCache). The finder takes no lock: its owner
// serialises calls; `cancel` may come from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "Platform/DirectoryEnumerator.h"
#include "Platform/Value.h"

namespace crateworks {
class CWReceipt;
}

class FHFindSystemFiles {
public:
    using PathList = std::vector<std::string>;
    using PathSet = std::unordered_set<std::string>;
    using ReceiptList = std::vector<std::shared_ptr<crateworks::CWReceipt>>;

    static constexpr const char* kSystemGroup = "com.quarn.FindSystemFiles.pkg-group";
    static constexpr const char* kPrintersGroup = "com.quarn.TamarindPrinters.pkg-group";

    // Null when neither sane system receipts nor a usable fallback list exist, or when
    // the exclusion list cannot be read.
    static std::shared_ptr<FHFindSystemFiles> initWithRootPath(const std::string& rootPath);
    static std::shared_ptr<FHFindSystemFiles> initWithRootPath(const std::string& rootPath,
                                                               const std::optional<std::string>& withFallbackFile);

    const std::string& rootPath() const { return _rootPath; }

    // ---- System receipts ----

    // The exclusion list of the most recent migration data; a missing one fails an assertion.
    static std::optional<std::string> _systemExclusionPlistPath();
    static PathSet systemPrintersPKGIDs();
    // The receipts in the system group, else those matching the system-receipt patterns;
    // printer receipts are added only to a non-empty set.
    static ReceiptList _systemReceiptsOnVolumeAtPath(const std::string& root);
    // Sane: some identifier begins with the BaseSystem one, and the Essentials and BSD ones are present.
    static bool _systemReceiptsSetIsSane(const ReceiptList& receipts);

    // The chosen receipts; absent when the fallback list is in use.
    const std::optional<ReceiptList>& systemReceipts() const { return _systemReceipts; }
    // The latest install date of the system receipts; absent when there are none or one has no date.
    std::optional<platform::Date> _latestSystemReceiptDate() const;
    // Storage paths of old-style system receipts in root + "/Library/Receipts/", with the
    // root cut off by plain string length (so for "/" the leading "/" goes too), then
    // "/Library/Receipts/BSD.pkg".
    PathList oldSystemReceiptsPaths(const std::string& root) const;
    // Whether an archived previous system holds user data; adds what it finds to the prune paths.
    bool _previousSystemsContainsUserData();
    bool _userDataInArchiveAtPath(const std::string& path);

    // ---- System path finding ----

    void addPrunePaths(const PathList& paths);
    const PathList& prunePaths() const { return _prunePaths; }
    void cancel() { _isCancelled = true; }
    bool isCancelled() const { return _isCancelled; }

    // The system paths, from the volume's cache when it is valid; null when cancelled or none found.
    std::optional<PathList> systemPaths();
    // The system paths from the volume's cache when it is valid; null otherwise. A cached
    // list does not depend on the prune paths.
    std::optional<PathList> cachedSystemPaths() const;
    // The system paths found afresh and written to the cache; null when cancelled or none
    // found. systemPaths() without looking at the cache first.
    std::optional<PathList> _findAndCacheSystemPaths();
    // The sorted system paths found afresh; null when none were found.
    std::optional<PathList> _findSystemPaths();
    // The paths the receipts of one package group installed under the searching paths
    // (plain prefix test), plus the receipts' storage paths when asked.
    PathList coalescedPathsForPackageGroup(const std::string& group, const PathList& searchingPaths,
                                           bool includingReceiptPaths);
    // Coalesces the walk's paths into the set. False, with the set as it was, when the
    // walk ended at damage in its BOM.
    bool _coalescePathsWithPathEnumerator(platform::DirectoryEnumerator* enumerator, PathSet& usingSystemSet,
                                          const PathSet* nonSystemSet, const PathSet* searchSet,
                                          const PathSet* searchChildrenOfSet);

    // The exclusion list's "Search" and "SearchChildrenOf", read afresh; absent when unreadable.
    static std::optional<PathList> _searchPaths();
    static std::optional<PathList> _searchChildrenOfPaths();

    static std::string _pathForPrefixComparison(const std::string& path);
    static bool _setContainsChildOfPath(const PathSet& set, const std::string& path);
    static bool _setContainsParentOfPath(const PathSet& set, const std::string& path);
    // Nearest first, ending with "/"; empty for "/".
    static PathList _parentDirectoriesOfPath(const std::string& path);
    static bool _looksLikeBundleDirectory(const std::string& path);

private:
    FHFindSystemFiles() = default;
    PathSet initialSystemSet() const;
    PathSet initialSearchSet() const;

    std::string _rootPath;
    PathList _prunePaths;
    std::optional<ReceiptList> _systemReceipts;
    std::optional<PathList> _fallbackSystemPaths;
    platform::Dictionary _exceptionsDictionary;
    std::atomic<bool> _isCancelled{false};
};
