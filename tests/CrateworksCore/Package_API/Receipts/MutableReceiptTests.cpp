// Writing and removing receipts with CWMutableReceipt.
#include <cmath>
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "CrateworksCore/Package_API/Receipts/CWMutableReceipt.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/ProcessInfo.h"
#include "ReceiptTestHelpers.h"
#include "support/TempDir.h"

using crateworks::CWReceipt;
using crateworks::CWMutableReceipt;
using crateworks::CWMutableBOM;
using testsupport::TempDir;

namespace {

// A small BOM listing usr, usr/bin and usr/bin/tool.
platform::Data smallBOM(const TempDir& dir) {
    std::string file = dir / "small.bom";
    auto bom = CWMutableBOM::initForWritingToPath(file);
    EXPECT_TRUE(bom->addBomPath("usr/bin/tool", platform::fs::kFileTypeRegular));
    EXPECT_TRUE(bom->commitData());
    auto bytes = platform::fs::readFile(file);
    platform::fs::removeItem(file);
    return bytes.value_or(platform::Data{});
}

// The property list's keys and selected values as Python's plistlib reads them.
std::string plistlibSummary(const std::string& file) {
    return testsupport::runCommand(
        "python3 -c 'import plistlib,sys; d=plistlib.load(open(sys.argv[1],\"rb\")); "
        "print(sorted(d)); print(d[\"PackageIdentifier\"], d.get(\"PackageVersion\"), d[\"InstallPrefixPath\"], "
        "d[\"InstallProcessName\"], type(d[\"InstallDate\"]).__name__, d.get(\"PackageGroups\"))' '" +
        file + "'");
}

}  // namespace

TEST(MutableReceipt, WritesTheBOMAndAnXMLPropertyList) {
    TempDir dir;
    platform::Data bom = smallBOM(dir);
    auto receipt = CWMutableReceipt::initWithPackageIdentifier("com.vendor.tool", "4.2", bom);
    receipt->_setPackageGroups({"com.vendor.group"});
    EXPECT_EQ("CWMutableReceipt <com.vendor.tool>", receipt->description());
    auto now = platform::Date::now().secondsSince1970;
    EXPECT_NEAR(now, receipt->installDate()->secondsSince1970, 60);

    platform::Error error;
    ASSERT_TRUE(receipt->writeToDirectory(dir.path() + "/new//receipts/", &error)) << error.description();
    std::string written = dir / "new/receipts";
    EXPECT_EQ(std::string(bom.begin(), bom.end()), testsupport::readFile(written + "/com.vendor.tool.bom"));
    EXPECT_EQ("<?xml", testsupport::readFile(written + "/com.vendor.tool.plist").substr(0, 5));
    EXPECT_EQ("['InstallDate', 'InstallPrefixPath', 'InstallProcessName', 'PackageGroups', 'PackageIdentifier', "
              "'PackageVersion']\ncom.vendor.tool 4.2 / " +
                  platform::process::processName() + " datetime ['com.vendor.group']\n",
              plistlibSummary(written + "/com.vendor.tool.plist"));

    // Read back, the receipt has the same values and its BOM lists the entries.
    auto back = CWReceipt::initWithBOMPath(written + "/com.vendor.tool.bom");
    ASSERT_NE(nullptr, back);
    EXPECT_EQ("4.2", back->packageVersion());
    // XML property lists keep whole seconds.
    EXPECT_EQ(std::floor(receipt->installDate()->secondsSince1970), back->installDate()->secondsSince1970);
    EXPECT_EQ((std::vector<std::string>{"usr", "usr/bin", "usr/bin/tool"}), receipttests::bomPaths(*back));
    EXPECT_EQ(receipttests::bomPaths(*receipt), receipttests::bomPaths(*back)) << "opened from memory";
}

