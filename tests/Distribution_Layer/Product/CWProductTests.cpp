#include <gtest/gtest.h>

#include <filesystem>

#include "Distribution_Layer/Product/CWArchiveProduct.h"
#include "Distribution_Layer/Product/CWNetEnabledProduct.h"
#include "Distribution_Layer/Product/CWSecureNetEnabledProduct.h"
#include "Platform/PropertyList.h"
#include "support/TempDir.h"

using namespace crateworks;

namespace {

void writeIndex(const std::string& path, const platform::Dictionary& index) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(index), path));
}

platform::Dictionary threePackages() {
    platform::Array packages;
    for (const char* name : {"A", "B", "C"})
        packages.push_back(platform::Dictionary{{"URL", std::string("Packages/") + name + ".pkg"},
                                                {"Identifier", std::string("com.example.") + name},
                                                {"Version", "1.0"}});
    return {{"ProductIdentifier", "com.example.tools"}, {"ProductVersion", "2.0"}, {"Packages", packages}};
}

}  // namespace

TEST(CWProductTests, PlainProductLoadsFromItsDirectoryOrItsIndexAndIsLevel100) {
    testsupport::TempDir dir;
    platform::Dictionary index = threePackages();
    index.set("Distributions", platform::Dictionary{{"en", "Tools.en.dist"}});
    writeIndex(dir / "Tools/index.product", index);
    testsupport::writeFile(dir / "Tools/Tools.en.dist", "<installer-script/>");

    for (std::string text : {dir / "Tools", dir / "Tools/", dir / "Tools/index.product"}) {
        platform::Error error;
        auto product = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(text), &error);
        ASSERT_TRUE(product) << text << ": " << error.description();
        EXPECT_EQ(kCWProductNetEnabledType, product->productType());
        EXPECT_EQ(platform::URL::fileURL(dir / "Tools/").absoluteString(), product->URL().absoluteString());
        EXPECT_EQ("com.example.tools", product->productIdentifier());
        ASSERT_EQ(3u, product->allPackageReferences().size());
        EXPECT_EQ(platform::URL::fileURL(dir / "Tools/Packages/B.pkg"), product->allPackageReferences()[1]->URL());
        auto& net = static_cast<CWNetEnabledProduct&>(*product);
        ASSERT_TRUE(net.distributionData());
        EXPECT_EQ(19u, net.distributionData()->size());
        EXPECT_EQ(dir / "Tools/C.pkg", net.suggestedPackagePathFromPackageReference(*product->allPackageReferences()[2]));
        product->setMinimumRequiredTrustLevel(100);
        EXPECT_TRUE(product->evaluateTrustReturningError(&error));
        product->setMinimumRequiredTrustLevel(200);
        EXPECT_FALSE(product->evaluateTrustReturningError(&error));
        EXPECT_EQ(kCWProductErrorDomain, error.domain);
        EXPECT_EQ(100, error.userInfo.find(kCWTrustLevelKey)->integer());
    }
}

