// Building BOMs: entry by entry, from files, from directory trees with masks and side
// entries, and committing them.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "BOMTestSupport.h"
#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "Platform/Checksum.h"
#include "Platform/FileSystem.h"
#include "support/TempDir.h"

namespace {

using crateworks::CWBOM;
using crateworks::CWMutableBOM;
namespace fs = platform::fs;

uint64_t number(const std::optional<platform::Dictionary>& d, const char* key) {
    return d && d->find(key) ? d->find(key)->unsignedInteger().value_or(~0ull) : ~0ull;
}

// Sets a user extended attribute through Python, an independent tool; false where the
// file system does not take them.
bool setUserAttribute(const std::string& path) {
    int status = -1;
    testsupport::runCommand("python3 -c \"import os,sys; os.setxattr(sys.argv[1], 'user.note', b'x', "
                            "follow_symlinks=False)\" '" + path + "' 2>/dev/null",
                            &status);
    return status == 0;
}

TEST(CWMutableBOM, AddBomPathCreatesParentsFirst) {
    testsupport::TempDir dir;
    auto bom = CWMutableBOM::initForWritingToPath(dir / "new.bom");
    ASSERT_TRUE(bom);
    EXPECT_TRUE(bom->addBomPath("a/b/c", fs::kFileTypeRegular));
    EXPECT_TRUE(bom->addBomPath("./x/link", fs::kFileTypeSymbolicLink));
    EXPECT_FALSE(bom->addBomPath("", fs::kFileTypeRegular));
    EXPECT_TRUE(bom->addBomPath(".", fs::kFileTypeRegular));
    ASSERT_TRUE(bom->commitData());

    auto read = CWBOM::initWithBOMPath(dir / "new.bom");
    ASSERT_TRUE(read);
    EXPECT_EQ(std::vector<std::string>({"a", "a/b", "a/b/c", "x", "x/link"}), bomtest::walk(read));
    EXPECT_EQ(fs::kFileTypeDirectory, *read->attributesOfItemAtPath("a")->findString(fs::kFileType));
    EXPECT_EQ(fs::kFileTypeDirectory, *read->attributesOfItemAtPath("a/b")->findString(fs::kFileType));
    EXPECT_EQ(fs::kFileTypeRegular, *read->attributesOfItemAtPath("a/b/c")->findString(fs::kFileType));
    EXPECT_EQ(fs::kFileTypeUnknown, *read->attributesOfItemAtPath("x/link")->findString(fs::kFileType));
    EXPECT_EQ(fs::kFileTypeDirectory, *read->attributesOfItemAtPath(".")->findString(fs::kFileType));
    EXPECT_EQ(6u, read->fileCount());
}

TEST(CWMutableBOM, InitForWritingNeedsAnExistingDirectory) {
    testsupport::TempDir dir;
    EXPECT_EQ(nullptr, CWMutableBOM::initForWritingToPath(dir / "no/such/dir/x.bom"));
    EXPECT_EQ(nullptr, CWMutableBOM::initForWritingToPath(""));
    auto bom = CWMutableBOM::initForWritingToPath(dir / "sub/x.bom");
    EXPECT_EQ(nullptr, bom);
    fs::createDirectories(dir / "gone");
    bom = CWMutableBOM::initForWritingToPath(dir / "gone/x.bom");
    ASSERT_TRUE(bom);
    fs::removeItem(dir / "gone");
    EXPECT_FALSE(bom->commitData());
}

TEST(CWMutableBOM, AddFileRecordsTheFileOnDisk) {
    testsupport::TempDir dir;
    testsupport::writeFile(dir / "src/tool", std::string(5000, 'z'));
    chmod((dir / "src/tool").c_str(), 0750);
    symlink("tool", (dir / "src/alias").c_str());
    auto bom = CWMutableBOM::initForWritingToPath(dir / "f.bom");
    ASSERT_TRUE(bom);
    EXPECT_TRUE(bom->addFile(dir / "src/tool", "opt/bin/tool", false));
    EXPECT_TRUE(bom->addFile(dir / "src/alias", "opt/bin/alias", false));
    EXPECT_FALSE(bom->addFile(dir / "src/missing", "opt/bin/missing", false));
    EXPECT_FALSE(bom->addFile(dir / "src/tool", "", false));
    EXPECT_TRUE(bom->addFile(dir / "src/tool", ".", false));
    ASSERT_TRUE(bom->commitData());

    auto store = crateworks::bom::BOMStore::openFile(dir / "f.bom");
    ASSERT_TRUE(store);
    auto tool = store->entryAtPath("./opt/bin/tool");
    ASSERT_TRUE(tool);
    EXPECT_EQ(S_IFREG | 0750, tool->mode);
    EXPECT_EQ(5000u, tool->size);
    EXPECT_EQ(platform::checksum::ofFile(dir / "src/tool"), tool->checksum);
    auto alias = store->entryAtPath("./opt/bin/alias");
    ASSERT_TRUE(alias);
    EXPECT_EQ(crateworks::bom::kEntrySymbolicLink, alias->type);
    EXPECT_EQ("tool", alias->linkTarget);
    EXPECT_EQ(4u, alias->size);
    EXPECT_TRUE(store->entryExists("./opt/bin"));
    EXPECT_FALSE(store->entryExists("./opt/bin/missing"));
}

TEST(CWMutableBOM, SetAttributesAppliesOwnerGroupAndPermissionsOnly) {
    testsupport::TempDir dir;
    auto bom = CWMutableBOM::initForWritingToPath(dir / "s.bom");
    ASSERT_TRUE(bom->addBomPath("bin/tool", fs::kFileTypeRegular));
    platform::Dictionary change{{fs::kFileSize, 99},
                                {fs::kFilePosixPermissions, 04711},
                                {fs::kFileOwnerAccountID, 501},
                                {"_st_mode", 0},
                                {fs::kFileGroupOwnerAccountID, 20u}};
    EXPECT_TRUE(bom->setAttributes(change, "bin/tool"));
    EXPECT_FALSE(bom->setAttributes(change, "bin/missing"));
    auto after = bom->attributesOfItemAtPath("bin/tool");
    EXPECT_EQ(uint64_t(501), number(after, fs::kFileOwnerAccountID));
    EXPECT_EQ(uint64_t(20), number(after, fs::kFileGroupOwnerAccountID));
    EXPECT_EQ(uint64_t(S_IFREG | 04711), number(after, "_st_mode"));
    EXPECT_EQ(uint64_t(04711 & 0xfff), number(after, fs::kFilePosixPermissions));
    EXPECT_EQ(uint64_t(0), number(after, fs::kFileSize));
    // Permissions on a directory keep its type bits.
    EXPECT_TRUE(bom->setAttributes({{fs::kFilePosixPermissions, 0700}}, "bin"));
    EXPECT_EQ(uint64_t(S_IFDIR | 0700), number(bom->attributesOfItemAtPath("bin"), "_st_mode"));
}

class FromDirectory : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* f : {"usr/bin/ls", "usr/share/man/ls.1", "usr/share/doc/README", "usr/lib/a.o", "etc/conf"})
            testsupport::writeFile(src + "/" + f, f);
        symlink("ls", (src + "/usr/bin/dir").c_str());
    }
    testsupport::TempDir dir;
    std::string src = dir / "root";
};

