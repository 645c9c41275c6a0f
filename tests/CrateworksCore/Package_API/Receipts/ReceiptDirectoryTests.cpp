// Where receipts are looked for on a volume, which of them are secure, and which
// directory entries count as receipts.
#include <algorithm>
#include <map>
#include <gtest/gtest.h>

#include <filesystem>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "ReceiptTestHelpers.h"
#include "support/HostileFiles.h"
#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

using crateworks::CWReceipt;
using receipttests::identifiers;
using testsupport::PackageDescription;
using testsupport::TempDir;
using testsupport::VolumeBuilder;
using Location = PackageDescription::Location;

namespace {

std::vector<std::string> sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

}  // namespace

TEST(ReceiptDirectories, ScanOrderSecureFlagAndReceiptExtensions) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.quarn.pkg.BaseSystem");
    volume.package("com.quarn.pkg.Essentials");
    volume.package("com.vendor.library").location(Location::Library);
    volume.package("com.vendor.boms").location(Location::LibraryBOMs);
    volume.bundle("Old.pkg", "com.vendor.old", "2.1");
    volume.build();
    // Decoys: an upper-case extension, and bundles outside Library/Receipts.
    testsupport::writeFile(dir / "private/var/db/receipts/x.BOM", "BOMStore");
    testsupport::writeFile(dir / "private/var/db/receipts/Stray.pkg/Contents/Info.plist", "<plist/>");
    testsupport::writeFile(dir / "private/var/db/receipts/Stray.pkg/Contents/Archive.bom", "BOMStore");
    testsupport::writeFile(dir / "Library/Receipts/boms/Stray2.pkg/Contents/Info.plist", "<plist/>");
    testsupport::writeFile(dir / "Library/Receipts/boms/Stray2.pkg/Contents/Archive.bom", "BOMStore");

    auto receipts = CWReceipt::_findReceiptsOnVolumeAtPath(dir.path());
    auto ids = identifiers(receipts);
    ASSERT_EQ(5u, ids.size());
    // Directory order is the file system's within a directory, fixed across directories.
    EXPECT_EQ(sorted({"com.quarn.pkg.BaseSystem", "com.quarn.pkg.Essentials"}),
              sorted({ids[0], ids[1]}));
    EXPECT_EQ("com.vendor.library", ids[2]);
    EXPECT_EQ("com.vendor.boms", ids[3]);
    EXPECT_EQ("com.vendor.old", ids[4]);
    std::vector<bool> secure;
    for (const auto& receipt : receipts) secure.push_back(receipt->_isSecure());
    EXPECT_EQ((std::vector<bool>{true, true, false, false, false}), secure);
    EXPECT_EQ(dir / "private/var/db/receipts/" + ids[0] + ".bom", receipts[0]->bomPath());
    EXPECT_EQ(dir / "Library/Receipts/Old.pkg", receipts[4]->bundlePath());

    // The BOM paths alone, for the rule tool: the same files in the same order, also for
    // a receipt whose property list is missing.
    std::filesystem::remove(dir / "Library/Receipts/com.vendor.library.plist");
    std::vector<std::string> expected;
    for (const auto& receipt : CWReceipt::_findReceiptsOnVolumeAtPath(dir.path())) expected.push_back(receipt->bomPath());
    ASSERT_EQ(5u, expected.size());
    EXPECT_EQ(expected, CWReceipt::_bomPathsOnVolumeAtPath(dir.path()));
    EXPECT_TRUE(CWReceipt::_bomPathsOnVolumeAtPath(dir / "nowhere").empty());
}

