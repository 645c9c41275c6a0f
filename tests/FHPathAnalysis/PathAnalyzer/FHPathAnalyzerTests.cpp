#include <gtest/gtest.h>

#include <algorithm>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "Platform/Log.h"
#include "support/FrameworkFixture.h"
#include "support/VolumeBuilder.h"

using namespace testsupport;
using Paths = std::vector<std::string>;

namespace {

class PathAnalyzerTest : public ::testing::Test {
protected:
    void SetUp() override {
        FHPathAnalyzer::clearSizingCache();
        crateworks::CWReceipt::_clearCache();
        detail::resetPackageDataPathsForTesting();
        bundle.setVersion("MigrationData", "10.7.0");
        bundle.setExclusionList({}, {}, {}, {});
        bundle.setSystemReceiptPatterns({});
        oldConsole_ = platform::setConsoleSink([](std::string_view) {});
        VolumeBuilder volume(dir / "v");
        for (const char* id : {"com.quarn.pkg.BaseSystem", "com.quarn.pkg.Essentials", "com.quarn.pkg.BSD"})
            volume.package(id).groups({"com.quarn.FindSystemFiles.pkg-group"}).entry("/bin/x");
        for (const char* name : {"a.txt", "b.pictureCache", "c.pictureCache", "d.tmp"})
            volume.file(std::string("/Library/Caches/") + name, 1);
        volume.build();
        root = volume.root();
    }
    void TearDown() override {
        FHPathAnalyzer::clearSizingCache();
        platform::setConsoleSink(oldConsole_);
    }

    FrameworkFixture bundle;
    TempDir dir;
    std::string root;
    platform::ConsoleSink oldConsole_;
};

Paths sortedTail(const Paths& paths, size_t from) {
    Paths tail(paths.begin() + long(from), paths.end());
    std::sort(tail.begin(), tail.end());
    return tail;
}

}  // namespace

TEST_F(PathAnalyzerTest, OneAnalyzerPerRootString) {
    auto first = FHPathAnalyzer::initWithRootPath(root);
    ASSERT_TRUE(first);
    EXPECT_EQ(first, FHPathAnalyzer::initWithRootPath(root));
    auto slashed = FHPathAnalyzer::initWithRootPath(root + "/");
    ASSERT_TRUE(slashed);
    EXPECT_NE(first, slashed);
    EXPECT_EQ(root, slashed->rootPath());  // standardised copy
    EXPECT_NE(&first->finder(), &slashed->finder());
    FHPathAnalyzer::clearSizingCache();
    EXPECT_NE(first, FHPathAnalyzer::initWithRootPath(root));

    EXPECT_FALSE(FHPathAnalyzer::initWithRootPath(std::string("relative")));
    EXPECT_DEATH(FHPathAnalyzer::initWithRootPath(std::nullopt),
                 "-\\[FHPathAnalyzer _initWithRootPath:withFallbackFile:\\], FHPathAnalyzer.cpp:43: rootPath");
}

TEST_F(PathAnalyzerTest, SuperPruneReplacesTheDirectoryBySelectedChildren) {
    auto analyzer = FHPathAnalyzer::initWithRootPath(root);
    ASSERT_TRUE(analyzer);

    // Matching off: the directory is replaced by its children that are not picture caches.
    Paths paths{"/x", "/Library/Caches", "/y", "/Library/Caches"};
    analyzer->_superPruneForExpressions({"*.pictureCache"}, false, "/Library/Caches", paths);
    EXPECT_EQ((Paths{"/x", "/y"}), Paths(paths.begin(), paths.begin() + 2));
    EXPECT_EQ((Paths{"/Library/Caches/a.txt", "/Library/Caches/d.tmp"}), sortedTail(paths, 2));

    // Matching off with the directory absent: nothing happens.
    Paths absent{"/x"};
    analyzer->_superPruneForExpressions({"*.pictureCache"}, false, "/Library/Caches", absent);
    EXPECT_EQ((Paths{"/x"}), absent);

    // Matching on: only the matching children are added, and the directory need not be there.
    Paths matching{"/x"};
    analyzer->_superPruneForExpressions({"*.pictureCache"}, true, "/Library/Caches", matching);
    EXPECT_EQ((Paths{"/Library/Caches/b.pictureCache", "/Library/Caches/c.pictureCache"}), sortedTail(matching, 1));

    // Two negated patterns joined by OR: a child is kept when it fails either, so only a
    // name matching both is dropped; here none does and every child is kept, which
    // changes nothing.
    Paths two{"/Library/Caches"};
    analyzer->_superPruneForExpressions({"*.pictureCache", "*.tmp"}, false, "/Library/Caches", two);
    EXPECT_EQ((Paths{"/Library/Caches"}), two);

    // Nothing selected, or a folder that cannot be listed: unchanged.
    Paths none{"/Library/Caches"};
    analyzer->_superPruneForExpressions({"*"}, false, "/Library/Caches", none);
    EXPECT_EQ((Paths{"/Library/Caches"}), none);
    Paths missing{"/Nope"};
    analyzer->_superPruneForExpressions({"*"}, false, "/Nope", missing);
    EXPECT_EQ((Paths{"/Nope"}), missing);
}

TEST_F(PathAnalyzerTest, PrunePathsAreAddedAgainOnEveryCall) {
    bundle.addRuleFile("r.plist", platform::Dictionary{{"g", platform::Array{entry({{"KeepPath", "/etc/k"}})}}});
    auto analyzer = FHPathAnalyzer::initWithRootPath(root);
    ASSERT_TRUE(analyzer);
    size_t before = analyzer->finder().prunePaths().size();
    ASSERT_TRUE(analyzer->prunedSystemPaths());
    size_t once = analyzer->finder().prunePaths().size();
    ASSERT_TRUE(analyzer->prunedSystemPaths());
    EXPECT_EQ(once - before, analyzer->finder().prunePaths().size() - once);
    const auto& prunes = analyzer->finder().prunePaths();
    EXPECT_EQ(2, std::count(prunes.begin(), prunes.end(), "/etc/k"));
}

TEST_F(PathAnalyzerTest, CancelReachesTheFinder) {
    auto analyzer = FHPathAnalyzer::initWithRootPath(root);
    ASSERT_TRUE(analyzer);
    analyzer->cancel();
    EXPECT_TRUE(analyzer->isCancelled());
    EXPECT_TRUE(analyzer->finder().isCancelled());
    EXPECT_FALSE(analyzer->prunedSystemPaths());  // a cancelled search answers nothing
    EXPECT_FALSE(analyzer->isCancelled());       // cleared at the start of the analysis
}