TEST_F(FromDirectory, MasksRemoveMatchesAndTheirDescendants) {
    auto bom = CWMutableBOM::initWithDirectory(src, dir / "m.bom", false,
                                               std::vector<std::string>{"./usr/share/*", "*.o"});
    ASSERT_TRUE(bom);
    ASSERT_TRUE(bom->commitData());
    auto read = CWBOM::initWithBOMPath(dir / "m.bom");
    EXPECT_EQ(std::vector<std::string>({"etc", "etc/conf", "usr", "usr/bin", "usr/bin/dir", "usr/bin/ls", "usr/lib",
                                        "usr/share"}),
              bomtest::walk(read));

    // A pattern naming a directory takes its whole subtree; no pattern keeps everything.
    auto whole = CWMutableBOM::initWithDirectory(src, dir / "w.bom", false, std::vector<std::string>{"./usr"});
    EXPECT_EQ(std::vector<std::string>({"etc", "etc/conf"}), *whole->subpathsOfDirectoryAtPath("etc"));
    EXPECT_FALSE(whole->attributesOfItemAtPath("usr/bin"));
    auto all = CWMutableBOM::initWithDirectory(src, dir / "a.bom", false, std::nullopt);
    EXPECT_EQ(14u, all->fileCount());
    auto empty = CWMutableBOM::initWithDirectory(src, dir / "e.bom", false, std::vector<std::string>{});
    EXPECT_EQ(14u, empty->fileCount());
    EXPECT_EQ(nullptr, CWMutableBOM::initWithDirectory(dir / "missing", dir / "x.bom", false, std::nullopt));
}