// Anyone who can write to a volume's receipts folder can plant a FIFO named like a
// receipt, or put one in place of a receipt's property list. The scan must go on: such a
// BOM is no BOM, such a property list gives way to the minimal dictionary.
TEST(ReceiptDirectories, PlantedFIFOsAreRefusedWithoutBlocking) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.vendor.library").location(Location::Library);
    volume.build();
    std::string receipts = dir / CWReceipt::kLibraryReceiptsDirectory;
    ASSERT_TRUE(platform::fs::removeItem(receipts + "/com.vendor.library.plist"));
    ASSERT_TRUE(testsupport::makeHostileFile("fifo", receipts + "/com.vendor.library.plist"));
    ASSERT_TRUE(testsupport::makeHostileFile("fifo", receipts + "/com.evil.trap.bom"));
    ASSERT_TRUE(testsupport::makeHostileFile("fifo", receipts + "/com.evil.trap.plist"));
    ASSERT_TRUE(testsupport::makeHostileFile("socket", receipts + "/com.evil.socket.bom"));

    auto scanned = testsupport::resultWithin(20, [&] {
        auto found = CWReceipt::receiptsAtPath(receipts);
        std::map<std::string, std::shared_ptr<CWReceipt>> byIdentifier;
        for (const auto& receipt : found) byIdentifier[receipt->packageIdentifier().value_or("")] = receipt;
        auto library = byIdentifier["com.vendor.library"], trap = byIdentifier["com.evil.trap"];
        // The real BOM still opens behind a planted property list; the planted BOMs do not.
        return found.size() == 3 && library && library->_BOM() && trap && !trap->_BOM() &&
               byIdentifier["com.evil.socket"] && !byIdentifier["com.evil.socket"]->_BOM();
    });
    EXPECT_EQ(scanned, true);
}

TEST(ReceiptDirectories, OnlyTheProtectedDirectoryIsSecure) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.vendor.a").location(Location::Library);
    volume.package("com.vendor.b").location(Location::LibraryBOMs);
    volume.build();

    std::vector<size_t> secureIndexes{7};
    auto directories = CWReceipt::_searchDirectoriesForBOMReceiptsOnDestination(dir.path(), &secureIndexes);
    EXPECT_EQ((std::vector<std::string>{dir / "Library/Receipts", dir / "Library/Receipts/boms"}), directories);
    EXPECT_TRUE(secureIndexes.empty());
    for (const auto& receipt : CWReceipt::_findReceiptsOnVolumeAtPath(dir.path()))
        EXPECT_FALSE(receipt->_isSecure()) << receipt->description();

    platform::fs::createDirectories(dir / "private/var/db/receipts");
    directories = CWReceipt::_searchDirectoriesForBOMReceiptsOnDestination(dir.path(), &secureIndexes);
    EXPECT_EQ(3u, directories.size());
    EXPECT_EQ((std::vector<size_t>{0}), secureIndexes);

    // A receipts "directory" that is a file is not searched.
    TempDir other;
    testsupport::writeFile(other / "private/var/db/receipts", "not a directory");
    EXPECT_TRUE(CWReceipt::_searchDirectoriesForBOMReceiptsOnDestination(other.path(), &secureIndexes).empty());
    EXPECT_TRUE(secureIndexes.empty());
    EXPECT_TRUE(CWReceipt::_searchDirectoriesForBundleReceiptsOnDestination(other.path()).empty());
    EXPECT_TRUE(CWReceipt::_findReceiptsOnVolumeAtPath(other / "missing").empty());
}

TEST(ReceiptDirectories, WhereNewReceiptsGo) {
    TempDir destination, sandbox;
    EXPECT_EQ(destination / "Library/Receipts", CWReceipt::_receiptsDirectoryPathForDestination(destination.path()));
    EXPECT_EQ(sandbox / "Library/Receipts",
              CWReceipt::_receiptsDirectoryPathForSandboxRoot(sandbox.path(), destination.path()));

    platform::fs::createDirectories(destination / "private/var/db");
    EXPECT_EQ(destination / "private/var/db/receipts",
              CWReceipt::_receiptsDirectoryPathForDestination(destination.path()));
    // The destination's private/var/db decides for the sandbox too.
    EXPECT_EQ(sandbox / "private/var/db/receipts",
              CWReceipt::_receiptsDirectoryPathForSandboxRoot(sandbox.path(), destination.path()));

    TempDir plainDestination;
    platform::fs::createDirectories(sandbox / "private/var/db");
    EXPECT_EQ(sandbox / "private/var/db/receipts",
              CWReceipt::_receiptsDirectoryPathForSandboxRoot(sandbox.path(), plainDestination.path()));
    // Trailing separators do not double up.
    EXPECT_EQ(destination / "private/var/db/receipts",
              CWReceipt::_receiptsDirectoryPathForDestination(destination.path() + "/"));
}

