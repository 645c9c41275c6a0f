#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "FHPathAnalysis/Support/FTSDirectoryEnumerator.h"
#include "Platform/FileSystem.h"
#include "support/TempDir.h"

using testsupport::TempDir;
using testsupport::writeFile;

namespace {

std::vector<std::string> drain(platform::DirectoryEnumerator& enumerator) {
    std::vector<std::string> paths;
    while (auto path = enumerator.nextObject()) paths.push_back(*path);
    return paths;
}

std::set<std::string> sorted(const std::vector<std::string>& paths) { return {paths.begin(), paths.end()}; }

void makeTree(const TempDir& dir) {
    writeFile(dir / "a/b/c.txt", "c");
    writeFile(dir / "a/d.txt", "d");
    writeFile(dir / "e/f.txt", "f");
    writeFile(dir / "g.txt", "g");
    platform::fs::createDirectories(dir / "empty");
}

}  // namespace

TEST(FTSDirectoryEnumerator, OneFileYieldedOnceWithLeadingSeparator) {
    TempDir dir;
    writeFile(dir / "f", "x");
    for (int options : {0, FTSDirectoryEnumerator::kAnalysisOptions}) {
        auto enumerator = FTSDirectoryEnumerator::initWithDirectory(dir.path(), options);
        ASSERT_TRUE(enumerator);
        EXPECT_EQ("/f", enumerator->nextObject());
        EXPECT_FALSE(enumerator->nextObject());
        EXPECT_FALSE(enumerator->nextObject());
        // Nothing current after the end.
        EXPECT_FALSE(enumerator->fileAttributes());
        EXPECT_FALSE(enumerator->isDirectory());
    }
}

TEST(FTSDirectoryEnumerator, DirectoryEndingInSeparatorYieldsNamesWithoutOne) {
    TempDir dir;
    writeFile(dir / "sub/f", "x");
    auto enumerator = FTSDirectoryEnumerator::initWithDirectory(dir.path() + "/", 0);
    ASSERT_TRUE(enumerator);
    EXPECT_EQ((std::set<std::string>{"sub", "sub/f"}), sorted(drain(*enumerator)));
}

TEST(FTSDirectoryEnumerator, MatchesFindAndVisitsParentsFirst) {
    TempDir dir;
    makeTree(dir);
    auto enumerator = FTSDirectoryEnumerator::initWithDirectory(dir.path(), FTSDirectoryEnumerator::kAnalysisOptions);
    ASSERT_TRUE(enumerator);
    auto paths = drain(*enumerator);

    std::istringstream found(testsupport::runCommand("cd '" + dir.path() + "' && find . -mindepth 1 | cut -c2-"));
    std::set<std::string> expected;
    for (std::string line; std::getline(found, line);) expected.insert(line);
    EXPECT_EQ(expected, sorted(paths));
    EXPECT_EQ(expected.size(), paths.size());  // no directory a second time on the way back
    for (size_t i = 0; i < paths.size(); ++i) {
        auto slash = paths[i].rfind('/');
        if (slash == 0) continue;
        auto parent = std::find(paths.begin(), paths.end(), paths[i].substr(0, slash));
        EXPECT_LT(parent - paths.begin(), static_cast<long>(i)) << paths[i];
    }
}

TEST(FTSDirectoryEnumerator, SkipDescendents) {
    TempDir dir;
    makeTree(dir);
    auto enumerator = FTSDirectoryEnumerator::initWithDirectory(dir.path(), 0);
    ASSERT_TRUE(enumerator);
    std::vector<std::string> paths;
    while (auto path = enumerator->nextObject()) {
        paths.push_back(*path);
        if (*path == "/a") enumerator->skipDescendents();
    }
    EXPECT_EQ((std::set<std::string>{"/a", "/e", "/e/f.txt", "/g.txt", "/empty"}), sorted(paths));

    // Right after creation the directory itself is current: the whole tree is skipped.
    auto skipped = FTSDirectoryEnumerator::initWithDirectory(dir.path(), 0);
    ASSERT_TRUE(skipped);
    skipped->skipDescendents();
    EXPECT_FALSE(skipped->nextObject());
}

