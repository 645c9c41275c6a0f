// The path analysis facade: children and their cache, sizes against find and stat,
// space against the file system's own figures, bundles, attributes and checksums.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "FHPathAnalysis/PathAnalyzer/FHPathAnalysis.h"
#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "support/FrameworkFixture.h"
#include "support/VolumeBuilder.h"

using namespace testsupport;
using platform::Dictionary;
using platform::Value;
using Paths = std::vector<std::string>;

namespace {

std::string quoted(const std::string& path) { return "'" + path + "'"; }

uint64_t commandNumber(const std::string& command) {
    int status = -1;
    std::string out = runCommand(command, &status);
    EXPECT_EQ(0, status) << command;
    return std::stoull(out);
}

// What find says a directory's items occupy: the allocated blocks of everything below it
// that is not a directory.
uint64_t allocatedBelow(const std::string& directory) {
    return commandNumber("find " + quoted(directory) +
                         " -mindepth 1 ! -type d -printf '%b\\n' | awk '{s += $1} END {printf \"%d\\n\", s * 512}'");
}

std::string cksumOf(const std::string& file) {
    std::string out = runCommand("cksum < " + quoted(file));
    return out.substr(0, out.find(' '));
}

void writeInfo(const std::string& infoPlist, const Dictionary& info) {
    std::filesystem::create_directories(std::filesystem::path(infoPlist).parent_path());
    ASSERT_TRUE(platform::plist::writeXMLFile(Value(info), infoPlist));
}

class PathAnalysisTest : public ::testing::Test {
protected:
    void SetUp() override {
        FHPathAnalyzer::clearSizingCache();
        crateworks::CWReceipt::_clearCache();
        detail::resetPackageDataPathsForTesting();
        bundle.setVersion("MigrationData", "10.7.0");
        bundle.setSystemReceiptPatterns({});
        bundle.setExclusionList({}, {}, {"/usr"}, {});
        oldConsole_ = platform::setConsoleSink([](std::string_view) {});
    }
    void TearDown() override {
        unsetenv("FHDebugFileSizer");
        FHPathAnalyzer::clearSizingCache();
        platform::setConsoleSink(oldConsole_);
    }

    // A volume whose system paths are exactly /bin and /usr/lib, answered from a valid cache.
    std::string makeVolume(const std::function<void(VolumeBuilder&)>& more = {}) {
        VolumeBuilder volume(dir / "v");
        for (const char* id : {"com.quarn.pkg.BaseSystem", "com.quarn.pkg.Essentials", "com.quarn.pkg.BSD"})
            volume.package(id).groups({"com.quarn.FindSystemFiles.pkg-group"}).installDate(platform::Date{1000});
        volume.directory("/Library/Caches");
        volume.file("/bin/ls", 10).file("/usr/lib/libc", 10).file("/usr/local/tool", 10);
        volume.file("/opt/a/x", 10).file("/opt/b/y", 10).directory("/opt/c");
        if (more) more(volume);
        volume.build();
        Dictionary cache{{"systemPaths", stringArray({"/bin", "/usr/lib"})}, {"MigrationDatabaseVersion", "10.7.0"}};
        EXPECT_TRUE(platform::plist::writeXMLFile(Value(cache), volume.root() + FHSystemPathCache::kCachePath));
        return volume.root();
    }

    FrameworkFixture bundle;
    TempDir dir;
    platform::ConsoleSink oldConsole_;
};

}  // namespace

TEST_F(PathAnalysisTest, InitialiserAnswersNoneForNoRootOrNoAnalyzer) {
    EXPECT_FALSE(FHPathAnalysis::initWithRootPath(std::nullopt, false));
    EXPECT_FALSE(FHPathAnalysis::initWithRootPath(std::string(), false));
    EXPECT_FALSE(FHPathAnalysis::initWithRootPath(std::string("relative/root"), true));
    auto plain = FHPathAnalysis::initWithRootPath(std::string("relative/root"), false);
    ASSERT_TRUE(plain);
    EXPECT_EQ("relative/root", plain->rootPath());
    // The root is kept exactly as given.
    std::string root = makeVolume() + "/";
    auto analysis = FHPathAnalysis::initWithRootPath(root, true);
    ASSERT_TRUE(analysis);
    EXPECT_EQ(root, analysis->rootPath());
}

