// Folder archives: a directory standing in for a package archive.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/Archive/CWFolderArchive.h"
#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"
#include "Platform/FileTree.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"

using namespace crateworks;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

std::string text(const std::optional<platform::Data>& d) { return d ? std::string(d->begin(), d->end()) : "<null>"; }

TEST(CWFolderArchive, ArchiveWithPathChoosesByWhatIsThere) {
    TempDir tmp;
    writeFile(tmp / "folder/a.txt", "a");
    writeFile(tmp / "plain.txt", "not a xar archive");
    auto folder = CWArchive::archiveWithPath(tmp / "folder/");
    ASSERT_TRUE(folder);
    EXPECT_STREQ("CWFolderArchive", folder->className());
    EXPECT_EQ(tmp / "folder", folder->archivePath());  // standardised
    EXPECT_FALSE(CWArchive::archiveWithPath(tmp / "plain.txt"));
    EXPECT_FALSE(CWArchive::archiveWithPath(tmp / "missing"));
    EXPECT_EQ("a", text(folder->dataForPath("a.txt")));
    EXPECT_TRUE(folder->fileExistsAtPath("a.txt"));
    EXPECT_FALSE(folder->fileExistsAtPath("b.txt"));
    EXPECT_EQ(platform::fs::kFileTypeRegular, *folder->fileAttributesAtPath("a.txt")->findString(platform::fs::kFileType));
    EXPECT_TRUE(folder->verifyReturningError(nullptr));  // unsigned
    EXPECT_FALSE(folder->archiveSignatures());
    EXPECT_TRUE(folder->closeArchive());
}

TEST(CWFolderArchive, WritingKeepsWhatIsThereAndAddsEntries) {
    TempDir tmp;
    writeFile(tmp / "folder/existing.txt", "kept");
    platform::Error error;
    auto folder = CWFolderArchive::initForWritingToPath(tmp / "folder", &error);
    ASSERT_TRUE(folder);
    EXPECT_EQ("kept", readFile(tmp / "folder/existing.txt"));
    ASSERT_TRUE(folder->setData(platform::Data{'h', 'i'}, "new/deep/hi.txt", true));
    writeFile(tmp / "source.txt", "from a file");
    ASSERT_TRUE(folder->setFile(tmp / "source.txt", "existing.txt", false));  // replaces
    EXPECT_EQ("hi", readFile(tmp / "folder/new/deep/hi.txt"));
    EXPECT_EQ("from a file", readFile(tmp / "folder/existing.txt"));
    EXPECT_TRUE(CWFolderArchive::initForWritingToPath(tmp / "made/here", &error));
    EXPECT_TRUE(platform::fs::exists(tmp / "made/here"));
    writeFile(tmp / "blocker", "x");
    EXPECT_FALSE(CWFolderArchive::initForWritingToPath(tmp / "blocker/below", &error));
    EXPECT_EQ(platform::kPOSIXErrorDomain, error.domain);

    std::vector<std::string> walked;
    auto enumerator = folder->enumeratorAtPath("");
    while (auto p = enumerator->nextObject()) walked.push_back(*p);
    EXPECT_EQ((std::vector<std::string>{"existing.txt", "new", "new/deep", "new/deep/hi.txt"}), walked);
}

TEST(CWFolderArchive, ExtractCopiesIntoTheDestinationDirectory) {
    TempDir tmp;
    writeFile(tmp / "folder/dir/a.txt", "a");
    writeFile(tmp / "folder/dir/sub/b.txt", "b");
    symlink("a.txt", (tmp / "folder/dir/link").c_str());
    writeFile(tmp / "dest/dir/stale.txt", "stale");
    auto folder = CWFolderArchive::initForReadingFromPath(tmp / "folder");
    platform::Error error;
    ASSERT_TRUE(folder->extractItemAtPath("dir", tmp / "dest", &error)) << error.description();
    EXPECT_EQ("b", readFile(tmp / "dest/dir/sub/b.txt"));
    EXPECT_EQ("a.txt", platform::fs::readSymbolicLink(tmp / "dest/dir/link").value_or(""));
    EXPECT_FALSE(platform::fs::existsNoFollow(tmp / "dest/dir/stale.txt"));
    ASSERT_TRUE(folder->extractItemAtPath("dir/a.txt", tmp / "other/new", &error));
    EXPECT_EQ("a", readFile(tmp / "other/new/a.txt"));
    EXPECT_FALSE(folder->extractItemAtPath("missing", tmp / "dest", &error));
    EXPECT_EQ(ENOENT, error.code);
    // A file where the destination directory should be is the failure to create it,
    // reported against it; the file is left alone.
    writeFile(tmp / "blocked", "a file");
    error = {};
    EXPECT_FALSE(folder->extractItemAtPath("dir", tmp / "blocked", &error));
    EXPECT_EQ(platform::kPOSIXErrorDomain, error.domain);
    EXPECT_EQ(EEXIST, error.code);
    EXPECT_EQ(tmp / "blocked", *error.userInfo.findString(platform::kFilePathErrorKey));
    EXPECT_EQ("a file", readFile(tmp / "blocked"));
}

TEST(CWFolderArchive, ContentsOfAnotherFolderAreCopiedButNotOfAXarArchive) {
    TempDir tmp;
    writeFile(tmp / "source/top.txt", "top");
    writeFile(tmp / "source/dir/sub/leaf.txt", "leaf");
    auto source = CWFolderArchive::initForReadingFromPath(tmp / "source");
    auto target = CWFolderArchive::initForWritingToPath(tmp / "target", nullptr);
    ASSERT_TRUE(target->setContentsOfArchive(*source, "below"));
    EXPECT_EQ("top", readFile(tmp / "target/below/top.txt"));
    EXPECT_EQ("leaf", readFile(tmp / "target/below/dir/sub/leaf.txt"));

    auto writer = CWMutableXARArchive::initForWritingToPath(tmp / "a.xar", nullptr);
    ASSERT_TRUE(writer->setData(platform::Data{'x'}, "x.txt", true));
    ASSERT_TRUE(writer->closeArchive());
    auto xarSource = CWArchive::archiveWithPath(tmp / "a.xar");
    ASSERT_TRUE(xarSource);
    auto empty = CWFolderArchive::initForWritingToPath(tmp / "empty", nullptr);
    EXPECT_FALSE(empty->setContentsOfArchive(*xarSource, ""));
    EXPECT_EQ(std::vector<std::string>{}, platform::fs::contentsOfDirectory(tmp / "empty").value());
    // And a XAR writer takes no folder source.
    auto xarWriter = CWMutableXARArchive::initForWritingToPath(tmp / "b.xar", nullptr);
    EXPECT_FALSE(xarWriter->setContentsOfArchive(*source, ""));
}

}  // namespace
