#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"

#include <algorithm>
#include <mutex>

#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "FHPathAnalysis/Support/FHLogging.h"
#include "FHPathAnalysis/Support/TaskOutputLineEnumerator.h"
#include "Platform/FileSystem.h"
#include "Platform/Framework.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "Platform/Strings.h"

extern char** environ;

using platform::Dictionary;
namespace path = platform::path;

namespace {

constexpr const char* kMigrationData = "MigrationData";
constexpr const char* kMigrationDataU = "MigrationDataU";
constexpr const char* kOSInstallGrouping = "OSInstallExtraFileGroupingPaths";
constexpr const char* kApplicationsGrouping = "ApplicationsExtraFileGroupingPaths";
constexpr const char* kServerVersionPlist = "/System/Library/CoreServices/ServerVersion.plist";

std::optional<std::string> datvVersion(const std::string& folder) {
    auto datv = platform::framework::pathForResource("datv", "plist", folder);
    if (!datv) return std::nullopt;
    auto dictionary = platform::plist::readDictionaryFile(*datv);
    if (!dictionary) return std::nullopt;
    if (auto* version = dictionary->findString("version")) return *version;
    return std::nullopt;
}

// Calls `visit(group, entry)` for every entry dictionary of every group of every rule file,
// in file order, key order and array order.
template <typename Visit>
void forEachEntry(const std::optional<std::vector<Dictionary>>& rules, Visit visit) {
    if (!rules) return;
    for (const auto& rule : *rules) {
        for (const auto& [group, value] : rule) {
            const platform::Array* entries = value.array();
            if (!entries) continue;
            for (const auto& entry : *entries)
                if (const Dictionary* d = entry.dictionary()) visit(group, *d);
        }
    }
}

// Every sibling of root+prefix on disk whose absolute path begins with it, as a plain string.
void expandKeepPrefix(const std::string& root, const std::string& prefix, const std::function<void(std::string)>& add) {
    std::string full = path::appendComponent(root, prefix);
    std::string parent = path::deletingLastComponent(full);
    auto names = platform::fs::contentsOfDirectory(parent);
    if (!names) return;
    for (const auto& name : *names) {
        std::string candidate = path::appendComponent(parent, name);
        if (platform::str::hasPrefix(candidate, full)) add(std::move(candidate));
    }
}

PathList groupingCopyPaths(const char* group) {
    PathList out;
    forEachEntry(FHConfMigrator::_confMigratorDictionaries(), [&](const std::string& g, const Dictionary& entry) {
        if (g != group) return;
        if (auto* copy = entry.findString("CopyPath")) out.push_back(*copy);
    });
    return out;
}

// The package-data paths: the set once the first call has made it, the root that call
// named, and the tool's output while it is still to be read.
struct PackageData {
    std::mutex lock;
    std::optional<PathSet> paths;
    std::string root;
    std::shared_ptr<TaskOutputLineEnumerator> output;
};

PackageData& packageData() {
    static PackageData data;
    return data;
}

// The first time: makes the set, keeps the root and starts the tool, or says once why
// there is none. `data.lock` held.
void startPackageData(PackageData& data, const std::string& root) {
    if (data.paths) return;
    data.paths.emplace();
    data.root = root;
    auto directory = FHConfMigrator::_confMigratorDirectory();
    if (!directory) return;
    std::string tool = path::appendComponent(*directory, "pdExtraKeepPaths");
    if (!platform::fs::exists(tool)) {
        platform::consoleLog("**** Warning : Did not find PD extra tool at " + tool);
        return;
    }
    data.output = TaskOutputLineEnumerator::initWithLaunchPath(tool, {root});
}

}  // namespace

// ---- Instances ----

std::shared_ptr<FHConfMigrator> FHConfMigrator::initWithSource(std::shared_ptr<FHSystem> source,
                                                               std::shared_ptr<FHSystem> destination) {
    std::shared_ptr<FHConfMigrator> migrator(new FHConfMigrator());
    migrator->_srcRootPath = source ? source->path() : std::string();
    migrator->_dstRootPath = destination ? destination->path() : std::string();
    migrator->_source = std::move(source);
    migrator->_destination = std::move(destination);
    return migrator;
}

std::shared_ptr<FHSlingShotFS> FHConfMigrator::slingshotFS() const {
    std::lock_guard lock(slingshotMutex_);
    return slingshotFS_;
}

void FHConfMigrator::setSlingshotFS(std::shared_ptr<FHSlingShotFS> fs) {
    std::lock_guard lock(slingshotMutex_);
    slingshotFS_ = std::move(fs);
}

// ---- Rule files and migration data ----

