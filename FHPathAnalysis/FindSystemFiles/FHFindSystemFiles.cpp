#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"

#include <algorithm>

#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "FHPathAnalysis/Support/FHPseudoRecieptEnumerator.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/Framework.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "Platform/Strings.h"

using crateworks::CWReceipt;
namespace path = platform::path;
namespace str = platform::str;
using platform::consoleLog;

namespace {

constexpr const char* kBaseSystemPrefix = "com.quarn.pkg.BaseSystem";
constexpr const char* kEssentials = "com.quarn.pkg.Essentials";
constexpr const char* kBSD = "com.quarn.pkg.BSD";
constexpr const char* kArchivedDirectoriesEscaped = "/.Archived_Directories\\r";
constexpr const char* kArchivedDirectories = "/.Archived_Directories\r";
constexpr const char* kPrivateDataEscaped = "/.HFS+ Private Directory Data\\r";
constexpr const char* kPrivateData = "/.HFS+ Private Directory Data\r";

bool inGroup(const CWReceipt& receipt, const std::string& group) {
    auto groups = receipt.packageGroups();
    return groups && std::find(groups->begin(), groups->end(), group) != groups->end();
}

std::vector<std::string> stringsOf(const platform::Array& array) {
    std::vector<std::string> out;
    for (const auto& item : array)
        if (auto* s = item.string()) out.push_back(*s);
    return out;
}

// The string array under `key`, failing an assertion (as `operation` at `line`) when missing.
std::vector<std::string> requiredArray(const platform::Dictionary& dictionary, const char* key, const char* operation,
                                       int line) {
    const platform::Array* array = dictionary.findArray(key);
    FH_ASSERT_AT_LINE(operation, line, array != nullptr, std::string("missing key: ") + key);
    return stringsOf(*array);
}

std::optional<std::vector<std::string>> exclusionListArray(const char* key, int line) {
    auto file = FHFindSystemFiles::_systemExclusionPlistPath();
    auto dictionary = platform::plist::readDictionaryFile(file.value_or(""));
    if (!dictionary) return std::nullopt;
    std::string operation = std::string("+[FHFindSystemFiles _search") +
                            (std::string_view(key) == "Search" ? "Paths]" : "ChildrenOfPaths]");
    return requiredArray(*dictionary, key, operation.c_str(), line);
}

std::string defaultFallbackPath() {
    return path::appendComponent(platform::framework::resourcesPath(), "FallbackSystemFiles.plist");
}

}  // namespace

// ---- Creation ----

std::shared_ptr<FHFindSystemFiles> FHFindSystemFiles::initWithRootPath(const std::string& rootPath) {
    return initWithRootPath(rootPath, std::nullopt);
}

std::shared_ptr<FHFindSystemFiles> FHFindSystemFiles::initWithRootPath(
    const std::string& rootPath, const std::optional<std::string>& withFallbackFile) {
    std::shared_ptr<FHFindSystemFiles> finder(new FHFindSystemFiles());
    finder->_rootPath = rootPath;

    ReceiptList receipts = _systemReceiptsOnVolumeAtPath(rootPath);
    if (!receipts.empty() && _systemReceiptsSetIsSane(receipts)) {
        finder->_systemReceipts = std::move(receipts);
    } else {
        consoleLog("No or Invalid system receipts found on " + rootPath);
        std::string fallback = withFallbackFile.value_or(defaultFallbackPath());
        consoleLog("Attempting fallback using: " + fallback);
        auto dictionary = platform::plist::readDictionaryFile(fallback);
        const platform::Array* paths = dictionary ? dictionary->findArray("systemPaths") : nullptr;
        if (!paths || paths->empty()) return nullptr;
        finder->_fallbackSystemPaths = stringsOf(*paths);
    }

    auto exclusions = platform::plist::readDictionaryFile(_systemExclusionPlistPath().value_or(""));
    if (!exclusions) {
        consoleLog("missing exceptions plist");
        return nullptr;
    }
    finder->_exceptionsDictionary = std::move(*exclusions);
    finder->_prunePaths = requiredArray(finder->_exceptionsDictionary, "Preserve",
                                        "-[FHFindSystemFiles initWithRootPath:withFallbackFile:]", 276);
    return finder;
}

// ---- System receipts ----

