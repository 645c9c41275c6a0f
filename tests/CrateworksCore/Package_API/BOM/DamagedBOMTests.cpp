// Damaged and hostile BOM files: each is refused at open or by the walk that reaches the
// damage (or walks to a clean end), never crashes, loops or reads outside its bytes (the
// sanitizer build checks the last).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "BOMTestSupport.h"
#include "CrateworksCore/Package_API/BOM/BOMFormat.h"
#include "support/TempDir.h"

namespace {

using bomtest::BOMBytes;

class DamagedBOM : public ::testing::Test {
protected:
    void SetUp() override {
        good = BOMBytes(bomtest::SampleBOM(dir / "good.bom")
                            .directory("a")
                            .directory("a/b")
                            .file("a/b/c", 12)
                            .link("a/l", "b/c")
                            .commit());
        ASSERT_TRUE(good.open());
    }
    // A copy of the good file with one change.
    template <typename Change> std::shared_ptr<crateworks::CWBOM> openChanged(Change change) {
        BOMBytes copy = good;
        change(copy);
        return copy.open();
    }

    testsupport::TempDir dir;
    BOMBytes good{{}};
};

TEST_F(DamagedBOM, WrongMagicOrVersionAndEveryTruncation) {
    EXPECT_FALSE(openChanged([](BOMBytes& b) { b.bytes[3] = 'x'; }));
    EXPECT_FALSE(openChanged([](BOMBytes& b) { b.setU32(8, 2); }));
    for (size_t length = 0; length < good.bytes.size(); ++length) {
        BOMBytes cut(std::vector<uint8_t>(good.bytes.begin(), good.bytes.begin() + std::ptrdiff_t(length)));
        ASSERT_FALSE(cut.open()) << length;
    }
}

TEST_F(DamagedBOM, TablesAndBlocksOutsideTheFile) {
    uint32_t size = uint32_t(good.bytes.size());
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU32(16, size); }));         // block table offset
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU32(20, 0xfffffff0); }));   // block table length
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU32(24, size - 2); }));     // variables offset
    EXPECT_FALSE(openChanged([](BOMBytes& b) { b.setU32(b.u32(16), 0xffffffff); }));  // block count
    auto item = good.item("c");
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setLength(item.infoBlock, 0xffffff00); }));
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU32(b.u32(16) + 4 + item.keyBlock * 8, size - 3); }));
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU32(b.address(item.valueBlock) + 4, 60000); }));  // no such block
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU32(b.address(item.valueBlock) + 4, 0); }));      // the null block
}

TEST_F(DamagedBOM, BlocksShorterThanTheirFixedPart) {
    auto item = good.item("c");
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setLength(item.infoBlock, 30); }));
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setLength(item.valueBlock, 7); }));
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setLength(item.keyBlock, 4); }));
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setLength(b.variable("Paths"), 20); }));
    uint32_t leaf = good.leaves(good.variable("Paths")).front();
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setLength(leaf, 11); }));
}

TEST_F(DamagedBOM, NamesWithoutTheirNul) {
    auto item = good.item("c");
    EXPECT_FALSE(openChanged([&](BOMBytes& b) {
        b.bytes[b.address(item.keyBlock) + 5] = 'x';  // the NUL after "c"
        b.setLength(item.keyBlock, 6);
    }));
    // A link name without its NUL is cut at the block's end, never read past it.
    auto link = good.item("l");
    auto read = openChanged([&](BOMBytes& b) {
        b.setU32(b.address(link.infoBlock) + 27, 0x7fffffff);
    });
    ASSERT_TRUE(read);
    EXPECT_FALSE(read->attributesOfItemAtPath("a/l")->contains("CWFileSymbolicLinkDestination"));
}