TEST(ReceiptDirectories, BundleReceiptsInEveryLayout) {
    using Layout = PackageDescription::BundleLayout;
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.bundle("Contents.pkg", "com.vendor.contents", "1.2").directory("/Applications/Tool.app");
    volume.bundle("Resources.pkg", "com.vendor.resources", std::nullopt).layout(Layout::Resources);
    volume.bundle("Flat.pkg", "com.vendor.flat", "3").layout(Layout::Flat);
    volume.bundle("Nameless.pkg");
    volume.bundle("NoBOM.pkg", "com.vendor.nobom").missingBOM();
    volume.build();
    testsupport::writeFile(dir / "Library/Receipts/NotADirectory.pkg", "a file");

    auto receipts = CWReceipt::_findBundleReceiptsFromDirectory(dir / "Library/Receipts");
    std::map<std::string, std::shared_ptr<CWReceipt>> byName;
    for (const auto& receipt : receipts) byName[platform::path::lastComponent(receipt->bundlePath())] = receipt;
    ASSERT_EQ(4u, receipts.size());
    ASSERT_EQ((std::vector<std::string>{"Contents.pkg", "Flat.pkg", "Nameless.pkg", "Resources.pkg"}),
              [&] {
                  std::vector<std::string> names;
                  for (const auto& [name, receipt] : byName) names.push_back(name);
                  return names;
              }());

    auto contents = byName["Contents.pkg"];
    EXPECT_EQ("com.vendor.contents", contents->packageIdentifier());
    EXPECT_EQ("1.2", contents->packageVersion());
    EXPECT_EQ(dir / "Library/Receipts/Contents.pkg/Contents/Archive.bom", contents->bomPath());
    EXPECT_EQ((std::vector<std::string>{dir / "Library/Receipts/Contents.pkg"}), contents->receiptStoragePaths());
    auto attributes = platform::fs::attributes(dir / "Library/Receipts/Contents.pkg");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->find(platform::fs::kFileCreationDate)->date(), contents->installDate());

    EXPECT_EQ(std::nullopt, byName["Resources.pkg"]->packageVersion());
    EXPECT_EQ(dir / "Library/Receipts/Resources.pkg/Archive.bom", byName["Resources.pkg"]->bomPath());
    EXPECT_EQ(dir / "Library/Receipts/Archive.bom", byName["Flat.pkg"]->bomPath());
    EXPECT_EQ("Nameless", byName["Nameless.pkg"]->packageIdentifier());
    EXPECT_FALSE(byName["Nameless.pkg"]->_isSecure());

    EXPECT_EQ(nullptr, CWReceipt::initWithBundlePkgPath(dir / "Library/Receipts/NoBOM.pkg"));
    EXPECT_EQ(nullptr, CWReceipt::initWithBundlePkgPath(dir / "Library/Receipts/NotADirectory.pkg"));
    EXPECT_EQ(nullptr, CWReceipt::initWithBundlePkgPath(dir / "Library/Receipts/Missing.pkg"));
}

