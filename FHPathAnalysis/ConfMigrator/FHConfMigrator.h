// Where the configuration-migration rule data lives, and what its rule files say.
//
// The rule data ships in the framework bundle as two alternative folders,
// "MigrationData" and "MigrationDataU"; the one with the newer datv.plist version is
// used. Its "ConfMigrator" folder holds the rule files (property lists whose groups
// list entries with "CopyPath", "KeepPath", "KillPath", "KeepPrefix", "UserPath", ...)
// and the "pdExtraKeepPaths" tool. Every class operation reads the files afresh.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "FHPathAnalysis/ConfMigrator/FHSystem.h"
#include "Platform/Value.h"

using PathList = std::vector<std::string>;
using PathSet = std::unordered_set<std::string>;

class FHConfMigrator {
public:
    // Takes shared ownership of both systems and of their paths.
    static std::shared_ptr<FHConfMigrator> initWithSource(std::shared_ptr<FHSystem> source,
                                                          std::shared_ptr<FHSystem> destination);

    void setCleanInstall(bool cleanInstall) { _isCleanInstall = cleanInstall; }
    bool isCleanInstall() const { return _isCleanInstall; }
    bool dontModifyTarget() const { return dontModifyTarget_; }
    void setDontModifyTarget(bool value) { dontModifyTarget_ = value; }
    std::shared_ptr<FHSlingShotFS> slingshotFS() const;
    void setSlingshotFS(std::shared_ptr<FHSlingShotFS> fs);
    const std::string& srcRootPath() const { return _srcRootPath; }
    const std::string& dstRootPath() const { return _dstRootPath; }

    // ---- Rule files and migration data ----

    // "$NAME" tokens replaced by the variable's value, for every variable of `environment`
    // (the process environment when absent), as plain substrings: no braces, no delimiters.
    static std::string _stringBySubstitutingEnvironmentVariablesInString(
        const std::string& string, const std::optional<platform::Dictionary>& environment);

    // "MigrationData" or "MigrationDataU": the folder with the numerically larger
    // datv.plist "version"; ties go to "MigrationData".
    static std::string mostRecentMigrationData();
    static std::optional<std::string> mostRecentMigrationDataVersion();
    static std::optional<std::string> migrationDataVersion();
    static std::optional<std::string> migrationDataUVersion();

    // The chosen folder's "ConfMigrator" directory; absent (and logged) when missing.
    static std::optional<std::string> _confMigratorDirectory();
    // One dictionary per readable "*.plist" rule file, in directory order; absent when
    // there is no ConfMigrator directory.
    static std::optional<std::vector<platform::Dictionary>> _confMigratorDictionaries();
    // The latest modification date of the rule files; absent when there are none.
    static std::optional<platform::Date> latestCMDataDate();

    // ---- Rule path sets ----

    // Copy, keep and kill paths (volume-relative) of every group except the two file
    // groupings, "KeepPrefix" siblings on disk (absolute), and the package-data paths;
    // "/usr" removed, duplicates kept.
    static PathList allConfigPathsAtPath(const std::string& root);
    // "UserPath" and "UserPaths" of every entry. The root is not used.
    static PathList allUserPathsAtPath(const std::string& root);
    static PathList extraPathsToReap();
    static PathSet pathPrefixesToSkipOnServer();
    static PathSet pathPrefixesToOverWrite();
    // Empty unless `serverInstall` is non-zero; a value of exactly 1 also adds the
    // root's "System" to the fallback used when no rule says what to keep.
    static PathSet allPathsToPreserveAfterInstallationAtPath(const std::string& root, signed char serverInstall);
    // The lines of the "pdExtraKeepPaths" tool run on `root`, joined to it. Computed at the
    // first call and kept for the process: later roots get the first root's answer. A
    // caller that reads it while the set is still being made waits for it.
    static const PathSet& extraConfigPathsFromPackageDataAtPath(const std::string& root);
    // Makes the first call without waiting for the tool: it runs while the caller goes on,
    // and the first later call collects its lines. Nothing once the first call is made.
    static void startExtraConfigPathsFromPackageDataAtPath(const std::string& root);
    static PathList extraFileGroupingPathsForOSInstalls();
    static PathList extraFileGroupingPathsForApplications();
    static PathList extraFileGroupingPathsForLibrary();
    static PathList extraSystemSettingsLocations();

private:
    FHConfMigrator() = default;

    std::shared_ptr<FHSystem> _source;
    std::shared_ptr<FHSystem> _destination;
    std::string _srcRootPath;
    std::string _dstRootPath;
    bool _isCleanInstall = false;
    bool dontModifyTarget_ = false;
    mutable std::mutex slingshotMutex_;
    std::shared_ptr<FHSlingShotFS> slingshotFS_;
};

namespace detail {
// Forgets the process-wide package-data set, so that a test can start afresh.
void resetPackageDataPathsForTesting();
}  // namespace detail