TEST_F(DamagedBOM, IdCyclesMissingParentsAndDuplicates) {
    auto a = good.item("a"), b = good.item("b"), c = good.item("c"), root = good.item(".");
    EXPECT_FALSE(openChanged([&](BOMBytes& x) { x.setU32(x.address(a.keyBlock), b.id); }));  // a under a/b
    EXPECT_FALSE(openChanged([&](BOMBytes& x) { x.setU32(x.address(a.keyBlock), a.id); }));  // its own parent
    EXPECT_FALSE(openChanged([&](BOMBytes& x) { x.setU32(x.address(c.keyBlock), 999); }));
    EXPECT_FALSE(openChanged([&](BOMBytes& x) { x.setU32(x.address(c.valueBlock), a.id); }));  // two items, one id
    EXPECT_FALSE(openChanged([&](BOMBytes& x) { x.setU32(x.address(a.keyBlock), 0); }));       // a second root
    EXPECT_FALSE(openChanged([&](BOMBytes& x) { x.setU32(x.address(root.keyBlock), a.id); }));  // no root
    // Names that would climb out of the tree or hide a separator.
    EXPECT_FALSE(openChanged([&](BOMBytes& x) { x.bytes[x.address(c.keyBlock) + 4] = '/'; }));
    EXPECT_FALSE(openChanged([&](BOMBytes& x) {
        size_t at = x.address(b.keyBlock) + 4;
        x.bytes[at] = '.';
        x.bytes[at + 1] = '.';
        x.bytes[at + 2] = 0;
    }));
}

TEST_F(DamagedBOM, AbsurdCountsAndLeafLoops) {
    uint32_t leaf = good.leaves(good.variable("Paths")).front();
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU16(b.address(leaf) + 2, 0xffff); }));
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU16(b.address(leaf), 7); }));  // neither leaf nor branch
    EXPECT_FALSE(openChanged([&](BOMBytes& b) { b.setU32(b.address(leaf) + 4, leaf); }));  // forward to itself
    // A variables count far beyond the table: the records that are there still serve.
    auto read = openChanged([&](BOMBytes& b) { b.setU32(b.u32(24), 0xffffffff); });
    ASSERT_TRUE(read);
    EXPECT_EQ(4u, bomtest::walk(read).size());
    // An absurd count in the tree header is not trusted for anything.
    read = openChanged([&](BOMBytes& b) { b.setU32(b.address(b.variable("Paths")) + 16, 0xffffffff); });
    ASSERT_TRUE(read);
    EXPECT_EQ(4u, bomtest::walk(read).size());
}

// A chain of branch nodes, each with a single pair, above the real leaf.
BOMBytes withBranchLevels(BOMBytes b, int levels) {
    uint32_t header = b.variable("Paths");
    uint32_t below = b.u32(b.address(header) + 8);
    uint32_t lastKey = b.u32(b.address(below) + 12 + (b.u16(b.address(below) + 2) - 1) * 8 + 4);
    for (int i = 0; i < levels; ++i) {
        std::vector<uint8_t> node(20, 0);
        node[3] = 1;  // isLeaf 0, count 1
        BOMBytes n(node);
        n.setU32(12, below);
        n.setU32(16, lastKey);
        below = b.appendBlock(n.bytes);
    }
    b.setU32(b.address(header) + 8, below);
    return b;
}

TEST_F(DamagedBOM, TreesDeeperThan64Levels) {
    EXPECT_EQ(4u, bomtest::walk(withBranchLevels(good, 63).open()).size());  // 64 levels in all
    EXPECT_FALSE(withBranchLevels(good, 64).open());
    EXPECT_FALSE(withBranchLevels(good, 500).open());
    // A branch that points back at itself.
    BOMBytes loop = withBranchLevels(good, 1);
    uint32_t top = loop.u32(loop.address(loop.variable("Paths")) + 8);
    loop.setU32(loop.address(top) + 12, top);
    EXPECT_FALSE(loop.open());
}

TEST_F(DamagedBOM, DamagedSize64IsRefusedAndMissingSize64IsFine) {
    BOMBytes big(bomtest::SampleBOM(dir / "big.bom").file("huge", 1ull << 40).commit());
    ASSERT_TRUE(big.open());
    uint32_t sizes = big.variable("Size64");
    uint32_t leaf = big.leaves(sizes).front();
    BOMBytes broken = big;
    broken.setU32(broken.address(leaf) + 12, 0);  // the value block of its only pair
    EXPECT_FALSE(broken.open());
    // Without the variable the low 32 bits stand.
    BOMBytes renamed = big;
    size_t at = renamed.u32(24) + 4;
    for (int i = 0; i < 4; ++i) at += 5 + renamed.bytes[at + 4];
    renamed.bytes[at + 5] = 'X';  // "Size64" becomes "Xize64", a name readers ignore
    auto read = renamed.open();
    ASSERT_TRUE(read);
    EXPECT_EQ(uint64_t(0), read->attributesOfItemAtPath("huge")->find("FileSize")->unsignedInteger());
}