std::optional<std::string> FHFindSystemFiles::_systemExclusionPlistPath() {
    auto file = platform::framework::pathForResource("SystemExclusion", "plist",
                                                     FHConfMigrator::mostRecentMigrationData());
    FH_ASSERT_AT_LINE("+[FHFindSystemFiles _systemExclusionPlistPath]", 44, file.has_value(),
                      "Missing SystemExclusion...");
    return file;
}

FHFindSystemFiles::PathSet FHFindSystemFiles::systemPrintersPKGIDs() {
    PathSet ids;
    auto file = platform::framework::pathForResource("installedPrintersPkgs", "plist");
    if (!file) return ids;
    for (auto& id : stringsOf(platform::plist::readArrayFile(*file).value_or(platform::Array{}))) ids.insert(id);
    return ids;
}

FHFindSystemFiles::ReceiptList FHFindSystemFiles::_systemReceiptsOnVolumeAtPath(const std::string& root) {
    consoleLog("Looking for system packages");
    ReceiptList all = CWReceipt::receiptsOnVolumeAtPath(root);
    PathSet printers = systemPrintersPKGIDs();

    ReceiptList chosen;
    std::unordered_set<const CWReceipt*> seen;
    auto add = [&](const std::shared_ptr<CWReceipt>& receipt) {
        if (seen.insert(receipt.get()).second) chosen.push_back(receipt);
    };
    for (const auto& receipt : all)
        if (inGroup(*receipt, kSystemGroup)) add(receipt);

    if (chosen.empty()) {
        auto file = platform::framework::pathForResource("SystemReceipts", "plist");
        auto patterns = file ? platform::plist::readArrayFile(*file) : std::nullopt;
        FH_ASSERT_AT_LINE("+[FHFindSystemFiles _systemReceiptsOnVolumeAtPath:]", 203, patterns.has_value(),
                          "missing system receipts plist");
        for (const auto& pattern : stringsOf(*patterns))
            for (const auto& receipt : all)
                if (auto id = receipt->packageIdentifier(); id && str::like(*id, pattern)) add(receipt);
    }

    if (chosen.empty()) {
        consoleLog("no system packages found");
        return chosen;
    }
    for (const auto& receipt : all) {
        auto id = receipt->packageIdentifier();
        if (inGroup(*receipt, kPrintersGroup) || (id && printers.count(*id))) add(receipt);
    }
    return chosen;
}

bool FHFindSystemFiles::_systemReceiptsSetIsSane(const ReceiptList& receipts) {
    bool baseSystem = false, essentials = false, bsd = false;
    for (const auto& receipt : receipts) {
        auto id = receipt->packageIdentifier();
        if (!id) continue;
        baseSystem |= str::hasPrefix(*id, kBaseSystemPrefix);
        essentials |= *id == kEssentials;
        bsd |= *id == kBSD;
    }
    if (baseSystem && essentials && bsd) return true;
    consoleLog(fmt::format("System Receipts : BaseSystem:{} Essentials:{} BSD:{}", int(baseSystem), int(essentials),
                           int(bsd)));
    return false;
}

std::optional<platform::Date> FHFindSystemFiles::_latestSystemReceiptDate() const {
    if (!_systemReceipts || _systemReceipts->empty()) return std::nullopt;
    std::optional<platform::Date> latest;
    for (const auto& receipt : *_systemReceipts) {
        auto date = receipt->installDate();
        if (!date) return std::nullopt;
        if (!latest || *latest < *date) latest = date;
    }
    return latest;
}

FHFindSystemFiles::PathList FHFindSystemFiles::oldSystemReceiptsPaths(const std::string& root) const {
    PathList paths;
    for (const auto& receipt : CWReceipt::receiptsAtPath(root + "/Library/Receipts/")) {
        if (!inGroup(*receipt, kSystemGroup)) continue;
        for (const auto& storage : receipt->receiptStoragePaths())
            if (str::hasPrefix(storage, root)) paths.push_back(storage.substr(root.size()));
    }
    paths.push_back(path::appendComponent("/Library/Receipts/", "BSD.pkg"));
    return paths;
}

bool FHFindSystemFiles::_previousSystemsContainsUserData() {
    bool found = false;
    for (const char* folder : {"/Previous Systems", "/Previous Systems.localized"}) {
        auto names = platform::fs::contentsOfDirectory(path::appendComponent(_rootPath, folder));
        if (!names) continue;
        for (const auto& name : *names) found |= _userDataInArchiveAtPath(std::string(folder) + "/" + name);
    }
    return found;
}

