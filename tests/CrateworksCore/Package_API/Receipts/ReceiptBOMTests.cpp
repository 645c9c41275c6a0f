// A receipt's BOM: opened lazily and kept, and a damaged BOM or property list costs only
// that receipt's entries.
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "ReceiptTestHelpers.h"
#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

using crateworks::CWReceipt;
using receipttests::bomPaths;
using receipttests::SystemLogCapture;
using testsupport::PackageDescription;
using testsupport::TempDir;
using testsupport::VolumeBuilder;

TEST(ReceiptBOM, DamagedReceiptsAreSkippedAndTheScanGoesOn) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.vendor.first").entry("/bin/one").entry("/bin/two");
    volume.package("com.vendor.brokenbom").entry("/bin/lost").damagedBOM();
    volume.package("com.vendor.brokenplist").version("3").entry("/bin/three")
        .propertyList(PackageDescription::PropertyListForm::Damaged);
    volume.package("com.vendor.last").location(PackageDescription::Location::Library).entry("/bin/four");
    volume.bundle("Broken.pkg", "com.vendor.brokenbundle").damagedBOM();
    volume.build();

    SystemLogCapture log;
    std::map<std::string, std::vector<std::string>> entries;
    auto receipts = CWReceipt::_findReceiptsOnVolumeAtPath(dir.path());
    ASSERT_EQ(5u, receipts.size());
    for (const auto& receipt : receipts) {
        entries[*receipt->packageIdentifier()] = bomPaths(*receipt);
        receipt->_freeBOM();
    }
    EXPECT_EQ((std::vector<std::string>{"bin", "bin/one", "bin/two"}), entries["com.vendor.first"]);
    EXPECT_EQ((std::vector<std::string>{}), entries["com.vendor.brokenbom"]);
    EXPECT_EQ((std::vector<std::string>{"bin", "bin/three"}), entries["com.vendor.brokenplist"]);
    EXPECT_EQ((std::vector<std::string>{"bin", "bin/four"}), entries["com.vendor.last"]);
    EXPECT_EQ((std::vector<std::string>{}), entries["com.vendor.brokenbundle"]);

    std::vector<std::pair<int, std::string>> expected{
        {116, "CWReceipt could not open BOM at path " + dir / "private/var/db/receipts/com.vendor.brokenbom.bom"},
        {116, "CWReceipt could not open BOM at path " + dir / "Library/Receipts/Broken.pkg/Contents/Archive.bom"}};
    EXPECT_EQ(expected, log.lines);
}

TEST(ReceiptBOM, TheBOMIsOpenedOnceUntilFreed) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.vendor.tool").file("/usr/bin/tool", 5000, {.mode = 0755, .owner = 7, .group = 8});
    volume.package("com.vendor.broken").damagedBOM();
    volume.build();
    auto receipt = CWReceipt::initWithBOMPath(dir / "private/var/db/receipts/com.vendor.tool.bom");
    ASSERT_NE(nullptr, receipt);

    auto bom = receipt->_BOM();
    ASSERT_NE(nullptr, bom);
    EXPECT_EQ(bom, receipt->_BOM());
    receipt->_freeBOM();
    auto reopened = receipt->_BOM();
    ASSERT_NE(nullptr, reopened);
    EXPECT_NE(bom, reopened);

    auto attributes = receipt->_attributesOfItemAtPath("usr/bin/tool");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(5000u, attributes->find(platform::fs::kFileSize)->unsignedInteger());
    EXPECT_EQ(0755u, attributes->find(platform::fs::kFilePosixPermissions)->unsignedInteger());
    EXPECT_EQ(7u, attributes->find(platform::fs::kFileOwnerAccountID)->unsignedInteger());
    EXPECT_EQ(8u, attributes->find(platform::fs::kFileGroupOwnerAccountID)->unsignedInteger());
    EXPECT_EQ(std::nullopt, receipt->_attributesOfItemAtPath("usr/bin/absent"));

    // A BOM that cannot be opened is tried again, and logged again, on every call.
    SystemLogCapture log;
    auto broken = CWReceipt::initWithBOMPath(dir / "private/var/db/receipts/com.vendor.broken.bom");
    ASSERT_NE(nullptr, broken);
    EXPECT_EQ(nullptr, broken->_BOM());
    EXPECT_EQ(nullptr, broken->_directoryEnumerator());
    EXPECT_EQ(std::nullopt, broken->_attributesOfItemAtPath("usr"));
    EXPECT_EQ(3u, log.lines.size());
}
