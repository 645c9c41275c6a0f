// Walks and look-ups over BOM files large enough to spread over many leaves: they read
// only what they are asked for, agree with the whole walk, hand out views that decode to
// the same entries, allocate nothing per entry, and stop at damage they reach.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "BOMTestSupport.h"
#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "support/TempDir.h"

// Counts the allocations of this test program while a test asks for it. The replaced
// operator new takes its memory from malloc, so its delete hands it back to free.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
namespace {
std::atomic<bool> counting{false};
std::atomic<size_t> allocations{0};
}  // namespace

void* operator new(size_t size) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {

using crateworks::bom::BOMEntryView;
using crateworks::bom::BOMStore;
using crateworks::bom::BOMVisit;
using crateworks::bom::BOMWalkStatus;

struct Seen {
    std::string path;
    uint8_t type;
    uint64_t size;
};

// Directories of very different sizes, some nested deep, so that subtrees begin and end
// in the middle of leaves and span several of them.
class LargeBOM : public ::testing::Test {
protected:
    void SetUp() override {
        bomtest::SampleBOM sample(path);
        for (int d = 0; d < 40; ++d) {
            std::string top = "d" + std::to_string(d);
            sample.directory(top);
            int files = d % 7 == 0 ? 900 : d % 3 == 0 ? 3 : 60;
            for (int f = 0; f < files; ++f) sample.file(top + "/f" + std::to_string(f), uint64_t(d) * 1000 + f);
            if (d % 5 == 0) {
                std::string deep = top;
                for (int level = 0; level < 6; ++level) {
                    deep += "/n" + std::to_string(level);
                    sample.directory(deep);
                    for (int f = 0; f < 50; ++f) sample.file(deep + "/g" + std::to_string(f), f);
                }
            }
        }
        sample.directory("empty");
        sample.commit();
        store = BOMStore::openFile(path);
        ASSERT_TRUE(store);
        auto walk = store->enumeratorAtPath(".");
        ASSERT_TRUE(walk);
        ASSERT_EQ(BOMWalkStatus::kComplete, walk->forEachRemaining([&](const BOMEntryView& e) {
            all.push_back(Seen{std::string(e.path()), e.type(), e.size()});
            return BOMVisit::kContinue;
        }));
        ASSERT_GT(all.size(), 9000u);
    }

    // The part of the whole walk at and below `path`.
    std::vector<std::string> expectedBelow(const std::string& path, const std::string& skipped = "") const {
        std::vector<std::string> out;
        for (const auto& seen : all) {
            bool inside = seen.path == path || path == "." || seen.path.rfind(path + "/", 0) == 0;
            bool inSkipped = !skipped.empty() && seen.path.rfind(skipped + "/", 0) == 0;
            if (inside && !inSkipped) out.push_back(seen.path);
        }
        return out;
    }

    std::vector<std::string> walkBelow(const std::string& path, const std::string& skipping = "") const {
        std::vector<std::string> out;
        auto walk = store->enumeratorAtPath(path);
        if (!walk) return out;
        EXPECT_EQ(BOMWalkStatus::kComplete, walk->forEachRemaining([&](const BOMEntryView& e) {
            out.emplace_back(e.path());
            return e.path() == skipping ? BOMVisit::kSkipDescendants : BOMVisit::kContinue;
        }));
        return out;
    }

    testsupport::TempDir dir;
    std::string path = dir / "large.bom";
    std::shared_ptr<BOMStore> store;
    std::vector<Seen> all;  // the whole walk, the root first
};

TEST_F(LargeBOM, SubtreesAndSkipsAgreeWithTheWholeWalk) {
    EXPECT_EQ(".", all.front().path);
    for (std::string top : {"./d0", "./d1", "./d3", "./d14", "./d35", "./d39", "./empty", "./d5/n0/n1"}) {
        EXPECT_EQ(expectedBelow(top), walkBelow(top)) << top;
        // Skipping a directory inside the whole walk leaves out exactly its descendants.
        EXPECT_EQ(expectedBelow(".", top), walkBelow(".", top)) << top;
    }
    // Skipping the start ends the walk at once.
    EXPECT_EQ(std::vector<std::string>{"./d7"}, walkBelow("./d7", "./d7"));
}

TEST_F(LargeBOM, LookupsFindEveryEntryAndNothingElse) {
    for (size_t i = 0; i < all.size(); i += 37) {
        auto entry = store->entryAtPath(all[i].path);
        ASSERT_TRUE(entry) << all[i].path;
        EXPECT_EQ(all[i].path, entry->pathName);
        EXPECT_EQ(all[i].size, entry->size);
        EXPECT_EQ(all[i].type, entry->type);
    }
    // Empty components are ignored; the last entry of the file is found too.
    EXPECT_TRUE(store->entryExists(".//d14///f899"));
    EXPECT_TRUE(store->entryExists(all.back().path));
    for (const char* missing : {"./d14/f900", "./d40", "./d5/n0/n2", "./empty/x", "./d3/f0/below", "./0"})
        EXPECT_FALSE(store->entryExists(missing)) << missing;
    EXPECT_FALSE(store->entryExists("d1"));  // not a stored path
}

TEST_F(LargeBOM, ViewsDecodeLikeEntriesAndVisitorsCanStop) {
    auto walk = store->enumeratorAtPath("./d10");
    ASSERT_TRUE(walk);
    size_t visited = 0;
    EXPECT_EQ(BOMWalkStatus::kStopped, walk->forEachRemaining([&](const BOMEntryView& e) {
        auto entry = store->entryAtPath(e.path());
        EXPECT_TRUE(entry);
        if (entry) {
            crateworks::bom::BOMEntry copy = e.toEntry();
            EXPECT_EQ(entry->pathName, copy.pathName);
            EXPECT_EQ(entry->shortName, copy.shortName);
            EXPECT_EQ(entry->mode, copy.mode);
            EXPECT_EQ(entry->size, e.size());
            EXPECT_EQ(entry->checksum, e.checksum());
        }
        return ++visited == 5 ? BOMVisit::kStop : BOMVisit::kContinue;
    }));
    EXPECT_EQ(5u, visited);
}

TEST_F(LargeBOM, WalksAllocateNothingPerEntry) {
    auto bom = crateworks::CWBOM::initWithBOMPath(path);
    ASSERT_TRUE(bom);
    auto enumerator = bom->directoryEnumerator();
    ASSERT_TRUE(enumerator);
    size_t entries = 0, pathBytes = 0;
    allocations = 0;
    counting = true;
    auto status = enumerator->forEachRemaining([&](const BOMEntryView& e) {
        ++entries;
        pathBytes += e.path().size() + e.size() % 2 + (e.isDirectory() ? 1 : 0);
        return BOMVisit::kContinue;
    });
    counting = false;
    EXPECT_EQ(BOMWalkStatus::kComplete, status);
    EXPECT_EQ(all.size() - 1, entries);
    EXPECT_GT(pathBytes, entries);
    // The path buffer and the stack of directories grow a few times, whatever the count.
    EXPECT_LT(allocations.load(), 40u);
}

// Damage deep in a file is not looked at by an open or a look-up that does not reach it;
// a walk that reaches it says so, and a subtree list that would be cut short is refused.
class BOMWalkDamage : public ::testing::Test {
protected:
    void SetUp() override {
        bomtest::SampleBOM sample(dir / "d.bom");
        sample.directory("a").file("a/x", 1);
        sample.directory("z");
        for (int f = 0; f < 600; ++f) sample.file("z/f" + std::to_string(f), f);
        good = sample.commit();
    }
    std::shared_ptr<crateworks::CWBOM> open(const bomtest::BOMBytes& bytes) {
        return crateworks::CWBOM::initWithBOMData(platform::Data(bytes.bytes.begin(), bytes.bytes.end()));
    }

    testsupport::TempDir dir;
    std::vector<uint8_t> good;
};

TEST_F(BOMWalkDamage, AKeyBlockStopsTheWalkThatReachesIt) {
    bomtest::BOMBytes bytes(good);
    bytes.setLength(bytes.item("f300").keyBlock, 4);  // no room for a name
    auto bom = open(bytes);
    ASSERT_TRUE(bom);
    EXPECT_TRUE(bom->attributesOfItemAtPath("a/x"));
    EXPECT_EQ(std::vector<std::string>({"a", "a/x"}), *bom->subpathsOfDirectoryAtPath("a"));
    EXPECT_FALSE(bom->subpathsOfDirectoryAtPath("z"));
    EXPECT_FALSE(bom->attributesOfItemAtPath("z/f599"));  // the way to it crosses the damage

    auto walk = bom->directoryEnumerator();
    std::vector<std::string> seen;
    while (auto next = walk->nextObject()) seen.push_back(*next);
    EXPECT_TRUE(walk->damaged());
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ("z/f30", seen.back());  // byte order: f299 < f3 < f30 < f300
    EXPECT_EQ(0u, bom->totalSize());  // a sum over every entry cannot be had
}

// Fields are read when asked for, so a damaged info block is met by the walk that asks.
TEST_F(BOMWalkDamage, AnInfoBlockIsMetWhenItsFieldsAreRead) {
    bomtest::BOMBytes bytes(good);
    bytes.setLength(bytes.item("f300").infoBlock, 12);  // shorter than an info block's fixed part
    auto bom = open(bytes);
    ASSERT_TRUE(bom);
    EXPECT_FALSE(bom->attributesOfItemAtPath("z/f300"));
    EXPECT_TRUE(bom->attributesOfItemAtPath("z/f301"));
    EXPECT_EQ(601u, bom->subpathsOfDirectoryAtPath("z")->size());  // paths only: the block is not read

    auto walk = bom->directoryEnumerator();
    std::vector<std::string> seen;
    while (auto next = walk->nextObject()) {
        seen.push_back(*next);
        if (*next != "z/f300") EXPECT_TRUE(walk->fileAttributes()) << *next;
        else EXPECT_FALSE(walk->fileAttributes());
    }
    EXPECT_TRUE(walk->damaged());
    EXPECT_EQ("z/f300", seen.back());
    EXPECT_EQ(0u, bom->totalSize());
}

}  // namespace
