// `crateworks receipts ROOT` on volumes made by the fixture builder.
#include <gtest/gtest.h>

#include "Platform/FileSystem.h"
#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

using testsupport::PackageDescription;
using testsupport::runCommand;
using testsupport::TempDir;
using testsupport::VolumeBuilder;

namespace {

const std::string kTool = FERRYHOLD_BINARY_DIR "/crateworks";

std::string receiptsOf(const std::string& arguments, int* status, const std::string& errors = "/dev/null") {
    return runCommand(kTool + " receipts " + arguments + " 2>" + errors, status);
}

}  // namespace

TEST(ReceiptsCommand, ListsEveryReceiptOfTheVolume) {
    TempDir dir;
    std::string root = dir / "volume";
    VolumeBuilder volume(root);
    volume.package("com.quarn.pkg.BSD")
        .version("10.6.0")
        .groups({"com.quarn.FindSystemFiles.pkg-group", "com.quarn.repair"})
        .installDate(*platform::Date::fromISO8601("2009-08-28T10:00:00Z"))
        .entry("/bin/ls");
    volume.package("com.vendor.app")
        .version(std::nullopt)
        .location(PackageDescription::Location::LibraryBOMs)
        .propertyList(PackageDescription::PropertyListForm::Missing);
    volume.bundle("Driver.pkg", "com.vendor.driver", "1.0.3");
    volume.build();

    int status = -1;
    std::string out = receiptsOf("'" + root + "'", &status);
    EXPECT_EQ(0, status);
    std::string appBOM = root + "/Library/Receipts/boms/com.vendor.app.bom";
    auto appDate = platform::fs::attributes(appBOM)->find(platform::fs::kFileCreationDate)->date()->iso8601();
    auto bundleDate = platform::fs::attributes(root + "/Library/Receipts/Driver.pkg")
                          ->find(platform::fs::kFileCreationDate)->date()->iso8601();
    EXPECT_EQ("com.quarn.pkg.BSD\t10.6.0\t2009-08-28T10:00:00Z\tcom.quarn.FindSystemFiles.pkg-group,com.quarn.repair\t" +
                  root + "/private/var/db/receipts/com.quarn.pkg.BSD.bom\n"
                  "com.vendor.app\t\t" + appDate + "\t\t" + appBOM + "\n"
                  "com.vendor.driver\t1.0.3\t" + bundleDate + "\t\t" + root +
                  "/Library/Receipts/Driver.pkg/Contents/Archive.bom\n",
              out);

    // A volume without receipts lists nothing and succeeds.
    EXPECT_EQ("", receiptsOf("'" + dir.path() + "'", &status));
    EXPECT_EQ(0, status);
}

TEST(ReceiptsCommand, WrongCallsAndRootsThatAreNotDirectories) {
    TempDir dir;
    int status = -1;
    std::string errors = dir / "errors";
    EXPECT_EQ("", receiptsOf("", &status, errors));
    EXPECT_EQ(2, status);
    EXPECT_NE(std::string::npos, testsupport::readFile(errors).find("Usage: crateworks receipts [OPTIONS] ROOT"));
    receiptsOf("a b", &status, errors);
    EXPECT_EQ(2, status);

    testsupport::writeFile(dir / "file", "not a volume");
    for (const std::string& root : {dir / "file", dir / "missing"}) {
        EXPECT_EQ("", receiptsOf("'" + root + "'", &status, errors));
        EXPECT_EQ(1, status);
        EXPECT_EQ("crateworks receipts: " + root + " is not a directory\n", testsupport::readFile(errors));
    }
}
