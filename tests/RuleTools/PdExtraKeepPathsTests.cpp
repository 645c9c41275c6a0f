// The rule-data tool, run as the analysis runs it: with the volume root as its argument.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

using namespace testsupport;

namespace {
std::string runTool(const std::string& root, int* status) {
    std::string tool = std::string(FERRYHOLD_TEST_FRAMEWORK_DIR) + "/Resources/MigrationData/ConfMigrator/pdExtraKeepPaths";
    return runCommand("'" + tool + "' '" + root + "'", status);
}
}  // namespace

TEST(PdExtraKeepPaths, ReportsChangedConfigurationFilesOnly) {
    TempDir dir;
    VolumeBuilder volume(dir / "v");
    volume.package("com.quarn.pkg.BSD")
        .file("/private/etc/edited.conf", 0, {.text = "original\n"})
        .file("/private/etc/untouched.conf", 0, {.text = "same\n"})
        .file("/private/etc/chmodded.conf", 0, {.mode = 0644, .text = "same\n"})
        .file("/Library/Preferences/gone.plist", 0, {.text = "x"})
        .file("/Library/Preferences/edited.plist", 0, {.text = "<plist/>"})
        .file("/usr/share/edited-but-not-configuration", 0, {.text = "original\n"});
    volume.build();
    writeFile(volume.pathOf("/private/etc/edited.conf"), "changed by the administrator\n");
    writeFile(volume.pathOf("/Library/Preferences/edited.plist"), "<plist>changed</plist>");
    writeFile(volume.pathOf("/usr/share/edited-but-not-configuration"), "changed\n");
    chmod(volume.pathOf("/private/etc/chmodded.conf").c_str(), 0600);
    unlink(volume.pathOf("/Library/Preferences/gone.plist").c_str());

    int status = -1;
    EXPECT_EQ("/Library/Preferences/edited.plist\n/private/etc/chmodded.conf\n/private/etc/edited.conf\n",
              runTool(volume.root(), &status));
    EXPECT_EQ(0, status);
}

TEST(PdExtraKeepPaths, VolumeWithoutReceiptsPrintsNothing) {
    TempDir dir;
    int status = -1;
    EXPECT_EQ("", runTool(dir.path(), &status));
    EXPECT_EQ(0, status);
}

// A BOM damaged inside a configuration folder is left out whole, files of its other
// folder included: what its walk reported before the damage is not believed. The other
// receipts still count.
TEST(PdExtraKeepPaths, ABOMDamagedInsideAConfigurationFolderIsLeftOutWhole) {
    TempDir dir;
    VolumeBuilder volume(dir / "v");
    volume.package("com.quarn.pkg.BSD").file("/private/etc/kept.conf", 0, {.text = "original\n"});
    volume.package("com.quarn.pkg.Damaged")
        .file("/Library/Preferences/damaged-pkg.plist", 0, {.text = "<plist/>"})
        .file("/private/etc/zz-broken.conf", 0, {.text = "original\n"});
    volume.build();
    for (const char* file : {"/private/etc/kept.conf", "/private/etc/zz-broken.conf"})
        writeFile(volume.pathOf(file), "changed\n");
    writeFile(volume.pathOf("/Library/Preferences/damaged-pkg.plist"), "<plist>changed</plist>");

    int status = -1;
    EXPECT_EQ("/Library/Preferences/damaged-pkg.plist\n/private/etc/kept.conf\n/private/etc/zz-broken.conf\n",
              runTool(volume.root(), &status));
    // A separator inside a stored name is damage that a walk of /private/etc reaches.
    std::string bom = volume.pathOf("/private/var/db/receipts/com.quarn.pkg.Damaged.bom");
    std::string bytes = readFile(bom);
    size_t at = bytes.find(std::string("zz-broken.conf\0", 15));
    ASSERT_NE(std::string::npos, at);
    bytes[at + 2] = '/';
    writeFile(bom, bytes);
    EXPECT_EQ("/private/etc/kept.conf\n", runTool(volume.root(), &status));
    EXPECT_EQ(0, status);
}