// A stored path longer than 64 KiB is refused, whether the walk follows the writer's
// layout or the index of a file that departs from it (where overlapping key blocks could
// make paths grow with the square of the file's size); one just under it is walked.
TEST_F(DamagedBOM, PathsLongerThan64KiBAreRefused) {
    const std::string component(1000, 'n');
    auto nested = [&](const std::string& name, int depth) {
        bomtest::SampleBOM sample(dir / name);
        std::string path;
        for (int level = 0; level < depth; ++level) {
            path += (level ? "/" : "") + component;
            sample.directory(path);
        }
        return BOMBytes(sample.commit());
    };
    // Renumbers the root so that the walk departs from the writer's layout at once.
    auto departing = [](BOMBytes b) {
        for (const auto& item : b.items()) {
            if (item.parent == 0) b.setU32(b.address(item.valueBlock), 0x00fffff0);
            if (item.parent == 1) b.setU32(b.address(item.keyBlock), 0x00fffff0);
        }
        return b;
    };
    BOMBytes shallow = nested("shallow.bom", 64), deep = nested("deep.bom", 66);  // 64,064 and 66,066 bytes
    EXPECT_TRUE(shallow.open());
    EXPECT_TRUE(departing(shallow).open());
    EXPECT_FALSE(deep.open());
    EXPECT_FALSE(departing(deep).open());

    // A short name is copied into the path sixteen bytes at once: one that takes a path
    // to exactly 64 KiB is walked, one a byte longer is refused.
    auto endingIn = [&](const std::string& name, const std::string& leaf) {
        bomtest::SampleBOM sample(dir / name);
        std::string path;
        for (int level = 0; level < 65; ++level) {
            path += (level ? "/" : "") + component;
            sample.directory(path);
        }
        path += "/" + std::string(460, 'm');  // "./" and this: 65,527 bytes
        sample.directory(path);
        sample.directory(path + "/" + leaf);
        return BOMBytes(sample.commit());
    };
    BOMBytes atLimit = endingIn("at-limit.bom", "12345678"), overLimit = endingIn("over-limit.bom", "123456789");
    EXPECT_TRUE(atLimit.open());
    EXPECT_TRUE(departing(atLimit).open());
    EXPECT_FALSE(overLimit.open());
    EXPECT_FALSE(departing(overLimit).open());
}

// The name scan reads words or sixteen bytes at once; against a byte at a time, for
// every length of block and every place of a NUL, a slash, both, or a byte that only
// looks like one of them to a careless word test (0x80 and 0xaf, 0x01 and 0x2e beside
// them).
TEST(StoredName, WordScanAgreesWithOneByteAtATime) {
    auto reference = [](const char* name, size_t size) {
        for (size_t at = 0; at < size; ++at) {
            if (name[at] == 0) return at;
            if (name[at] == '/') break;
        }
        return std::string_view::npos;
    };
    const char fillers[] = {'a', char(0x80), char(0xaf), char(0x01), char(0x2e), char(0xff)};
    size_t checked = 0;
    for (size_t size = 0; size <= 40; ++size)
        for (char filler : fillers)
            for (size_t nul = 0; nul <= size; ++nul)
                for (size_t slash = 0; slash <= size; ++slash)
                    // Only the block readable (the sanitizer build catches a read past it),
                    // and sixteen NULs more, which a scan reading past its block would find.
                    for (size_t readable : {size, size + 16}) {
                        std::vector<char> bytes(readable, 0);
                        std::fill(bytes.begin(), bytes.begin() + std::ptrdiff_t(size), filler);
                        if (slash < size) bytes[slash] = '/';
                        if (nul < size) bytes[nul] = 0;
                        ASSERT_EQ(reference(bytes.data(), size),
                                  crateworks::bom::format::storedNameLength(bytes.data(), size, readable))
                            << "size " << size << ", NUL at " << nul << ", slash at " << slash << ", readable "
                            << readable;
                        // The walk's one step for a short name followed by enough bytes:
                        // the same answer, and the sixteen bytes copied.
                        if (size <= 16 && readable >= 16) {
                            char copy[16];
                            ASSERT_EQ(reference(bytes.data(), size),
                                      crateworks::bom::format::copyShortName(bytes.data(), size, copy))
                                << "size " << size << ", NUL at " << nul << ", slash at " << slash;
                            ASSERT_EQ(0, std::memcmp(copy, bytes.data(), 16));
                        }
                        ++checked;
                    }
    EXPECT_GT(checked, 10000u);
}

}  // namespace
