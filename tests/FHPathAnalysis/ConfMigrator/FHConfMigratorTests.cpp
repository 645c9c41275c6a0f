#include <gtest/gtest.h>

#include <algorithm>
#include <sys/stat.h>

#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "Platform/Log.h"
#include "support/FrameworkFixture.h"

using namespace testsupport;
using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {

class ConfMigratorTest : public ::testing::Test {
protected:
    void SetUp() override {
        detail::resetPackageDataPathsForTesting();
        oldConsole_ = platform::setConsoleSink([this](std::string_view m) { console_.emplace_back(m); });
        oldSystem_ = platform::setSystemLogSink([this](int p, std::string_view m) { system_.emplace_back(p, m); });
    }
    void TearDown() override {
        platform::setConsoleSink(oldConsole_);
        platform::setSystemLogSink(oldSystem_);
        detail::resetPackageDataPathsForTesting();
    }
    int consoleCount(const std::string& text) const { return int(std::count(console_.begin(), console_.end(), text)); }

    FrameworkFixture bundle_;
    TempDir volume_;
    std::vector<std::string> console_;
    std::vector<std::pair<int, std::string>> system_;
    platform::ConsoleSink oldConsole_;
    platform::SystemLogSink oldSystem_;
};

template <typename Set>
std::vector<std::string> sorted(const Set& set) {
    std::vector<std::string> out(set.begin(), set.end());
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

TEST_F(ConfMigratorTest, FolderChoiceComparesVersionsNumerically) {
    // Only MigrationData (without a datv.plist in the other folder).
    bundle_.setVersion("MigrationData", "10.6.9");
    EXPECT_EQ("MigrationData", FHConfMigrator::mostRecentMigrationData());
    EXPECT_EQ("10.6.9", FHConfMigrator::mostRecentMigrationDataVersion());
    EXPECT_FALSE(FHConfMigrator::migrationDataUVersion());

    bundle_.setVersion("MigrationDataU", "10.6.10");
    EXPECT_EQ("MigrationDataU", FHConfMigrator::mostRecentMigrationData());
    EXPECT_EQ("10.6.10", FHConfMigrator::mostRecentMigrationDataVersion());
    EXPECT_EQ("10.6.9", FHConfMigrator::migrationDataVersion());

    bundle_.setVersion("MigrationData", "10.6.10");  // a tie goes to MigrationData
    EXPECT_EQ("MigrationData", FHConfMigrator::mostRecentMigrationData());

    bundle_.setVersion("MigrationData", "");  // datv.plist without "version"
    EXPECT_EQ("MigrationDataU", FHConfMigrator::mostRecentMigrationData());

    bundle_.setVersion("MigrationDataU", "");  // U without a version: never chosen
    EXPECT_EQ("MigrationData", FHConfMigrator::mostRecentMigrationData());
}

TEST_F(ConfMigratorTest, OnlyMigrationDataUHasDatv) {
    bundle_.setVersion("MigrationDataU", "1.0");
    EXPECT_EQ("MigrationDataU", FHConfMigrator::mostRecentMigrationData());
}

TEST_F(ConfMigratorTest, RuleFilesReadInDirectoryOrderSkippingBadOnes) {
    bundle_.addRuleFile("a.plist", Dictionary{{"g", Array{entry({{"KeepPath", "/a"}})}}});
    writeFile(bundle_.resources("MigrationData/ConfMigrator/b.PLIST"), "ignored");
    writeFile(bundle_.resources("MigrationData/ConfMigrator/c.plist"), "<plist><dict><key>broken");
    auto rules = FHConfMigrator::_confMigratorDictionaries();
    ASSERT_TRUE(rules);
    ASSERT_EQ(1u, rules->size());
    EXPECT_TRUE((*rules)[0].contains("g"));
    EXPECT_TRUE(FHConfMigrator::latestCMDataDate());
}

TEST_F(ConfMigratorTest, MissingConfMigratorIsLoggedAtType10) {
    bundle_.setVersion("MigrationDataU", "2");  // chosen folder has no ConfMigrator
    EXPECT_FALSE(FHConfMigrator::_confMigratorDirectory());
    EXPECT_FALSE(FHConfMigrator::_confMigratorDictionaries());
    EXPECT_FALSE(FHConfMigrator::latestCMDataDate());
    ASSERT_FALSE(system_.empty());
    EXPECT_EQ(115, system_[0].first);
    EXPECT_EQ(" *****  ERROR: Missing ConfMigrator resource", system_[0].second);
    // Every rule set is empty, the fallbacks aside.
    EXPECT_TRUE(FHConfMigrator::allUserPathsAtPath("/").empty());
    EXPECT_EQ(6u, FHConfMigrator::extraFileGroupingPathsForOSInstalls().size());
}

TEST_F(ConfMigratorTest, LatestRuleDateWithoutPlistFiles) {
    writeFile(bundle_.resources("MigrationData/ConfMigrator/README"), "x");
    EXPECT_FALSE(FHConfMigrator::latestCMDataDate());
}

TEST_F(ConfMigratorTest, EnvironmentSubstitution) {
    Dictionary env{{"HOME", "/Users/a"}};
    EXPECT_EQ("/Users/a/x", FHConfMigrator::_stringBySubstitutingEnvironmentVariablesInString("$HOME/x", env));
    EXPECT_EQ("$NOPE/x", FHConfMigrator::_stringBySubstitutingEnvironmentVariablesInString("$NOPE/x", env));
    EXPECT_EQ("${HOME}", FHConfMigrator::_stringBySubstitutingEnvironmentVariablesInString("${HOME}", env));
    EXPECT_EQ("/Users/a:/Users/a", FHConfMigrator::_stringBySubstitutingEnvironmentVariablesInString("$HOME:$HOME", env));
    // A plain substring match: HOME is visited first and eats the start of $HOMEDIR.
    Dictionary both{{"HOME", "/h"}, {"HOMEDIR", "/d"}};
    EXPECT_EQ("/hDIR", FHConfMigrator::_stringBySubstitutingEnvironmentVariablesInString("$HOMEDIR", both));
    setenv("FH_TEST_VARIABLE", "v", 1);
    EXPECT_EQ("[v]", FHConfMigrator::_stringBySubstitutingEnvironmentVariablesInString("[$FH_TEST_VARIABLE]", std::nullopt));
}

TEST_F(ConfMigratorTest, ConfigPathsHonourServerContextKeepPrefixAndUsr) {
    bundle_.addRuleFile(
        "net.plist",
        Dictionary{{"Network",
                    Array{entry({{"KeepPath", "/etc/x"}, {"Context", "OSServerInstall"}}),
                          entry({{"CopyPath", "/usr"}, {"KeepPath", "/etc/hosts"}, {"KillPath", "/etc/old"}}),
                          entry({{"KeepPrefix", "/Library/Preferences/com.example.app"}})}},
                   {"OSInstallExtraFileGroupingPaths", Array{entry({{"CopyPath", "/grouped"}, {"UserPath", "/u"}})}}});
    writeFile(volume_ / "Library/Preferences/com.example.app.plist", "");
    writeFile(volume_ / "Library/Preferences/com.example.app.other.plist", "");
    writeFile(volume_ / "Library/Preferences/com.example.plist", "");

    auto paths = FHConfMigrator::allConfigPathsAtPath(volume_.path());
    EXPECT_EQ((std::vector<std::string>{"/etc/hosts", "/etc/old", volume_ / "Library/Preferences/com.example.app.other.plist",
                                        volume_ / "Library/Preferences/com.example.app.plist"}),
              sorted(paths));

    writeFile(volume_ / "System/Library/CoreServices/ServerVersion.plist", "");
    paths = FHConfMigrator::allConfigPathsAtPath(volume_.path());
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), "/etc/x"));
    EXPECT_EQ(0, std::count(paths.begin(), paths.end(), "/usr"));
    EXPECT_EQ(0, std::count(paths.begin(), paths.end(), "/grouped"));

    // The grouping group still counts for user paths, and "Context" never matters there.
    EXPECT_EQ((std::vector<std::string>{"/u"}), FHConfMigrator::allUserPathsAtPath("ignored"));
    EXPECT_EQ((std::vector<std::string>{"/grouped"}), FHConfMigrator::extraFileGroupingPathsForOSInstalls());
}