TEST_F(PathAnalysisTest, ChildrenComeFromTheAnalyzerOnlyWithSystemExclusion) {
    std::string root = makeVolume();
    auto analysis = FHPathAnalysis::initWithRootPath(root, true);
    ASSERT_TRUE(analysis);
    EXPECT_EQ((Paths{"/opt/a", "/opt/b", "/opt/c"}), analysis->childrenAtPath("/opt", std::nullopt));
    EXPECT_EQ((Paths{"/usr/local"}), analysis->childrenAtPath("/usr", std::nullopt));
    // Without system exclusion for that call: the plain walk, which lists /bin and /usr
    // and goes through /opt towards the omitted path.
    auto all = *analysis->childrenAtPath("/", Paths{"/opt/a"}, false, false);
    std::sort(all.begin(), all.end());
    EXPECT_EQ((Paths{"/Library", "/bin", "/opt/b", "/opt/c", "/private", "/usr"}), all);

    // A facade made without system exclusion walks plainly even when asked to exclude.
    auto plain = FHPathAnalysis::initWithRootPath(root, false);
    auto listed = *plain->childrenAtPath("/usr", std::nullopt, true, false);
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ((Paths{"/usr/lib", "/usr/local"}), listed);
    EXPECT_FALSE(plain->systemPaths());
    EXPECT_FALSE(plain->_nonSystemReceiptStoragePaths());
    EXPECT_FALSE(plain->_extraPrinterPathsForUpgradeFromTamarindOrBetter());
}

TEST_F(PathAnalysisTest, ChildrenCacheAnswersTheFirstListForAFolder) {
    std::string root = makeVolume();
    auto analysis = FHPathAnalysis::initWithRootPath(root, true);
    ASSERT_TRUE(analysis);
    Paths first = *analysis->childrenAtPath("/opt", Paths{"/opt/a"});
    EXPECT_EQ((Paths{"/opt/b", "/opt/c"}), first);
    EXPECT_EQ(first, analysis->childrenAtPath("/opt", Paths{"/opt/b"}));
    EXPECT_EQ(first, analysis->childrenAtPath("/opt", std::nullopt, false, true));
    // The cache belongs to the facade, and other folders have their own entries.
    auto other = FHPathAnalysis::initWithRootPath(root, true);
    EXPECT_EQ((Paths{"/opt/a", "/opt/c"}), other->childrenAtPath("/opt", Paths{"/opt/b"}));
    EXPECT_EQ((Paths{"/usr/local"}), other->childrenAtPath("/usr", Paths{"/opt/b"}));
}

TEST_F(PathAnalysisTest, SystemPathsAndForwardedListsComeFromTheAnalyzer) {
    std::string root = makeVolume([](VolumeBuilder& v) {
        v.package("com.vendor.tool").groups({"com.vendor.group"}).file("/opt/a/x", 10);
    });
    auto analysis = FHPathAnalysis::initWithRootPath(root, true);
    ASSERT_TRUE(analysis);
    EXPECT_EQ((Paths{"/bin", "/usr/lib"}), analysis->systemPaths());
    auto analyzer = FHPathAnalyzer::initWithRootPath(root);
    auto storage = analysis->_nonSystemReceiptStoragePaths();
    ASSERT_TRUE(storage);
    EXPECT_EQ(analyzer->_nonSystemReceiptStoragePaths(), *storage);
    ASSERT_FALSE(storage->empty());
    for (const auto& p : *storage) EXPECT_NE(std::string::npos, p.find("com.vendor.tool")) << p;
    EXPECT_EQ(analyzer->_extraPrinterPathsForUpgradeFromTamarindOrBetter(),
              analysis->_extraPrinterPathsForUpgradeFromTamarindOrBetter());
}

TEST_F(PathAnalysisTest, SizesAgreeWithFindAndStatAndTheSizersAnswerIsCached) {
    std::string root = makeVolume([](VolumeBuilder& v) {
        v.file("/data/one", 5000, {.fill = true}).file("/data/sub/two", 70000, {.fill = true});
        v.file("/data/sparse", 1 << 20).symlink("/data/link", "one");
    });
    auto analysis = FHPathAnalysis::initWithRootPath(root, false);
    const uint64_t below = allocatedBelow(root + "/data");
    EXPECT_EQ(below, analysis->sizeForAbsolutePath("/data"));
    // A file given directly counts its length, sparse or not.
    EXPECT_EQ(uint64_t(1 << 20), analysis->sizeForAbsolutePath("/data/sparse"));
    EXPECT_EQ(5000u, analysis->sizeForAbsolutePath("/data/one"));

    // The cache answers later calls, even after the item changed.
    writeFile(root + "/data/one", std::string(9000, 'x'));
    EXPECT_EQ(5000u, analysis->sizeForAbsolutePath("/data/one"));
    EXPECT_EQ(below, analysis->sizeForAbsolutePath("/data"));
    // The sizer's 0 for an item it cannot read is a size like any other: the sizer is
    // asked (its debug lines show it) once, and the 0 stands after the item appears.
    setenv("FHDebugFileSizer", "1", 1);
    std::vector<std::string> sizerLines;
    platform::setConsoleSink([&](std::string_view line) { sizerLines.emplace_back(line); });
    EXPECT_EQ(0u, analysis->sizeForAbsolutePath("/data/later"));
    writeFile(root + "/data/later", std::string(300, 'y'));
    EXPECT_EQ(0u, analysis->sizeForAbsolutePath("/data/later"));
    platform::setConsoleSink([](std::string_view) {});
    unsetenv("FHDebugFileSizer");
    const std::string later = root + "/data/later";
    EXPECT_EQ((std::vector<std::string>{"*** FSF Error on " + later + " : " + later + ": No such file or directory",
                                        "sizeForPath returned 0 for " + later}),
              sizerLines);

    EXPECT_EQ(0u, analysis->sizeForPaths({}));
    EXPECT_EQ(5000u + 5000u + 0u + 0u, analysis->sizeForPaths({"/data/one", "/data/one", "/data/later", "/none"}));
}

