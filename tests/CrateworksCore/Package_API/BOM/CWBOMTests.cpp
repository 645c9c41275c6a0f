// CWBOM and CWBOMDirectoryEnumerator over BOMs written by the project's writer.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "BOMTestSupport.h"
#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "support/HostileFiles.h"
#include "support/TempDir.h"

namespace {

using crateworks::CWBOM;
using crateworks::CWBOMDirectoryEnumerator;
namespace fs = platform::fs;

class CWBOMTest : public ::testing::Test {
protected:
    void SetUp() override {
        bomtest::SampleBOM(path)
            .directory("usr")
            .directory("usr/bin")
            .file("usr/bin/ls", 1000, 77, 0755, 0, 0)
            .link("usr/bin/sh", "bash")
            .link("usr/bin/dangling", std::nullopt)
            .file("usr/bin/bash", 2000, 88, 0755, 501, 20)
            .directory("usr/lib")
            .file("usr/lib/libc.so", 3000)
            .directory("etc")
            .file("etc/hosts", 40, 9, 0644)
            .commit();
        bom = CWBOM::initWithBOMPath(path);
        ASSERT_TRUE(bom);
    }

    testsupport::TempDir dir;
    std::string path = dir / "test.bom";
    std::shared_ptr<CWBOM> bom;
};

TEST_F(CWBOMTest, NilArgumentsThrowAndUnopenableInputsYieldNull) {
    try {
        CWBOM::initWithBOMPath(std::nullopt);
        FAIL() << "no exception";
    } catch (const platform::Exception& e) {
        EXPECT_EQ("CWBOM", e.name());
        EXPECT_EQ("Attempt to initialize with nil", e.reason());
    }
    EXPECT_THROW(CWBOM::initWithBOMData(std::nullopt), platform::Exception);
    EXPECT_EQ(nullptr, CWBOM::initWithBOMPath(dir / "missing.bom"));
    EXPECT_EQ(nullptr, CWBOM::initWithBOMPath(dir.path()));
    testsupport::writeFile(dir / "text", "BOMStore but not really");
    EXPECT_EQ(nullptr, CWBOM::initWithBOMPath(dir / "text"));
    EXPECT_EQ(nullptr, CWBOM::initWithBOMData(platform::Data{}));
}

// A FIFO planted as a BOM used to block the open for good; a device or socket is no BOM
// either. Each is refused at once, and a link to a real BOM still opens.
TEST_F(CWBOMTest, NonRegularFilesAreRefusedWithoutBlocking) {
    auto planted = testsupport::makeHostileFiles(dir / "planted");
    ASSERT_GE(planted.size(), 2u);
    for (const auto& item : planted) {
        auto refused = testsupport::resultWithin(10, [&] { return CWBOM::initWithBOMPath(item.path) == nullptr; });
        EXPECT_EQ(refused, true) << item.kind;
    }
    ASSERT_EQ(0, symlink(path.c_str(), (dir / "link.bom").c_str()));
    EXPECT_TRUE(CWBOM::initWithBOMPath(dir / "link.bom"));
}

TEST_F(CWBOMTest, BytesOpenLikeTheFileAndStayAlive) {
    std::shared_ptr<CWBOM> fromData;
    {
        std::string text = testsupport::readFile(path);
        fromData = CWBOM::initWithBOMData(platform::Data(text.begin(), text.end()));
    }
    ASSERT_TRUE(fromData);
    EXPECT_EQ(bomtest::walk(bom), bomtest::walk(fromData));
    EXPECT_EQ(bom->attributesOfItemAtPath("usr/bin/sh"), fromData->attributesOfItemAtPath("usr/bin/sh"));
    EXPECT_EQ(bom->totalSize(), fromData->totalSize());
}

TEST_F(CWBOMTest, AttributeDictionaries) {
    auto ls = bom->attributesOfItemAtPath("usr/bin/ls");
    ASSERT_TRUE(ls);
    EXPECT_EQ(ls, bom->attributesOfItemAtPath("./usr/bin/ls"));
    EXPECT_EQ(std::vector<std::string>({fs::kFileType, "_st_mode", fs::kFilePosixPermissions, fs::kFileOwnerAccountID,
                                        fs::kFileGroupOwnerAccountID, fs::kFileSize}),
              ls->keys());
    EXPECT_EQ(fs::kFileTypeRegular, *ls->findString(fs::kFileType));
    EXPECT_EQ(uint64_t(S_IFREG | 0755), ls->find("_st_mode")->unsignedInteger());
    EXPECT_EQ(uint64_t(0755), ls->find(fs::kFilePosixPermissions)->unsignedInteger());
    EXPECT_EQ(uint64_t(1000), ls->find(fs::kFileSize)->unsignedInteger());

    auto bash = bom->attributesOfItemAtPath("usr/bin/bash");
    EXPECT_EQ(uint64_t(501), bash->find(fs::kFileOwnerAccountID)->unsignedInteger());
    EXPECT_EQ(uint64_t(20), bash->find(fs::kFileGroupOwnerAccountID)->unsignedInteger());

    auto sh = bom->attributesOfItemAtPath("usr/bin/sh");
    EXPECT_EQ(fs::kFileTypeSymbolicLink, *sh->findString(fs::kFileType));
    ASSERT_TRUE(sh->findString("CWFileSymbolicLinkDestination"));
    EXPECT_EQ("bash", *sh->findString("CWFileSymbolicLinkDestination"));
    EXPECT_FALSE(bom->attributesOfItemAtPath("usr/bin/dangling")->contains("CWFileSymbolicLinkDestination"));

    auto root = bom->attributesOfItemAtPath(".");
    ASSERT_TRUE(root);
    EXPECT_EQ(fs::kFileTypeDirectory, *root->findString(fs::kFileType));
    EXPECT_EQ(std::nullopt, bom->attributesOfItemAtPath("usr/bin/missing"));
    EXPECT_EQ(std::nullopt, bom->attributesOfItemAtPath("usr/bin/ls/below-a-file"));
}

TEST_F(CWBOMTest, TypeCodesMapToFileTypes) {
    EXPECT_STREQ(fs::kFileTypeRegular, CWBOM::_fileTypeFromBOMEntryType(1));
    EXPECT_STREQ(fs::kFileTypeDirectory, CWBOM::_fileTypeFromBOMEntryType(2));
    EXPECT_STREQ(fs::kFileTypeSymbolicLink, CWBOM::_fileTypeFromBOMEntryType(3));
    EXPECT_STREQ(fs::kFileTypeBlockSpecial, CWBOM::_fileTypeFromBOMEntryType(4));
    EXPECT_STREQ(fs::kFileTypeUnknown, CWBOM::_fileTypeFromBOMEntryType(0));
    EXPECT_STREQ(fs::kFileTypeUnknown, CWBOM::_fileTypeFromBOMEntryType(9));
}

TEST_F(CWBOMTest, WalkIsDepthFirstByNameAndSkipsSubtrees) {
    EXPECT_EQ(std::vector<std::string>({"etc", "etc/hosts", "usr", "usr/bin", "usr/bin/bash", "usr/bin/dangling",
                                        "usr/bin/ls", "usr/bin/sh", "usr/lib", "usr/lib/libc.so"}),
              bomtest::walk(bom));

    auto e = bom->directoryEnumerator();
    std::vector<std::string> seen;
    while (auto next = e->nextObject()) {
        seen.push_back(*next);
        if (*next == "usr/bin") {
            EXPECT_TRUE(e->isDirectory());
            e->skipDescendants();
        }
        if (*next == "etc/hosts") {
            EXPECT_FALSE(e->isDirectory());
            EXPECT_EQ(uint64_t(40), e->fileAttributes()->find(fs::kFileSize)->unsignedInteger());
        }
    }
    EXPECT_EQ(std::vector<std::string>({"etc", "etc/hosts", "usr", "usr/bin", "usr/lib", "usr/lib/libc.so"}), seen);
    EXPECT_EQ(std::nullopt, e->nextObject());  // and so for ever
    EXPECT_FALSE(e->isDirectory());
    EXPECT_EQ(std::nullopt, e->fileAttributes());

    // Skipping the last subtree ends the walk; the enumerator serves as any directory enumerator.
    std::shared_ptr<platform::DirectoryEnumerator> generic = bom->directoryEnumerator();
    std::vector<std::string> top;
    while (auto next = generic->nextObject()) {
        top.push_back(*next);
        generic->skipDescendents();
    }
    EXPECT_EQ(std::vector<std::string>({"etc", "usr"}), top);
    EXPECT_EQ(nullptr, CWBOMDirectoryEnumerator::initWithBOM(nullptr));
}

TEST_F(CWBOMTest, SubpathsCountsAndSizes) {
    EXPECT_EQ(std::vector<std::string>({"usr/lib", "usr/lib/libc.so"}), *bom->subpathsOfDirectoryAtPath("usr/lib"));
    EXPECT_EQ(std::vector<std::string>({"etc/hosts"}), *bom->subpathsOfDirectoryAtPath("./etc/hosts"));
    // A subtree with siblings after it stops at its own end.
    EXPECT_EQ(std::vector<std::string>({"usr/bin", "usr/bin/bash", "usr/bin/dangling", "usr/bin/ls", "usr/bin/sh"}),
              *bom->subpathsOfDirectoryAtPath("usr/bin"));
    EXPECT_EQ(std::vector<std::string>({"etc", "etc/hosts"}), *bom->subpathsOfDirectoryAtPath("etc"));
    auto all = bom->subpathsOfDirectoryAtPath(".");
    ASSERT_TRUE(all);
    EXPECT_EQ(".", all->front());
    EXPECT_EQ(11u, all->size());
    EXPECT_EQ(std::nullopt, bom->subpathsOfDirectoryAtPath("opt"));
    EXPECT_EQ(11u, bom->fileCount());
    EXPECT_EQ(1000u + 4 + 2000 + 3000 + 40, bom->totalSize());  // "bash" counts as the link's 4 bytes
}

TEST(CWBOMOnlyRoot, WalkYieldsNothing) {
    testsupport::TempDir dir;
    bomtest::SampleBOM(dir / "root.bom").commit();
    auto bom = CWBOM::initWithBOMPath(dir / "root.bom");
    ASSERT_TRUE(bom);
    auto e = bom->directoryEnumerator();
    ASSERT_TRUE(e);
    EXPECT_EQ(std::nullopt, e->nextObject());
    EXPECT_EQ(1u, bom->fileCount());
    EXPECT_EQ(std::vector<std::string>({"."}), *bom->subpathsOfDirectoryAtPath("."));
}

TEST(CWBOMPaths, StoredPathsOfAnotherFormStopTheProgram) {
    EXPECT_EQ("usr/bin/ls", CWBOM::_stringByRemovingBomPathPrefix("./usr/bin/ls"));
    EXPECT_EQ(".", CWBOM::_stringByRemovingBomPathPrefix("."));
    EXPECT_EQ("./a", CWBOM::_stringByInsertingBomPathPrefix("a"));
    EXPECT_EQ("./a", CWBOM::_stringByInsertingBomPathPrefix("./a"));
    EXPECT_EQ(".", CWBOM::_stringByInsertingBomPathPrefix("."));
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(CWBOM::_stringByRemovingBomPathPrefix("usr/bin"),
                 "_stringByRemovingBomPathPrefix.*CWBOM.cpp:30.*path_str\\[0\\] == '\\.'");
    EXPECT_DEATH(CWBOM::_stringByRemovingBomPathPrefix(".x/y"), "CWBOM.cpp:31.*path_str\\[1\\] == '/'");
    EXPECT_DEATH(CWBOM::_stringByRemovingBomPathPrefix(""), "path_str\\[0\\] == '\\.'");
}

}  // namespace
