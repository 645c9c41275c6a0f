// The reaper command end to end: the built binary run on fixture volumes.
#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>

#include "FHPathAnalysis/Support/FileSizer.h"
#include "Platform/PropertyList.h"
#include "support/FrameworkFixture.h"
#include "support/HostileFiles.h"
#include "support/VolumeBuilder.h"

using namespace testsupport;
using platform::Array;
using platform::Dictionary;
using platform::Value;
using Paths = std::vector<std::string>;

namespace {

constexpr const char* kSystemGroup = "com.quarn.FindSystemFiles.pkg-group";
constexpr const char* kPrinterGroup = "com.quarn.TamarindPrinters.pkg-group";

struct Outcome {
    int status = -1;
    std::string out, err;
};

class ReaperTest : public ::testing::Test {
protected:
    void SetUp() override {
        bundle.setEmptyRuleData();
        // Readable by the ordinary user that some runs switch to.
        chmod(dir.path().c_str(), 0755);
        chmod(std::filesystem::path(bundle.path()).parent_path().c_str(), 0755);
    }

    // A volume with a sane set of system receipts; `more` adds to it before it is built.
    std::string makeVolume(const std::string& name, const std::function<void(VolumeBuilder&)>& more = {},
                           const std::optional<std::string>& version = "10.6.8") {
        VolumeBuilder volume(dir / name);
        if (version) volume.systemVersion(*version);
        volume.package("com.quarn.pkg.BaseSystem").groups({kSystemGroup}).file("/bin/ls", 10000, {.fill = true});
        volume.package("com.quarn.pkg.Essentials").groups({kSystemGroup}).file("/sbin/launchd", 20000, {.fill = true});
        volume.package("com.quarn.pkg.BSD").groups({kSystemGroup}).file("/usr/bin/awk", 3000);
        if (more) more(volume);
        volume.build();
        return volume.root();
    }

    Outcome reaper(const std::vector<std::string>& args, const std::string& prefix = "") {
        std::string command = prefix + "env FERRYHOLD_FRAMEWORK_PATH='" + bundle.path() + "' '" +
                              FERRYHOLD_BINARY_DIR + "/reaper'";
        for (const auto& a : args) command += " '" + a + "'";
        Outcome run;
        // Appended to, so that a child writing to the same file (below) overwrites nothing.
        std::filesystem::remove(dir / "stderr");
        command += " 2>>'" + dir / "stderr" + "'";
        run.out = runCommand(command, &run.status);
        run.err = readFile(dir / "stderr");
        return run;
    }

    // Runs the reaper on the root for the target and answers the parsed document.
    Dictionary analyse(const std::string& root, const std::string& target = "10.7") {
        Outcome run = reaper({root, target});
        EXPECT_EQ(0, run.status) << run.err;
        auto doc = platform::plist::readBytes(std::span(reinterpret_cast<const uint8_t*>(run.out.data()), run.out.size()));
        EXPECT_TRUE(doc && doc->dictionary()) << run.out;
        return doc && doc->dictionary() ? *doc->dictionary() : Dictionary{};
    }

    static Paths reapable(const Dictionary& doc) {
        Paths out;
        if (auto* paths = doc.findArray("ReapablePaths"))
            for (const auto& p : *paths) out.push_back(*p.string());
        return out;
    }
    static bool contains(const Paths& paths, const std::string& p) {
        return std::find(paths.begin(), paths.end(), p) != paths.end();
    }

    TempDir dir;
    FrameworkFixture bundle;
};

}  // namespace

TEST_F(ReaperTest, ExitStatuses) {
    Outcome none = reaper({});
    EXPECT_EQ(1, none.status);
    EXPECT_EQ("", none.out);
    EXPECT_EQ("", none.err);
    EXPECT_EQ(1, reaper({"/"}).status);
    Outcome relative = reaper({"relative/root", "10.7"});
    EXPECT_EQ(3, relative.status);
    EXPECT_EQ("", relative.out);

    std::string root = makeVolume("v");
    Outcome extra = reaper({root, "10.7", "ignored", "also ignored"});
    EXPECT_EQ(0, extra.status) << extra.err;
    // With standard error closed there is nowhere to divert standard output to.
    int status = -1;
    std::string out = runCommand("env FERRYHOLD_FRAMEWORK_PATH='" + bundle.path() + "' '" + FERRYHOLD_BINARY_DIR +
                                     "/reaper' '" + root + "' 10.7 2>&-",
                                 &status);
    EXPECT_EQ(2, status);
    EXPECT_EQ("", out);

    std::filesystem::create_directories(dir / "empty");
    Outcome empty = reaper({dir / "empty", "10.7"});  // no receipts and no fallback list
    EXPECT_EQ(3, empty.status);
    EXPECT_EQ("", empty.out);
    EXPECT_NE(std::string::npos, empty.err.find("No or Invalid system receipts found on " + dir / "empty"));
}