TEST_F(PathAnalysisTest, SizeOfPathsWrapsAroundAt64Bits) {
    TempDir volume;
    // The largest sparse file this file system takes, asked for as often as it takes to pass 2^64.
    uint64_t size = uint64_t(1) << 44;
    std::string big = volume / "big";
    while (truncate((writeFile(big, ""), big).c_str(), off_t(size)) != 0 && size > (1u << 20)) size >>= 1;
    ASSERT_EQ(size, std::filesystem::file_size(big));
    auto analysis = FHPathAnalysis::initWithRootPath(volume.path(), false);
    const uint64_t copies = (~uint64_t(0) / size) + 1;
    Paths paths(copies, "/big");
    writeFile(volume / "small", "12345");
    paths.push_back("/small");
    // copies × size is exactly 2^64 for a power of two: only the small file is left.
    EXPECT_EQ(5u, analysis->sizeForPaths(paths));
}

TEST_F(PathAnalysisTest, SpaceOfTheFileSystemHoldingTheRoot) {
    TempDir volume;
    auto analysis = FHPathAnalysis::initWithRootPath(volume.path(), false);
    uint64_t total = commandNumber("stat -f -c '%b * %S' " + quoted(volume.path()) + " | bc");
    uint64_t available = commandNumber("stat -f -c '%a * %S' " + quoted(volume.path()) + " | bc");
    uint64_t used = analysis->usedSize(), free = analysis->freeSize();
    EXPECT_EQ(total, used + free);
    // Others write to the same file system meanwhile.
    EXPECT_NEAR(double(available), double(free), 2e9);

    auto missing = FHPathAnalysis::initWithRootPath(volume / "missing", false);
    EXPECT_EQ(0u, missing->usedSize());
    EXPECT_EQ(0u, missing->freeSize());
}

TEST_F(PathAnalysisTest, DirectoriesLeaveOutPackagesFilesAndGrandchildren) {
    TempDir volume;
    writeFile(volume / "Apps/file.txt", "x");
    std::filesystem::create_directories(volume / "Apps/Folder/Inner");
    writeInfo(volume / "Apps/Tool.app/Contents/Info.plist", Dictionary{{"CFBundleIdentifier", "com.vendor.tool"}});
    std::filesystem::create_directories(volume / "Apps/Plain.app/Contents");  // no information: no package
    std::filesystem::create_directory_symlink("Folder", volume / "Apps/Alias");
    auto analysis = FHPathAnalysis::initWithRootPath(volume.path(), false);
    auto names = analysis->directoriesAtPath("/Apps");
    std::sort(names.begin(), names.end());
    EXPECT_EQ((Paths{"Alias", "Folder", "Plain.app"}), names);
    EXPECT_TRUE(analysis->directoriesAtPath("/missing").empty());
}

TEST_F(PathAnalysisTest, BundleInformationMergesEveryPath) {
    TempDir volume;
    Dictionary toolInfo{{"CFBundleIdentifier", "com.vendor.tool"}, {"CFBundleShortVersionString", "2.0"}};
    writeInfo(volume / "Apps/Tool.app/Contents/Info.plist", toolInfo);
    writeInfo(volume / "Apps/Tool.app/Contents/PlugIns/P.plugin/Contents/Info.plist", Dictionary{{"k", "inner"}});
    writeInfo(volume / "Lib/Deep/X.bundle/Info.plist", Dictionary{{"CFBundleIdentifier", "com.vendor.x"}});
    auto analysis = FHPathAnalysis::initWithRootPath(volume.path(), false);
    Dictionary merged = analysis->bundleInformationAtPaths({"/Apps", "/Lib", "/Apps", "/missing"});
    EXPECT_EQ(2u, merged.size());
    ASSERT_TRUE(merged.findDictionary(volume / "Apps/Tool.app"));
    EXPECT_EQ(toolInfo, *merged.findDictionary(volume / "Apps/Tool.app"));
    EXPECT_TRUE(merged.findDictionary(volume / "Lib/Deep/X.bundle"));
    EXPECT_TRUE(analysis->bundleInformationAtPaths({}).empty());
}