std::string FHConfMigrator::_stringBySubstitutingEnvironmentVariablesInString(
    const std::string& string, const std::optional<Dictionary>& environment) {
    Dictionary processEnvironment;
    if (!environment) {
        for (char** e = environ; e && *e; ++e) {
            std::string_view entry(*e);
            auto eq = entry.find('=');
            if (eq != std::string_view::npos) processEnvironment.set(std::string(entry.substr(0, eq)), entry.substr(eq + 1));
        }
    }
    const Dictionary& variables = environment ? *environment : processEnvironment;
    std::string result = string;
    for (const auto& [name, value] : variables) {
        const std::string* text = value.string();
        std::string token = "$" + name;
        if (!text || result.find(token) == std::string::npos) continue;
        std::string replaced;
        size_t pos = 0;
        for (size_t hit; (hit = result.find(token, pos)) != std::string::npos; pos = hit + token.size())
            replaced.append(result, pos, hit - pos).append(*text);
        replaced.append(result, pos);
        result = std::move(replaced);
    }
    return result;
}

std::string FHConfMigrator::mostRecentMigrationData() {
    if (!platform::framework::pathForResource("datv", "plist", kMigrationDataU)) return kMigrationData;
    auto uVersion = datvVersion(kMigrationDataU);
    if (!uVersion) return kMigrationData;
    std::string version;
    if (platform::framework::pathForResource("datv", "plist", kMigrationData)) {
        auto plain = datvVersion(kMigrationData);
        if (!plain) return kMigrationDataU;
        version = *plain;
    }
    return platform::str::numericCompare(version, *uVersion) < 0 ? kMigrationDataU : kMigrationData;
}

std::optional<std::string> FHConfMigrator::mostRecentMigrationDataVersion() {
    return datvVersion(mostRecentMigrationData());
}
std::optional<std::string> FHConfMigrator::migrationDataVersion() { return datvVersion(kMigrationData); }
std::optional<std::string> FHConfMigrator::migrationDataUVersion() { return datvVersion(kMigrationDataU); }

std::optional<std::string> FHConfMigrator::_confMigratorDirectory() {
    auto directory = platform::framework::pathForResource("ConfMigrator", "", mostRecentMigrationData());
    if (!directory) {
        FHLogging::logType(10, "+[FHConfMigrator _confMigratorDirectory]", 143,
                           " *****  ERROR: Missing ConfMigrator resource");
        return std::nullopt;
    }
    return directory;
}

std::optional<std::vector<Dictionary>> FHConfMigrator::_confMigratorDictionaries() {
    auto directory = _confMigratorDirectory();
    if (!directory) return std::nullopt;
    std::vector<Dictionary> rules;
    auto names = platform::fs::contentsOfDirectory(*directory);
    if (!names) return rules;
    for (const auto& name : *names) {
        if (path::extension(name) != "plist") continue;
        std::string file = *directory + "/" + name;
        if (auto rule = platform::plist::readDictionaryFile(file))
            rules.push_back(std::move(*rule));
        else
            FHLogging::logType(100, "+[FHConfMigrator _confMigratorDictionaries]", 167,
                               "ERROR: Can't read " + file + ", skipping");
    }
    return rules;
}

std::optional<platform::Date> FHConfMigrator::latestCMDataDate() {
    auto directory = _confMigratorDirectory();
    if (!directory) return std::nullopt;
    std::optional<platform::Date> latest;
    for (const auto& name : platform::fs::contentsOfDirectory(*directory).value_or(std::vector<std::string>{})) {
        if (path::extension(name) != "plist") continue;
        auto attributes = platform::fs::attributes(path::appendComponent(*directory, name));
        if (!attributes) continue;
        auto* date = attributes->find(platform::fs::kFileModificationDate);
        if (date && date->date() && (!latest || *latest < *date->date())) latest = date->date();
    }
    return latest;
}

// ---- Rule path sets ----

PathList FHConfMigrator::allConfigPathsAtPath(const std::string& root) {
    PathList paths;
    bool isServer = platform::fs::exists(path::appendComponent(root, kServerVersionPlist));
    forEachEntry(_confMigratorDictionaries(), [&](const std::string& group, const Dictionary& entry) {
        if (group == kOSInstallGrouping || group == kApplicationsGrouping) return;
        auto* context = entry.findString("Context");
        if (context && *context == "OSServerInstall" && !isServer) return;
        for (const char* key : {"CopyPath", "KeepPath", "KillPath"})
            if (auto* p = entry.findString(key)) paths.push_back(*p);
        if (auto* prefix = entry.findString("KeepPrefix"))
            expandKeepPrefix(root, *prefix, [&](std::string candidate) { paths.push_back(std::move(candidate)); });
    });
    const PathSet& packageData = extraConfigPathsFromPackageDataAtPath(root);
    paths.insert(paths.end(), packageData.begin(), packageData.end());
    std::erase(paths, std::string("/usr"));
    return paths;
}

PathList FHConfMigrator::allUserPathsAtPath(const std::string&) {
    PathList paths;
    forEachEntry(_confMigratorDictionaries(), [&](const std::string&, const Dictionary& entry) {
        if (auto* p = entry.findString("UserPath")) paths.push_back(*p);
        if (auto* list = entry.findArray("UserPaths"))
            for (const auto& item : *list)
                if (auto* p = item.string()) paths.push_back(*p);
    });
    return paths;
}

