// The writer's files read back by the reader, and their layout checked field by field.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "BOMTestSupport.h"
#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "Platform/FileSystem.h"
#include "support/TempDir.h"

namespace {

using crateworks::CWBOM;
using crateworks::bom::BOMStore;
namespace bom = crateworks::bom;

TEST(BOMRoundTrip, EveryEntryTypeFromADirectoryTree) {
    testsupport::TempDir dir;
    std::string src = dir / "src";
    testsupport::writeFile(src + "/bin/tool", "#!/bin/sh\necho hi\n");
    testsupport::writeFile(src + "/empty", "");
    chown((src + "/bin/tool").c_str(), 501, 20);  // before chmod, which it would undo for set-user-id
    chmod((src + "/bin/tool").c_str(), 04755);
    symlink("../bin/tool", (src + "/bin/alias").c_str());
    bool haveDevice = mknod((src + "/disk").c_str(), S_IFBLK | 0600, makedev(7, 3)) == 0;
    struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000, 0}};
    utimensat(AT_FDCWD, (src + "/empty").c_str(), times, 0);

    auto made = crateworks::CWMutableBOM::initWithDirectory(src, dir / "t.bom", false, std::nullopt);
    ASSERT_TRUE(made && made->commitData());
    auto store = BOMStore::openFile(dir / "t.bom");
    ASSERT_TRUE(store);

    auto tool = store->entryAtPath("./bin/tool");
    ASSERT_TRUE(tool);
    EXPECT_EQ(bom::kEntryFile, tool->type);
    EXPECT_EQ(S_IFREG | 04755, tool->mode);
    EXPECT_EQ(501u, tool->uid);
    EXPECT_EQ(20u, tool->gid);
    EXPECT_EQ(18u, tool->size);
    EXPECT_EQ(3u, tool->architecture);
    EXPECT_EQ("tool", tool->shortName);
    EXPECT_EQ(std::stoul(testsupport::runCommand("cksum < '" + src + "/bin/tool'")), tool->checksum);

    auto alias = store->entryAtPath("./bin/alias");
    EXPECT_EQ(bom::kEntrySymbolicLink, alias->type);
    EXPECT_EQ("../bin/tool", alias->linkTarget);
    EXPECT_EQ(11u, alias->size);
    EXPECT_EQ(std::stoul(testsupport::runCommand("printf '../bin/tool' | cksum")), alias->checksum);

    auto empty = store->entryAtPath("./empty");
    EXPECT_EQ(0u, empty->size);
    EXPECT_EQ(4294967295u, empty->checksum);
    EXPECT_EQ(1700000000u, empty->modificationTime);
    EXPECT_EQ(std::nullopt, empty->linkTarget);

    auto binDir = store->entryAtPath("./bin");
    EXPECT_EQ(bom::kEntryDirectory, binDir->type);
    EXPECT_EQ(0u, binDir->size);
    EXPECT_EQ(0u, binDir->checksum);
    if (haveDevice) {
        auto disk = store->entryAtPath("./disk");
        EXPECT_EQ(bom::kEntryDevice, disk->type);
        EXPECT_EQ(S_IFBLK | 0600, disk->mode);
        EXPECT_EQ((7u << 24) | 3u, disk->checksum);
        EXPECT_EQ(0u, disk->size);
    }
}

TEST(BOMRoundTrip, WalkOrderIsDepthFirstInByteOrderWhateverTheInsertOrder) {
    testsupport::TempDir dir;
    bomtest::SampleBOM sample(dir / "o.bom");
    sample.directory("b").directory("a").directory("B").file("a.x").file("a/z").file("a/b").file("b/0");
    sample.commit();
    auto read = CWBOM::initWithBOMPath(dir / "o.bom");
    // '.' sorts before '/', yet a directory's contents come right after it.
    EXPECT_EQ(std::vector<std::string>({"B", "a", "a/b", "a/z", "a.x", "b", "b/0"}), bomtest::walk(read));
    // Ids follow the walk, the root first with parent 0; every key names its parent's id.
    bomtest::BOMBytes bytes(bomtest::readBytes(dir / "o.bom"));
    std::vector<std::string> names;
    std::vector<uint32_t> ids, parents;
    for (const auto& item : bytes.items()) {
        names.push_back(item.name);
        ids.push_back(item.id);
        parents.push_back(item.parent);
    }
    EXPECT_EQ(std::vector<std::string>({".", "B", "a", "b", "z", "a.x", "b", "0"}), names);
    EXPECT_EQ(std::vector<uint32_t>({1, 2, 3, 4, 5, 6, 7, 8}), ids);
    EXPECT_EQ(std::vector<uint32_t>({0, 1, 1, 3, 3, 1, 1, 7}), parents);
}