TEST_F(FromDirectory, SideEntriesForExtendedAttributes) {
    if (!setUserAttribute(src + "/usr/bin/ls") || !setUserAttribute(src + "/etc")) GTEST_SKIP() << "no user xattrs here";
    chmod((src + "/usr/bin/ls").c_str(), 0751);
    auto bom = CWMutableBOM::initWithDirectory(src, dir / "x.bom", false, std::nullopt);
    ASSERT_TRUE(bom);
    auto side = bom->attributesOfItemAtPath("usr/bin/._ls");
    ASSERT_TRUE(side);
    EXPECT_EQ(fs::kFileTypeRegular, *side->findString(fs::kFileType));
    EXPECT_EQ(uint64_t(0751), number(side, fs::kFilePosixPermissions));
    auto dirSide = bom->attributesOfItemAtPath("._etc");
    ASSERT_TRUE(dirSide);
    EXPECT_EQ(uint64_t(S_IFREG | 0755), number(dirSide, "_st_mode"));
    EXPECT_FALSE(bom->attributesOfItemAtPath("usr/bin/._dir"));
    EXPECT_EQ(16u, bom->fileCount());

    // Adding a single file does the same.
    auto single = CWMutableBOM::initForWritingToPath(dir / "s.bom");
    EXPECT_TRUE(single->addFile(src + "/usr/bin/ls", "bin/ls", false));
    EXPECT_TRUE(single->attributesOfItemAtPath("bin/._ls"));
    EXPECT_EQ("a/._b", CWMutableBOM::_quarnDoublePath("a/b"));
    EXPECT_EQ("._b", CWMutableBOM::_quarnDoublePath("b"));
}

// An access ACL granting user 1234 read access, written in the kernel's own extended
// attribute form through Python (no ACL tool is needed).
bool setAccessACL(const std::string& path) {
    int status = -1;
    testsupport::runCommand(
        "python3 -c \"import os,struct,sys; e=lambda t,p,i: struct.pack('<HHI',t,p,i); "
        "os.setxattr(sys.argv[1],'system.posix_acl_access',struct.pack('<I',2)+e(1,6,0xffffffff)+e(2,4,1234)"
        "+e(4,4,0xffffffff)+e(0x10,4,0xffffffff)+e(0x20,4,0xffffffff))\" '" + path + "' 2>/dev/null",
        &status);
    return status == 0;
}

TEST_F(FromDirectory, SideEntriesForAccessControlListsOnlyWhenAsked) {
    if (!setAccessACL(src + "/etc/conf")) GTEST_SKIP() << "no ACLs on this file system";
    auto without = CWMutableBOM::initWithDirectory(src, dir / "n.bom", false, std::nullopt);
    ASSERT_TRUE(without);
    EXPECT_FALSE(without->attributesOfItemAtPath("etc/._conf"));
    auto with = CWMutableBOM::initWithDirectory(src, dir / "y.bom", true, std::nullopt);
    ASSERT_TRUE(with);
    EXPECT_TRUE(with->attributesOfItemAtPath("etc/._conf"));
    EXPECT_FALSE(with->attributesOfItemAtPath("usr/bin/._ls"));
}

}  // namespace