TEST_F(PathAnalysisTest, IncompatibleAppsRecordsCarryInfoAndChecksum) {
    TempDir volume;
    Dictionary info{{"CFBundleIdentifier", "com.vendor.tool"}, {"CFBundleVersion", "3.1"}};
    writeInfo(volume / "Apps/Tool.app/Contents/Info.plist", info);
    writeFile(volume / "Apps/tool", "#!/bin/sh\necho incompatible\n");
    std::filesystem::create_directories(volume / "Apps/Empty");
    auto analysis = FHPathAnalysis::initWithRootPath(volume.path(), false);
    Dictionary records = analysis->incompatibleAppsInfoForPaths({"/Apps/Tool.app", "/Apps/tool", "/Apps/Empty", "/no"});
    EXPECT_EQ((std::vector<std::string>{"/Apps/Tool.app", "/Apps/tool", "/Apps/Empty"}), records.keys());
    EXPECT_EQ(Value(Dictionary{{"info", info}}), *records.find("/Apps/Tool.app"));
    EXPECT_EQ(Value(Dictionary{{"CRC", cksumOf(volume / "Apps/tool")}}), *records.find("/Apps/tool"));
    // Neither a bundle nor a readable file: an empty record.
    EXPECT_EQ(Value(Dictionary{}), *records.find("/Apps/Empty"));
}

TEST_F(PathAnalysisTest, AttributesAndChecksumsOfItemsThatCanBeRead) {
    TempDir volume;
    writeFile(volume / "a", "alpha\n");
    writeFile(volume / "b", std::string(70000, 'b'));
    chmod((volume / "b").c_str(), 0640);
    std::filesystem::create_directories(volume / "d");
    auto analysis = FHPathAnalysis::initWithRootPath(volume.path(), false);

    Dictionary attributes = analysis->itemAttributesAtPaths({"/a", "/b", "/d", "/none"});
    EXPECT_EQ((std::vector<std::string>{"/a", "/b", "/d"}), attributes.keys());
    const Dictionary& b = *attributes.findDictionary("/b");
    EXPECT_EQ(std::string(platform::fs::kFileTypeRegular), *b.findString(platform::fs::kFileType));
    EXPECT_EQ(70000, b.find(platform::fs::kFileSize)->integer());
    EXPECT_EQ(0640, b.find(platform::fs::kFilePosixPermissions)->integer());
    EXPECT_EQ(std::string(platform::fs::kFileTypeDirectory),
              *attributes.findDictionary("/d")->findString(platform::fs::kFileType));

    Dictionary checksums = analysis->itemCRCsAtPaths({"/a", "/b", "/d", "/none"});
    EXPECT_EQ((std::vector<std::string>{"/a", "/b"}), checksums.keys());
    EXPECT_EQ(cksumOf(volume / "a"), *checksums.findString("/a"));
    EXPECT_EQ(cksumOf(volume / "b"), *checksums.findString("/b"));
}

TEST_F(PathAnalysisTest, PlistSafeDictionaryLooksAtTheTopLevelOnly) {
    auto analysis = FHPathAnalysis::initWithRootPath(std::string("/"), false);
    platform::Array holdingURL{Value("text"), Value::url("https://example.invalid/")};
    Dictionary mixed{{"string", "s"},
                     {"url", Value::url("file:///Applications")},
                     {"integer", 7},
                     {"real", 1.5},
                     {"boolean", true},
                     {"null", Value()},
                     {"date", platform::Date{86400}},
                     {"data", platform::Data{1, 2, 3}},
                     {"array", holdingURL},
                     {"dictionary", Dictionary{{"url", Value::url("https://example.invalid/")}}}};
    Dictionary safe = analysis->_plistSafeDictionaryWithDictionary(mixed);
    EXPECT_EQ((std::vector<std::string>{"string", "integer", "real", "boolean", "date", "data", "array", "dictionary"}),
              safe.keys());
    EXPECT_EQ(Value(holdingURL), *safe.find("array"));
    EXPECT_TRUE(safe.findDictionary("dictionary")->find("url")->foreign());
}

TEST_F(PathAnalysisTest, CancelReachesTheAnalyzer) {
    std::string root = makeVolume();
    auto analysis = FHPathAnalysis::initWithRootPath(root, true);
    ASSERT_TRUE(analysis);
    auto analyzer = FHPathAnalyzer::initWithRootPath(root);
    EXPECT_FALSE(analysis->isCancelled());
    EXPECT_FALSE(analyzer->isCancelled());
    analysis->cancel();
    EXPECT_TRUE(analysis->isCancelled());
    EXPECT_TRUE(analyzer->isCancelled());
    // Sizing starts afresh afterwards.
    EXPECT_EQ(allocatedBelow(root + "/opt"), analysis->sizeForAbsolutePath("/opt"));
}
