#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"

#include <algorithm>
#include <map>
#include <unordered_set>

#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/PathAnalyzer/FHStringPredicate.h"
#include "FHPathAnalysis/PathAnalyzer/FHUserPathWalk.h"
#include "FHPathAnalysis/Support/FTSDirectoryEnumerator.h"
#include "Platform/Bundle.h"
#include "FHPathAnalysis/Support/FileSizer.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "Platform/Strings.h"

namespace path = platform::path;
namespace str = platform::str;

namespace {

std::mutex tableLock;
std::map<std::string, std::shared_ptr<FHPathAnalyzer>>& analyzerTable() {
    static std::map<std::string, std::shared_ptr<FHPathAnalyzer>> table;
    return table;
}

// Keeps the paths that do not begin with `prefix`, as NOT (SELF BEGINSWITH "prefix").
void dropPathsBeginningWith(std::vector<std::string>& paths, const std::string& prefix) {
    std::erase_if(paths, [&](const std::string& p) { return str::hasPrefix(p, prefix); });
}

// Keeps the paths for which the filter holds; a filter that does not parse keeps them all.
void filterPaths(std::vector<std::string>& paths, const std::string& filterText) {
    auto filter = FHStringPredicate::predicateWithFormat(filterText);
    if (!filter) {
        platform::consoleLog("Ignoring a filter that cannot be parsed: " + filterText);
        return;
    }
    std::erase_if(paths, [&](const std::string& p) { return !filter->evaluateWithObject(p); });
}

bool upgradeFromTamarindOrLater(const std::optional<std::string>& installed, const std::string& target) {
    // A missing installed version counts as older than any release.
    if (!installed) return false;
    return str::numericCompare("10.7", target) <= 0 && str::numericCompare("10.6", *installed) <= 0;
}

}  // namespace

// ---- The table ----

std::shared_ptr<FHPathAnalyzer> FHPathAnalyzer::initWithRootPath(const std::optional<std::string>& rootPath) {
    return initWithRootPath(rootPath, std::nullopt);
}

std::shared_ptr<FHPathAnalyzer> FHPathAnalyzer::initWithRootPath(const std::optional<std::string>& rootPath,
                                                                 const std::optional<std::string>& withFallbackFile) {
    std::lock_guard lock(tableLock);
    auto& table = analyzerTable();
    if (rootPath) {
        if (auto it = table.find(*rootPath); it != table.end()) return it->second;
    }
    auto analyzer = _initWithRootPath(rootPath, withFallbackFile);
    if (analyzer) table[*rootPath] = analyzer;
    return analyzer;
}

std::optional<std::string> FHPathAnalyzer::installedSystemVersion(const std::string& rootPath) {
    // Plain concatenation: a root of "/" gives a path beginning with two slashes.
    auto version = platform::plist::readDictionaryFile(rootPath + "/System/Library/CoreServices/SystemVersion.plist");
    if (!version) return std::nullopt;
    if (auto* text = version->findString("ProductVersion")) return *text;
    return std::nullopt;
}

void FHPathAnalyzer::clearSizingCache() {
    std::lock_guard lock(tableLock);
    analyzerTable().clear();
}

std::shared_ptr<FHPathAnalyzer> FHPathAnalyzer::_initWithRootPath(const std::optional<std::string>& rootPath,
                                                                  const std::optional<std::string>& withFallbackFile) {
    FH_ASSERT_AT_LINE("-[FHPathAnalyzer _initWithRootPath:withFallbackFile:]", 43, rootPath, "rootPath");
    if (!str::hasPrefix(*rootPath, "/")) return nullptr;
    std::shared_ptr<FHPathAnalyzer> analyzer(new FHPathAnalyzer());
    analyzer->_rootPath = path::standardize(*rootPath);
    // Every analysis of the volume needs the package-data paths: their tool reads the
    // receipts' BOMs on the other processor while the receipts are read here.
    FHConfMigrator::startExtraConfigPathsFromPackageDataAtPath(analyzer->_rootPath);
    analyzer->_fsf = FHFindSystemFiles::initWithRootPath(*rootPath, withFallbackFile);
    if (!analyzer->_fsf) return nullptr;
    return analyzer;
}

