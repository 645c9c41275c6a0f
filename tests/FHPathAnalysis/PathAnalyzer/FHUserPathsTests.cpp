#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "Platform/File.h"
#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "support/FrameworkFixture.h"
#include "support/VolumeBuilder.h"

using namespace testsupport;
using Paths = std::vector<std::string>;

namespace {

class UserPathsTest : public ::testing::Test {
protected:
    void SetUp() override {
        FHPathAnalyzer::clearSizingCache();
        crateworks::CWReceipt::_clearCache();
        detail::resetPackageDataPathsForTesting();
        bundle.setVersion("MigrationData", "10.7.0");
        bundle.setSystemReceiptPatterns({});
        oldConsole_ = platform::setConsoleSink([this](std::string_view m) { console.emplace_back(m); });
    }
    void TearDown() override {
        FHPathAnalyzer::clearSizingCache();
        platform::setConsoleSink(oldConsole_);
    }

    // A volume whose system paths are exactly `system`: the finder answers them from a
    // valid cache. `more` adds items before the volume is built.
    std::shared_ptr<FHPathAnalyzer> analyzer(const Paths& system, const std::function<void(VolumeBuilder&)>& more) {
        VolumeBuilder volume(dir / "v");
        for (const char* id : {"com.quarn.pkg.BaseSystem", "com.quarn.pkg.Essentials", "com.quarn.pkg.BSD"})
            volume.package(id).groups({"com.quarn.FindSystemFiles.pkg-group"}).installDate(platform::Date{1000});
        volume.directory("/Library/Caches");
        more(volume);
        volume.build();
        root = volume.root();
        platform::Dictionary cache{{"systemPaths", stringArray(system)}, {"MigrationDatabaseVersion", "10.7.0"}};
        EXPECT_TRUE(platform::plist::writeXMLFile(platform::Value(cache), root + FHSystemPathCache::kCachePath));
        chmod((root + FHSystemPathCache::kCachePath).c_str(), 0644);
        return FHPathAnalyzer::initWithRootPath(root);
    }

    bool logged(const std::string& line) const { return std::count(console.begin(), console.end(), line) > 0; }

    FrameworkFixture bundle;
    TempDir dir;
    std::string root;
    std::vector<std::string> console;
    platform::ConsoleSink oldConsole_;
};

void makeSocket(const std::string& path) {
    auto unixSocket = platform::fs::File::adopt(socket(AF_UNIX, SOCK_STREAM, 0), path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(unixSocket.descriptor(), reinterpret_cast<sockaddr*>(&address), sizeof address)) << path;
    unixSocket.close();
}

}  // namespace

TEST_F(UserPathsTest, WholeVolumeKeepsTopmostUserPaths) {
    bundle.setExclusionList({}, {}, {"/Library", "/Users", "/usr", "/etc"}, {});
    auto a = analyzer({"/Library/Frameworks", "/bin", "/usr/lib"}, [](VolumeBuilder& v) {
        v.file("/Library/Frameworks/F.framework/F", 10)
            .file("/Library/Application Support/Vendor/x", 10)
            .file("/Library/Caches/com.quarn.user501pictureCache", 10)
            .file("/Library/Caches/other", 10)
            .file("/Users/alice/Documents/a.txt", 10)
            .file("/Users/alice/Library/Caches/c", 10)
            .file("/bin/ls", 10)
            .file("/usr/lib/libx", 10)
            .file("/usr/local/bin/tool", 10)
            .file("/opt/tool/bin/t", 10)
            .file("/Network/Servers/x", 10)
            .directory("/home")
            .file("/etc", 10);  // a search path that is a regular file
    });
    ASSERT_TRUE(a);
    makeSocket(root + "/listening.sock");
    auto kept = a->prunedUserPathsWithParentDirectory(std::nullopt, std::nullopt);
    ASSERT_TRUE(kept);
    // /Network itself is not inside the skipped area; the receipts folder under /private is no system path.
    EXPECT_EQ((Paths{"/Library/Application Support", "/Network", "/Users/alice", "/opt", "/private", "/usr/local"}),
              *kept);
    EXPECT_TRUE(logged("  (WARN-FSF) /etc is a 'searchPath', yet not a directory."));
}

TEST_F(UserPathsTest, HomeStaysWhenItHoldsSomething) {
    bundle.setExclusionList({}, {}, {}, {});
    auto a = analyzer({"/bin"}, [](VolumeBuilder& v) { v.file("/home/bob/x", 10); });
    ASSERT_TRUE(a);
    EXPECT_EQ((Paths{"/Library", "/home", "/private"}), *a->prunedUserPathsWithParentDirectory(std::nullopt, std::nullopt));
}

TEST_F(UserPathsTest, PictureCachesBecomeUserPathsBelowLibrary) {
    bundle.setExclusionList({}, {}, {}, {});
    auto a = analyzer({"/Library/Frameworks"}, [](VolumeBuilder& v) {
        v.file("/Library/Caches/com.quarn.user501pictureCache", 10).file("/Library/Caches/other", 10);
        v.file("/Library/Fonts/a.ttf", 10);
    });
    ASSERT_TRUE(a);
    EXPECT_EQ((Paths{"/Library/Caches/com.quarn.user501pictureCache", "/Library/Fonts"}),
              *a->prunedUserPathsWithParentDirectory(std::string("/Library"), std::nullopt));
}