namespace {
bool ignorableName(const std::string& name) { return name == ".DS_Store" || name == ".localized"; }

// Whether anything below the home folders of `users` has a name that is not ignorable.
bool hasUserItemsBelowHomes(const std::string& directory, int depth) {
    auto names = platform::fs::contentsOfDirectory(directory);
    if (!names) return false;
    for (const auto& name : *names) {
        std::string child = path::appendComponent(directory, name);
        if (depth >= 2 && !ignorableName(name)) return true;
        if (platform::fs::isDirectoryNoFollow(child) && hasUserItemsBelowHomes(child, depth + 1)) return true;
    }
    return false;
}
}  // namespace

bool FHFindSystemFiles::_userDataInArchiveAtPath(const std::string& archive) {
    std::string full = path::appendComponent(_rootPath, archive);
    if (platform::fs::isDirectoryNoFollow(full)) {
        std::string users = path::appendComponent(full, "Users");
        if (!platform::fs::existsNoFollow(users)) return false;
        if (!hasUserItemsBelowHomes(users, 1)) return false;
        addPrunePaths({archive + "/Users"});
        return true;
    }
    if (ignorableName(path::lastComponent(archive))) return false;
    addPrunePaths({full});
    return true;
}

// ---- Prune paths and path helpers ----

void FHFindSystemFiles::addPrunePaths(const PathList& paths) {
    _prunePaths.insert(_prunePaths.end(), paths.begin(), paths.end());
}

std::string FHFindSystemFiles::_pathForPrefixComparison(const std::string& p) { return path::prefixForm(p); }

bool FHFindSystemFiles::_setContainsChildOfPath(const PathSet& set, const std::string& p) {
    if (set.count(p)) return true;
    std::string prefix = _pathForPrefixComparison(p);
    return std::any_of(set.begin(), set.end(), [&](const std::string& m) { return str::hasPrefix(m, prefix); });
}

bool FHFindSystemFiles::_setContainsParentOfPath(const PathSet& set, const std::string& p) {
    if (set.count(p)) return true;
    return std::any_of(set.begin(), set.end(),
                       [&](const std::string& m) { return str::hasPrefix(p, _pathForPrefixComparison(m)); });
}

FHFindSystemFiles::PathList FHFindSystemFiles::_parentDirectoriesOfPath(const std::string& p) {
    PathList parents = path::parentDirectories(p);
    std::reverse(parents.begin(), parents.end());
    return parents;
}

bool FHFindSystemFiles::_looksLikeBundleDirectory(const std::string& p) {
    return path::lastComponent(p).find('.') != std::string::npos;
}

std::optional<FHFindSystemFiles::PathList> FHFindSystemFiles::_searchPaths() { return exclusionListArray("Search", 804); }

std::optional<FHFindSystemFiles::PathList> FHFindSystemFiles::_searchChildrenOfPaths() {
    return exclusionListArray("SearchChildrenOf", 816);
}

// ---- Coalescing ----

namespace {
// Every path P for which `set` holds P or a descendant of P, in the sense of
// _setContainsChildOfPath: the members and each prefix of a member that ends just
// before one of its separators. Turns the per-entry scan of the set into one lookup.
FHFindSystemFiles::PathSet membersAndAncestors(const FHFindSystemFiles::PathSet& set) {
    FHFindSystemFiles::PathSet closure;
    for (const auto& member : set) {
        closure.insert(member);
        if (!member.empty() && member[0] == '/') closure.insert("/");
        for (size_t i = 1; i < member.size(); ++i)
            if (member[i] == '/') closure.insert(member.substr(0, i));
    }
    return closure;
}
}  // namespace

namespace {

// The coalescing of one walk's paths into the system set. Each path arrives in a buffer
// the caller reuses, so looking it up allocates nothing; only paths that join the set
// are copied. What the walk changes is logged, so that the changes of a walk that ends
// at damage in its BOM can be taken back.
class Coalescing {
public:
    using PathSet = FHFindSystemFiles::PathSet;

    Coalescing(PathSet& system, const PathSet* nonSystem, const PathSet* search, const PathSet* searchChildrenOf)
        : system_(system), nonSystem_(nonSystem), searchChildrenOf_(searchChildrenOf),
          searchClosure_(search ? membersAndAncestors(*search) : PathSet{}) {}

