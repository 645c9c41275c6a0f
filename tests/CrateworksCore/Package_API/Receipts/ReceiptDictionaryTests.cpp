// The receipt property list: the minimal dictionary, both property-list forms, the
// setters, and the SHA-1 and ACL records.
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/Acl.h"
#include "Platform/Digest.h"
#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

using crateworks::CWReceipt;
using testsupport::PackageDescription;
using testsupport::TempDir;
using testsupport::VolumeBuilder;
using Form = PackageDescription::PropertyListForm;

namespace {

std::shared_ptr<CWReceipt> secureReceipt(const TempDir& dir, const std::string& identifier) {
    return CWReceipt::initWithBOMPath(dir / ("private/var/db/receipts/" + identifier + ".bom"));
}

std::optional<platform::Date> fileCreationDate(const std::string& path) {
    auto attributes = platform::fs::attributes(path);
    return attributes ? attributes->find(platform::fs::kFileCreationDate)->date() : std::nullopt;
}

}  // namespace

TEST(ReceiptDictionary, MinimalDictionaryWhenThePropertyListCannotBeRead) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    auto date = *platform::Date::fromISO8601("2009-08-28T10:00:00Z");
    volume.package("missing").version("9").groups({"g"}).installDate(date).propertyList(Form::Missing);
    volume.package("damaged").version("9").groups({"g"}).installDate(date).propertyList(Form::Damaged);
    volume.package("array").version("9").installDate(date);
    volume.build();
    platform::plist::writeXMLFile(platform::Array{"not", "a", "dictionary"},
                                  dir / "private/var/db/receipts/array.plist");

    for (const char* identifier : {"missing", "damaged", "array"}) {
        SCOPED_TRACE(identifier);
        auto receipt = secureReceipt(dir, identifier);
        ASSERT_NE(nullptr, receipt);
        EXPECT_EQ(identifier, receipt->packageIdentifier());
        EXPECT_EQ(std::nullopt, receipt->packageVersion());
        EXPECT_EQ(std::nullopt, receipt->packageGroups());
        EXPECT_EQ(std::nullopt, receipt->installProcessName());
        // The date comes from the BOM file, not from the lost property list.
        EXPECT_NE(date, receipt->installDate());
        EXPECT_EQ(fileCreationDate(receipt->bomPath()), receipt->installDate());
    }
    // Only the base name's last extension goes: a.b.bom is identifier "a.b".
    testsupport::writeFile(dir / "r/a.b.bom", "whatever");
    EXPECT_EQ("a.b", CWReceipt::initWithBOMPath(dir / "r/a.b.bom")->packageIdentifier());
    EXPECT_EQ(nullptr, CWReceipt::initWithBOMPath(dir / "r/none.bom"));
}

TEST(ReceiptDictionary, BinaryAndXMLPropertyListsReadAlike) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    auto date = *platform::Date::fromISO8601("2011-07-20T08:30:00Z");
    for (auto [identifier, form] : {std::pair{"xml", Form::XML}, std::pair{"binary", Form::Binary}})
        volume.package(identifier)
            .version("10.7.0.1.1.1309646465")
            .groups({"com.quarn.FindSystemFiles.pkg-group", "com.quarn.other"})
            .installDate(date)
            .packageFileName("BaseSystem.pkg")
            .propertyList(form);
    volume.build();

    EXPECT_EQ("bplist00", testsupport::readFile(dir / "private/var/db/receipts/binary.plist").substr(0, 8));
    EXPECT_EQ("<?xml", testsupport::readFile(dir / "private/var/db/receipts/xml.plist").substr(0, 5));
    for (const char* identifier : {"xml", "binary"}) {
        SCOPED_TRACE(identifier);
        auto receipt = secureReceipt(dir, identifier);
        ASSERT_NE(nullptr, receipt);
        EXPECT_EQ(identifier, receipt->packageIdentifier());
        EXPECT_EQ("10.7.0.1.1.1309646465", receipt->packageVersion());
        EXPECT_EQ(date, receipt->installDate());
        EXPECT_EQ("/", receipt->installPrefixPath());
        EXPECT_EQ("BaseSystem.pkg", receipt->_packageName());
        EXPECT_EQ((std::vector<std::string>{"com.quarn.FindSystemFiles.pkg-group", "com.quarn.other"}),
                  receipt->packageGroups());
    }
}

