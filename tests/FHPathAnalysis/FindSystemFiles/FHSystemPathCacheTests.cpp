#include "FindSystemFilesTestSupport.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "support/HostileFiles.h"

using namespace findtests;
using testsupport::VolumeBuilder;
using Paths = std::vector<std::string>;
namespace stdfs = std::filesystem;

namespace {

constexpr const char* kUsing = "Using system path cache v`10.7.0'.";

class CacheTest : public FinderTest {
protected:
    void SetUp() override {
        FinderTest::SetUp();
        oldMask_ = umask(022);
        bundle.setExclusionList({}, {}, {"/usr"}, {});
        bundle.addRuleFile("rules.plist", platform::Dictionary{});
        volume_ = std::make_unique<VolumeBuilder>(dir / "v");
        saneSystem(*volume_, {"/usr/bin/ls.x"});
        volume_->directory("/Library/Caches");
        volume_->build();
        cache_ = volume_->root() + FHSystemPathCache::kCachePath;
        // Everything the cache depends on is older than a cache written now.
        setAge(bundle.resources("MigrationData/SystemExclusion.plist"), 3600);
        setAge(bundle.resources("MigrationData/ConfMigrator/rules.plist"), 3600);
    }
    void TearDown() override {
        platform::fs::setRealUserIDOverride(std::nullopt);
        umask(oldMask_);
        FinderTest::TearDown();
    }

    static void setAge(const std::string& path, int seconds) {
        struct timespec times[2];
        clock_gettime(CLOCK_REALTIME, &times[0]);
        times[0].tv_sec -= seconds;
        times[1] = times[0];
        ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
    }

    // Runs systemPaths on a fresh finder and tells whether the cache answered.
    bool answeredFromCache() {
        console.clear();
        crateworks::CWReceipt::_clearCache();
        auto finder = FHFindSystemFiles::initWithRootPath(volume_->root());
        EXPECT_TRUE(finder);
        auto paths = finder ? finder->systemPaths() : std::nullopt;
        EXPECT_TRUE(paths);
        if (paths) {
            EXPECT_EQ(1, std::count(paths->begin(), paths->end(), "/usr/bin"));
        }
        bool cached = std::any_of(console.begin(), console.end(), [](const std::string& line) {
            return line.rfind("Using system path cache v`", 0) == 0;
        });
        EXPECT_NE(cached, logged("Finding system files..."));
        return cached;
    }

    void writeCache(const platform::Dictionary& contents) {
        ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(contents), cache_));
    }

    std::unique_ptr<VolumeBuilder> volume_;
    std::string cache_;
    mode_t oldMask_ = 022;
};

}  // namespace

