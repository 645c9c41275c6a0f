#include <gtest/gtest.h>

#include <unordered_set>

#include "Distribution_Layer/Product/CWPackageReference.h"

using crateworks::CWPackageReference;

namespace {

platform::URL url(const std::string& text) { return *platform::URL::parse(text); }

platform::Dictionary package(const std::string& location, const std::string& version = "1.0") {
    return {{"URL", location}, {"Identifier", "com.example.tools"}, {"Version", version},
            {"Size", platform::Value(uint64_t(4096))}, {"MD5", "0123456789abcdef0123456789abcdef"}};
}

}  // namespace

TEST(CWPackageReferenceTests, RequiredKeysAndResolvedURL) {
    auto base = url("http://example.com/products/Tools/index.product");
    auto reference = CWPackageReference::initWithDictionaryRepresentation(package("Packages/Tools.pkg"), base);
    ASSERT_TRUE(reference);
    EXPECT_EQ("http://example.com/products/Tools/Packages/Tools.pkg", reference->URL().absoluteString());
    EXPECT_EQ("com.example.tools", reference->identifier());
    EXPECT_EQ("1.0", reference->version());
    EXPECT_EQ(4096u, reference->fileSize());
    EXPECT_EQ("0123456789abcdef0123456789abcdef", reference->MD5());
    EXPECT_EQ(package("Packages/Tools.pkg"), reference->dictionaryRepresentation());

    for (const char* key : {"URL", "Identifier", "Version"}) {
        platform::Dictionary missing = package("Tools.pkg");
        missing.remove(key);
        EXPECT_FALSE(CWPackageReference::initWithDictionaryRepresentation(missing, base)) << key;
    }
    platform::Dictionary noOptional{{"URL", "Tools.pkg"}, {"Identifier", "a"}, {"Version", "1"}};
    auto bare = CWPackageReference::initWithDictionaryRepresentation(noOptional, base);
    ASSERT_TRUE(bare);
    EXPECT_EQ(0u, bare->fileSize());
    EXPECT_FALSE(bare->MD5());
    // Without a base only an absolute URL can stand.
    EXPECT_FALSE(CWPackageReference::initWithDictionaryRepresentation(noOptional, std::nullopt));
}

// A package is stored under the last name of its URL's path, beside its product or in
// a fetch's destination: an index entry whose URL ends at a folder, at the root or at a
// dot segment names no file, and makes no reference.
TEST(CWPackageReferenceTests, AURLThatNamesNoFileMakesNoReference) {
    auto base = url("http://example.com/products/Tools/index.product");
    for (const char* location : {"http://cdn.example.com/", "http://cdn.example.com/#x.pkg", "Packages/",
                                 "http://cdn.example.com/a/..", "http://cdn.example.com/a/.", "/", "."}) {
        SCOPED_TRACE(location);
        auto reference = CWPackageReference::initWithDictionaryRepresentation(package(location), base);
        EXPECT_FALSE(reference) << "made a reference to " << reference->URL().absoluteString();
    }
    for (const char* location : {"http://cdn.example.com/Tools/", "http://cdn.example.com/"})
        EXPECT_FALSE(CWPackageReference::initWithURL(url(location), "com.example.tools", "1.0", 0, std::nullopt, base))
            << location;
    EXPECT_TRUE(CWPackageReference::initWithDictionaryRepresentation(package("http://cdn.example.com/a/Tools.pkg"), base));
}

TEST(CWPackageReferenceTests, RelativeAndAbsoluteReferencesThatResolveAlikeAreEqualAndHashAlike) {
    auto base = url("http://example.com/products/Tools/index.product");
    auto relative = CWPackageReference::initWithDictionaryRepresentation(package("Tools.pkg"), base);
    auto absolute = CWPackageReference::initWithDictionaryRepresentation(
        package("http://example.com/products/Tools/Tools.pkg"), std::nullopt);
    auto otherBase = CWPackageReference::initWithDictionaryRepresentation(
        package("../Tools/Tools.pkg"), url("http://example.com/products/Other/index.product"));
    ASSERT_TRUE(relative && absolute && otherBase);
    EXPECT_EQ(*relative, *absolute);
    EXPECT_EQ(*relative, *otherBase);
    EXPECT_EQ(relative->hash(), absolute->hash());
    EXPECT_EQ(relative->hash(), otherBase->hash());

    auto newer = CWPackageReference::initWithDictionaryRepresentation(package("Tools.pkg", "1.1"), base);
    auto elsewhere = CWPackageReference::initWithDictionaryRepresentation(package("Tools2.pkg"), base);
    EXPECT_FALSE(*relative == *newer);
    EXPECT_FALSE(*relative == *elsewhere);

    std::unordered_set<std::shared_ptr<CWPackageReference>, crateworks::CWPackageReferenceHash,
                       crateworks::CWPackageReferenceEqual>
        set{relative, absolute, otherBase, newer, elsewhere};
    EXPECT_EQ(3u, set.size());
}

TEST(CWPackageReferenceTests, InitWithURLWritesTheDictionaryAndCopiesAreIndependentEquals) {
    auto base = url("http://example.com/products/Tools/index.product");
    auto reference = CWPackageReference::initWithURL(url("http://example.com/products/Tools/sub/A.pkg"), "com.a",
                                                     "2.0", 77, std::nullopt, base);
    ASSERT_TRUE(reference);
    EXPECT_EQ("sub/A.pkg", *reference->dictionaryRepresentation().findString("URL"));
    EXPECT_FALSE(reference->dictionaryRepresentation().contains("MD5"));
    EXPECT_EQ(77u, reference->fileSize());
    auto reread = CWPackageReference::initWithDictionaryRepresentation(reference->dictionaryRepresentation(), base);
    ASSERT_TRUE(reread);
    EXPECT_EQ(*reference, *reread);

    auto outside = CWPackageReference::initWithURL(url("http://mirror.example.net/A.pkg"), "com.a", "2.0", 77,
                                                   std::string("ffffffffffffffffffffffffffffffff"), base);
    ASSERT_TRUE(outside);
    EXPECT_EQ("http://mirror.example.net/A.pkg", *outside->dictionaryRepresentation().findString("URL"));
    EXPECT_FALSE(CWPackageReference::initWithURL(url("http://x/A.pkg"), "", "2.0", 0, std::nullopt));

    auto copy = reference->copy();
    EXPECT_NE(copy.get(), reference.get());
    EXPECT_EQ(*copy, *reference);
    EXPECT_EQ(copy->hash(), reference->hash());
}