TEST(BOMRoundTrip, LayoutFollowsTheFormat) {
    testsupport::TempDir dir;
    bomtest::SampleBOM(dir / "l.bom").directory("d").file("d/f", 10).link("l", "d/f").commit();
    bomtest::BOMBytes b(bomtest::readBytes(dir / "l.bom"));
    EXPECT_EQ("BOMStore", std::string(b.bytes.begin(), b.bytes.begin() + 8));
    EXPECT_EQ(1u, b.u32(8));
    EXPECT_EQ(b.blockCount() - 1, b.u32(12));
    EXPECT_EQ(4 + b.blockCount() * 8 + 4 + 16, b.u32(20));  // the block table and a free list of two pairs
    EXPECT_EQ(b.bytes.size(), size_t(b.u32(24)) + b.u32(28));
    EXPECT_EQ(0u, b.address(0));
    EXPECT_EQ(0u, b.length(0));
    EXPECT_EQ(std::vector<std::string>({"BomInfo", "Paths", "HLIndex", "VIndex", "Size64"}), b.variableNames());
    for (uint32_t block = 1; block < b.blockCount(); ++block) {
        EXPECT_GE(b.address(block), 512u);
        EXPECT_EQ(0u, b.address(block) % 4);
    }
    size_t info = b.address(b.variable("BomInfo"));
    EXPECT_EQ(1u, b.u32(info));
    EXPECT_EQ(4u, b.u32(info + 4));  // paths, the root counted
    EXPECT_EQ(1u, b.u32(info + 8));

    auto tree = [&](const char* name, uint32_t nodeSize, uint32_t entries) {
        SCOPED_TRACE(name);
        size_t header = b.address(b.variable(name));
        EXPECT_EQ("tree", std::string(b.bytes.begin() + std::ptrdiff_t(header), b.bytes.begin() + std::ptrdiff_t(header) + 4));
        EXPECT_EQ(21u, b.length(b.variable(name)));
        EXPECT_EQ(nodeSize, b.u32(header + 12));
        EXPECT_EQ(entries, b.u32(header + 16));
        uint32_t root = b.u32(header + 8);
        EXPECT_EQ(nodeSize, b.length(root));
        EXPECT_EQ(1u, b.u16(b.address(root)));
        EXPECT_EQ(entries, b.u16(b.address(root) + 2));
    };
    tree("Paths", 4096, 4);
    tree("HLIndex", 4096, 0);
    tree("Size64", 128, 0);
    size_t vindex = b.address(b.variable("VIndex"));
    EXPECT_EQ(13u, b.length(b.variable("VIndex")));
    EXPECT_EQ(1u, b.u32(vindex));
    EXPECT_EQ(128u, b.u32(b.address(b.u32(vindex + 4)) + 12));

    auto link = b.item("l");
    size_t at = b.address(link.infoBlock);
    EXPECT_EQ(31u + 4, b.length(link.infoBlock));
    EXPECT_EQ(3u, b.bytes[at]);
    EXPECT_EQ(1u, b.bytes[at + 1]);
    EXPECT_EQ(3u, b.u16(at + 2));
    EXPECT_EQ(3u, b.u32(at + 18));
    EXPECT_EQ(1u, b.bytes[at + 22]);
    EXPECT_EQ(4u, b.u32(at + 27));
    EXPECT_EQ(std::string("d/f", 4), std::string(b.bytes.begin() + std::ptrdiff_t(at) + 31, b.bytes.begin() + std::ptrdiff_t(at) + 35));
}

