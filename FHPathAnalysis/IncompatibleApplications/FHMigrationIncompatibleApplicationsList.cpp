#include "FHPathAnalysis/IncompatibleApplications/FHMigrationIncompatibleApplicationsList.h"

#include <algorithm>
#include <fmt/format.h>

#include "FHPathAnalysis/ConfMigrator/FHSystem.h"
#include "FHPathAnalysis/Support/FHLogging.h"
#include "Platform/Bundle.h"
#include "Platform/Checksum.h"
#include "Platform/Framework.h"
#include "Platform/PropertyList.h"
#include "Platform/Path.h"
#include "Platform/Strings.h"

namespace {

constexpr const char* kLoadPlistFunction = "-[FHMigrationIncompatibleApplicationsList loadPlist:]";
constexpr const char* kPrepareFunction =
    "-[FHMigrationIncompatibleApplicationsList prepareIncompatibleApplicationsList:forFHSystem:]";

std::vector<std::string> pathsOfEntry(const platform::Dictionary& entry) {
    std::vector<std::string> paths;
    if (auto* single = entry.findString(FHMigrationIncompatibleApplicationsList::kPathKey)) paths.push_back(*single);
    if (auto* more = entry.findArray(FHMigrationIncompatibleApplicationsList::kPathsKey))
        for (const auto& p : *more)
            if (auto* text = p.string()) paths.push_back(*text);
    return paths;
}

const std::string* versionOfBundle(const platform::Bundle& bundle) {
    const auto& info = bundle.infoDictionary();
    if (auto* shortVersion = info.findString(platform::Bundle::kShortVersionStringKey)) return shortVersion;
    return info.findString(platform::Bundle::kVersionKey);
}

// An absent operand compares as equal to anything, as a message to nothing answers "same".
int compareVersions(const std::string* a, const std::string* b) {
    if (!a || !b) return 0;
    return platform::str::numericCompare(*a, *b);
}

}  // namespace

void FHMigrationIncompatibleApplicationsList::_log(const char* function, int32_t line,
                                                   std::string_view message) const {
    FHLogging::logType(kLogType, function, line, message);
}

std::optional<platform::Dictionary> FHMigrationIncompatibleApplicationsList::loadPlist(const std::string& name) const {
    auto resource = platform::framework::pathForResource(name, "plist");
    std::optional<platform::Dictionary> list;
    if (resource) list = platform::plist::readDictionaryFile(*resource);
    if (!list)
        _log(kLoadPlistFunction, 146,
             fmt::format("MIG_BLACK_LIST: (ERROR) -> Can't read {}, black list is disabled....",
                         resource.value_or("(null)")));
    return list;
}

bool FHMigrationIncompatibleApplicationsList::prepareIncompatibleApplicationsList(const std::string& name,
                                                                                 const FHSystem& system) {
    iaList_ = platform::Dictionary();
    systemRootPath_ = system.path();
    auto list = loadPlist(name);
    if (!list) return false;
    if (auto* entries = list->findArray(kIncompatiblePathsKey))
        for (const auto& entry : *entries) _addEntry(entry, system);
    return true;
}

void FHMigrationIncompatibleApplicationsList::_addEntry(const platform::Value& entry, const FHSystem& system) {
    auto* fields = entry.dictionary();
    auto paths = fields ? pathsOfEntry(*fields) : std::vector<std::string>{};
    if (paths.empty()) {
        _log(kPrepareFunction, 41,
             fmt::format("MIG_BLACK_LIST: (WARN) -> Useless dictionary with no path set ! {}", entry.description()));
        return;
    }
    for (const auto& p : paths) _mapPath(p, entry, system);
}

void FHMigrationIncompatibleApplicationsList::_mapPath(const std::string& p, const platform::Value& entry,
                                                       const FHSystem& system) {
    if (iaList_.contains(p))
        _log(kPrepareFunction, 47, fmt::format("MIG_BLACK_LIST: (WARN) -> Path set more than once {}", p));
    if (p.starts_with("~")) {
        // Only a tilde in the first character stands for the home folder.
        for (const auto& user : system.getSystemUsers())
            if (user.relativeHomeDir()) iaList_.set(*user.relativeHomeDir() + p.substr(1), entry);
    }
    iaList_.set(p, entry);
}

std::optional<bool> FHMigrationIncompatibleApplicationsList::_matchesKnownChecksum(
    const std::string& path, const platform::Dictionary& entry) const {
    auto* known = entry.findArray(kKnownChecksumsKey);
    if (!known || known->empty()) return std::nullopt;
    // The file at the path as given, not below the system root: the list's checksums
    // describe the item the caller names.
    auto crc = platform::checksum::ofFile(path);
    if (!crc) return true;
    platform::Value text(fmt::format("{}", *crc));
    return std::find(known->begin(), known->end(), text) != known->end();
}

bool FHMigrationIncompatibleApplicationsList::_matchesVersionRange(const std::string& path,
                                                                   const platform::Dictionary& entry) const {
    auto bundle = platform::Bundle::openIfBundle(platform::path::appendComponent(systemRootPath_, path));
    if (!bundle) return false;
    const std::string* version = versionOfBundle(*bundle);
    const std::string* minimum = entry.findString(kMinimumBundleVersionKey);
    const std::string* maximum = entry.findString(kMaximumBundleVersionKey);
    // A missing minimum lies below every version.
    int belowMinimum = minimum ? compareVersions(version, minimum) : 1;
    if (belowMinimum < 0) return false;
    if (belowMinimum == 0) return true;
    if (!maximum) return false;
    return compareVersions(version, maximum) <= 0;
}

bool FHMigrationIncompatibleApplicationsList::isPathInIncompatibleApplicationsList(const std::string& path) const {
    auto* found = iaList_.find(path);
    auto* entry = found ? found->dictionary() : nullptr;
    if (!entry) return false;
    auto checksumMatch = _matchesKnownChecksum(path, *entry);
    if (checksumMatch == true) return true;
    bool hasRange = entry->contains(kMinimumBundleVersionKey) || entry->contains(kMaximumBundleVersionKey);
    if (!hasRange) return !checksumMatch.has_value();
    return _matchesVersionRange(path, *entry);
}