PathList FHConfMigrator::extraPathsToReap() {
    PathList paths;
    forEachEntry(_confMigratorDictionaries(), [&](const std::string& group, const Dictionary& entry) {
        if (group != "extraPathsToReap") return;
        if (auto* p = entry.findString("Path")) paths.push_back(*p);
    });
    return paths;
}

PathSet FHConfMigrator::pathPrefixesToSkipOnServer() {
    PathSet prefixes;
    forEachEntry(_confMigratorDictionaries(), [&](const std::string&, const Dictionary& entry) {
        if (auto* p = entry.findString("Prefix")) prefixes.insert(*p);
    });
    return prefixes;
}

PathSet FHConfMigrator::pathPrefixesToOverWrite() {
    PathSet paths;
    forEachEntry(_confMigratorDictionaries(), [&](const std::string&, const Dictionary& entry) {
        auto* overwrite = entry.find("OverwriteSubPaths");
        auto* copy = entry.findString("CopyPath");
        if (copy && overwrite && overwrite->boolean().value_or(false)) paths.insert(*copy);
    });
    return paths;
}

PathSet FHConfMigrator::allPathsToPreserveAfterInstallationAtPath(const std::string& root, signed char serverInstall) {
    PathSet paths;
    if (!serverInstall) return paths;
    forEachEntry(_confMigratorDictionaries(), [&](const std::string&, const Dictionary& entry) {
        if (auto* keep = entry.findString("KeepPath")) paths.insert(path::appendComponent(root, *keep));
        if (auto* prefix = entry.findString("KeepPrefix"))
            expandKeepPrefix(root, *prefix, [&](std::string candidate) { paths.insert(std::move(candidate)); });
    });
    auto exclusions = platform::plist::readDictionaryFile(FHFindSystemFiles::_systemExclusionPlistPath().value_or(""));
    if (exclusions) {
        if (auto* preserve = exclusions->findArray("Preserve"))
            for (const auto& item : *preserve)
                if (auto* p = item.string()) paths.insert(path::appendComponent(root, *p));
    } else {
        platform::consoleLog("missing exceptions plist");
    }
    const PathSet& packageData = extraConfigPathsFromPackageDataAtPath(root);
    paths.insert(packageData.begin(), packageData.end());
    if (paths.empty()) {
        platform::consoleLog("**** Warning : Did not find any KeepPath key in ConfMigrator plists....");
        paths.insert(path::appendComponent(root, "/usr"));
        paths.insert(path::appendComponent(root, "/Users"));
        if (serverInstall == 1) paths.insert(path::appendComponent(root, "System"));
    }
    return paths;
}

void FHConfMigrator::startExtraConfigPathsFromPackageDataAtPath(const std::string& root) {
    auto& data = packageData();
    std::lock_guard lock(data.lock);
    startPackageData(data, root);
}

const PathSet& FHConfMigrator::extraConfigPathsFromPackageDataAtPath(const std::string& root) {
    auto& data = packageData();
    std::lock_guard lock(data.lock);
    startPackageData(data, root);
    if (auto lines = std::move(data.output))
        while (auto line = lines->nextObject()) data.paths->insert(path::appendComponent(data.root, *line));
    return *data.paths;
}

PathList FHConfMigrator::extraFileGroupingPathsForOSInstalls() {
    PathList paths = groupingCopyPaths(kOSInstallGrouping);
    if (!paths.empty()) return paths;
    platform::consoleLog(std::string("Warning : Did not find ") + kOSInstallGrouping + " key in ConfMigrator plists....");
    return {"/Users/Shared",    "/usr/local", "/usr/sbin", "/private/var/root", "/System/Library/Extensions",
            "/System/Library/Filesystems"};
}

PathList FHConfMigrator::extraFileGroupingPathsForApplications() {
    PathList paths = groupingCopyPaths(kApplicationsGrouping);
    if (!paths.empty()) return paths;
    // The warning names the OS-install group here too.
    platform::consoleLog(std::string("Warning : Did not find ") + kOSInstallGrouping + " key in ConfMigrator plists....");
    return {"/System/Library/CoreServices/CoreTypes.bundle/Contents/Library"};
}

PathList FHConfMigrator::extraFileGroupingPathsForLibrary() {
    PathList paths;
    for (auto& p : allUserPathsAtPath({}))
        if (platform::str::hasPrefix(p, "/Library/Application Support/GlimmerMediaBrowser")) paths.push_back(std::move(p));
    return paths;
}

PathList FHConfMigrator::extraSystemSettingsLocations() { return {"/private/etc", "/private/var"}; }

namespace detail {
void resetPackageDataPathsForTesting() {
    auto& data = packageData();
    std::lock_guard lock(data.lock);
    data.output.reset();
    data.paths.reset();
    data.root.clear();
}
}  // namespace detail