TEST(CWProductTests, MissingOrBrokenIndexFailsWith259) {
    testsupport::TempDir dir;
    platform::Error error;
    EXPECT_FALSE(CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Nothing"), &error));
    testsupport::writeFile(dir / "Broken/index.product", "this is not a property list");
    error = {};
    EXPECT_FALSE(CWNetEnabledProduct::initByLoadingProductAtURL(platform::URL::fileURL(dir / "Broken"), &error));
    EXPECT_EQ(platform::kGeneralErrorDomain, error.domain);
    EXPECT_EQ(platform::kFileReadCorruptFileError, error.code);
    EXPECT_EQ(platform::URL::fileURL(dir / "Broken/index.product").absoluteString(),
              *error.userInfo.findString(platform::kURLErrorKey));
    // A local index is named by its path too, under the key every domain uses.
    ASSERT_TRUE(error.userInfo.findString(platform::kFilePathErrorKey));
    EXPECT_EQ(dir / "Broken/index.product", *error.userInfo.findString(platform::kFilePathErrorKey));
    // Why it does not parse is the property-list reader's own word, with where it stopped.
    ASSERT_TRUE(error.userInfo.findString(platform::kFailureReasonKey));
    EXPECT_EQ("XML error at line 1, column 1 (byte 0): Start tag expected, '<' not found",
              *error.userInfo.findString(platform::kFailureReasonKey));
    std::string cut = "<plist version=\"1.0\">\n<dict>\n\t<key>ProductIdentifier</key>\n\t<string>x</dict>\n";
    testsupport::writeFile(dir / "Cut/index.product", cut);
    error = {};
    EXPECT_FALSE(CWNetEnabledProduct::initByLoadingProductAtURL(platform::URL::fileURL(dir / "Cut"), &error));
    EXPECT_EQ(platform::kFileReadCorruptFileError, error.code);
    ASSERT_TRUE(error.userInfo.findString(platform::kFailureReasonKey));
    EXPECT_EQ("XML error at line 4, column 18 (byte " + std::to_string(cut.find("</dict>") + 7) +
                  "): Opening and ending tag mismatch: string line 4 and dict",
              *error.userInfo.findString(platform::kFailureReasonKey));
    // A distribution that cannot be fetched fails the load.
    platform::Dictionary index = threePackages();
    index.set("DistributionArchive", "Missing.xar");
    writeIndex(dir / "NoDist/index.product", index);
    EXPECT_FALSE(CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "NoDist"), &error));
}

TEST(CWProductTests, SecureProductOpensItsDistributionArchiveInPlace) {
    testsupport::TempDir dir;
    platform::Dictionary index = threePackages();
    index.set("DistributionArchive", "Tools.xar");
    writeIndex(dir / "Secure/index.sproduct", index);
    testsupport::writeFile(dir / "content/Distribution", "<installer-script/>");
    int status = -1;
    testsupport::runCommand("cd '" + dir.path() + "/content' && bsdtar --format xar -cf '" + dir.path() +
                                "/Secure/Tools.xar' Distribution",
                            &status);
    ASSERT_EQ(0, status);

    platform::Error error;
    auto product = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Secure"), &error);
    ASSERT_TRUE(product) << error.description();
    EXPECT_EQ(kCWProductSecureNetEnabledType, product->productType());
    EXPECT_FALSE(static_cast<CWNetEnabledProduct&>(*product).productInfo().localizations());
    EXPECT_TRUE(static_cast<CWSecureNetEnabledProduct&>(*product).distributionArchive());
    // An unsigned archive is judged "not signed".
    EXPECT_EQ(100, product->trustLevelReturningCertificateChain(nullptr));
    product->setMinimumRequiredTrustLevel(101);
    EXPECT_FALSE(product->evaluateTrustReturningError(&error));
    EXPECT_EQ(kCWProductErrorDomain, error.domain);

    // Not an archive: the secure product does not load.
    testsupport::writeFile(dir / "Secure/Tools.xar", "garbage");
    EXPECT_FALSE(CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Secure"), &error));
}

TEST(CWProductTests, ArchiveProductsAreLocalPackageFilesOnly) {
    testsupport::TempDir dir;
    EXPECT_TRUE(CWArchiveProduct::canInitWithURL(platform::URL::fileURL(dir / "a.pkg")));
    EXPECT_TRUE(CWArchiveProduct::canInitWithURL(platform::URL::fileURL(dir / "a.dmg")));
    EXPECT_FALSE(CWArchiveProduct::canInitWithURL(platform::URL::fileURL(dir / "a.zip")));
    EXPECT_FALSE(CWArchiveProduct::canInitWithURL(*platform::URL::parse("http://example.com/a.pkg")));
    testsupport::writeFile(dir / "content/payload", "bytes");
    int status = -1;
    testsupport::runCommand("cd '" + dir.path() + "/content' && bsdtar --format xar -cf '" + dir.path() +
                                "/Tools.pkg' payload",
                            &status);
    ASSERT_EQ(0, status);
    platform::Error error;
    auto product = CWProduct::productByLoadingProductAtURL(platform::URL::fileURL(dir / "Tools.pkg"), &error);
    ASSERT_TRUE(product) << error.description();
    EXPECT_EQ(kCWProductArchiveType, product->productType());
    EXPECT_EQ(100, product->trustLevelReturningTrustRef(nullptr));
}
