// Fuzzes the migration rule data as the analysis reads it from its resource bundle:
// the input's parts are a rule file of the ConfMigrator folder, the exclusion list and
// the data's version file, planted in a bundle of their own with a small volume beside
// it. Every rule path set is computed, and the exclusion list is read as the system
// file finder reads it.
//
// An exclusion list without its "Preserve", "Search" or "SearchChildrenOf" array stops
// the program on purpose (the analysis cannot go on without them), so those readers
// only see lists that carry the array they require.
#include <cstdint>

#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "FuzzSupport.h"
#include "Platform/Framework.h"
#include "Platform/PropertyList.h"

namespace {

bool hasArray(const std::optional<platform::Value>& list, const char* key) {
    return list && list->dictionary() && list->dictionary()->findArray(key);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzzsupport::parts(data, size, 3);
    parts.resize(3);
    fuzzsupport::Scratch scratch;
    if (!scratch.ok()) return 0;
    const std::string resources = "Ferryhold.framework/Resources/";
    const std::string migration = resources + "MigrationData/";
    platform::Value receipts(platform::Array{"com.quarn.pkg.BaseSystem", "com.quarn.pkg.Essentials"});
    platform::Value fallback(platform::Dictionary{{"systemPaths", platform::Array{"/System", "/bin"}}});
    if (!scratch.write(migration + "ConfMigrator/Rules.plist", parts[0]) ||
        !scratch.write(migration + "SystemExclusion.plist", parts[1]) ||
        !scratch.write(migration + "datv.plist", parts[2]) ||
        !scratch.write(resources + "FallbackSystemFiles.plist", platform::plist::toXML(fallback)) ||
        !scratch.write(resources + "SystemReceipts.plist", platform::plist::toXML(receipts)) ||
        !scratch.makeDirectory("volume/Users/Shared") || !scratch.makeDirectory("volume/Library/Preferences"))
        return 0;
    platform::framework::setBundlePathOverride(scratch / "Ferryhold.framework");
    std::string root = scratch / "volume";

    (void)FHConfMigrator::mostRecentMigrationData();
    (void)FHConfMigrator::mostRecentMigrationDataVersion();
    (void)FHConfMigrator::latestCMDataDate();
    (void)FHConfMigrator::allConfigPathsAtPath(root);
    (void)FHConfMigrator::allUserPathsAtPath(root);
    (void)FHConfMigrator::extraPathsToReap();
    (void)FHConfMigrator::pathPrefixesToSkipOnServer();
    (void)FHConfMigrator::pathPrefixesToOverWrite();
    (void)FHConfMigrator::allPathsToPreserveAfterInstallationAtPath(root, 1);
    (void)FHConfMigrator::extraFileGroupingPathsForOSInstalls();
    (void)FHConfMigrator::extraFileGroupingPathsForApplications();
    (void)FHConfMigrator::extraFileGroupingPathsForLibrary();

    auto exclusions = platform::plist::readBytes(
        {reinterpret_cast<const uint8_t*>(parts[1].data()), parts[1].size()});
    if (hasArray(exclusions, "Search")) (void)FHFindSystemFiles::_searchPaths();
    if (hasArray(exclusions, "SearchChildrenOf")) (void)FHFindSystemFiles::_searchChildrenOfPaths();
    if (hasArray(exclusions, "Preserve"))
        if (auto finder = FHFindSystemFiles::initWithRootPath(root)) (void)finder->prunePaths().size();

    platform::framework::setBundlePathOverride(std::nullopt);
    return 0;
}