TEST(BOMRoundTrip, ManyEntriesSpreadOverLeavesUnderBranchNodes) {
    testsupport::TempDir dir;
    bomtest::SampleBOM sample(dir / "m.bom");
    std::vector<std::string> expected;
    for (int d = 0; d < 3; ++d) {
        std::string name = "dir" + std::to_string(d);
        sample.directory(name);
        expected.push_back(name);
        std::vector<std::string> files;
        for (int f = 0; f < 400; ++f) files.push_back(name + "/file" + std::to_string(f));
        std::sort(files.begin(), files.end());
        for (auto& f : files) sample.file(f, f.size());
        expected.insert(expected.end(), files.begin(), files.end());
    }
    sample.commit();
    auto read = CWBOM::initWithBOMPath(dir / "m.bom");
    ASSERT_TRUE(read);
    EXPECT_EQ(expected, bomtest::walk(read));
    EXPECT_EQ(1204u, read->fileCount());
    for (const char* path : {"dir0/file0", "dir1/file399", "dir2/file200"})
        EXPECT_TRUE(read->attributesOfItemAtPath(path)) << path;

    bomtest::BOMBytes b(bomtest::readBytes(dir / "m.bom"));
    uint32_t root = b.u32(b.address(b.variable("Paths")) + 8);
    EXPECT_EQ(0u, b.u16(b.address(root)));  // a branch
    EXPECT_EQ(0u, b.u32(b.address(root) + 4));
    auto leaves = b.leaves(b.variable("Paths"));
    EXPECT_EQ(5u, leaves.size());  // 1204 entries, 256 to a leaf
    EXPECT_EQ(leaves.size(), b.u16(b.address(root) + 2));
    for (size_t i = 0; i < leaves.size(); ++i) {
        EXPECT_EQ(i == 0 ? 0 : leaves[i - 1], b.u32(b.address(leaves[i]) + 8));  // backward
        EXPECT_EQ(i + 1 < leaves.size() ? 256u : 1204u - 4 * 256, b.u16(b.address(leaves[i]) + 2));
        // The branch pair's key is the key of the leaf's last entry.
        size_t last = b.address(leaves[i]) + 12 + (b.u16(b.address(leaves[i]) + 2) - 1) * 8;
        EXPECT_EQ(b.u32(last + 4), b.u32(b.address(root) + 16 + i * 8));
    }
}

TEST(BOMRoundTrip, DeepPaths) {
    testsupport::TempDir dir;
    bomtest::SampleBOM sample(dir / "d.bom");
    std::string path = "level0";
    sample.directory(path);
    for (int i = 1; i < 200; ++i) sample.directory(path += "/level" + std::to_string(i));
    sample.file(path + "/leaf", 1);
    sample.commit();
    auto read = CWBOM::initWithBOMPath(dir / "d.bom");
    ASSERT_TRUE(read);
    auto all = bomtest::walk(read);
    ASSERT_EQ(201u, all.size());
    EXPECT_EQ(path + "/leaf", all.back());
    EXPECT_TRUE(read->attributesOfItemAtPath(path + "/leaf"));
    EXPECT_EQ(2u, read->subpathsOfDirectoryAtPath(path)->size());
}

TEST(BOMRoundTrip, SizesAbove4GiBGoThroughSize64) {
    testsupport::TempDir dir;
    bomtest::SampleBOM sample(dir / "s.bom");
    for (int i = 0; i < 20; ++i) sample.file("big" + std::to_string(i), (5ull << 30) + uint64_t(i));
    sample.file("edge", 0xffffffffull).file("over", 0x100000000ull).file("small", 7);
    sample.commit();
    auto store = BOMStore::openFile(dir / "s.bom");
    ASSERT_TRUE(store);
    EXPECT_EQ((5ull << 30) + 13, store->entryAtPath("./big13")->size);
    EXPECT_EQ(0xffffffffull, store->entryAtPath("./edge")->size);
    EXPECT_EQ(0x100000000ull, store->entryAtPath("./over")->size);
    EXPECT_EQ(7u, store->entryAtPath("./small")->size);
    uint64_t total = 0xffffffffull + 0x100000000ull + 7;
    for (int i = 0; i < 20; ++i) total += (5ull << 30) + uint64_t(i);
    EXPECT_EQ(total, store->bytesRepresented());

    bomtest::BOMBytes b(bomtest::readBytes(dir / "s.bom"));
    size_t header = b.address(b.variable("Size64"));
    EXPECT_EQ(21u, b.u32(header + 16));  // only the sizes that do not fit 32 bits
    EXPECT_EQ(2u, b.leaves(b.variable("Size64")).size());  // 14 to a 128-byte node
    EXPECT_EQ(0u, b.u16(b.address(b.u32(header + 8))));
    // The info block keeps the low 32 bits.
    EXPECT_EQ(0u, b.u32(b.address(b.item("over").infoBlock) + 18));
}

