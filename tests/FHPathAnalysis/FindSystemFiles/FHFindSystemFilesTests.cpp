#include "FindSystemFilesTestSupport.h"

#include <filesystem>
#include <sys/stat.h>

#include "FHPathAnalysis/Support/FHPseudoRecieptEnumerator.h"

using namespace findtests;
using testsupport::VolumeBuilder;
using Paths = std::vector<std::string>;

TEST_F(FinderTest, SearchedDirectoryIsReportedByItsChildren) {
    bundle.setExclusionList({}, {}, {"/usr"}, {});
    VolumeBuilder volume(dir / "v");
    saneSystem(volume, {"/usr/bin/ls.x", "/usr/lib/x.dylib"});
    volume.build();
    EXPECT_EQ((Paths{"/usr/bin", "/usr/lib"}), withoutFixedEntries(find(volume.root())));
}

TEST_F(FinderTest, PrunePathIsDescendedToAndLeftOut) {
    bundle.setExclusionList({}, {"/usr/lib/keep"}, {"/usr"}, {});
    VolumeBuilder volume(dir / "v");
    saneSystem(volume, {"/usr/bin/ls.x", "/usr/lib/x.dylib", "/usr/lib/y.dylib", "/usr/lib/keep/k.conf",
                        "/usr/lib/keepsake.txt"});
    volume.build();
    // /usr/lib is searched because a prune path lies below it; /usr/lib/keepsake.txt is not inside /usr/lib/keep.
    EXPECT_EQ((Paths{"/usr/bin", "/usr/lib/keepsake.txt", "/usr/lib/x.dylib", "/usr/lib/y.dylib"}),
              withoutFixedEntries(find(volume.root())));
}

TEST_F(FinderTest, SystemEntryHidesItsSubtreeAndEscapedNamesAreReplaced) {
    bundle.setExclusionList({"/Applications/Big.app", "/.Archived_Directories\\r"}, {}, {"/Applications"}, {});
    VolumeBuilder volume(dir / "v");
    saneSystem(volume, {"/Applications/Big.app/Contents/MacOS/big.bin", "/Applications/Small.app/Contents/i.plist"});
    volume.build();
    Paths all = find(volume.root());
    EXPECT_EQ(1, std::count(all.begin(), all.end(), "/Applications/Big.app"));
    EXPECT_EQ(0, std::count(all.begin(), all.end(), "/.Archived_Directories\\r"));
    EXPECT_EQ(1, std::count(all.begin(), all.end(), "/.Archived_Directories\r"));
    EXPECT_EQ(1, std::count(all.begin(), all.end(), "/.HFS+ Private Directory Data\r"));
    EXPECT_EQ((Paths{"/Applications/Big.app", "/Applications/Small.app"}), withoutFixedEntries(all));
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
}

TEST_F(FinderTest, SearchAndSearchChildrenOfCombinations) {
    std::vector<std::string> entries{"/Library/Fonts/a.ttf", "/Library/Fonts/Sub/b.ttf", "/Library/top.txt"};
    auto run = [&](const Paths& search, const Paths& children) {
        bundle.setExclusionList({}, {}, search, children);
        testsupport::TempDir volumeDir;
        VolumeBuilder volume(volumeDir / "v");
        saneSystem(volume, entries);
        volume.build();
        crateworks::CWReceipt::_clearCache();
        return withoutFixedEntries(find(volume.root()));
    };
    // Both: each child of /Library is descended into; its files singly, its directories whole.
    EXPECT_EQ((Paths{"/Library/Fonts/Sub", "/Library/Fonts/a.ttf", "/Library/top.txt"}),
              run({"/Library"}, {"/Library"}));
    // Only searched: each child directory of /Library whole.
    EXPECT_EQ((Paths{"/Library/Fonts", "/Library/top.txt"}), run({"/Library"}, {}));
    // Only SearchChildrenOf: /Library itself is reported whole.
    EXPECT_EQ((Paths{"/Library"}), run({}, {"/Library"}));
}

TEST_F(FinderTest, CancelBeforeTheSearchAnswersTheSeededSet) {
    bundle.setExclusionList({"/bin"}, {}, {}, {});
    VolumeBuilder volume(dir / "v");
    saneSystem(volume, {"/usr/lib/x.dylib"});
    volume.build();
    auto finder = FHFindSystemFiles::initWithRootPath(volume.root());
    ASSERT_TRUE(finder);
    finder->cancel();
    auto found = finder->_findSystemPaths();
    ASSERT_TRUE(found);
    EXPECT_EQ(0, std::count(found->begin(), found->end(), "/usr"));
    EXPECT_EQ(1, std::count(found->begin(), found->end(), "/bin"));
    EXPECT_FALSE(finder->systemPaths());  // cancelled: no answer, and no cache written
    EXPECT_FALSE(std::filesystem::exists(volume.root() + "/Library/Caches/com.quarn.FindSystemFiles.plist"));
}

