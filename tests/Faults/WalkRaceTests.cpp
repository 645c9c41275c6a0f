// Files and directories that vanish, or turn into symbolic links to somewhere else,
// between being listed and being looked at: during sizing, the user-path walk, archiving
// and extraction. The platform's walk seam makes the change at a chosen item, so every
// run meets the same race. No walk crashes, follows the change out of its root, or
// reports what lies outside; each ends with a defined result.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarExtractor.h"
#include "FHPathAnalysis/PathAnalyzer/FHUserPathWalk.h"
#include "FHPathAnalysis/Support/FileSizer.h"
#include "Platform/ExtractionRoot.h"
#include "Platform/FileSystem.h"
#include "Platform/WalkHook.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"

using platform::fs::ScopedWalkHook;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;
namespace stdfs = std::filesystem;

namespace {

// Once, when the walk reaches `name`: replaces `path` by a symbolic link to `target`
// (or just removes it when `target` is empty).
platform::fs::WalkHook swapAt(const std::string& name, const std::string& path, const std::string& target) {
    auto done = std::make_shared<bool>(false);
    return [=](std::string_view reached) {
        if (*done || reached != name) return;
        *done = true;
        stdfs::remove_all(path);
        if (!target.empty()) stdfs::create_directory_symlink(target, path);
    };
}

std::vector<std::string> tree(const std::string& root) {
    std::vector<std::string> names;
    if (!stdfs::exists(root)) return names;
    for (const auto& entry : stdfs::recursive_directory_iterator(root))
        names.push_back(entry.path().lexically_relative(root));
    std::sort(names.begin(), names.end());
    return names;
}

// A tree to walk and, beside it, a directory of big files the walk must never reach.
struct Fixture {
    TempDir dir;
    std::string root = dir / "root";
    std::string outside = dir / "outside";
    Fixture() {
        writeFile(root + "/a/keep.txt", std::string(5000, 'k'));
        writeFile(root + "/a/victim/inner.txt", std::string(5000, 'v'));
        writeFile(root + "/a/zz-gone.bin", std::string(8192, 'g'));
        writeFile(root + "/b/last.txt", "last");
        for (int i = 0; i < 4; ++i) writeFile(outside + "/secret" + std::to_string(i), std::string(1 << 20, 's'));
        writeFile(outside + "/victim-secret.txt", "outside the root");
    }
};

}  // namespace

