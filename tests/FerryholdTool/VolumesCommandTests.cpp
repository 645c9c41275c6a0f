// ferryhold volumes end to end on the disk picker's fixture machine: the XML read back
// by Python's plistlib, the JSON by Python's json, and the two compared.
#include <gtest/gtest.h>

#include "support/DiskPickerFixture.h"
#include "support/FrameworkFixture.h"
#include "support/TempDir.h"

using namespace testsupport;

namespace {

// Prints one line per volume, "DISK|DEVICE|DISKSIZE>NAME|MOUNT|DEVICE|FS|RO|VERSION|REAPABLE|ELIGIBLE|MESSAGE",
// with "-" for a key that is absent, after checking the types of every value; then the
// document's canonical JSON, so that the two forms can be compared whole.
constexpr const char* kReader = R"(
import json, plistlib, sys
doc = plistlib.load(sys.stdin.buffer) if sys.argv[1] == 'xml' else json.load(sys.stdin)
assert set(doc) == {'Disks'}, doc.keys()
for disk in doc['Disks']:
    assert set(disk) == {'Name', 'Device', 'Size', 'Volumes'}, disk.keys()
    assert isinstance(disk['Size'], int)
    for v in disk['Volumes']:
        assert isinstance(v['Size'], int) and isinstance(v['FreeSize'], int) and v['FreeSize'] <= v['Size']
        assert isinstance(v['ReadOnly'], bool) and isinstance(v['Eligible'], bool)
        assert ('Message' in v) != v['Eligible']
        fields = [v['Name'], v['MountPoint'].rsplit('/', 1)[1], v['Device'].rsplit('/', 1)[1], v['FileSystem'],
                  str(v['ReadOnly']), v.get('InstalledVersion', '-'), str(v.get('ReapableSize', '-') != '-'),
                  str(v['Eligible']), v.get('Message', '-')]
        print('|'.join([disk['Name'], disk['Device'], str(disk['Size'])]) + '>' + '|'.join(fields))
for disk in doc['Disks']:
    for v in disk['Volumes']:
        v.pop('FreeSize')  # moves as other programs write to the same file system
print(json.dumps(doc, sort_keys=True))
)";

class VolumesCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        bundle.setEmptyRuleData();
        writeFile(dir / "reader.py", kReader);
    }

    std::string ferryhold(const std::string& args, int* status, const std::string& environment = {}) {
        std::string command = "env FERRYHOLD_FRAMEWORK_PATH=" + shellQuote(bundle.path()) + " " +
                              (environment.empty() ? fixture.environment() : environment) + " " +
                              shellQuote(std::string(FERRYHOLD_BINARY_DIR) + "/ferryhold") + " " + args;
        std::string out = runCommand(command + " 2>" + shellQuote(dir / "stderr"), status);
        return out;
    }

    // The reader's lines for the document the command prints in the given form.
    std::vector<std::string> read(const std::string& args, bool json) {
        int status = -1;
        writeFile(dir / "document", ferryhold(args + (json ? " --json" : ""), &status));
        EXPECT_EQ(0, status) << readFile(dir / "stderr");
        std::string out = runCommand("python3 " + shellQuote(dir / "reader.py") + (json ? " json" : " xml") + " < " +
                                         shellQuote(dir / "document") + " 2>&1",
                                     &status);
        EXPECT_EQ(0, status) << out;
        return lines(out);
    }

    FrameworkFixture bundle;
    TempDir dir;
    DiskPickerFixture fixture{dir / "machine"};
};

TEST_F(VolumesCommandTest, TheMachinesVolumesByDiskAsXMLAndJSON) {
    auto xml = read("volumes --target 10.7", false);
    auto json = read("volumes --target=10.7", true);
    ASSERT_EQ(6u, xml.size());
    EXPECT_EQ(xml, json);
    std::string a = "Fixture Disk A|/dev/vfa|" + std::to_string(2097152ull * 512) + ">";
    std::string b = "vfb|/dev/vfb|" + std::to_string(4194304ull * 512) + ">";
    std::string c = "vfc|/dev/vfc|" + std::to_string(1048576ull * 512) + ">";
    EXPECT_EQ((std::vector<std::string>{
                  a + "System|System|vfa1|ext4|False|10.6.8|True|True|-",
                  a + "Locked|Locked|vfa2|ext4|True|10.6.8|True|False|The volume is mounted read-only.",
                  b + "Empty|Empty|vfb1|ext4|False|-|False|False|No installed system was found on this volume.",
                  b + "Archive|Newer|vfb2|ext4|False|10.8|True|False|The installed system (10.8) is not older than 10.7.",
                  c + "Spare|Spare|vfc|ext4|False|10.5.8|True|True|-",
              }),
              std::vector<std::string>(xml.begin(), xml.end() - 1));

    // Without a target no reapable size is worked out and versions are not compared.
    auto plain = read("volumes", false);
    ASSERT_EQ(6u, plain.size());
    EXPECT_EQ(b + "Archive|Newer|vfb2|ext4|False|10.8|False|True|-", plain[3]);
    // A required size beyond any disk leaves nothing to choose, and says why.
    auto full = read("volumes --target 10.7 --required-size 1152921504606846976", false);
    EXPECT_NE(std::string::npos, full[0].find("|False|Not enough space: ")) << full[0];
    EXPECT_NE(std::string::npos, full[0].find(" reapable, 1.15 EB required.")) << full[0];
}

TEST_F(VolumesCommandTest, AMountTableThatCannotBeReadIsNoEmptyList) {
    int status = -1;
    std::string missing = dir / "no-such-table";
    std::string out = ferryhold("volumes", &status, "FERRYHOLD_MOUNTINFO=" + shellQuote(missing));
    EXPECT_EQ(1, status);
    EXPECT_EQ("", out);
    auto err = lines(readFile(dir / "stderr"));
    ASSERT_EQ(1u, err.size());
    EXPECT_EQ("ferryhold: the mount table cannot be read: " + missing + ": No such file or directory", err[0]);

    // libmount is loaded when the table is read; where it cannot be, that is the reason.
    writeFile(dir / "lib/libmount.so.1", "");
    out = ferryhold("volumes", &status, "LD_LIBRARY_PATH=" + shellQuote(dir / "lib"));
    EXPECT_EQ(1, status);
    EXPECT_EQ("", out);
    err = lines(readFile(dir / "stderr"));
    ASSERT_EQ(1u, err.size());
    EXPECT_NE(std::string::npos, err[0].find("libmount.so.1 cannot be loaded")) << err[0];

    // Wrong calls: a required size that is no number, an empty target.
    ferryhold("volumes --required-size lots", &status);
    EXPECT_EQ(2, status);
    ferryhold("volumes --target ''", &status);
    EXPECT_EQ(2, status);
}

}  // namespace