    // Takes in the absolute path `p`; true when the walk must not descend below it.
    template <typename IsDirectory> bool add(const std::string& p, IsDirectory&& isDirectory) {
        if (system_.count(p) || (nonSystem_ && nonSystem_->count(p))) return true;
        bool prune = false;
        if (isDirectory()) {
            if (searchClosure_.count(p)) return false;
            if (searchChildrenOf_) {
                size_t slash = p.rfind('/');
                parent_.assign(p, 0, slash == 0 ? 1 : slash);
                if (searchChildrenOf_->count(parent_)) return false;
            }
            prune = true;
        }
        // Its ancestors give way to it.
        for (size_t slash = p.rfind('/'); slash != std::string::npos && slash > 0; slash = p.rfind('/', slash - 1)) {
            parent_.assign(p, 0, slash);
            _erase(parent_);
        }
        _erase("/");
        if (system_.insert(p).second) log_.push_back(Change{p, {}});
        return prune;
    }

    // Puts the set back as it was before the walk.
    void undo() {
        for (auto it = log_.rbegin(); it != log_.rend(); ++it) {
            if (it->erased) system_.insert(std::move(it->erased));
            else system_.erase(it->inserted);
        }
        log_.clear();
    }

private:
    struct Change {
        std::string inserted;        // a path the walk added, or
        PathSet::node_type erased;   // one it took out
    };

    void _erase(const std::string& p) {
        if (auto node = system_.extract(p)) log_.push_back(Change{{}, std::move(node)});
    }

    PathSet& system_;
    const PathSet* nonSystem_;
    const PathSet* searchChildrenOf_;
    const PathSet searchClosure_;
    std::string parent_;
    std::vector<Change> log_;
};

}  // namespace

bool FHFindSystemFiles::_coalescePathsWithPathEnumerator(platform::DirectoryEnumerator* enumerator,
                                                         PathSet& systemSet, const PathSet* nonSystemSet,
                                                         const PathSet* searchSet, const PathSet* searchChildrenOfSet) {
    if (!enumerator) return true;
    Coalescing coalescing(systemSet, nonSystemSet, searchSet, searchChildrenOfSet);
    std::string p;
    if (auto* bomWalk = dynamic_cast<crateworks::CWBOMDirectoryEnumerator*>(enumerator)) {
        auto status = bomWalk->forEachRemaining([&](const crateworks::bom::BOMEntryView& entry) {
            if (_isCancelled) return crateworks::bom::BOMVisit::kStop;
            p.assign("/");
            p.append(entry.relativePath());
            bool prune = coalescing.add(p, [&entry] { return entry.isDirectory(); });
            return prune ? crateworks::bom::BOMVisit::kSkipDescendants : crateworks::bom::BOMVisit::kContinue;
        });
        if (status != crateworks::bom::BOMWalkStatus::kDamaged) return true;
        // A BOM damaged part way is not believed at all, as if it had not opened.
        coalescing.undo();
        return false;
    }
    while (!_isCancelled) {
        auto next = enumerator->nextObject();
        if (!next || next->empty()) break;
        p = path::appendComponent("/", *next);
        if (coalescing.add(p, [enumerator] { return enumerator->isDirectory(); })) enumerator->skipDescendents();
    }
    return true;
}

// ---- Finding ----

FHFindSystemFiles::PathSet FHFindSystemFiles::initialSystemSet() const {
    PathSet system;
    for (auto& p : requiredArray(_exceptionsDictionary, "System", "-[FHFindSystemFiles _findSystemPaths]", 495)) {
        if (p == kArchivedDirectoriesEscaped || p == kPrivateDataEscaped) continue;
        system.insert(std::move(p));
    }
    for (const char* p : {kArchivedDirectories, kPrivateData, "/Library/Logs/Ferryhold.log",
                          "/Library/Logs/FerryholdNet.log"})
        system.insert(p);
    return system;
}

FHFindSystemFiles::PathSet FHFindSystemFiles::initialSearchSet() const {
    PathSet search;
    for (auto& p : requiredArray(_exceptionsDictionary, "Search", "-[FHFindSystemFiles _findSystemPaths]", 525))
        search.insert(std::move(p));
    for (const auto& prune : _prunePaths) {
        if (!str::hasPrefix(prune, "/")) continue;
        for (const auto& parent : path::parentDirectories(prune))
            if (parent != "/") search.insert(parent);
    }
    return search;
}