TEST(WalkRace, SizingNeverCountsWhatADirectoryTurnedLinkPointsAt) {
    Fixture f;
    uint64_t whole = FileSizer::sizeForPath(f.root);
    ASSERT_GT(whole, 18'000u);
    uint64_t outsideSize = FileSizer::sizeForPath(f.outside);
    ASSERT_GE(outsideSize, 4u << 20);
    {
        ScopedWalkHook hook(swapAt("victim", f.root + "/a/victim", f.outside));
        uint64_t size = FileSizer::sizeForPath(f.root);
        EXPECT_LT(size, whole) << "the victim's contents are gone";
        EXPECT_LT(size, outsideSize) << "the link was followed out of the root";
    }
    EXPECT_TRUE(stdfs::is_symlink(f.root + "/a/victim"));
    // A file that vanishes counts nothing.
    uint64_t before = FileSizer::sizeForPath(f.root);
    uint64_t gone = FileSizer::sizeForPath(f.root + "/a/zz-gone.bin");
    ASSERT_GT(gone, 0u);
    {
        ScopedWalkHook hook(swapAt("zz-gone.bin", f.root + "/a/zz-gone.bin", ""));
        EXPECT_EQ(before - gone, FileSizer::sizeForPath(f.root));
    }
}

TEST(WalkRace, TheUserPathWalkDoesNotDescendIntoADirectoryThatChanged) {
    Fixture f;
    // The walk keeps references to its path lists: they outlive it here.
    const FHUserPathWalk::PathList systemPaths, omittingPaths;
    auto walk = [&] {
        FHUserPathWalk walk(f.root, "/a", systemPaths, {"/a/victim"}, {}, omittingPaths);
        EXPECT_TRUE(walk.run());
        auto kept = walk.result();
        std::sort(kept.begin(), kept.end());
        return kept;
    };
    EXPECT_EQ((std::vector<std::string>{"/a/keep.txt", "/a/victim/inner.txt", "/a/zz-gone.bin"}), walk());
    {
        ScopedWalkHook hook(swapAt("victim", f.root + "/a/victim", f.outside));
        auto kept = walk();
        for (const auto& p : kept) EXPECT_EQ(std::string::npos, p.find("secret")) << p;
        EXPECT_EQ((std::vector<std::string>{"/a/keep.txt", "/a/zz-gone.bin"}), kept);
    }
    stdfs::remove(f.root + "/a/victim");
    writeFile(f.root + "/a/victim/inner.txt", "again");
    {
        // Gone altogether before its children are read: nothing of it, the rest whole.
        ScopedWalkHook hook(swapAt("victim", f.root + "/a/victim", ""));
        EXPECT_EQ((std::vector<std::string>{"/a/keep.txt", "/a/zz-gone.bin"}), walk());
    }
}

TEST(WalkRace, ArchivingStopsAtAnItemThatChangedAndWritesNothing) {
    for (const char* kind : {"directory to link", "file gone"}) {
        Fixture f;
        std::string out = f.dir / "out.xar";
        writeFile(out, "the earlier archive");
        bool link = std::string(kind) == "directory to link";
        ScopedWalkHook hook(link ? swapAt("victim", f.root + "/a/victim", f.outside)
                                 : swapAt("zz-gone.bin", f.root + "/a/zz-gone.bin", ""));
        platform::Error error;
        auto archive = crateworks::CWMutableXARArchive::initForWritingToPath(out, &error);
        ASSERT_TRUE(archive) << error.description();
        bool ok = archive->setContentsOfDirectory(f.root, "", false, &error) &&
                  archive->closeArchiveReturningError(&error);
        EXPECT_FALSE(ok) << kind;
        std::string named = link ? f.root + "/a/victim" : f.root + "/a/zz-gone.bin";
        EXPECT_NE(std::string::npos, error.description().find(named)) << kind << ": " << error.description();
        EXPECT_EQ("the earlier archive", readFile(out)) << kind;
        EXPECT_EQ((std::vector<std::string>{"out.xar", "outside"}),
                  [&] {
                      auto names = tree(f.dir.path());
                      std::erase_if(names, [](const std::string& n) {
                          return n.starts_with("root") || n.starts_with("outside/");
                      });
                      return names;
                  }())
            << kind;
    }
}

TEST(WalkRace, ExtractionNeverWritesThroughADirectoryTurnedLink) {
    TempDir dir;
    writeFile(dir / "src/d/a.txt", "a");
    writeFile(dir / "src/d/b.txt", "b");
    writeFile(dir / "src/d/sub/c.txt", "c");
    int status = -1;
    std::string output = xartest::runTool(
        "xar create " + xartest::shellQuote(dir / "pkg.xar") + " " + xartest::shellQuote(dir / "src"), &status);
    ASSERT_EQ(0, status) << output;
    stdfs::create_directories(dir / "outside");

    for (bool openat2 : {true, false}) {
        stdfs::remove_all(dir / "out");
        for (const auto& entry : stdfs::directory_iterator(dir / "outside")) stdfs::remove_all(entry.path());
        platform::ExtractionRoot::setUsesOpenat2(openat2);
        auto archive = crateworks::CWXARArchive::initForReadingFromPath(dir / "pkg.xar");
        ASSERT_TRUE(archive);
        platform::Error error;
        auto root = platform::ExtractionRoot::open(dir / "out", true, &error);
        ASSERT_TRUE(root) << error.description();
        // The directory the extraction made is moved aside and a link to outside put in
        // its place just before its second file is written.
        auto moved = std::make_shared<bool>(false);
        ScopedWalkHook hook([&, moved](std::string_view reached) {
            if (*moved || reached != "d/b.txt") return;
            *moved = true;
            stdfs::rename(dir / "out/d", dir / "out/moved-d");
            stdfs::create_directory_symlink(dir / "outside", dir / "out/d");
        });
        crateworks::xar::XarExtractor extractor(*archive->_xar(), *root);
        std::string failed;
        bool extracted = extractor.extractAll(&failed, &error);
        EXPECT_TRUE(*moved);
        EXPECT_EQ(std::vector<std::string>{}, tree(dir / "outside")) << "openat2 " << openat2;
        if (!extracted) {
            EXPECT_FALSE(error.description().empty());
        }
    }
    platform::ExtractionRoot::setUsesOpenat2(true);
}
