#include "FindSystemFilesTestSupport.h"

#include <filesystem>

using namespace findtests;
using testsupport::VolumeBuilder;
using Paths = std::vector<std::string>;

namespace {
Paths identifiers(const FHFindSystemFiles::ReceiptList& receipts) {
    Paths ids;
    for (const auto& r : receipts) ids.push_back(r->packageIdentifier().value_or("?"));
    std::sort(ids.begin(), ids.end());
    return ids;
}
}  // namespace

TEST_F(FinderTest, GroupMembersFirstThenPatternsAndPrintersOnlyWithOthers) {
    bundle.setSystemReceiptPatterns({"com.quarn.pkg.Base*", "com.quarn.pkg.BS?"});
    bundle.setPrinterPackages({"com.quarn.pkg.Printer1"});
    {
        VolumeBuilder volume(dir / "grouped");
        volume.package("com.quarn.pkg.BaseSystem").groups({kSystemGroup});
        volume.package("com.quarn.pkg.BSD");  // matches a pattern, but the group wins
        volume.package("com.quarn.pkg.Printer1");
        volume.package("com.quarn.pkg.Printer2").groups({"com.quarn.TamarindPrinters.pkg-group"});
        volume.build();
        EXPECT_EQ((Paths{"com.quarn.pkg.BaseSystem", "com.quarn.pkg.Printer1", "com.quarn.pkg.Printer2"}),
                  identifiers(FHFindSystemFiles::_systemReceiptsOnVolumeAtPath(volume.root())));
    }
    crateworks::CWReceipt::_clearCache();
    {
        VolumeBuilder volume(dir / "patterns");
        volume.package("com.quarn.pkg.BaseSystemResources");
        volume.package("com.quarn.pkg.BSD");
        volume.package("com.quarn.pkg.BSDX");  // "?" is one character
        volume.package("com.quarn.pkg.Printer1");
        volume.build();
        EXPECT_EQ((Paths{"com.quarn.pkg.BSD", "com.quarn.pkg.BaseSystemResources", "com.quarn.pkg.Printer1"}),
                  identifiers(FHFindSystemFiles::_systemReceiptsOnVolumeAtPath(volume.root())));
    }
    crateworks::CWReceipt::_clearCache();
    {
        VolumeBuilder volume(dir / "printers");
        volume.package("com.quarn.pkg.Printer1");
        volume.build();
        EXPECT_TRUE(FHFindSystemFiles::_systemReceiptsOnVolumeAtPath(volume.root()).empty());
        EXPECT_TRUE(logged("no system packages found"));
    }
}

TEST_F(FinderTest, SanityNeedsBaseSystemPrefixAndExactEssentialsAndBSD) {
    VolumeBuilder volume(dir / "v");
    volume.package("com.quarn.pkg.BaseSystemResources");
    volume.package("com.quarn.pkg.EssentialsX");
    volume.package("com.quarn.pkg.BSD");
    volume.package("com.quarn.pkg.Essentials");
    volume.build();
    auto all = crateworks::CWReceipt::receiptsOnVolumeAtPath(volume.root());
    EXPECT_TRUE(FHFindSystemFiles::_systemReceiptsSetIsSane(all));
    std::erase_if(all, [](const auto& r) { return r->packageIdentifier() == "com.quarn.pkg.Essentials"; });
    EXPECT_FALSE(FHFindSystemFiles::_systemReceiptsSetIsSane(all));
    EXPECT_TRUE(logged("System Receipts : BaseSystem:1 Essentials:0 BSD:1"));
}

TEST_F(FinderTest, LatestReceiptDateNeedsEveryDate) {
    VolumeBuilder volume(dir / "v");
    volume.package("com.quarn.pkg.BaseSystem").groups({kSystemGroup}).installDate(platform::Date{1000});
    volume.package("com.quarn.pkg.Essentials").groups({kSystemGroup}).installDate(platform::Date{3000});
    volume.package("com.quarn.pkg.BSD").groups({kSystemGroup}).installDate(platform::Date{2000});
    volume.build();
    auto finder = FHFindSystemFiles::initWithRootPath(volume.root());
    ASSERT_TRUE(finder);
    EXPECT_EQ(platform::Date{3000}, finder->_latestSystemReceiptDate());
}

