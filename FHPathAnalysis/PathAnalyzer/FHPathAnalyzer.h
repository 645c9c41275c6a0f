// The path analyzer of one volume: the system paths pruned of what must survive, the
// reapable paths an installation removes, and their sizes.
//
// One analyzer exists per root string in a process (a root with and one without a
// trailing "/" are two), kept in a table until clearSizingCache. Each owns the
// system-file finder of its root and holds its own lock for a whole analysis.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class FHFindSystemFiles;

class FHPathAnalyzer {
public:
    using PathList = std::vector<std::string>;

    // The table's analyzer for the root, made on first request; null when the root is
    // relative or no finder can be made for it.
    static std::shared_ptr<FHPathAnalyzer> initWithRootPath(const std::optional<std::string>& rootPath);
    static std::shared_ptr<FHPathAnalyzer> initWithRootPath(const std::optional<std::string>& rootPath,
                                                            const std::optional<std::string>& withFallbackFile);
    // The real initialiser, outside the table. A missing root is a programming error.
    static std::shared_ptr<FHPathAnalyzer> _initWithRootPath(const std::optional<std::string>& rootPath,
                                                             const std::optional<std::string>& withFallbackFile);
    // Empties the table; the next request for any root makes a new analyzer.
    static void clearSizingCache();
    // "ProductVersion" of the SystemVersion.plist of the system installed at `rootPath`,
    // as the analysis reads it; absent when there is none.
    static std::optional<std::string> installedSystemVersion(const std::string& rootPath);

    ~FHPathAnalyzer();

    // Cancels the finder, all sizing in the process, and this analyzer. Any thread.
    void cancel();
    bool isCancelled() const { return _isCancelled; }

    const std::string& rootPath() const { return _rootPath; }
    FHFindSystemFiles& finder() { return *_fsf; }

    std::optional<PathList> prunedSystemPaths();
    // The finder's system paths with the per-user picture caches of /Library/Caches kept
    // out; `size` (when given) receives their total size on disk.
    std::optional<PathList> prunedSystemPathsReturningSize(std::optional<uint64_t>* size);
    // The system paths minus receipts, user and backup locations, the printer paths an
    // upgrade from 10.6 or later to 10.7 or later keeps, and a fixed set of entries that
    // are never reaped; then the rules' extra reapable paths.
    std::optional<PathList> prunedReaperPathsReturningSize(std::optional<uint64_t>* size,
                                                           const std::optional<std::string>& targetSystemVersionString);
    PathList _extraPrinterPathsForUpgradeFromTamarindOrBetter();
    // Replaces `fromPath` in `paths` by a selection of its children on disk: those for
    // which the OR over the expressions of (name like e) holds, or with `matching` off,
    // of NOT (name like e). Nothing changes when nothing is selected, or when `matching`
    // is off and every child is selected.
    void _superPruneForExpressions(const std::vector<std::string>& expressions, bool matching,
                                   const std::string& fromPath, PathList& paths);

    // ---- User paths ----

    // The topmost paths below `parent` (default "/") that are neither system paths, nor
    // configuration or user paths of the rules, nor omitted; sorted. Absent when the
    // finder has no system paths.
    std::optional<PathList> prunedUserPathsWithParentDirectory(const std::optional<std::string>& parent,
                                                               const std::optional<PathList>& omittingPaths);
    // The same; included paths always appear and their ancestors never do.
    std::optional<PathList> prunedUserPathsWithParentDirectory(const std::optional<std::string>& parent,
                                                               const std::optional<PathList>& omittingPaths,
                                                               const std::optional<PathList>& includingPaths);
    // With `expandingBundles`, a kept path that is not a bundle but holds bundles is
    // replaced by the user paths found inside it (the list is then not re-sorted).
    std::optional<PathList> prunedUserPathsWithParentDirectory(const std::optional<std::string>& parent,
                                                               const std::optional<PathList>& omittingPaths,
                                                               bool expandingBundles);
    // A plain walk below `parent` of the volume at `rootPath`, without system paths: lists
    // every path not omitted; with `expandDirectories` off it does not enter listed directories.
    static PathList _findPathsWithParentDirectory(const std::string& parent, const std::string& rootPath,
                                                  const PathList& omittingPaths, bool expandDirectories);
    // Storage paths of the receipts that belong to neither system package group, with the
    // root cut off their front.
    PathList _nonSystemReceiptStoragePaths();

private:
    FHPathAnalyzer() = default;

    std::string _rootPath;
    std::shared_ptr<FHFindSystemFiles> _fsf;
    std::atomic<bool> _isCancelled{false};
    std::mutex _lock;
};
