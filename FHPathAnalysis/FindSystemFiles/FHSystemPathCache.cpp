#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"

#include <string_view>

#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "Platform/Strings.h"

namespace fs = platform::fs;
using platform::consoleLog;
using platform::Date;

namespace {

constexpr double kFallbackTrustSeconds = 604800;  // a week

std::optional<Date> modificationDate(const platform::Dictionary& attributes) {
    auto* date = attributes.find(fs::kFileModificationDate);
    return date ? date->date() : std::nullopt;
}

// A date that cannot be obtained passes.
bool notLater(const std::optional<Date>& date, const Date& cacheDate) { return !date || *date <= cacheDate; }

bool ownedByRootWithMode0644(const platform::Dictionary& attributes) {
    auto* type = attributes.findString(fs::kFileType);
    auto* owner = attributes.find(fs::kFileOwnerAccountID);
    auto* group = attributes.find(fs::kFileGroupOwnerAccountID);
    auto* mode = attributes.find(fs::kFilePosixPermissions);
    return type && *type == fs::kFileTypeRegular && owner && owner->unsignedInteger() == 0u && group &&
           group->unsignedInteger() == 0u && mode && mode->unsignedInteger() == 0644u;
}

}  // namespace

FHSystemPathCache::FHSystemPathCache(std::string root, std::optional<Date> latestReceiptDate)
    : path_(platform::path::appendComponent(root, kCachePath)), latestReceiptDate_(latestReceiptDate) {}

bool FHSystemPathCache::datesAllow(const platform::Dictionary& attributes) const {
    auto cacheDate = modificationDate(attributes);
    if (!cacheDate) return true;
    auto exclusionList = FHFindSystemFiles::_systemExclusionPlistPath();
    if (!notLater(fs::modificationDateFollowingLinks(exclusionList.value_or("")), *cacheDate)) return false;
    Date receiptDate = latestReceiptDate_.value_or(Date{Date::now().secondsSince1970 - kFallbackTrustSeconds});
    if (!notLater(receiptDate, *cacheDate)) return false;
    return notLater(FHConfMigrator::latestCMDataDate(), *cacheDate);
}

std::optional<std::vector<std::string>> FHSystemPathCache::read() const {
    // The file judged is the file read (a link is refused, not followed), and nothing of
    // it is read until every test that needs no content has passed: anyone may plant a
    // file here, of any size.
    auto file = fs::File::open(path_, {.followFinalLink = false, .nonBlocking = true, .regularFile = true});
    if (!file) return std::nullopt;
    auto attributes = file->attributes();
    if (!attributes || !ownedByRootWithMode0644(*attributes) || !datesAllow(*attributes)) return std::nullopt;
    auto bytes = file->readToEnd();
    if (!bytes) return std::nullopt;
    auto cache = platform::plist::readBytes(*bytes);
    const platform::Dictionary* dictionary = cache ? cache->dictionary() : nullptr;
    if (!dictionary) return std::nullopt;
    const platform::Array* paths = dictionary->findArray("systemPaths");
    const std::string* cachedVersion = dictionary->findString("MigrationDatabaseVersion");
    if (!paths || !cachedVersion) return std::nullopt;

    // An unknown current version cannot vouch for any cache.
    auto current = FHConfMigrator::mostRecentMigrationDataVersion();
    if (!current) return std::nullopt;
    if (platform::str::numericCompare(*cachedVersion, *current) < 0) {
        consoleLog("This cache was generated against v`" + *cachedVersion + "'. v`" + *current + "' is available.");
        return std::nullopt;
    }
    consoleLog("Using system path cache v`" + *cachedVersion + "'.");
    std::vector<std::string> out;
    out.reserve(paths->size());
    for (const auto& item : *paths)
        if (auto* s = item.string()) out.push_back(*s);
    return out;
}

void FHSystemPathCache::write(const std::vector<std::string>& systemPaths) const {
    if (fs::realUserID() != 0) {
        consoleLog("Not writing system path cache because you are not root.");
        return;
    }
    platform::Array paths(systemPaths.begin(), systemPaths.end());
    platform::Dictionary cache{{"systemPaths", std::move(paths)}};
    if (auto version = FHConfMigrator::mostRecentMigrationDataVersion()) cache.set("MigrationDatabaseVersion", *version);
    // A regular file is replaced by the rename that puts the new cache in place, so that
    // a write that fails (a full disk) leaves the earlier cache; anything else at the
    // path (a link, a FIFO, an empty directory) goes first. A cache left behind is still
    // judged by its dates and version before it is believed.
    const char* type = fs::fileType(path_);
    if (type && std::string_view(type) != fs::kFileTypeRegular && !fs::removeItem(path_)) return;
    consoleLog("Writing system path cache.");
    platform::Error error;
    if (!platform::plist::writeXMLFile(platform::Value(std::move(cache)), path_, &error)) {
        if (path_.find("Backups.backupdb") == std::string::npos)
            consoleLog("FSF cache NOT written: " + error.description());  // the path, then why
        return;
    }
    fs::setOwner(path_, 0, 0);
}
