#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>

#include "Distribution_Layer/Product/CWNetEnabledProduct.h"
#include "Distribution_Layer/Product/CWSecureNetEnabledProduct.h"
#include "Platform/PropertyList.h"
#include "Platform/UserDefaults.h"
#include "support/TempDir.h"

using namespace crateworks;

namespace {

platform::Data bytes(const std::string& text) { return platform::Data(text.begin(), text.end()); }

// Stores distribution documents into products under a temporary directory, with the
// user defaults kept in that directory too.
class StoredDistribution : public ::testing::Test {
protected:
    void SetUp() override { setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1); }
    void TearDown() override { unsetenv("XDG_CONFIG_HOME"); }

    void setLanguages(const platform::Value& languages) {
        std::filesystem::create_directories(dir / "config/ferryhold");
        ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(platform::Dictionary{{"QuarnLanguages", languages}}),
                                                  platform::defaults::pathForDomain(platform::defaults::kGlobalDomain)));
    }

    // A product directory holding an index with one package and the given distributions.
    std::shared_ptr<CWNetEnabledProduct> makeProduct(const std::string& name, const platform::Dictionary& distributions,
                                                     const char* indexName = "index.product") {
        platform::Dictionary index{{"ProductIdentifier", "com.example.thing"},
                                   {"ProductVersion", "3.1"},
                                   {"Packages", platform::Array{platform::Dictionary{
                                                    {"URL", "Thing.pkg"}, {"Identifier", "com.example.thing.pkg"},
                                                    {"Version", "3.1"}}}}};
        if (!distributions.empty()) index.set("Distributions", distributions);
        for (const std::string& localization : distributions.keys())
            testsupport::writeFile(dir / (name + "/" + *distributions.findString(localization)), "old " + localization);
        std::filesystem::create_directories(dir / name);
        EXPECT_TRUE(platform::plist::writeXMLFile(platform::Value(index), dir / (name + "/" + indexName)));
        platform::Error error;
        auto product = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / name), &error);
        EXPECT_TRUE(product) << name << ": " << error.description();
        return std::dynamic_pointer_cast<CWNetEnabledProduct>(product);
    }

    std::vector<std::string> distFiles(const std::string& name) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir / name))
            if (entry.path().extension() == ".dist") names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    // The "Distributions" entry of an index as Python's plist reader sees it, "key=value;" sorted.
    std::string distributionsOnDisk(const std::string& indexPath) {
        int status = -1;
        std::string out = testsupport::runCommand(
            "python3 -c 'import plistlib,sys; d=plistlib.load(open(sys.argv[1],\"rb\")); "
            "print(\"\".join(k+\"=\"+v+\";\" for k,v in sorted(d.get(\"Distributions\",{}).items())), end=\"\")' '" +
                indexPath + "'",
            &status);
        EXPECT_EQ(0, status);
        return out;
    }

    testsupport::TempDir dir;
};

}  // namespace

TEST_F(StoredDistribution, FileIsNamedAfterTheProductAndTheFirstLanguage) {
    auto product = makeProduct("Thing.product", {});
    ASSERT_TRUE(product);
    platform::Error error;
    ASSERT_TRUE(product->_setDistributionFlatData(bytes("<english/>"), &error)) << error.description();
    EXPECT_EQ(std::vector<std::string>{"Thing.en.dist"}, distFiles("Thing.product"));
    EXPECT_EQ("<english/>", testsupport::readFile(dir / "Thing.product/Thing.en.dist"));
    EXPECT_EQ(platform::URL::fileURL(dir / "Thing.product/Thing.en.dist"),
              product->productInfo().distributionURLForLocalization("en"));

    setLanguages(platform::Array{"fr", "en"});
    ASSERT_TRUE(product->_setDistributionFlatData(bytes("<french/>"), &error)) << error.description();
    EXPECT_EQ((std::vector<std::string>{"Thing.en.dist", "Thing.fr.dist"}), distFiles("Thing.product"));
    EXPECT_EQ("<french/>", testsupport::readFile(dir / "Thing.product/Thing.fr.dist"));
    EXPECT_EQ("<english/>", testsupport::readFile(dir / "Thing.product/Thing.en.dist"));

    // A product directory without an extension gives its whole name.
    auto plain = makeProduct("Plain", {});
    ASSERT_TRUE(plain);
    ASSERT_TRUE(plain->_setDistributionFlatData(bytes("<plain/>"), &error)) << error.description();
    EXPECT_EQ(std::vector<std::string>{"Plain.fr.dist"}, distFiles("Plain"));
}