FHPathAnalyzer::~FHPathAnalyzer() = default;

void FHPathAnalyzer::cancel() {
    _fsf->cancel();
    FileSizer::cancel();
    _isCancelled = true;
}

// ---- System paths ----

std::optional<FHPathAnalyzer::PathList> FHPathAnalyzer::prunedSystemPaths() {
    return prunedSystemPathsReturningSize(nullptr);
}

std::optional<FHPathAnalyzer::PathList> FHPathAnalyzer::prunedSystemPathsReturningSize(std::optional<uint64_t>* size) {
    std::lock_guard lock(_lock);
    _isCancelled = false;
    _fsf->addPrunePaths(FHConfMigrator::allConfigPathsAtPath(_rootPath));
    _fsf->addPrunePaths(FHConfMigrator::allUserPathsAtPath(_rootPath));
    auto systemPaths = _fsf->systemPaths();
    if (!systemPaths) return std::nullopt;
    PathList paths = std::move(*systemPaths);
    _superPruneForExpressions({"com.quarn.user*pictureCache*"}, false, "/Library/Caches", paths);
    if (size) *size = FileSizer::sizeForPaths(paths, _rootPath);
    return paths;
}

// ---- Reapable paths ----

std::optional<FHPathAnalyzer::PathList> FHPathAnalyzer::prunedReaperPathsReturningSize(
    std::optional<uint64_t>* size, const std::optional<std::string>& targetSystemVersionString) {
    auto systemPaths = prunedSystemPaths();
    if (!systemPaths) return std::nullopt;
    PathList paths = std::move(*systemPaths);
    for (const char* prefix : {"/Library/Receipts", "/Users", "/Backups.backupdb"}) dropPathsBeginningWith(paths, prefix);

    if (targetSystemVersionString &&
        upgradeFromTamarindOrLater(installedSystemVersion(_rootPath), *targetSystemVersionString)) {
        // Each path is pasted into the filter's text, so its quotes, backslashes and
        // percent signs act as the filter language reads them.
        for (const auto& printerPath : _extraPrinterPathsForUpgradeFromTamarindOrBetter())
            filterPaths(paths, "NOT (SELF BEGINSWITH \"" + printerPath + "\")");
    }

    for (const char* never : {".HFS+ Private Directory Data\r", "/.Beacon-V100", "/Backups.backupdb", "/private",
                              "/Backups.backupdb", "/Users", ""})
        std::erase(paths, std::string(never));
    std::erase(paths, std::string("/Volumes"));

    for (auto& extra : FHConfMigrator::extraPathsToReap()) paths.push_back(std::move(extra));
    if (size) *size = FileSizer::sizeForPaths(paths, _rootPath);
    return paths;
}

FHPathAnalyzer::PathList FHPathAnalyzer::_extraPrinterPathsForUpgradeFromTamarindOrBetter() {
    PathList coalesced = _fsf->coalescedPathsForPackageGroup(
        "com.quarn.TamarindPrinters.pkg-group",
        {"/System/Library/Extensions", "/usr/libexec/cups/backend", "/Library/Pictgrab/Devices",
         "/Library/Pictgrab/Support"},
        true);
    PathList printers;
    auto existsOnVolume = [&](const std::string& p) { return platform::fs::existsNoFollow(path::appendComponent(_rootPath, p)); };
    if (existsOnVolume("/Library/Printers")) printers.emplace_back("/Library/Printers");
    for (auto& p : coalesced)
        if (existsOnVolume(p)) printers.push_back(std::move(p));
    return printers;
}

void FHPathAnalyzer::_superPruneForExpressions(const std::vector<std::string>& expressions, bool matching,
                                               const std::string& fromPath, PathList& paths) {
    if (!matching && std::find(paths.begin(), paths.end(), fromPath) == paths.end()) return;
    auto names = platform::fs::contentsOfDirectory(path::appendComponent(_rootPath, fromPath));
    if (!names) return;
    // The negated terms are joined with OR: with several expressions and matching off, a
    // name is kept when it fails at least one of them.
    std::string text;
    for (size_t i = 0; i < expressions.size(); ++i)
        text += std::string(i ? " OR " : "") + "( " + (matching ? "" : "! ") + "SELF like \"" + expressions[i] + "\")";
    auto filter = FHStringPredicate::predicateWithFormat(text);
    if (!filter) return;
    std::vector<std::string> kept;
    for (const auto& name : *names)
        if (filter->evaluateWithObject(name)) kept.push_back(name);
    if (kept.empty() || (!matching && kept.size() == names->size())) return;
    std::erase(paths, fromPath);
    for (const auto& name : kept) paths.push_back(path::appendComponent(fromPath, name));
}