std::optional<FHFindSystemFiles::PathList> FHFindSystemFiles::_findSystemPaths() {
    PathSet system = initialSystemSet();
    if (_previousSystemsContainsUserData()) {
        consoleLog("INFO: /Previous Systems contains user data, excluding from System Files!");
        system.erase("/Previous Systems");
        system.erase("/Previous Systems.localized");
    }
    for (auto& p : oldSystemReceiptsPaths(_rootPath)) system.insert(std::move(p));

    const PathSet nonSystem(_prunePaths.begin(), _prunePaths.end());
    const PathSet search = initialSearchSet();
    PathSet searchChildrenOf;
    for (auto& p : requiredArray(_exceptionsDictionary, "SearchChildrenOf", "-[FHFindSystemFiles _findSystemPaths]",
                                 546))
        searchChildrenOf.insert(std::move(p));

    if (_systemReceipts) {
        for (const auto& receipt : *_systemReceipts) {
            if (_isCancelled) break;
            auto enumerator = receipt->_directoryEnumerator();
            if (!_coalescePathsWithPathEnumerator(enumerator.get(), system, &nonSystem, &search, &searchChildrenOf))
                consoleLog("WARNING: the BOM of " + receipt->packageIdentifier().value_or("a receipt") +
                           " is damaged; none of its paths are taken");
            enumerator.reset();
            receipt->_freeBOM();
        }
    }
    if (_fallbackSystemPaths) {
        FHPseudoRecieptEnumerator fallback(*_fallbackSystemPaths);
        _coalescePathsWithPathEnumerator(&fallback, system, &nonSystem, &search, &searchChildrenOf);
    }

    if (_isCancelled) return PathList(system.begin(), system.end());
    if (system.empty()) {
        consoleLog("Unable to get paths from system receipts");
        return std::nullopt;
    }
    for (const auto& prune : _prunePaths) system.erase(prune);
    PathList sorted(system.begin(), system.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

FHFindSystemFiles::PathList FHFindSystemFiles::coalescedPathsForPackageGroup(const std::string& group,
                                                                           const PathList& searchingPaths,
                                                                           bool includingReceiptPaths) {
    ReceiptList receipts;
    for (const auto& receipt : CWReceipt::receiptsOnVolumeAtPath(_rootPath))
        if (inGroup(*receipt, group)) receipts.push_back(receipt);

    PathSet found;
    const PathSet search(searchingPaths.begin(), searchingPaths.end());
    for (const auto& receipt : receipts) {
        auto enumerator = receipt->_directoryEnumerator();
        if (!_coalescePathsWithPathEnumerator(enumerator.get(), found, nullptr, &search, nullptr))
            consoleLog("WARNING: the BOM of " + receipt->packageIdentifier().value_or("a receipt") +
                       " is damaged; none of its paths are taken");
        enumerator.reset();
        receipt->_freeBOM();
    }

    PathList result;
    for (const auto& p : found)
        if (std::any_of(searchingPaths.begin(), searchingPaths.end(), [&](const auto& s) { return str::hasPrefix(p, s); }))
            result.push_back(p);
    std::sort(result.begin(), result.end());
    if (includingReceiptPaths) {
        std::string root = path::standardize(_rootPath);
        for (const auto& receipt : receipts)
            for (auto storage : receipt->receiptStoragePaths()) {
                if (root != "/" && str::hasPrefix(storage, root)) storage.erase(0, root.size());
                result.push_back(std::move(storage));
            }
    }
    return result;
}

// ---- Cached entry point ----

std::optional<FHFindSystemFiles::PathList> FHFindSystemFiles::cachedSystemPaths() const {
    return FHSystemPathCache(_rootPath, _latestSystemReceiptDate()).read();
}

std::optional<FHFindSystemFiles::PathList> FHFindSystemFiles::systemPaths() {
    if (auto cached = cachedSystemPaths()) return cached;
    return _findAndCacheSystemPaths();
}

std::optional<FHFindSystemFiles::PathList> FHFindSystemFiles::_findAndCacheSystemPaths() {
    consoleLog("Finding system files...");
    auto found = _findSystemPaths();
    if (_isCancelled || !found) return std::nullopt;
    FHSystemPathCache(_rootPath, _latestSystemReceiptDate()).write(*found);
    return found;
}
