#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "FHPathAnalysis/Support/CompareAdditions.h"
#include "FHPathAnalysis/Support/FHPseudoRecieptEnumerator.h"
#include "support/TempDir.h"

TEST(FHPseudoRecieptEnumerator, SkipLeavesOutOnlyDescendants) {
    FHPseudoRecieptEnumerator enumerator(std::vector<std::string>{"/A", "/A/b", "/A/b/c", "/B"});
    EXPECT_EQ("/A", enumerator.nextObject());
    enumerator.skipDescendants();
    // The current path is already the element to come, which is returned again.
    EXPECT_EQ("/B", enumerator.currentPath());
    EXPECT_EQ("/B", enumerator.nextObject());
    EXPECT_FALSE(enumerator.nextObject());
    EXPECT_FALSE(enumerator.currentPath());
    EXPECT_FALSE(enumerator.nextObject());

    // A sibling sharing the name's beginning is not inside it.
    FHPseudoRecieptEnumerator siblings(std::vector<std::string>{"/A", "/AB", "/A/x"});
    EXPECT_EQ("/A", siblings.nextObject());
    siblings.skipDescendents();
    EXPECT_EQ("/AB", siblings.nextObject());
    EXPECT_EQ("/A/x", siblings.nextObject());

    // A path already ending in "/" is its own prefix form.
    FHPseudoRecieptEnumerator trailing(std::vector<std::string>{"/", "/a", "/b/c"});
    EXPECT_EQ("/", trailing.nextObject());
    trailing.skipDescendants();
    EXPECT_FALSE(trailing.nextObject());
}

TEST(FHPseudoRecieptEnumerator, SkipReachingTheEnd) {
    FHPseudoRecieptEnumerator enumerator(std::vector<std::string>{"/A", "/B", "/B/c", "/B/d"});
    // Before the first element nothing is current: a skip does nothing.
    enumerator.skipDescendants();
    EXPECT_EQ("/A", enumerator.nextObject());
    EXPECT_EQ("/B", enumerator.nextObject());
    enumerator.skipDescendents();
    EXPECT_FALSE(enumerator.currentPath());
    EXPECT_FALSE(enumerator.nextObject());
    enumerator.skipDescendants();  // at the end: still nothing
    EXPECT_FALSE(enumerator.nextObject());

    FHPseudoRecieptEnumerator empty(std::vector<std::string>{});
    EXPECT_FALSE(empty.nextObject());
    FHPseudoRecieptEnumerator null(std::shared_ptr<const std::vector<std::string>>{});
    EXPECT_FALSE(null.nextObject());
}

TEST(FHPseudoRecieptEnumerator, SharesItsListAndChecksDirectoriesAbsolutely) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "sub/file", "x");
    auto list = std::make_shared<const std::vector<std::string>>(
        std::vector<std::string>{dir.path(), dir / "sub", dir / "sub/file", dir / "missing"});
    FHPseudoRecieptEnumerator enumerator(list);
    EXPECT_EQ(2, list.use_count());

    EXPECT_FALSE(enumerator.isDirectory());  // nothing current yet
    std::vector<bool> directories;
    while (enumerator.nextObject()) directories.push_back(enumerator.isDirectory());
    EXPECT_EQ((std::vector<bool>{true, true, false, false}), directories);
    EXPECT_FALSE(enumerator.isDirectory());

    // Right after a skip, isDirectory speaks of the element to come.
    FHPseudoRecieptEnumerator skipping(list);
    skipping.nextObject();
    skipping.nextObject();
    skipping.skipDescendants();
    EXPECT_EQ(dir / "missing", skipping.currentPath());
    EXPECT_FALSE(skipping.isDirectory());
}

TEST(CompareAdditions, NumericCompareOrdersVersions) {
    using CompareAdditions::_numericCompare;
    EXPECT_EQ(std::strong_ordering::greater, _numericCompare("10.6.10", "10.6.9"));
    EXPECT_EQ(std::strong_ordering::less, _numericCompare("1.9", "1.10"));
    EXPECT_EQ(std::strong_ordering::equal, _numericCompare("10.7", "10.7"));
    EXPECT_EQ(std::strong_ordering::less, _numericCompare("10.7", "10.7.1"));

    std::vector<std::string> versions{"10.10", "10.6.9", "9.2", "10.6.10", "10.7"};
    std::sort(versions.begin(), versions.end(), [](const std::string& a, const std::string& b) {
        return _numericCompare(a, b) == std::strong_ordering::greater;
    });
    EXPECT_EQ((std::vector<std::string>{"10.10", "10.7", "10.6.10", "10.6.9", "9.2"}), versions);
}