// ---- User paths ----

std::optional<FHPathAnalyzer::PathList> FHPathAnalyzer::prunedUserPathsWithParentDirectory(
    const std::optional<std::string>& parent, const std::optional<PathList>& omittingPaths) {
    return prunedUserPathsWithParentDirectory(parent, omittingPaths, std::optional<PathList>());
}

namespace {

void removeEvery(std::vector<std::string>& paths, const std::unordered_set<std::string>& unwanted) {
    std::erase_if(paths, [&](const std::string& p) { return unwanted.count(p) > 0; });
}

void removeParentDirectories(std::vector<std::string>& paths, const std::string& of) {
    auto parents = path::parentDirectories(of);
    removeEvery(paths, std::unordered_set<std::string>(parents.begin(), parents.end()));
}

std::unordered_set<std::string> asSet(const std::optional<std::vector<std::string>>& list) {
    return list ? std::unordered_set<std::string>(list->begin(), list->end()) : std::unordered_set<std::string>{};
}

}  // namespace

std::optional<FHPathAnalyzer::PathList> FHPathAnalyzer::prunedUserPathsWithParentDirectory(
    const std::optional<std::string>& parent, const std::optional<PathList>& omittingPaths,
    const std::optional<PathList>& includingPaths) {
    std::lock_guard lock(_lock);
    _isCancelled = false;
    const std::string directory = parent.value_or("/");
    const PathList omitted = omittingPaths.value_or(PathList{});

    PathList userPaths = FHConfMigrator::allUserPathsAtPath(_rootPath);
    auto addPrunePaths = [&] {
        _fsf->addPrunePaths(FHConfMigrator::allConfigPathsAtPath(_rootPath));
        if (!userPaths.empty()) _fsf->addPrunePaths(userPaths);
        if (includingPaths) _fsf->addPrunePaths(*includingPaths);
    };
    // The prune paths count only when the system paths are found afresh. A cached list is
    // taken first, so that the walk runs while the rule-data tool that the configuration
    // paths wait for (started with the analyzer) is still reading the receipts' BOMs.
    auto systemPaths = _fsf->cachedSystemPaths();
    const bool cached = systemPaths.has_value();
    if (!cached) {
        addPrunePaths();
        systemPaths = _fsf->_findAndCacheSystemPaths();
        if (!systemPaths) return std::nullopt;
    }

    FHUserPathWalk walk(_rootPath, directory, *systemPaths, asSet(FHFindSystemFiles::_searchPaths()),
                        asSet(FHFindSystemFiles::_searchChildrenOfPaths()), omitted);
    bool de = walk.run();
    FH_ASSERT_AT_LINE("-[FHPathAnalyzer prunedUserPathsWithParentDirectory:omittingPaths:includingPaths:]", 329, de,
                      "the walk of " + directory + " cannot be started");
    PathList result = walk.result();
    if (cached) addPrunePaths();

    // Configuration and other prune paths never count as user paths; the rules' user paths do.
    std::unordered_set<std::string> prunes(_fsf->prunePaths().begin(), _fsf->prunePaths().end());
    for (const auto& user : userPaths) prunes.erase(user);
    removeEvery(result, prunes);

    if (includingPaths) {
        result.insert(result.end(), includingPaths->begin(), includingPaths->end());
        for (const auto& included : *includingPaths) removeParentDirectories(result, included);
    }
    if (directory == "/Library")
        _superPruneForExpressions({"com.quarn.user*pictureCache*"}, true, "/Library/Caches", result);
    if (directory == "/Applications" || directory == "/System/Library")
        _superPruneForExpressions({"ZRVAgent.app", "QuarnVNCServer.bundle"}, true,
                                  "/System/Library/CoreServices/RemoteManagement", result);
    if (std::find(result.begin(), result.end(), "/home") != result.end()) {
        auto names = platform::fs::contentsOfDirectory(path::appendComponent(_rootPath, "/home"));
        if (!names || names->empty()) std::erase(result, std::string("/home"));
    }
    std::erase_if(result, [&](const std::string& p) {
        const char* type = platform::fs::fileType(path::appendComponent(_rootPath, p));
        return type && std::string_view(type) == platform::fs::kFileTypeSocket;
    });
    std::sort(result.begin(), result.end());
    return result;
}