TEST(MutableReceipt, WithoutAVersionOnlyTheBOMIsWritten) {
    TempDir dir;
    auto receipt = CWMutableReceipt::initWithPackageIdentifier("com.vendor.noversion", std::nullopt, smallBOM(dir));
    EXPECT_EQ(std::nullopt, receipt->packageVersion());
    ASSERT_TRUE(receipt->writeToDirectory(dir.path()));
    EXPECT_TRUE(platform::fs::exists(dir / "com.vendor.noversion.bom"));
    EXPECT_FALSE(platform::fs::exists(dir / "com.vendor.noversion.plist"));
    // Read back, it is a receipt with the minimal dictionary.
    auto back = CWReceipt::initWithBOMPath(dir / "com.vendor.noversion.bom");
    ASSERT_NE(nullptr, back);
    EXPECT_EQ("com.vendor.noversion", back->packageIdentifier());
    EXPECT_EQ(std::nullopt, back->installProcessName());
}

TEST(MutableReceipt, WithoutBOMBytesNothingIsWritten) {
    TempDir dir;
    for (auto bytes : {std::optional<platform::Data>{}, std::optional<platform::Data>{platform::Data{}}}) {
        auto receipt = CWMutableReceipt::initWithPackageIdentifier("com.vendor.empty", "1", bytes);
        EXPECT_TRUE(receipt->writeToDirectory(dir / "never"));
        EXPECT_FALSE(platform::fs::exists(dir / "never"));
    }
}

TEST(MutableReceipt, WriteFailuresReportTheFileError) {
    TempDir dir;
    testsupport::writeFile(dir / "file", "in the way");
    auto receipt = CWMutableReceipt::initWithPackageIdentifier("com.vendor.fail", "1", smallBOM(dir));
    platform::Error error;
    EXPECT_FALSE(receipt->writeToDirectory(dir / "file/receipts", &error));
    EXPECT_EQ(platform::kPOSIXErrorDomain, error.domain);
    EXPECT_NE(0, error.code);

    // The property list fails after the BOM was written: the BOM stays.
    platform::fs::createDirectories(dir / "r/com.vendor.fail.plist");
    testsupport::writeFile(dir / "r/com.vendor.fail.plist/blocker", "x");
    EXPECT_FALSE(receipt->writeToDirectory(dir / "r", &error));
    EXPECT_TRUE(platform::fs::exists(dir / "r/com.vendor.fail.bom"));
}

TEST(MutableReceipt, RemovalDeletesThePropertyListOnlyAfterTheBOM) {
    TempDir dir;
    auto receipt = CWMutableReceipt::initWithPackageIdentifier("com.vendor.gone", "1", smallBOM(dir));
    ASSERT_TRUE(receipt->writeToDirectory(dir.path()));
    platform::Error error;
    EXPECT_TRUE(receipt->_removeReceiptInDirectory(dir.path(), &error)) << error.description();
    EXPECT_FALSE(platform::fs::existsNoFollow(dir / "com.vendor.gone.bom"));
    EXPECT_FALSE(platform::fs::existsNoFollow(dir / "com.vendor.gone.plist"));

    // No BOM: the property list is left alone and the answer is false.
    testsupport::writeFile(dir / "com.vendor.gone.plist", "kept");
    EXPECT_FALSE(receipt->_removeReceiptInDirectory(dir.path(), &error));
    EXPECT_EQ(ENOENT, error.code);
    EXPECT_TRUE(platform::fs::exists(dir / "com.vendor.gone.plist"));

    // A BOM without property list: the BOM goes, the answer is the second deletion's.
    platform::fs::removeItem(dir / "com.vendor.gone.plist");
    ASSERT_TRUE(receipt->writeToDirectory(dir.path()));
    platform::fs::removeItem(dir / "com.vendor.gone.plist");
    EXPECT_FALSE(receipt->_removeReceiptInDirectory(dir.path(), &error));
    EXPECT_FALSE(platform::fs::existsNoFollow(dir / "com.vendor.gone.bom"));
}