TEST(BOMRoundTrip, ReaderFollowsTheKeysNotTheLeafOrder) {
    testsupport::TempDir dir;
    bomtest::SampleBOM(dir / "r.bom").directory("a").file("a/1").file("a/2").directory("b").file("b/3").commit();
    bomtest::BOMBytes b(bomtest::readBytes(dir / "r.bom"));
    // Reverse the leaf's pairs: children now come before their parents.
    uint32_t leaf = b.leaves(b.variable("Paths")).front();
    size_t pairs = b.address(leaf) + 12;
    uint16_t count = b.u16(b.address(leaf) + 2);
    for (uint16_t i = 0; i < count / 2; ++i)
        for (int k = 0; k < 8; ++k) std::swap(b.bytes[pairs + i * 8 + k], b.bytes[pairs + (count - 1 - i) * 8 + k]);
    auto read = b.open();
    ASSERT_TRUE(read);
    EXPECT_EQ(std::vector<std::string>({"b", "b/3", "a", "a/2", "a/1"}), bomtest::walk(read));
    EXPECT_TRUE(read->attributesOfItemAtPath("a/1"));
    EXPECT_TRUE(read->attributesOfItemAtPath("b/3"));
}

// A file that keeps to the writer's numbering for a while and then departs from it: what
// was read in walk order must be linked again by id, big sizes staying with their items.
TEST(BOMRoundTrip, ItemsLeavingTheWritersOrderPartWayAreLinkedByTheirKeys) {
    testsupport::TempDir dir;
    bomtest::SampleBOM(dir / "p.bom")
        .directory("a")
        .file("a/1", 1)
        .file("a/2", 1ull << 40)
        .directory("b")
        .directory("b/d")
        .file("b/d/3", 3)
        .directory("c")
        .file("c/4", 1ull << 33)
        .commit();
    bomtest::BOMBytes b(bomtest::readBytes(dir / "p.bom"));
    auto names = [](const std::vector<bomtest::BOMBytes::Item>& items) {
        std::vector<std::string> out;
        for (const auto& item : items) out.push_back(item.name);
        return out;
    };
    ASSERT_EQ(std::vector<std::string>({".", "a", "1", "2", "b", "d", "3", "c", "4"}), names(b.items()));
    // "4" now comes before its directory "c".
    uint32_t leaf = b.leaves(b.variable("Paths")).front();
    size_t last = b.address(leaf) + 12 + size_t(b.u16(b.address(leaf) + 2) - 1) * 8;
    for (int k = 0; k < 8; ++k) std::swap(b.bytes[last + k], b.bytes[last - 8 + k]);
    ASSERT_EQ(std::vector<std::string>({".", "a", "1", "2", "b", "d", "3", "4", "c"}), names(b.items()));

    auto read = b.open();
    ASSERT_TRUE(read);
    EXPECT_EQ(std::vector<std::string>({"a", "a/1", "a/2", "b", "b/d", "b/d/3", "c", "c/4"}), bomtest::walk(read));
    EXPECT_EQ(9u, read->fileCount());
    auto size = [&](const std::string& path) {
        return read->attributesOfItemAtPath(path)->find(platform::fs::kFileSize)->unsignedInteger();
    };
    EXPECT_EQ(uint64_t(1) << 40, size("a/2"));
    EXPECT_EQ(uint64_t(1) << 33, size("c/4"));
    EXPECT_EQ(uint64_t(3), size("b/d/3"));
    EXPECT_EQ(std::vector<std::string>({"b", "b/d", "b/d/3"}), *read->subpathsOfDirectoryAtPath("b"));
    EXPECT_EQ(std::vector<std::string>({"c", "c/4"}), *read->subpathsOfDirectoryAtPath("c"));

    auto walk = read->directoryEnumerator();
    std::vector<std::string> seen;
    while (auto next = walk->nextObject()) {
        seen.push_back(*next);
        if (*next == "b/d" || *next == "a") walk->skipDescendants();
    }
    EXPECT_EQ(std::vector<std::string>({"a", "b", "b/d", "c", "c/4"}), seen);
}

TEST(BOMRoundTrip, ReadOnlyStoresRefuseChanges) {
    testsupport::TempDir dir;
    bomtest::SampleBOM(dir / "r.bom").file("f").commit();
    auto store = BOMStore::openFile(dir / "r.bom");
    auto entry = *store->entryAtPath("./f");
    EXPECT_FALSE(store->insertEntry(entry));
    EXPECT_FALSE(store->mask({"*"}));
    EXPECT_FALSE(store->commit());

    auto fresh = BOMStore::newBOM(dir / "n.bom");
    EXPECT_FALSE(fresh->commit());  // no root yet
    entry.pathName = "./f";
    EXPECT_FALSE(fresh->insertEntry(entry));  // no parent
    for (const char* bad : {"f", "./", "./a//b", "./a/../b", "/f"}) {
        entry.pathName = bad;
        EXPECT_FALSE(fresh->insertEntry(entry)) << bad;
    }
}

}  // namespace