TEST_F(StoredDistribution, UnusableLanguageListsFallBackToEnglish) {
    const std::vector<platform::Value> unusable{platform::Value("fr"),  // not a list
                                                platform::Value(platform::Array{}),
                                                platform::Value(platform::Array{int64_t(5), "fr"}),
                                                platform::Value(platform::Array{"../fr", "fr"}),
                                                platform::Value(platform::Array{"", "fr"})};
    for (size_t i = 0; i < unusable.size(); ++i) {
        setLanguages(unusable[i]);
        std::string name = "Case" + std::to_string(i) + ".product";
        auto product = makeProduct(name, {});
        ASSERT_TRUE(product);
        platform::Error error;
        ASSERT_TRUE(product->_setDistributionFlatData(bytes("<doc/>"), &error)) << i << ": " << error.description();
        EXPECT_EQ(std::vector<std::string>{"Case" + std::to_string(i) + ".en.dist"}, distFiles(name)) << i;
        EXPECT_EQ(std::vector<std::string>{"en"}, product->productInfo().localizations()) << i;
        // Nothing but the index and the document, not even below the product directory.
        EXPECT_EQ(2, std::distance(std::filesystem::recursive_directory_iterator(dir / name),
                                   std::filesystem::recursive_directory_iterator()))
            << i;
    }
}

TEST_F(StoredDistribution, NonASCIIAndReservedCharactersAreEscapedInTheIndex) {
    setLanguages(platform::Array{"de"});
    auto product = makeProduct("Grüße #1?%.product", {});
    ASSERT_TRUE(product);
    platform::Error error;
    ASSERT_TRUE(product->_setDistributionFlatData(bytes("<deutsch/>"), &error)) << error.description();
    // The file on disk carries the name itself; the index the escaped UTF-8 form.
    EXPECT_EQ(std::vector<std::string>{"Grüße #1?%.de.dist"}, distFiles("Grüße #1?%.product"));
    EXPECT_EQ("de=Gr%C3%BC%C3%9Fe%20%231%3F%25.de.dist;", distributionsOnDisk(dir / "Grüße #1?%.product/index.product"));

    // Reloading finds the stored document by its escaped name.
    auto reloaded = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Grüße #1?%.product"), &error);
    ASSERT_TRUE(reloaded) << error.description();
    auto& net = static_cast<CWNetEnabledProduct&>(*reloaded);
    EXPECT_EQ(platform::URL::fileURL(dir / "Grüße #1?%.product/Grüße #1?%.de.dist"),
              net.productInfo().preferredDistributionURL());
    ASSERT_TRUE(net.distributionData());
    EXPECT_EQ(bytes("<deutsch/>"), *net.distributionData());
}

TEST_F(StoredDistribution, IndexIsRewrittenAndAReloadPrefersTheStoredDocument) {
    auto product = makeProduct("Tools.product", platform::Dictionary{{"en", "Tools.en.dist"}});
    ASSERT_TRUE(product);
    ASSERT_TRUE(product->distributionData());
    EXPECT_EQ(bytes("old en"), *product->distributionData());

    setLanguages(platform::Array{"ja", "en"});
    platform::Error error;
    ASSERT_TRUE(product->_setDistributionFlatData(bytes("<japanese/>"), &error)) << error.description();
    // The document is now the preferred one, in memory and on disk; the rest of the index is kept.
    EXPECT_EQ(bytes("<japanese/>"), *product->distributionData());
    EXPECT_EQ("en=Tools.en.dist;ja=Tools.ja.dist;", distributionsOnDisk(dir / "Tools.product/index.product"));
    auto index = platform::plist::readDictionaryFile(dir / "Tools.product/index.product");
    ASSERT_TRUE(index);
    EXPECT_EQ(product->productInfo().dictionaryRepresentation(), *index);
    EXPECT_EQ("3.1", *index->findString("ProductVersion"));
    ASSERT_TRUE(index->findArray("Packages"));
    EXPECT_EQ(1u, index->findArray("Packages")->size());

    for (std::string text : {dir / "Tools.product", dir / "Tools.product/index.product"}) {
        auto reloaded = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(text), &error);
        ASSERT_TRUE(reloaded) << text << ": " << error.description();
        auto& net = static_cast<CWNetEnabledProduct&>(*reloaded);
        EXPECT_EQ(platform::URL::fileURL(dir / "Tools.product/Tools.ja.dist"),
                  net.productInfo().preferredDistributionURL());
        EXPECT_EQ(bytes("<japanese/>"), *net.distributionData());
        EXPECT_EQ(1u, reloaded->allPackageReferences().size());
    }

    // With English first again, the older document is preferred; the stored one stays recorded.
    setLanguages(platform::Array{"en"});
    auto english = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Tools.product"), &error);
    ASSERT_TRUE(english);
    EXPECT_EQ(bytes("old en"), *static_cast<CWNetEnabledProduct&>(*english).distributionData());
}

