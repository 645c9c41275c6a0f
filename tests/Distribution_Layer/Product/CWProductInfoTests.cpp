#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "Distribution_Layer/Product/CWProductInfo.h"
#include "Platform/PropertyList.h"
#include "Platform/UserDefaults.h"
#include "support/TempDir.h"

using crateworks::CWProductInfo;

namespace {

const platform::URL kBase = *platform::URL::parse("http://example.com/products/Tools/index.product");

platform::Dictionary packageEntry(const std::string& location, const std::string& identifier) {
    return {{"URL", location}, {"Identifier", identifier}, {"Version", "1.0"}};
}

// Points the user defaults at a directory of the test's own, removed with it.
class ProductInfoDefaults : public ::testing::Test {
protected:
    void SetUp() override { setenv("XDG_CONFIG_HOME", dir_.path().c_str(), 1); }
    void TearDown() override { unsetenv("XDG_CONFIG_HOME"); }
    void setLanguages(platform::Array languages) {
        std::filesystem::create_directories(dir_ / "ferryhold");
        platform::Dictionary defaults{{"QuarnLanguages", std::move(languages)}};
        ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(defaults),
                                                  platform::defaults::pathForDomain(platform::defaults::kGlobalDomain)));
    }
    testsupport::TempDir dir_;
};

}  // namespace

TEST(CWProductInfoTests, DistributionArchiveMeansNoLocalizations) {
    platform::Dictionary index{{"Distributions", platform::Dictionary{{"en", "Tools.en.dist"}}},
                               {"DistributionArchive", "Tools.xar"}};
    auto info = CWProductInfo::initWithDictionary(platform::Value(index), kBase);
    ASSERT_TRUE(info);
    EXPECT_FALSE(info->localizations());
    EXPECT_EQ("http://example.com/products/Tools/Tools.xar", info->preferredDistributionURL()->absoluteString());
    EXPECT_EQ("http://example.com/products/Tools/Tools.en.dist",
              info->distributionURLForLocalization("en")->absoluteString());
    EXPECT_FALSE(info->distributionURLForLocalization("fr"));
    EXPECT_FALSE(CWProductInfo::initWithDictionary(platform::Value("not a dictionary"), kBase));
}

TEST(CWProductInfoTests, PackageReferencesSkipFailingEntriesAndAreCachedUntilReplaced) {
    platform::Dictionary noVersion{{"URL", "B.pkg"}, {"Identifier", "com.b"}};
    platform::Dictionary index{
        {"Packages", platform::Array{packageEntry("A.pkg", "com.a"), noVersion, "stray", packageEntry("C.pkg", "com.c")}}};
    auto info = CWProductInfo::initWithDictionary(platform::Value(index), kBase);
    const auto& references = info->packageReferences();
    ASSERT_EQ(2u, references.size());
    EXPECT_EQ("com.a", references[0]->identifier());
    EXPECT_EQ("http://example.com/products/Tools/C.pkg", references[1]->URL().absoluteString());
    EXPECT_EQ(references[0].get(), info->packageReferences()[0].get());

    info->setPackageReferences({references[1]});
    ASSERT_EQ(1u, info->packageReferences().size());
    EXPECT_EQ("com.c", info->packageReferences()[0]->identifier());
    EXPECT_EQ(1u, info->dictionaryRepresentation().findArray("Packages")->size());
}

TEST(CWProductInfoTests, SettersWriteRelativeStringsAndRemoveAbsentValues) {
    auto info = CWProductInfo::initWithDictionary(platform::Value(platform::Dictionary{}), kBase);
    EXPECT_EQ(std::vector<std::string>{}, *info->localizations());
    info->setProductIdentifier("com.example.tools", "3.1");
    EXPECT_EQ("com.example.tools", info->productIdentifier());
    EXPECT_EQ("3.1", info->productVersion());
    info->setDistributionURL(*platform::URL::parse("http://example.com/products/Tools/Tools.de.dist"), "de");
    EXPECT_EQ("Tools.de.dist", *info->dictionaryRepresentation().findDictionary("Distributions")->findString("de"));
    EXPECT_EQ(std::vector<std::string>{"de"}, *info->localizations());
    info->setProductIdentifier(std::nullopt, std::nullopt);
    EXPECT_FALSE(info->dictionaryRepresentation().contains("ProductIdentifier"));
    EXPECT_FALSE(info->productVersion());
    info->setDistributionURL(*platform::URL::parse("http://elsewhere.example/T.xar"), std::nullopt);
    EXPECT_EQ("http://elsewhere.example/T.xar", *info->dictionaryRepresentation().findString("DistributionArchive"));
    EXPECT_FALSE(info->localizations());
}

TEST_F(ProductInfoDefaults, PreferredDistributionFollowsTheUsersLanguages) {
    platform::Dictionary index{
        {"Distributions", platform::Dictionary{{"fr", "T.fr.dist"}, {"en", "T.en.dist"}, {"de", "T.de.dist"}}}};
    auto info = CWProductInfo::initWithDictionary(platform::Value(index), kBase);
    // No preference recorded: English.
    EXPECT_EQ("http://example.com/products/Tools/T.en.dist", info->preferredDistributionURL()->absoluteString());
    setLanguages({"ja", "de", "en"});
    EXPECT_EQ("http://example.com/products/Tools/T.de.dist", info->preferredDistributionURL()->absoluteString());
    setLanguages({"ja"});
    EXPECT_EQ("http://example.com/products/Tools/T.fr.dist", info->preferredDistributionURL()->absoluteString());
    auto empty = CWProductInfo::initWithDictionary(platform::Value(platform::Dictionary{}), kBase);
    EXPECT_FALSE(empty->preferredDistributionURL());
}