TEST_F(CacheTest, WrittenAsRootThenUsed) {
    EXPECT_FALSE(answeredFromCache());
    EXPECT_TRUE(logged("Writing system path cache."));
    struct stat st {};
    ASSERT_EQ(0, lstat(cache_.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);
    EXPECT_EQ(0u, st.st_uid);
    EXPECT_EQ(0u, st.st_gid);
    auto contents = platform::plist::readDictionaryFile(cache_);
    ASSERT_TRUE(contents);
    EXPECT_EQ("10.7.0", *contents->findString("MigrationDatabaseVersion"));
    EXPECT_TRUE(answeredFromCache());
}

TEST_F(CacheTest, EachValidityTestFailingOnItsOwn) {
    ASSERT_FALSE(answeredFromCache());
    ASSERT_TRUE(answeredFromCache());
    struct Case {
        const char* name;
        std::function<void()> spoil;
    };
    std::vector<Case> cases{
        {"owner", [&] { ASSERT_EQ(0, lchown(cache_.c_str(), 1000, 0)); }},
        {"group", [&] { ASSERT_EQ(0, lchown(cache_.c_str(), 0, 1000)); }},
        {"mode 0600", [&] { ASSERT_EQ(0, chmod(cache_.c_str(), 0600)); }},
        // The cache stays newer than the receipts: each date is the only one to fail.
        {"newer exclusion list", [&] { setAge(bundle.resources("MigrationData/SystemExclusion.plist"), -3600); }},
        {"newer rules", [&] { setAge(bundle.resources("MigrationData/ConfMigrator/rules.plist"), -3600); }},
        {"missing key",
         [&] { writeCache(platform::Dictionary{{"systemPaths", testsupport::stringArray({"/usr/bin"})}}); }},
        {"older version",
         [&] {
             bundle.setVersion("MigrationData", "10.7.10");
             setAge(bundle.resources("MigrationData/datv.plist"), 3600);
             writeCache(platform::Dictionary{{"systemPaths", testsupport::stringArray({"/usr/bin"})},
                                             {"MigrationDatabaseVersion", "10.7.2"}});
         }},
        {"symbolic link",
         [&] {
             stdfs::rename(cache_, cache_ + ".real");
             stdfs::create_symlink(cache_ + ".real", cache_);
         }},
    };
    auto ageInputs = [&] {
        setAge(bundle.resources("MigrationData/datv.plist"), 3600);
        setAge(bundle.resources("MigrationData/SystemExclusion.plist"), 3600);
        setAge(bundle.resources("MigrationData/ConfMigrator/rules.plist"), 3600);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        bundle.setVersion("MigrationData", "10.7.0");
        ageInputs();
        ASSERT_TRUE(answeredFromCache());
        c.spoil();
        EXPECT_FALSE(answeredFromCache());
        EXPECT_TRUE(stdfs::is_regular_file(stdfs::symlink_status(cache_)));  // rewritten, a link replaced
        ageInputs();
        EXPECT_TRUE(answeredFromCache());
    }
    EXPECT_TRUE(logged(kUsing));
}

TEST_F(CacheTest, VersionsCompareNumerically) {
    bundle.setVersion("MigrationData", "10.6.10");
    setAge(bundle.resources("MigrationData/datv.plist"), 3600);
    writeCache(platform::Dictionary{{"systemPaths", testsupport::stringArray({"/usr/bin"})},
                                    {"MigrationDatabaseVersion", "10.6.2"}});
    console.clear();
    auto finder = FHFindSystemFiles::initWithRootPath(volume_->root());
    ASSERT_TRUE(finder->systemPaths());
    EXPECT_TRUE(logged("This cache was generated against v`10.6.2'. v`10.6.10' is available."));

    writeCache(platform::Dictionary{{"systemPaths", testsupport::stringArray({"/usr/bin"})},
                                    {"MigrationDatabaseVersion", "10.6.20"}});
    console.clear();
    ASSERT_TRUE(finder->systemPaths());
    EXPECT_TRUE(logged("Using system path cache v`10.6.20'."));
}

TEST_F(CacheTest, ReceiptNewerThanCacheAndTheWeekOfAFallbackCache) {
    // A receipt installed after the cache was written makes it stale, all else older.
    ASSERT_FALSE(answeredFromCache());
    setAge(bundle.resources("MigrationData/SystemExclusion.plist"), 3 * 3600);
    setAge(bundle.resources("MigrationData/ConfMigrator/rules.plist"), 3 * 3600);
    setAge(bundle.resources("MigrationData/datv.plist"), 3 * 3600);
    setAge(cache_, 7200);
    crateworks::CWReceipt::_clearCache();
    auto receipts = crateworks::CWReceipt::receiptsOnVolumeAtPath(volume_->root());
    ASSERT_FALSE(receipts.empty());
    // The builder dates the receipts "now"; the cache is two hours old.
    EXPECT_FALSE(answeredFromCache());

    // Without receipt dates (a fallback list), a cache is trusted for seven days.
    FHSystemPathCache fallbackCache(volume_->root(), std::nullopt);
    setAge(bundle.resources("MigrationData/SystemExclusion.plist"), 10 * 86400);
    setAge(bundle.resources("MigrationData/ConfMigrator/rules.plist"), 10 * 86400);
    setAge(cache_, 6 * 86400);
    EXPECT_TRUE(fallbackCache.read());
    setAge(cache_, 8 * 86400);
    EXPECT_FALSE(fallbackCache.read());
}

TEST_F(CacheTest, OnlyTheSuperuserWrites) {
    ASSERT_FALSE(answeredFromCache());
    setAge(cache_, 7200);  // stale: receipts are newer
    auto before = stdfs::last_write_time(cache_);
    platform::fs::setRealUserIDOverride(501);
    EXPECT_FALSE(answeredFromCache());
    EXPECT_TRUE(logged("Not writing system path cache because you are not root."));
    EXPECT_FALSE(logged("Writing system path cache."));
    EXPECT_EQ(before, stdfs::last_write_time(cache_));  // neither removed nor rewritten
}

TEST_F(CacheTest, UnwritableCacheIsReportedExceptInsideABackupStore) {
    stdfs::remove_all(volume_->root() + "/Library/Caches");
    ASSERT_FALSE(answeredFromCache());
    EXPECT_TRUE(logged("FSF cache NOT written: " + cache_ + ": No such file or directory"));

    std::string backup = dir / "Backups.backupdb/host/v";
    stdfs::create_directories(stdfs::path(backup).parent_path());
    stdfs::rename(volume_->root(), backup);
    crateworks::CWReceipt::_clearCache();
    console.clear();
    auto finder = FHFindSystemFiles::initWithRootPath(backup);
    ASSERT_TRUE(finder);
    EXPECT_TRUE(finder->systemPaths());
    EXPECT_TRUE(logged("Writing system path cache."));
    EXPECT_FALSE(logged("FSF cache NOT written: " + backup + FHSystemPathCache::kCachePath));
}

// A FIFO, a device or a socket at the cache's path, root's and 0644 like a real cache:
// the read gives up at once and a fresh cache replaces the item.
TEST_F(CacheTest, PlantedNonRegularFileIsRefusedWithoutBlockingAndReplaced) {
    for (const char* kind : {"fifo", "device", "socket"}) {
        SCOPED_TRACE(kind);
        stdfs::remove(cache_);
        if (!testsupport::makeHostileFile(kind, cache_)) {
            EXPECT_STREQ(kind, "device") << "only a device may be refused to a container";
            continue;
        }
        ASSERT_EQ(0, chmod(cache_.c_str(), 0644));
        auto fresh = testsupport::resultWithin(30, [&] { return !answeredFromCache(); });
        EXPECT_EQ(fresh, true);
        // The child wrote the new cache; this process now reads it.
        EXPECT_TRUE(stdfs::is_regular_file(stdfs::symlink_status(cache_)));
        EXPECT_TRUE(answeredFromCache());
    }
}

TEST_F(CacheTest, PlantedLinkIsNotWrittenThrough) {
    std::string victim = dir / "victim.txt";
    testsupport::writeFile(victim, "precious");
    stdfs::create_symlink(victim, cache_);
    ASSERT_FALSE(answeredFromCache());
    EXPECT_EQ("precious", testsupport::readFile(victim));
    EXPECT_TRUE(stdfs::is_regular_file(stdfs::symlink_status(cache_)));
    EXPECT_TRUE(answeredFromCache());
}

// Nothing of the file is read before the tests that need no content have passed: a
// gigabyte planted at the cache's path costs an open and an fstat, not a read.
TEST_F(CacheTest, PlantedLargeCacheIsRefusedWithoutBeingRead) {
    struct Case {
        const char* name;
        std::function<void()> spoil;
    };
    std::vector<Case> cases{
        {"another user's", [&] { ASSERT_EQ(0, lchown(cache_.c_str(), 1000, 0)); }},
        {"older than the rules", [&] { setAge(bundle.resources("MigrationData/ConfMigrator/rules.plist"), -3600); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        setAge(bundle.resources("MigrationData/ConfMigrator/rules.plist"), 3600);
        stdfs::remove(cache_);
        testsupport::writeFile(cache_, "");
        stdfs::resize_file(cache_, uintmax_t(1) << 30);
        c.spoil();

        int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(watch, 0);
        auto events = platform::fs::File::adopt(watch, "inotify");
        ASSERT_GE(inotify_add_watch(watch, cache_.c_str(), IN_ACCESS), 0);
        EXPECT_FALSE(answeredFromCache());
        EXPECT_TRUE(logged("Writing system path cache."));

        std::vector<uint8_t> buffer(64 * 1024);
        platform::Error error;
        auto got = events.read(buffer, &error);
        size_t accesses = 0;
        for (size_t at = 0; got && at + sizeof(inotify_event) <= *got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
            if (event->mask & IN_ACCESS) ++accesses;
            at += sizeof(inotify_event) + event->len;
        }
        if (!got) {
            EXPECT_EQ(EAGAIN, error.code);  // no event at all
        }
        EXPECT_EQ(0u, accesses);
    }
}