TEST_F(StoredDistribution, SecureProductRewritesItsOwnIndexAndKeepsItsArchive) {
    testsupport::writeFile(dir / "content/Distribution", "<installer-script/>");
    std::filesystem::create_directories(dir / "Secure.product");
    int status = -1;
    testsupport::runCommand("cd '" + dir.path() + "/content' && bsdtar --format xar -cf '" + dir.path() +
                                "/Secure.product/Secure.xar' Distribution",
                            &status);
    ASSERT_EQ(0, status);
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(platform::Dictionary{{"DistributionArchive", "Secure.xar"}}),
                                              dir / "Secure.product/index.sproduct"));
    platform::Error error;
    auto loaded = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Secure.product"), &error);
    ASSERT_TRUE(loaded) << error.description();
    ASSERT_EQ(kCWProductSecureNetEnabledType, loaded->productType());
    auto& product = static_cast<CWSecureNetEnabledProduct&>(*loaded);
    platform::Data archiveBytes = *product.distributionData();

    ASSERT_TRUE(product._setDistributionFlatData(bytes("<flat/>"), &error)) << error.description();
    EXPECT_FALSE(std::filesystem::exists(dir / "Secure.product/index.product"));
    EXPECT_EQ("en=Secure.en.dist;", distributionsOnDisk(dir / "Secure.product/index.sproduct"));
    // The archive still speaks for the product.
    EXPECT_EQ(archiveBytes, *product.distributionData());
    EXPECT_EQ(platform::URL::fileURL(dir / "Secure.product/Secure.xar"), product.productInfo().preferredDistributionURL());
    auto reloaded = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Secure.product"), &error);
    ASSERT_TRUE(reloaded) << error.description();
    EXPECT_TRUE(static_cast<CWSecureNetEnabledProduct&>(*reloaded).distributionArchive());
}

TEST_F(StoredDistribution, FailuresLeaveTheProductAsItWas) {
    // Only products on disk can be written.
    auto remoteInfo = CWProductInfo::initWithDictionary(platform::Value(platform::Dictionary{}),
                                                        *platform::URL::parse("http://example.com/Thing/index.product"));
    CWNetEnabledProduct remote(*platform::URL::parse("http://example.com/Thing/"), remoteInfo);
    platform::Error error;
    EXPECT_FALSE(remote._setDistributionFlatData(bytes("<doc/>"), &error));
    EXPECT_EQ(platform::kGeneralErrorDomain, error.domain);
    EXPECT_EQ(platform::kFileWriteUnsupportedSchemeError, error.code);
    EXPECT_EQ(std::vector<std::string>{}, remote.productInfo().localizations());

    // An index that cannot be replaced (here a directory in its place) fails the commit.
    std::filesystem::create_directories(dir / "Stuck.product/index.product");
    auto stuckInfo = CWProductInfo::initWithDictionary(
        platform::Value(platform::Dictionary{{"ProductIdentifier", "com.example.stuck"}}),
        platform::URL::fileURL(dir / "Stuck.product/index.product"));
    CWNetEnabledProduct stuck(platform::URL::fileURL(dir / "Stuck.product/"), stuckInfo);
    error = {};
    EXPECT_FALSE(stuck._setDistributionFlatData(bytes("<doc/>"), &error));
    EXPECT_FALSE(error.domain.empty());
    EXPECT_EQ(std::vector<std::string>{}, stuck.productInfo().localizations());
    EXPECT_FALSE(stuck.distributionData());

    // A product directory that is gone cannot take the document.
    CWNetEnabledProduct gone(platform::URL::fileURL(dir / "Gone.product/"), stuckInfo);
    EXPECT_FALSE(gone._setDistributionFlatData(bytes("<doc/>"), &error));
    EXPECT_FALSE(std::filesystem::exists(dir / "Gone.product"));
}