std::optional<FHPathAnalyzer::PathList> FHPathAnalyzer::prunedUserPathsWithParentDirectory(
    const std::optional<std::string>& parent, const std::optional<PathList>& omittingPaths, bool expandingBundles) {
    auto kept = prunedUserPathsWithParentDirectory(parent, omittingPaths);
    if (!kept || !expandingBundles) return kept;
    PathList expanded;
    for (const auto& p : *kept) {
        if (platform::Bundle::isBundle(p)) {
            expanded.push_back(p);
            continue;
        }
        // Asked at the volume-relative path itself, not below the root.
        PathList bundles = platform::Bundle::bundlePathsBelow(p);
        if (bundles.empty()) {
            expanded.push_back(p);
            continue;
        }
        if (auto inside = prunedUserPathsWithParentDirectory(p, omittingPaths, bundles))
            expanded.insert(expanded.end(), inside->begin(), inside->end());
    }
    return expanded;
}

FHPathAnalyzer::PathList FHPathAnalyzer::_findPathsWithParentDirectory(const std::string& parent,
                                                                        const std::string& rootPath,
                                                                        const PathList& omittingPaths,
                                                                        bool expandDirectories) {
    auto de = FTSDirectoryEnumerator::initWithDirectory(path::appendComponent(rootPath, parent),
                                                        FTSDirectoryEnumerator::kAnalysisOptions);
    FH_ASSERT_AT_LINE(
        "+[FHPathAnalyzer(Private) _findPathsWithParentDirectory:rootPath:omittingPaths:expandDirectories:]", 514, de,
        "the walk of " + parent + " cannot be started");
    PathList listed;
    while (auto entry = de->nextObject()) {
        std::string p = path::appendComponent(parent, *entry);
        enum class Why { None, Ancestor, Other } why = Why::None;
        for (const auto& omitted : omittingPaths) {
            // The skipped area is tested only here: with nothing omitted, nothing is skipped.
            if (path::isInside(p, "/Network") || path::lastComponent(p) == "Caches" || path::isInside(p, omitted) ||
                p == omitted) {
                why = Why::Other;
                break;
            }
            if (path::isInside(omitted, p)) {
                why = Why::Ancestor;
                break;
            }
        }
        if (why == Why::Ancestor) continue;
        if (why == Why::Other) {
            de->skipDescendents();
            continue;
        }
        listed.push_back(p);
        bool isDirectory = false;
        if (!expandDirectories && platform::fs::exists(path::appendComponent(rootPath, p), &isDirectory) && isDirectory)
            de->skipDescendents();
    }
    return listed;
}

FHPathAnalyzer::PathList FHPathAnalyzer::_nonSystemReceiptStoragePaths() {
    const std::string root = path::standardize(_rootPath);
    PathList paths;
    for (const auto& receipt : crateworks::CWReceipt::receiptsAtPath(path::appendComponent(root, "private/var/db/receipts"))) {
        auto groups = receipt->packageGroups().value_or(std::vector<std::string>{});
        auto inGroup = [&](const char* g) { return std::find(groups.begin(), groups.end(), g) != groups.end(); };
        if (inGroup(FHFindSystemFiles::kSystemGroup) || inGroup(FHFindSystemFiles::kPrintersGroup)) continue;
        for (auto storage : receipt->receiptStoragePaths()) {
            if (root != "/" && str::hasPrefix(storage, root)) storage.erase(0, root.size());
            paths.push_back(std::move(storage));
        }
    }
    return paths;
}
