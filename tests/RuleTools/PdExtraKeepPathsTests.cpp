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
