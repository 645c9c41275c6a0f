#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Distribution_Layer/Product/CWPackageSourceManager.h"

using crateworks::CWPackageReference;
using crateworks::CWPackageSource;
using crateworks::CWPackageSourceManager;

namespace {

std::shared_ptr<CWPackageReference> ref(const std::string& location, const std::string& version, uint64_t size,
                                        const std::string& md5, const std::string& identifier = "com.example.a") {
    platform::Dictionary d{{"URL", location}, {"Identifier", identifier}, {"Version", version},
                           {"Size", platform::Value(size)}, {"MD5", md5}};
    return CWPackageReference::initWithDictionaryRepresentation(d, std::nullopt);
}

class ListSource : public CWPackageSource {
public:
    explicit ListSource(std::vector<std::shared_ptr<CWPackageReference>> refs) : refs_(std::move(refs)) {}
    std::vector<std::shared_ptr<CWPackageReference>> allPackageReferences() const override {
        ++listings;
        return refs_;
    }
    mutable std::atomic<int> listings{0};

private:
    std::vector<std::shared_ptr<CWPackageReference>> refs_;
};

// Searches itself, and answers only what it chooses to.
class SearchingSource : public ListSource {
public:
    using ListSource::ListSource;
    std::optional<std::vector<std::shared_ptr<CWPackageReference>>> packageReferencesMatchingIdentifier(
        const std::string&, const std::optional<std::string>&) const override {
        return answer;
    }
    std::vector<std::shared_ptr<CWPackageReference>> answer;
};

}  // namespace

TEST(CWPackageSourceManagerTests, HighestVersionThenSmallerFileThenNearerSource) {
    CWPackageSourceManager manager;
    auto v19 = ref("http://far/a-1.9.pkg", "1.9", 10, "01");
    auto v110big = ref("http://far/a-1.10-big.pkg", "1.10", 900, "02");
    auto v110small = ref("http://far/a-1.10-small.pkg", "1.10", 500, "03");
    auto other = ref("http://far/b.pkg", "9.0", 1, "04", "com.example.b");
    auto far = std::make_shared<ListSource>(std::vector{v19, v110big, v110small, other});
    manager.addSource(far, 10);
    // Numeric ordering: 1.10 is newer than 1.9; among equals the smaller file.
    EXPECT_EQ(v110small, manager.bestPackageReferenceMatchingIdentifier("com.example.a", std::nullopt));
    // With a version the version filter applies and size orders what is left.
    EXPECT_EQ(v19, manager.bestPackageReferenceMatchingIdentifier("com.example.a", "1.9"));
    EXPECT_FALSE(manager.bestPackageReferenceMatchingIdentifier("com.example.none", std::nullopt));

    auto nearOld = ref("http://near/a-1.0.pkg", "1.0", 5000, "05");
    manager.addSource(std::make_shared<ListSource>(std::vector{nearOld}), 1);
    EXPECT_EQ(nearOld, manager.bestPackageReferenceMatchingIdentifier("com.example.a", std::nullopt));
    EXPECT_EQ(2u, manager.allPackageSources().size());
}

TEST(CWPackageSourceManagerTests, InvalidationReasons) {
    CWPackageSourceManager manager;
    auto first = ref("http://a/x.pkg", "1", 1, "aa");
    auto mirror = ref("http://b/x.pkg", "1", 2, "aa");
    auto different = ref("http://c/x.pkg", "1", 3, "bb");
    manager.addSource(std::make_shared<ListSource>(std::vector{first, mirror, different}), 0);
    auto best = [&] { return manager.bestPackageReferenceMatchingIdentifier("com.example.a", "1"); };

    manager.invalidatePackageReference(first, 10);
    EXPECT_EQ(mirror, best());
    manager.clearInvalidationList();
    manager.invalidatePackageReference(first, 0);
    EXPECT_EQ(mirror, best());
    manager.clearInvalidationList();
    // Reason 20: the data is bad, so every copy with that MD5 goes.
    manager.invalidatePackageReference(first, 20);
    EXPECT_EQ(different, best());
    manager.clearInvalidationList();
    // Any other reason removes nothing.
    manager.invalidatePackageReference(first, 5);
    EXPECT_EQ(first, best());
    manager.clearInvalidationList();
    manager.invalidatePackageReference(first, 20);
    manager.invalidatePackageReference(different, 0);
    EXPECT_FALSE(best());
    manager.clearInvalidationList();
    EXPECT_EQ(first, best());
}

TEST(CWPackageSourceManagerTests, DistancesAreCachedAndUnknownReferencesAreZeroUncached) {
    CWPackageSourceManager manager;
    auto held = ref("http://a/x.pkg", "1", 1, "aa");
    auto source = std::make_shared<ListSource>(std::vector{held});
    manager.addSource(source, 7);
    EXPECT_EQ(7, manager.distanceForPackageReference(held));
    int listings = source->listings;
    // An equal reference built separately finds the cached distance.
    EXPECT_EQ(7, manager.distanceForPackageReference(ref("http://a/x.pkg", "1", 1, "aa")));
    EXPECT_EQ(listings, source->listings);

    auto stranger = ref("http://z/y.pkg", "1", 1, "cc");
    EXPECT_EQ(0, manager.distanceForPackageReference(stranger));
    EXPECT_EQ(0, manager.distanceForPackageReference(stranger));
    EXPECT_EQ(listings + 2, source->listings);
    auto later = std::make_shared<ListSource>(std::vector{stranger});
    manager.addSource(later, 3);
    EXPECT_EQ(3, manager.distanceForPackageReference(stranger));
    manager.removeSource(later);
    EXPECT_EQ(1u, manager.allPackageSources().size());
    EXPECT_EQ(0, manager.distanceForPackageReference(stranger));
}

TEST(CWPackageSourceManagerTests, SourcesThatSearchThemselvesAreAskedAndTrusted) {
    CWPackageSourceManager manager;
    auto listed = ref("http://a/x.pkg", "1", 1, "aa");
    auto answered = ref("http://a/y.pkg", "1", 100, "bb");
    auto searching = std::make_shared<SearchingSource>(std::vector{listed});
    searching->answer = {answered};
    manager.addSource(searching, 0);
    // The source's own answer replaces filtering its list, even though the listed one is smaller.
    EXPECT_EQ(answered, manager.bestPackageReferenceMatchingIdentifier("com.example.a", "1"));
    searching->answer.clear();
    EXPECT_FALSE(manager.bestPackageReferenceMatchingIdentifier("com.example.a", "1"));
}

TEST(CWPackageSourceManagerTests, ConcurrentQueriesAndAdditionsAgree) {
    CWPackageSourceManager manager;
    auto base = ref("http://a/x.pkg", "1", 1, "aa");
    manager.addSource(std::make_shared<ListSource>(std::vector{base}), 5);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                if (t == 0 && i % 20 == 0)
                    manager.addSource(std::make_shared<ListSource>(std::vector{ref("http://far/x.pkg", "1", 1, "aa")}),
                                      50 + i);
                auto best = manager.bestPackageReferenceMatchingIdentifier("com.example.a", std::nullopt);
                if (!best || *best != *base) ++wrong;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(&CWPackageSourceManager::defaultManager(), &CWPackageSourceManager::defaultManager());
}