TEST_F(FinderTest, OldStyleSystemReceiptsAreCutByTheRootLength) {
    VolumeBuilder volume(dir / "v");
    volume.package("com.quarn.pkg.Old").groups({kSystemGroup}).location(testsupport::PackageDescription::Location::Library);
    volume.package("com.vendor.Other").location(testsupport::PackageDescription::Location::Library);
    saneSystem(volume);
    volume.build();
    auto finder = FHFindSystemFiles::initWithRootPath(volume.root());
    ASSERT_TRUE(finder);
    EXPECT_EQ((Paths{"/Library/Receipts/com.quarn.pkg.Old.plist", "/Library/Receipts/com.quarn.pkg.Old.bom",
                     "/Library/Receipts/BSD.pkg"}),
              finder->oldSystemReceiptsPaths(volume.root()));
    // Paths that do not begin with the root given are dropped.
    EXPECT_EQ((Paths{"/Library/Receipts/BSD.pkg"}), finder->oldSystemReceiptsPaths(volume.root() + "/nowhere"));
}

TEST_F(FinderTest, PreviousSystemsWithAndWithoutUserData) {
    VolumeBuilder volume(dir / "v");
    saneSystem(volume);
    volume.file("/Previous Systems/One/Users/alice/.DS_Store", 10);
    volume.file("/Previous Systems/One/Users/alice/.localized", 0);
    volume.file("/Previous Systems/One/Users/toplevel.txt", 10);  // depth 1: a home folder's level
    volume.file("/Previous Systems/One/System/x", 10);
    volume.build();
    auto finder = FHFindSystemFiles::initWithRootPath(volume.root());
    ASSERT_TRUE(finder);
    size_t prunes = finder->prunePaths().size();
    EXPECT_FALSE(finder->_previousSystemsContainsUserData());
    EXPECT_EQ(prunes, finder->prunePaths().size());

    testsupport::writeFile(volume.pathOf("/Previous Systems/One/Users/alice/Documents/a.txt"), "data");
    testsupport::writeFile(volume.pathOf("/Previous Systems.localized/notes.txt"), "data");
    testsupport::writeFile(volume.pathOf("/Previous Systems.localized/.DS_Store"), "");
    EXPECT_TRUE(finder->_previousSystemsContainsUserData());
    Paths added(finder->prunePaths().begin() + long(prunes), finder->prunePaths().end());
    std::sort(added.begin(), added.end());
    // A directory adds its Users folder volume-relative; a stray file adds its absolute path.
    EXPECT_EQ((Paths{"/Previous Systems/One/Users", volume.pathOf("/Previous Systems.localized/notes.txt")}), added);
}

TEST_F(FinderTest, PackageGroupCoalescingUsesPlainPrefixesAndCutsTheRoot) {
    VolumeBuilder volume(dir / "v");
    saneSystem(volume);
    volume.package("com.quarn.pkg.Printers")
        .groups({"com.quarn.TamarindPrinters.pkg-group"})
        .entry("/Library/Printers/Gen/filter.bin")
        .entry("/Library/PrintersX/other.bin")
        .entry("/usr/libexec/cups/backend/usb.bin");
    volume.build();
    auto finder = FHFindSystemFiles::initWithRootPath(volume.root());
    ASSERT_TRUE(finder);
    Paths found = finder->coalescedPathsForPackageGroup("com.quarn.TamarindPrinters.pkg-group",
                                                        {"/Library/Printers", "/usr/libexec/cups/backend"}, true);
    EXPECT_EQ((Paths{"/Library/Printers/Gen", "/Library/PrintersX", "/usr/libexec/cups/backend/usb.bin",
                     "/private/var/db/receipts/com.quarn.pkg.Printers.plist",
                     "/private/var/db/receipts/com.quarn.pkg.Printers.bom"}),
              found);
    EXPECT_EQ(3u, finder->coalescedPathsForPackageGroup("com.quarn.TamarindPrinters.pkg-group",
                                                        {"/Library/Printers", "/usr/libexec/cups/backend"}, false)
                      .size());
}
