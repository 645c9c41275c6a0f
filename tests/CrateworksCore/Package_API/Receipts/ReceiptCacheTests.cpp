// The receipts cache (one volume at a time), the look-ups built on it, and the named
// exceptions for nil arguments.
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Receipts/CWMutableReceipt.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/Exception.h"
#include "ReceiptTestHelpers.h"
#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

using crateworks::CWReceipt;
using crateworks::CWMutableReceipt;
using receipttests::identifiers;
using testsupport::PackageDescription;
using testsupport::TempDir;
using testsupport::VolumeBuilder;

namespace {

class ReceiptsCache : public ::testing::Test {
protected:
    void SetUp() override { CWReceipt::_clearCache(); }
    void TearDown() override { CWReceipt::_clearCache(); }

    // Adds a receipt behind the cache's back: a BOM file with no property list.
    static void addReceiptFile(const TempDir& volume, const std::string& identifier) {
        testsupport::writeFile(volume / ("private/var/db/receipts/" + identifier + ".bom"), "BOMStore");
    }
};

}  // namespace

TEST_F(ReceiptsCache, HoldsTheReceiptsOfOneVolume) {
    TempDir a, b;
    VolumeBuilder(a.path()).package("com.vendor.a1").volume().build();
    VolumeBuilder(b.path()).package("com.vendor.b1").volume().build();

    auto first = CWReceipt::receiptsOnVolumeAtPath(a.path());
    ASSERT_EQ(1u, first.size());
    addReceiptFile(a, "com.vendor.a2");
    auto second = CWReceipt::receiptsOnVolumeAtPath(a.path());
    ASSERT_EQ(1u, second.size()) << "the second question about A is answered from the cache";
    EXPECT_EQ(first[0], second[0]);

    EXPECT_EQ((std::vector<std::string>{"com.vendor.b1"}), identifiers(CWReceipt::receiptsOnVolumeAtPath(b.path())));
    // B pushed A out: A is scanned again and the new receipt shows.
    auto third = CWReceipt::receiptsOnVolumeAtPath(a.path());
    EXPECT_EQ(2u, third.size());
    EXPECT_NE(first[0], third[0]);

    addReceiptFile(a, "com.vendor.a3");
    EXPECT_EQ(2u, CWReceipt::receiptsOnVolumeAtPath(a.path()).size());
    CWReceipt::_clearCache();
    EXPECT_EQ(3u, CWReceipt::receiptsOnVolumeAtPath(a.path()).size());
}

TEST_F(ReceiptsCache, WritingAReceiptEmptiesTheCache) {
    TempDir a;
    VolumeBuilder(a.path()).package("com.vendor.first").volume().build();
    ASSERT_EQ(1u, CWReceipt::receiptsOnVolumeAtPath(a.path()).size());

    auto receipt = CWMutableReceipt::initWithPackageIdentifier("com.vendor.second", "1", platform::Data{1, 2, 3});
    ASSERT_TRUE(receipt->writeToDirectory(a / "private/var/db/receipts"));
    EXPECT_EQ(2u, CWReceipt::receiptsOnVolumeAtPath(a.path()).size());
}

TEST_F(ReceiptsCache, LookupsAnswerTheFirstMatch) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.vendor.twice").version("2").packageFileName("Twice.pkg");
    volume.package("com.vendor.twice").version("1").packageFileName("Twice.pkg")
        .location(PackageDescription::Location::Library);
    volume.package("com.vendor.other").packageFileName("Other.pkg");
    volume.build();

    auto twice = CWReceipt::receiptWithIdentifier("com.vendor.twice", dir.path());
    ASSERT_NE(nullptr, twice);
    EXPECT_EQ("2", twice->packageVersion()) << "the protected directory is searched first";
    EXPECT_TRUE(twice->_isSecure());
    EXPECT_EQ(twice, CWReceipt::receiptWithPackageFileName("Twice.pkg", dir.path()));
    EXPECT_EQ("com.vendor.other", CWReceipt::receiptWithPackageFileName("Other.pkg", dir.path())->packageIdentifier());
    EXPECT_EQ(nullptr, CWReceipt::receiptWithIdentifier("com.vendor.TWICE", dir.path()));
    EXPECT_EQ(nullptr, CWReceipt::receiptWithPackageFileName("Twice", dir.path()));
    // Both copies stay in the volume's list.
    EXPECT_EQ(3u, CWReceipt::receiptsOnVolumeAtPath(dir.path()).size());
}

TEST_F(ReceiptsCache, NilArgumentsRaiseTheNamedException) {
    auto expectException = [](auto&& call, const std::string& reason) {
        try {
            call();
            ADD_FAILURE() << "no exception for: " << reason;
        } catch (const platform::Exception& exception) {
            EXPECT_EQ("CWReceipt", exception.name());
            EXPECT_EQ(reason, exception.reason());
        }
    };
    expectException([] { CWReceipt::receiptsOnVolumeAtPath(std::nullopt); },
                    "Attempt to get receipts for nil volumePath");
    expectException([] { CWReceipt::receiptWithIdentifier("x", std::nullopt); },
                    "Attempt to get receipts for nil volumePath");
    auto receipt = CWMutableReceipt::initWithPackageIdentifier("com.vendor.nil", "1", platform::Data{1});
    expectException([&] { receipt->writeToDirectory(std::nullopt); }, "Attempt to use nil directory");
    expectException([&] { receipt->_removeReceiptInDirectory(std::nullopt); }, "Attempt to use nil directory");
}