TEST_F(ConfMigratorTest, ListsAndSetsFromEveryFile) {
    bundle_.addRuleFile("a.plist",
                        Dictionary{{"extraPathsToReap", Array{entry({{"Path", "/reap/a"}}), entry({{"KeepPath", "/k"}})}},
                                   {"Accounts", Array{entry({{"UserPaths", Array{Value("/Library/Application Support/"
                                                                                       "GlimmerMediaBrowser/x"),
                                                                                 Value("/Library/Other")}},
                                                             {"Prefix", "/srv"}}),
                                                      entry({{"CopyPath", "/c1"}, {"OverwriteSubPaths", true}}),
                                                      entry({{"CopyPath", "/c2"}, {"OverwriteSubPaths", false}})}}});
    bundle_.addRuleFile("b.plist", Dictionary{{"extraPathsToReap", Array{entry({{"Path", "/reap/b"}})}}});
    auto reap = FHConfMigrator::extraPathsToReap();
    EXPECT_EQ((std::vector<std::string>{"/reap/a", "/reap/b"}), sorted(reap));
    EXPECT_EQ((std::vector<std::string>{"/srv"}), sorted(FHConfMigrator::pathPrefixesToSkipOnServer()));
    EXPECT_EQ((std::vector<std::string>{"/c1"}), sorted(FHConfMigrator::pathPrefixesToOverWrite()));
    EXPECT_EQ((std::vector<std::string>{"/Library/Application Support/GlimmerMediaBrowser/x"}),
              FHConfMigrator::extraFileGroupingPathsForLibrary());
    EXPECT_EQ((std::vector<std::string>{"/System/Library/CoreServices/CoreTypes.bundle/Contents/Library"}),
              FHConfMigrator::extraFileGroupingPathsForApplications());
    EXPECT_EQ(1, consoleCount("Warning : Did not find OSInstallExtraFileGroupingPaths key in ConfMigrator plists...."));
    EXPECT_EQ((std::vector<std::string>{"/private/etc", "/private/var"}), FHConfMigrator::extraSystemSettingsLocations());
}