TEST(ReceiptDictionary, SettersStoreAndRemoveKeys) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.vendor.set").groups({"one"}).packageFileName("Set.pkg");
    volume.build();
    auto receipt = secureReceipt(dir, "com.vendor.set");
    ASSERT_NE(nullptr, receipt);

    receipt->_setPackageGroups({"a", "b"});
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), receipt->packageGroups());
    receipt->_setPackageGroups({});
    EXPECT_EQ(std::nullopt, receipt->packageGroups());

    receipt->_setPackageName(std::nullopt);
    EXPECT_EQ(std::nullopt, receipt->_packageName());
    receipt->_setInstallProcessName("installd");
    receipt->_setInstallPrefixPath("/opt");
    EXPECT_EQ("installd", receipt->installProcessName());
    EXPECT_EQ("/opt", receipt->installPrefixPath());

    receipt->_setSecure(false);
    EXPECT_FALSE(receipt->_isSecure());
    receipt->_setSecure(true);
    EXPECT_TRUE(receipt->_isSecure());
}

TEST(ReceiptChecksums, SHA1RecordsMatchOpenSSL) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.file("/empty", 0, {.text = ""});
    volume.file("/small", 3, {.text = "abc"});
    volume.file("/large", 300000, {.fill = true});
    volume.package("com.vendor.sums");
    volume.build();
    auto receipt = secureReceipt(dir, "com.vendor.sums");
    ASSERT_NE(nullptr, receipt);

    for (const char* name : {"empty", "small", "large"}) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(receipt->_updateSHA1ChecksumOfItemAtPath(name, dir / name));
        auto recorded = receipt->_SHA1ChecksumDataOfItemAtPath(name);
        ASSERT_TRUE(recorded);
        ASSERT_EQ(20u, recorded->size());
        std::string expected = testsupport::runCommand("openssl dgst -sha1 -r '" + dir / name + "' | cut -c1-40");
        EXPECT_EQ(expected, platform::digest::hex(*recorded) + "\n");
    }
    // The file path is standardized first.
    receipt->_updateSHA1ChecksumOfItemAtPath("again", dir.path() + "//x/../small");
    EXPECT_EQ(receipt->_SHA1ChecksumDataOfItemAtPath("small"), receipt->_SHA1ChecksumDataOfItemAtPath("again"));
    // An unreadable file still answers true and records the digest of nothing.
    EXPECT_TRUE(receipt->_updateSHA1ChecksumOfItemAtPath("gone", dir / "gone"));
    EXPECT_EQ(receipt->_SHA1ChecksumDataOfItemAtPath("empty"), receipt->_SHA1ChecksumDataOfItemAtPath("gone"));

    receipt->_setSHA1ChecksumData(std::nullopt, "small");
    EXPECT_EQ(std::nullopt, receipt->_SHA1ChecksumDataOfItemAtPath("small"));
    EXPECT_TRUE(receipt->_SHA1ChecksumDataOfItemAtPath("large"));
    EXPECT_EQ(std::nullopt, receipt->_SHA1ChecksumDataOfItemAtPath("never"));
}

TEST(ReceiptACLs, OnlyExtendedACLsAreRecorded) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.file("/shared", 10, {.acl = "user::rw-,user:1234:r--,group::r--,mask::r--,other::---"});
    volume.file("/plain", 10, {.mode = 0640});
    volume.symlink("/link", "shared");
    volume.package("com.vendor.acls");
    volume.build();
    auto receipt = secureReceipt(dir, "com.vendor.acls");
    ASSERT_NE(nullptr, receipt);

    EXPECT_TRUE(receipt->_updateACLsOfItemAtPath("shared", dir / "shared"));
    EXPECT_TRUE(receipt->_updateACLsOfItemAtPath("plain", dir / "plain"));
    EXPECT_TRUE(receipt->_updateACLsOfItemAtPath("link", dir / "link"));
    EXPECT_TRUE(receipt->_updateACLsOfItemAtPath("missing", dir / "missing"));
    auto shared = receipt->_ACLStringOfItemAtPath("shared");
    ASSERT_TRUE(shared);
    EXPECT_NE(std::string::npos, shared->find("user:1234:r--")) << *shared;
    EXPECT_EQ(platform::acl::extendedACLText(dir / "shared"), shared);
    EXPECT_EQ(std::nullopt, receipt->_ACLStringOfItemAtPath("plain"));
    EXPECT_EQ(std::nullopt, receipt->_ACLStringOfItemAtPath("link"));
    EXPECT_EQ(std::nullopt, receipt->_ACLStringOfItemAtPath("missing"));

    receipt->_setACLString("user::rwx,group::---,other::---", "manual");
    EXPECT_EQ("user::rwx,group::---,other::---", receipt->_ACLStringOfItemAtPath("manual"));
    receipt->_setACLString(std::nullopt, "shared");
    EXPECT_EQ(std::nullopt, receipt->_ACLStringOfItemAtPath("shared"));
    EXPECT_TRUE(receipt->_ACLStringOfItemAtPath("manual"));
}