TEST_F(ReaperTest, DocumentHasTwoKeysAndOutputOfTheAnalysisGoesToStandardError) {
    // The rule-data tool writes to the reaper's own standard output while it runs.
    bundle.setExtraKeepPathsTool("echo 'noise from the rule tool' >> /proc/$PPID/fd/1");
    bundle.setExclusionList({"/.HFS+ Private Directory Data\\r"}, {}, {}, {});
    std::string root = makeVolume("v");
    Outcome run = reaper({root, "10.7"});
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_EQ(std::string::npos, run.out.find("noise"));
    EXPECT_NE(std::string::npos, run.err.find("noise from the rule tool"));
    EXPECT_EQ(0u, run.out.rfind("<?xml", 0));
    EXPECT_EQ("</plist>\n", run.out.substr(run.out.size() - 9));

    // An independent reader gets the carriage return back and sees exactly two keys.
    writeFile(dir / "doc.plist", run.out);
    int status = 0;
    std::string check = runCommand(
        "python3 -c 'import plistlib; d = plistlib.load(open(\"" + dir / "doc.plist" +
            "\", \"rb\")); print(sorted(d), \"/.HFS+ Private Directory Data\\r\" in d[\"ReapablePaths\"], "
            "type(d[\"ReapableSize\"]).__name__)'",
        &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ("['ReapablePaths', 'ReapableSize'] True int\n", check);
}

// FIFOs planted in the volume's receipts folder, named like a receipt and its property
// list, used to hang the run on their open. The run ends on time and analyses the rest.
TEST_F(ReaperTest, PlantedFIFOsInTheReceiptsFolderDoNotHangTheRun) {
    std::string root = makeVolume("fifo", [](VolumeBuilder& v) {
        v.package("com.vendor.Tool").location(PackageDescription::Location::Library).file("/usr/local/bin/tool", 100);
    });
    std::string receipts = root + "/Library/Receipts";
    ASSERT_TRUE(makeHostileFile("fifo", receipts + "/com.evil.Trap.bom"));
    ASSERT_TRUE(makeHostileFile("fifo", receipts + "/com.evil.Trap.plist"));
    // And in place of a real receipt's property list.
    ASSERT_TRUE(std::filesystem::remove(receipts + "/com.vendor.Tool.plist"));
    ASSERT_TRUE(makeHostileFile("fifo", receipts + "/com.vendor.Tool.plist"));
    // Killed after the deadline: the status is then 137, never the 0 asked for below.
    Outcome run = reaper({root, "10.7"}, "timeout -s KILL 60 ");
    ASSERT_EQ(0, run.status) << run.err;
    auto doc = platform::plist::readBytes(std::span(reinterpret_cast<const uint8_t*>(run.out.data()), run.out.size()));
    ASSERT_TRUE(doc && doc->dictionary()) << run.out;
    EXPECT_TRUE(contains(reapable(*doc->dictionary()), "/bin"));
}

TEST_F(ReaperTest, PathsAndSizeOfASmallVolume) {
    std::string root = makeVolume("v");
    Dictionary doc = analyse(root);
    Paths paths = reapable(doc);
    // Nothing is searched here, so each top directory is reported whole, beside the
    // entries the finder always adds.
    EXPECT_EQ((Paths{"/.Archived_Directories\r", "/.HFS+ Private Directory Data\r", "/Library/Logs/Ferryhold.log",
                     "/Library/Logs/FerryholdNet.log", "/bin", "/sbin", "/usr"}),
              paths);
    uint64_t expected = 0;
    for (const auto& p : paths) expected += FileSizer::sizeForPath(root + p);
    EXPECT_GE(expected, 30000u);  // allocated blocks of the two real files
    EXPECT_EQ(expected, *doc.find("ReapableSize")->unsignedInteger());
}

TEST_F(ReaperTest, PrefixFiltersAndFixedRemovals) {
    bundle.setExclusionList({"/Library/Receipts/x.pkg", "/Library/ReceiptsOld", "/Users", "/UsersData",
                             "/Backups.backupdb", "/Backups.backupdbX", "/private", "/private/tmp", "/Volumes",
                             "/Volumes/Data", "/.Beacon-V100", "/.HFS+ Private Directory Data\r"},
                            {}, {}, {});
    bundle.addRuleFile("reap.plist", Dictionary{{"extraPathsToReap", Array{entry({{"Path", "/Users"}}),
                                                                             entry({{"Path", "/bin"}}),
                                                                             entry({{"Path", ".HFS+ Private Directory Data\r"}})}}});
    std::string root = makeVolume("v");
    Paths paths = reapable(analyse(root));
    for (const char* gone : {"/Library/Receipts/x.pkg", "/Library/ReceiptsOld", "/UsersData", "/Backups.backupdb",
                             "/Backups.backupdbX", "/private", "/Volumes", "/.Beacon-V100", ""})
        EXPECT_FALSE(contains(paths, gone)) << gone;
    for (const char* kept : {"/private/tmp", "/Volumes/Data", "/.HFS+ Private Directory Data\r"})
        EXPECT_TRUE(contains(paths, kept)) << kept;
    // The extra paths come last, in rule order, duplicates and all.
    ASSERT_GE(paths.size(), 3u);
    EXPECT_EQ((Paths{"/Users", "/bin", ".HFS+ Private Directory Data\r"}), Paths(paths.end() - 3, paths.end()));
    EXPECT_EQ(2, std::count(paths.begin(), paths.end(), "/bin"));
}

TEST_F(ReaperTest, PrinterPathsKeptOnlyForAnUpgradeFromTenSixToTenSevenOrLater) {
    auto printers = [](VolumeBuilder& v) {
        v.package("com.quarn.pkg.Printers")
            .groups({kPrinterGroup})
            .file("/Library/Printers/Gen/filter", 100)
            .file("/usr/libexec/cups/backend/usbgen", 100)
            .file("/System/Library/Extensions/GenPrinter.kext/Info.plist", 100);
    };
    bundle.setExclusionList({}, {},
                            {"/Library", "/System", "/System/Library", "/System/Library/Extensions", "/usr",
                             "/usr/libexec", "/usr/libexec/cups", "/usr/libexec/cups/backend"},
                            {});
    std::string root = makeVolume("v", printers);
    auto printerPaths = [&](const std::string& target) {
        Paths paths = reapable(analyse(root, target));
        Paths found;
        for (const auto& p : paths)
            if (p.find("Print") != std::string::npos || p.find("cups") != std::string::npos) found.push_back(p);
        return found;
    };
    EXPECT_TRUE(printerPaths("10.7").empty());
    EXPECT_TRUE(printerPaths("10.10").empty());
    EXPECT_EQ(3u, printerPaths("10.6").size());
    EXPECT_EQ(3u, printerPaths("").size());

    std::string noVersion = makeVolume("noversion", printers, std::nullopt);
    Paths paths = reapable(analyse(noVersion, "10.7"));
    EXPECT_TRUE(contains(paths, "/Library/Printers"));
}

TEST_F(ReaperTest, PictureCachesSurviveTheSuperPrune) {
    bundle.setExclusionList({"/Library/Caches"}, {}, {}, {});
    auto caches = [](VolumeBuilder& v) {
        v.file("/Library/Caches/com.quarn.user501pictureCache.db", 10)
            .file("/Library/Caches/com.quarn.user502pictureCache", 10)
            .file("/Library/Caches/com.quarn.fonts", 10);
    };
    Paths paths = reapable(analyse(makeVolume("mixed", caches)));
    EXPECT_FALSE(contains(paths, "/Library/Caches"));
    EXPECT_TRUE(contains(paths, "/Library/Caches/com.quarn.fonts"));
    // As the superuser the cache file is written into /Library/Caches before it is listed.
    EXPECT_TRUE(contains(paths, "/Library/Caches/com.quarn.FindSystemFiles.plist"));
    EXPECT_FALSE(contains(paths, "/Library/Caches/com.quarn.user501pictureCache.db"));

    // Outcome as an ordinary user, nothing is written there: a folder of picture caches only,
    // or an empty one, stays whole.
    auto onlyPictures = [](VolumeBuilder& v) { v.file("/Library/Caches/com.quarn.user501pictureCache", 10); };
    for (auto [name, more] : {std::pair<std::string, std::function<void(VolumeBuilder&)>>{"pictures", onlyPictures},
                              {"empty", [](VolumeBuilder& v) { v.directory("/Library/Caches"); }}}) {
        std::string root = makeVolume(name, more);
        Outcome run = reaper({root, "10.7"}, "setpriv --reuid=65534 --regid=65534 --clear-groups ");
        ASSERT_EQ(0, run.status) << name << run.err;
        EXPECT_NE(std::string::npos, run.err.find("Not writing system path cache because you are not root."));
        EXPECT_NE(std::string::npos, run.out.find("<string>/Library/Caches</string>")) << name;
    }
}