TEST_F(UserPathsTest, PathAfterTheLastSystemPathIsKeptEvenInsideIt) {
    // /usr/lib is entered through its parent's search-children entry; what lies in it is
    // not kept when another system path sorts after it, but is when /usr/lib is the last.
    bundle.setExclusionList({}, {}, {"/usr"}, {"/usr"});
    auto more = [](VolumeBuilder& v) { v.file("/usr/lib/mine/x", 10).file("/zzz/y", 10); };
    auto last = analyzer({"/usr/lib"}, more);
    ASSERT_TRUE(last);
    auto kept = *last->prunedUserPathsWithParentDirectory(std::nullopt, std::nullopt);
    EXPECT_EQ(1, std::count(kept.begin(), kept.end(), "/usr/lib/mine"));

    FHPathAnalyzer::clearSizingCache();
    crateworks::CWReceipt::_clearCache();
    std::filesystem::remove_all(dir / "v");
    auto notLast = analyzer({"/usr/lib", "/zzz"}, more);
    ASSERT_TRUE(notLast);
    kept = *notLast->prunedUserPathsWithParentDirectory(std::nullopt, std::nullopt);
    EXPECT_EQ(0, std::count(kept.begin(), kept.end(), "/usr/lib/mine"));
}

TEST_F(UserPathsTest, OmittedIncludedAndRulePaths) {
    bundle.setExclusionList({}, {}, {"/opt"}, {});
    bundle.addRuleFile("r.plist",
                       platform::Dictionary{{"g", platform::Array{entry({{"KeepPath", "/opt/config"}}),
                                                                  entry({{"UserPath", "/opt/userdata"}})}}});
    auto a = analyzer({"/bin"}, [](VolumeBuilder& v) {
        v.file("/opt/config/c", 10).file("/opt/userdata/u", 10).file("/opt/other/o", 10);
        v.file("/data/skip/s", 10).file("/data/keep/k", 10);
    });
    ASSERT_TRUE(a);
    auto kept = *a->prunedUserPathsWithParentDirectory(std::nullopt, Paths{"/data/skip"}, Paths{"/opt/extra/inc"});
    // /data is walked through towards the omitted path, never kept itself; a rule's
    // configuration path is dropped, its user path stays; an included path is listed.
    EXPECT_EQ((Paths{"/Library", "/data/keep", "/opt/extra/inc", "/opt/other", "/opt/userdata", "/private"}), kept);

    // An included path wins over its ancestors, even one kept whole by the walk.
    kept = *a->prunedUserPathsWithParentDirectory(std::nullopt, std::nullopt, Paths{"/data/keep/k"});
    EXPECT_EQ(0, std::count(kept.begin(), kept.end(), "/data"));
    EXPECT_EQ(1, std::count(kept.begin(), kept.end(), "/data/keep/k"));
}

// With a valid cache the walk runs before the prune paths are gathered (the rule-data tool
// is still running then); without one they are gathered first, since the finding counts
// them. Either way a rule's configuration path is dropped, its user path stays and an
// included path is listed (the system paths themselves differ: the finding here has no
// receipt files to go by).
TEST_F(UserPathsTest, RulePathsPruneWithAndWithoutTheCache) {
    bundle.setExclusionList({}, {}, {"/opt"}, {});
    bundle.addRuleFile("r.plist",
                       platform::Dictionary{{"g", platform::Array{entry({{"KeepPath", "/opt/config"}}),
                                                                  entry({{"UserPath", "/opt/userdata"}})}}});
    for (bool cached : {true, false}) {
        SCOPED_TRACE(cached ? "cached" : "found afresh");
        FHPathAnalyzer::clearSizingCache();
        console.clear();
        std::filesystem::remove_all(dir / "v");
        auto a = analyzer({"/bin"}, [](VolumeBuilder& v) {
            v.file("/opt/config/c", 10).file("/opt/userdata/u", 10).file("/opt/other/o", 10);
        });
        ASSERT_TRUE(a);
        if (!cached) {
            ASSERT_TRUE(std::filesystem::remove(root + FHSystemPathCache::kCachePath));
        }
        auto kept = a->prunedUserPathsWithParentDirectory(std::nullopt, std::nullopt, Paths{"/opt/extra/inc"});
        ASSERT_TRUE(kept);
        EXPECT_EQ(cached, logged("Using system path cache v`10.7.0'."));
        Paths underOpt;
        std::copy_if(kept->begin(), kept->end(), std::back_inserter(underOpt),
                     [](const std::string& p) { return p.rfind("/opt", 0) == 0; });
        EXPECT_EQ((Paths{"/opt/extra/inc", "/opt/other", "/opt/userdata"}), underOpt);
    }
}

TEST_F(UserPathsTest, PlainWalkListsEverythingWithNothingOmitted) {
    TempDir volume;
    writeFile(volume / "Network/n", "");
    writeFile(volume / "a/Caches/c", "");
    writeFile(volume / "a/b/f", "");
    Paths all = FHPathAnalyzer::_findPathsWithParentDirectory("/", volume.path(), {}, false);
    std::sort(all.begin(), all.end());
    EXPECT_EQ((Paths{"/Network", "/a"}), all);
    all = FHPathAnalyzer::_findPathsWithParentDirectory("/", volume.path(), {}, true);
    std::sort(all.begin(), all.end());
    EXPECT_EQ((Paths{"/Network", "/Network/n", "/a", "/a/Caches", "/a/Caches/c", "/a/b", "/a/b/f"}), all);
    // With an omit list the skipped area applies (to what lies inside /Network, not to
    // /Network itself), and ancestors of omitted paths are entered unlisted.
    all = FHPathAnalyzer::_findPathsWithParentDirectory("/", volume.path(), {"/a/b/f"}, true);
    std::sort(all.begin(), all.end());
    EXPECT_EQ((Paths{"/Network"}), all);
}