TEST_F(FinderTest, FallbackListWhenReceiptsAreNotSane) {
    bundle.setExclusionList({}, {}, {"/usr"}, {});
    VolumeBuilder volume(dir / "v");
    volume.package("com.quarn.pkg.BaseSystem").groups({kSystemGroup}).entry("/usr/bin/ls.x");
    volume.build();
    // The fallback entries are judged as directories against the running system, so use
    // paths that exist here (and /usr/bin as a searched child).
    bundle.setFallbackSystemPaths({"/usr", "/usr/nonexistent-file-of-the-test"});
    auto finder = FHFindSystemFiles::initWithRootPath(volume.root());
    ASSERT_TRUE(finder);
    EXPECT_FALSE(finder->systemReceipts());
    EXPECT_TRUE(logged("System Receipts : BaseSystem:1 Essentials:0 BSD:0"));
    EXPECT_TRUE(logged("No or Invalid system receipts found on " + volume.root()));
    EXPECT_TRUE(logged("Attempting fallback using: " + bundle.resources("FallbackSystemFiles.plist")));
    EXPECT_EQ((Paths{"/usr/nonexistent-file-of-the-test"}), withoutFixedEntries(*finder->_findSystemPaths()));

    // A fallback that is missing, lacks the key or is empty leaves no finder.
    bundle.writePlist("Empty.plist", platform::Value(platform::Dictionary{{"systemPaths", platform::Array{}}}));
    bundle.writePlist("NoKey.plist", platform::Value(platform::Dictionary{{"paths", platform::Array{}}}));
    for (const char* file : {"Empty.plist", "NoKey.plist", "Missing.plist"})
        EXPECT_FALSE(FHFindSystemFiles::initWithRootPath(volume.root(), bundle.resources(file))) << file;
}

TEST_F(FinderTest, UnreadableExclusionListLeavesNoFinder) {
    VolumeBuilder volume(dir / "v");
    saneSystem(volume);
    volume.build();
    testsupport::writeFile(bundle.resources("MigrationData/SystemExclusion.plist"), "garbage");
    EXPECT_FALSE(FHFindSystemFiles::initWithRootPath(volume.root()));
    EXPECT_TRUE(logged("missing exceptions plist"));
}

TEST_F(FinderTest, MissingKeysFailAssertions) {
    VolumeBuilder volume(dir / "v");
    saneSystem(volume);
    volume.build();
    bundle.writePlist("MigrationData/SystemExclusion.plist", platform::Value(platform::Dictionary{}));
    EXPECT_DEATH(FHFindSystemFiles::initWithRootPath(volume.root()), "missing key: Preserve");
    EXPECT_DEATH(FHFindSystemFiles::_searchPaths(), "_searchPaths\\], FHFindSystemFiles.cpp:804: .*missing key: Search");
    EXPECT_DEATH(FHFindSystemFiles::_searchChildrenOfPaths(), "missing key: SearchChildrenOf");
    std::filesystem::remove(bundle.resources("MigrationData/SystemExclusion.plist"));
    EXPECT_DEATH(FHFindSystemFiles::_systemExclusionPlistPath(), "FHFindSystemFiles.cpp:44: .*Missing SystemExclusion");
}

TEST_F(FinderTest, PathHelpers) {
    FHFindSystemFiles::PathSet set{"/a/b/c", "/x"};
    EXPECT_TRUE(FHFindSystemFiles::_setContainsChildOfPath(set, "/a"));
    EXPECT_TRUE(FHFindSystemFiles::_setContainsChildOfPath(set, "/x"));
    EXPECT_FALSE(FHFindSystemFiles::_setContainsChildOfPath(set, "/a/bc"));
    EXPECT_TRUE(FHFindSystemFiles::_setContainsParentOfPath(set, "/x/y"));
    EXPECT_FALSE(FHFindSystemFiles::_setContainsParentOfPath(set, "/xy"));
    EXPECT_EQ((Paths{"/a/b", "/a", "/"}), FHFindSystemFiles::_parentDirectoriesOfPath("/a/b/c"));
    EXPECT_TRUE(FHFindSystemFiles::_parentDirectoriesOfPath("/").empty());
    EXPECT_EQ("/a/", FHFindSystemFiles::_pathForPrefixComparison("/a"));
    EXPECT_TRUE(FHFindSystemFiles::_looksLikeBundleDirectory("/A/B.app"));
    EXPECT_FALSE(FHFindSystemFiles::_looksLikeBundleDirectory("/A.d/B"));
}

// A system receipt whose BOM turns out damaged part way through its walk gives none of
// its paths, those it gave before the damage included; the others still count.
TEST_F(FinderTest, BOMDamagedPartWayGivesNoneOfItsPaths) {
    bundle.setExclusionList({}, {}, {"/usr"}, {});
    VolumeBuilder volume(dir / "v");
    saneSystem(volume, {"/usr/bin/ls.x"});
    volume.package("com.quarn.pkg.Extra")
        .groups({kSystemGroup})
        .entry("/usr/share", "dir")
        .entry("/usr/share/a.txt", "file")
        .entry("/usr/zz-bad.x", "file");
    volume.build();
    EXPECT_EQ((Paths{"/usr/bin", "/usr/share", "/usr/zz-bad.x"}), withoutFixedEntries(find(volume.root())));

    // A separator inside a stored name is damage that the walk reaches after /usr/share.
    std::string bom = volume.pathOf("/private/var/db/receipts/com.quarn.pkg.Extra.bom");
    std::string bytes = testsupport::readFile(bom);
    size_t at = bytes.find(std::string("zz-bad.x\0", 9));
    ASSERT_NE(std::string::npos, at);
    bytes[at + 2] = '/';
    testsupport::writeFile(bom, bytes);
    console.clear();
    EXPECT_EQ((Paths{"/usr/bin"}), withoutFixedEntries(find(volume.root())));
    EXPECT_TRUE(logged("WARNING: the BOM of com.quarn.pkg.Extra is damaged; none of its paths are taken"));
}