TEST_F(ConfMigratorTest, PreserveSetAndItsFallback) {
    bundle_.addRuleFile("a.plist", Dictionary{{"g", Array{entry({{"CopyPath", "/only/copied"}})}}});
    // No exclusion list, no tool, no KeepPath: the fallback, with System only for a flag of exactly 1.
    EXPECT_TRUE(FHConfMigrator::allPathsToPreserveAfterInstallationAtPath("/Volumes/T", 0).empty());
    // The exclusion-list lookup fails an assertion when the list is missing, so give it one without "Preserve".
    bundle_.writePlist("MigrationData/SystemExclusion.plist", Value("not a dictionary"));
    EXPECT_EQ((std::vector<std::string>{"/Volumes/T/System", "/Volumes/T/Users", "/Volumes/T/usr"}),
              sorted(FHConfMigrator::allPathsToPreserveAfterInstallationAtPath("/Volumes/T", 1)));
    EXPECT_EQ(1, consoleCount("missing exceptions plist"));
    EXPECT_EQ(1, consoleCount("**** Warning : Did not find PD extra tool at " +
                              bundle_.resources("MigrationData/ConfMigrator/pdExtraKeepPaths")));
    EXPECT_EQ((std::vector<std::string>{"/Volumes/T/Users", "/Volumes/T/usr"}),
              sorted(FHConfMigrator::allPathsToPreserveAfterInstallationAtPath("/Volumes/T", 2)));
    // The missing tool is reported once per process.
    EXPECT_EQ(1, consoleCount("**** Warning : Did not find PD extra tool at " +
                              bundle_.resources("MigrationData/ConfMigrator/pdExtraKeepPaths")));

    bundle_.addRuleFile("b.plist", Dictionary{{"g", Array{entry({{"KeepPath", "/etc/k"}, {"Context", "Other"}})}}});
    bundle_.setExclusionList({}, {"/Preserved"}, {}, {});
    EXPECT_EQ((std::vector<std::string>{"/Volumes/T/Preserved", "/Volumes/T/etc/k"}),
              sorted(FHConfMigrator::allPathsToPreserveAfterInstallationAtPath("/Volumes/T", 1)));
}

TEST_F(ConfMigratorTest, PackageDataToolRunsOnceAndFirstRootWins) {
    std::string marker = volume_ / "runs";
    bundle_.setExtraKeepPathsTool("echo run >> '" + marker + "'\necho \"/etc/from$1\"\necho /etc/second");
    auto first = FHConfMigrator::extraConfigPathsFromPackageDataAtPath("/A");
    EXPECT_EQ((std::vector<std::string>{"/A/etc/from/A", "/A/etc/second"}), sorted(first));
    auto again = FHConfMigrator::extraConfigPathsFromPackageDataAtPath("/B");
    EXPECT_EQ(sorted(first), sorted(again));
    EXPECT_EQ("run\n", readFile(marker));
    // They join the config paths and the preserve set.
    auto config = FHConfMigrator::allConfigPathsAtPath("/B");
    EXPECT_EQ(1, std::count(config.begin(), config.end(), "/A/etc/second"));
}

// Started early, the tool runs while the caller goes on (here: makes the file the tool
// waits for, which a start that waited for the tool would never get to), once, for the
// root it was started with; the first call collects its lines.
TEST_F(ConfMigratorTest, PackageDataToolStartedEarlyRunsWhileTheCallerGoesOn) {
    std::string marker = volume_ / "runs", go = volume_ / "go";
    bundle_.setExtraKeepPathsTool("echo run >> '" + marker + "'\n"
                                  "i=0; while [ ! -e '" + go + "' ] && [ $i -lt 500 ]; do sleep 0.01; i=$((i+1)); done\n"
                                  "if [ -e '" + go + "' ]; then echo /etc/after-go; else echo /etc/gave-up; fi");
    FHConfMigrator::startExtraConfigPathsFromPackageDataAtPath("/A");
    FHConfMigrator::startExtraConfigPathsFromPackageDataAtPath("/C");  // the first start stands
    writeFile(go, "");
    EXPECT_EQ((std::vector<std::string>{"/A/etc/after-go"}),
              sorted(FHConfMigrator::extraConfigPathsFromPackageDataAtPath("/B")));
    EXPECT_EQ((std::vector<std::string>{"/A/etc/after-go"}),
              sorted(FHConfMigrator::extraConfigPathsFromPackageDataAtPath("/A")));
    EXPECT_EQ("run\n", readFile(marker));
}