TEST(FTSDirectoryEnumerator, AttributesAndIsDirectory) {
    TempDir dir;
    writeFile(dir / "real/inside", "x");
    ASSERT_EQ(0, symlink("real", (dir / "link").c_str()));
    auto enumerator = FTSDirectoryEnumerator::initWithDirectory(dir.path(), 0);
    ASSERT_TRUE(enumerator);
    auto directory = enumerator->directoryAttributes();
    ASSERT_TRUE(directory);
    EXPECT_EQ(platform::fs::kFileTypeDirectory, *directory->findString(platform::fs::kFileType));

    std::set<std::string> directories, links, others;
    while (auto path = enumerator->nextObject()) {
        auto attributes = enumerator->fileAttributes();
        ASSERT_TRUE(attributes) << *path;
        std::string type = *attributes->findString(platform::fs::kFileType);
        if (enumerator->isDirectory())
            directories.insert(*path);
        else if (type == platform::fs::kFileTypeSymbolicLink)
            links.insert(*path);
        else
            others.insert(*path);
    }
    EXPECT_EQ(std::set<std::string>{"/real"}, directories);
    // Physical walk: the link is an entry of its own, not followed.
    EXPECT_EQ(std::set<std::string>{"/link"}, links);
    EXPECT_EQ(std::set<std::string>{"/real/inside"}, others);
}

TEST(FTSDirectoryEnumerator, LogicalWalkFollowsLinks) {
    TempDir dir;
    writeFile(dir / "real/inside", "x");
    ASSERT_EQ(0, symlink("real", (dir / "link").c_str()));
    auto enumerator = FTSDirectoryEnumerator::initWithDirectory(dir.path(), FTSDirectoryEnumerator::kAnalysisOptions);
    ASSERT_TRUE(enumerator);
    EXPECT_EQ((std::set<std::string>{"/real", "/real/inside", "/link", "/link/inside"}), sorted(drain(*enumerator)));

    // The directory given may itself be a link: followed from the start.
    auto throughLink =
        FTSDirectoryEnumerator::initWithDirectory(dir / "link", FTSDirectoryEnumerator::kAnalysisOptions);
    ASSERT_TRUE(throughLink);
    EXPECT_EQ(std::vector<std::string>{"/inside"}, drain(*throughLink));
}

TEST(FTSDirectoryEnumerator, AbsentOrMissingDirectory) {
    EXPECT_FALSE(FTSDirectoryEnumerator::initWithDirectory(std::nullopt, 0));
    EXPECT_FALSE(FTSDirectoryEnumerator::initWithDirectory(std::string(), 0));
    TempDir dir;
    auto missing = FTSDirectoryEnumerator::initWithDirectory(dir / "nothing here", 0);
    ASSERT_TRUE(missing);
    EXPECT_FALSE(missing->nextObject());
    EXPECT_FALSE(missing->directoryAttributes());
}

TEST(FTSDirectoryEnumerator, RelativeDirectoryAndUnchangedWorkingDirectory) {
    TempDir dir;
    writeFile(dir / "tree/sub/f", "x");
    char saved[4096];
    ASSERT_TRUE(getcwd(saved, sizeof saved));
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    auto enumerator = FTSDirectoryEnumerator::initWithDirectory(std::string("tree"), 0);
    ASSERT_TRUE(enumerator);
    std::vector<std::string> paths;
    while (auto path = enumerator->nextObject()) {
        paths.push_back(*path);
        EXPECT_TRUE(enumerator->fileAttributes()) << *path;  // still found from where we stand
    }
    char during[4096];
    ASSERT_TRUE(getcwd(during, sizeof during));
    EXPECT_EQ(dir.path(), std::string(during));
    ASSERT_EQ(0, chdir(saved));
    EXPECT_EQ((std::set<std::string>{"/sub", "/sub/f"}), sorted(paths));
}