// Any directory opens as a bundle to be read: without an information dictionary the
// identifier comes from the directory's name and the layout from its folders.
TEST(ReceiptDirectories, BundleReceiptsWithoutAnInformationDictionary) {
    using Layout = PackageDescription::BundleLayout;
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.bundle("NoInfo.pkg").withoutInfoDictionary().file("/Applications/Old.app/Contents/MacOS/Old", 10);
    volume.bundle("Plain.pkg").layout(Layout::Resources).withoutInfoDictionary().directory("/opt/plain");
    volume.build();
    // A Contents folder without its Archive.bom is no receipt, whatever else lies around.
    testsupport::writeFile(dir / "Library/Receipts/Hollow.pkg/Contents/readme", "");
    testsupport::writeFile(dir / "Library/Receipts/Hollow.pkg/Archive.bom", "");

    std::map<std::string, std::shared_ptr<CWReceipt>> byName;
    for (const auto& receipt : CWReceipt::_findBundleReceiptsFromDirectory(dir / "Library/Receipts"))
        byName[platform::path::lastComponent(receipt->bundlePath())] = receipt;
    ASSERT_EQ(2u, byName.size());

    auto noInfo = byName["NoInfo.pkg"];
    ASSERT_TRUE(noInfo);
    EXPECT_EQ("NoInfo", noInfo->packageIdentifier());
    EXPECT_EQ(std::nullopt, noInfo->packageVersion());
    EXPECT_EQ(dir / "Library/Receipts/NoInfo.pkg/Contents/Archive.bom", noInfo->bomPath());
    auto attributes = platform::fs::attributes(dir / "Library/Receipts/NoInfo.pkg");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->find(platform::fs::kFileCreationDate)->date(), noInfo->installDate());
    EXPECT_TRUE(noInfo->_attributesOfItemAtPath("Applications/Old.app/Contents/MacOS/Old"));

    auto plain = byName["Plain.pkg"];
    ASSERT_TRUE(plain);
    EXPECT_EQ("Plain", plain->packageIdentifier());
    EXPECT_EQ(dir / "Library/Receipts/Plain.pkg/Archive.bom", plain->bomPath());
    EXPECT_TRUE(plain->_attributesOfItemAtPath("opt/plain"));

    // Flat, the resources are the directory itself, so its BOM is the one beside it.
    TempDir flat;
    testsupport::writeFile(flat / "Bare.pkg/readme", "");
    testsupport::writeFile(flat / "Archive.bom", "");
    auto bare = CWReceipt::initWithBundlePkgPath(flat / "Bare.pkg");
    ASSERT_TRUE(bare);
    EXPECT_EQ("Bare", bare->packageIdentifier());
    EXPECT_EQ(flat / "Archive.bom", bare->bomPath());
}

TEST(ReceiptDirectories, ReceiptsAtPathListsBOMReceiptsBeforeBundles) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.bundle("A.pkg", "com.vendor.a-bundle");
    volume.package("com.vendor.z-bom").location(Location::Library);
    volume.bundle("B.pkg", "com.vendor.b-bundle");
    volume.build();

    auto ids = identifiers(CWReceipt::receiptsAtPath(dir / "Library/Receipts"));
    ASSERT_EQ(3u, ids.size());
    EXPECT_EQ("com.vendor.z-bom", ids[0]);
    EXPECT_EQ(sorted({"com.vendor.a-bundle", "com.vendor.b-bundle"}), sorted({ids[1], ids[2]}));
    EXPECT_TRUE(CWReceipt::receiptsAtPath(dir / "nowhere").empty());
}

TEST(ReceiptPaths, PropertyListBesideTheBOMAndStorageOrder) {
    EXPECT_EQ("/v/private/var/db/receipts/com.a.b.plist",
              CWReceipt::_receiptDictionaryPathFromBOMPath("/v/private/var/db/receipts/com.a.b.bom"));
    EXPECT_EQ("/r/x.plist", CWReceipt::_receiptDictionaryPathFromBOMPath("/r/x.bom"));

    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.package("com.vendor.noplist").propertyList(PackageDescription::PropertyListForm::Missing);
    volume.build();
    auto receipt = CWReceipt::initWithBOMPath(dir / "private/var/db/receipts/com.vendor.noplist.bom");
    ASSERT_NE(nullptr, receipt);
    EXPECT_FALSE(platform::fs::exists(dir / "private/var/db/receipts/com.vendor.noplist.plist"));
    EXPECT_EQ((std::vector<std::string>{dir / "private/var/db/receipts/com.vendor.noplist.plist",
                                        dir / "private/var/db/receipts/com.vendor.noplist.bom"}),
              receipt->receiptStoragePaths());
    EXPECT_EQ("CWReceipt <com.vendor.noplist>", receipt->description());
}
