// The incompatible-applications list: loading, "~" expansion, warnings, checksums and
// the bundle version ladder.
#include <gtest/gtest.h>

#include <filesystem>

#include "FHPathAnalysis/ConfMigrator/FHSystem.h"
#include "FHPathAnalysis/IncompatibleApplications/FHMigrationIncompatibleApplicationsList.h"
#include "Platform/PropertyList.h"
#include "support/FrameworkFixture.h"

using namespace testsupport;
using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {

struct LoggedLine {
    std::string function;
    int32_t line;
    std::string message;
    bool operator==(const LoggedLine&) const = default;
};

// The list with its typed-log messages kept for the test to read.
class RecordingList : public FHMigrationIncompatibleApplicationsList {
public:
    mutable std::vector<LoggedLine> logged;

protected:
    void _log(const char* function, int32_t line, std::string_view message) const override {
        logged.push_back({function, line, std::string(message)});
    }
};

constexpr const char* kPrepare =
    "-[FHMigrationIncompatibleApplicationsList prepareIncompatibleApplicationsList:forFHSystem:]";

std::string cksumOf(const std::string& file) {
    std::string out = runCommand("cksum < '" + file + "'");
    return out.substr(0, out.find(' '));
}

class IncompatibleListTest : public ::testing::Test {
protected:
    void setList(const Array& entries) const {
        bundle.writePlist("IncompatibleApps.plist", Value(Dictionary{{"IncompatiblePaths", entries}}));
    }

    // A bundle at the volume-relative path with the given information keys.
    void makeBundle(const std::string& relative, const Dictionary& info) const {
        std::string plist = root.path() + relative + "/Contents/Info.plist";
        std::filesystem::create_directories(std::filesystem::path(plist).parent_path());
        ASSERT_TRUE(platform::plist::writeXMLFile(Value(info), plist));
    }

    bool prepare() { return list.prepareIncompatibleApplicationsList("IncompatibleApps", FHSystem(root.path())); }
    bool listed(const std::string& p) const { return list.isPathInIncompatibleApplicationsList(p); }

    FrameworkFixture bundle;
    TempDir root;
    RecordingList list;
};

Dictionary range(const std::string& path, std::optional<std::string> minimum, std::optional<std::string> maximum) {
    Dictionary entry{{"Path", path}};
    if (minimum) entry.set("MinimumBundleVersion", *minimum);
    if (maximum) entry.set("MaximumBundleVersion", *maximum);
    return entry;
}

}  // namespace

TEST_F(IncompatibleListTest, VersionLadderBetweenMinimumAndMaximum) {
    Array entries;
    for (const char* version : {"1.9", "2.0", "2.5", "3.1", "3.1.1"}) {
        std::string p = std::string("/Applications/V") + version + ".app";
        makeBundle(p, Dictionary{{"CFBundleShortVersionString", version}, {"CFBundleVersion", "2.5"}});
        entries.emplace_back(range(p, "2.0", "3.1"));
    }
    setList(entries);
    ASSERT_TRUE(prepare());
    EXPECT_FALSE(listed("/Applications/V1.9.app"));
    EXPECT_TRUE(listed("/Applications/V2.0.app"));
    EXPECT_TRUE(listed("/Applications/V2.5.app"));
    EXPECT_TRUE(listed("/Applications/V3.1.app"));
    EXPECT_FALSE(listed("/Applications/V3.1.1.app"));
    EXPECT_TRUE(list.logged.empty());
}

TEST_F(IncompatibleListTest, OneSidedRangesAndBundlesWithoutVersions) {
    makeBundle("/A/Min20.app", Dictionary{{"CFBundleShortVersionString", "2.0"}});
    makeBundle("/A/Min21.app", Dictionary{{"CFBundleShortVersionString", "2.1"}});
    makeBundle("/A/Max10.app", Dictionary{{"CFBundleVersion", "1.0"}});  // the fallback key
    makeBundle("/A/Max31.app", Dictionary{{"CFBundleShortVersionString", "3.1"}});
    makeBundle("/A/Max32.app", Dictionary{{"CFBundleShortVersionString", "3.2"}});
    makeBundle("/A/NoVersion.app", Dictionary{{"CFBundleIdentifier", "com.vendor.none"}});
    makeBundle("/A/Old.app", Dictionary{{"CFBundleVersion", "1.0"}});
    std::filesystem::create_directories(root / "A/Folder.app");  // no information: no bundle
    setList(Array{range("/A/Min20.app", "2.0", {}), range("/A/Min21.app", "2.0", {}),
                  range("/A/Max10.app", {}, "3.1"), range("/A/Max31.app", {}, "3.1"), range("/A/Max32.app", {}, "3.1"),
                  range("/A/NoVersion.app", "2.0", "3.1"), range("/A/Old.app", "2.0", "3.1"),
                  range("/A/Folder.app", "1.0", {}), range("/A/Missing.app", {}, "9")});
    ASSERT_TRUE(prepare());
    // A minimum alone matches that exact version and no other.
    EXPECT_TRUE(listed("/A/Min20.app"));
    EXPECT_FALSE(listed("/A/Min21.app"));
    // A maximum alone matches everything up to it.
    EXPECT_TRUE(listed("/A/Max10.app"));
    EXPECT_TRUE(listed("/A/Max31.app"));
    EXPECT_FALSE(listed("/A/Max32.app"));
    // A bundle without a version compares as the minimum itself.
    EXPECT_TRUE(listed("/A/NoVersion.app"));
    EXPECT_FALSE(listed("/A/Old.app"));
    // Not a bundle: no match once a range is given.
    EXPECT_FALSE(listed("/A/Folder.app"));
    EXPECT_FALSE(listed("/A/Missing.app"));
    EXPECT_FALSE(listed("/A/Unlisted.app"));
}

TEST_F(IncompatibleListTest, ChecksumsListedOtherAndUnreadable) {
    // Checksums are taken of the path exactly as given, not below the system root.
    std::string matching = root / "host/tool", other = root / "host/other", folder = root / "host";
    writeFile(matching, "#!/bin/sh\necho old build\n");
    writeFile(other, "#!/bin/sh\necho new build\n");
    Array known{Value("1"), Value(cksumOf(matching))};
    setList(Array{Dictionary{{"Paths", Array{Value(matching), Value(other), Value(folder), Value("/no/such/file")}},
                             {"KnownChecksums", known}},
                  Dictionary{{"Path", "/Applications/Anything.app"}}});
    ASSERT_TRUE(prepare());
    EXPECT_TRUE(listed(matching));
    EXPECT_FALSE(listed(other));
    // A checksum that cannot be computed counts as a match.
    EXPECT_TRUE(listed("/no/such/file"));
    EXPECT_TRUE(listed(folder));
    // A path alone matches unconditionally, whether or not anything is there.
    EXPECT_TRUE(listed("/Applications/Anything.app"));
}

TEST_F(IncompatibleListTest, ChecksumMissFallsThroughToTheVersions) {
    // The checksum is read from the path as given; the bundle from the root joined with it.
    std::string hostFile = root / "host/Tool.app";
    writeFile(hostFile, "a file on the host");
    std::string volume = root / "vol";
    std::string onVolume = volume + hostFile + "/Contents/Info.plist";
    std::filesystem::create_directories(std::filesystem::path(onVolume).parent_path());
    ASSERT_TRUE(platform::plist::writeXMLFile(Value(Dictionary{{"CFBundleShortVersionString", "2.5"}}), onVolume));
    Dictionary entry = range(hostFile, "2.0", "3.1");
    entry.set("KnownChecksums", Array{Value("12345")});
    setList(Array{entry});
    ASSERT_TRUE(list.prepareIncompatibleApplicationsList("IncompatibleApps", FHSystem(volume)));
    EXPECT_EQ(volume, list.systemRootPath());
    EXPECT_TRUE(listed(hostFile));

    // Without a range, a checksum miss is no match.
    entry.remove("MinimumBundleVersion");
    entry.remove("MaximumBundleVersion");
    setList(Array{entry});
    ASSERT_TRUE(list.prepareIncompatibleApplicationsList("IncompatibleApps", FHSystem(volume)));
    EXPECT_FALSE(listed(hostFile));
}

TEST_F(IncompatibleListTest, TildeExpandsForEveryUserAtTheFirstCharacterOnly) {
    std::filesystem::create_directories(root / "Users/a");
    std::filesystem::create_directories(root / "Users/b");
    std::filesystem::create_directories(root / "export/c");
    writeFile(root / "etc/passwd", "c:x:600:20::/export/c:/bin/sh\n");
    Dictionary tool{{"Path", "~/Applications/Tool.app"}};
    Dictionary odd{{"Path", "/Applications/~Tool.app"}, {"Paths", Array{Value("~Library/x~")}}};
    setList(Array{tool, odd});
    ASSERT_TRUE(prepare());
    EXPECT_EQ((std::vector<std::string>{"/Users/a/Applications/Tool.app", "/Users/b/Applications/Tool.app",
                                        "/export/c/Applications/Tool.app", "~/Applications/Tool.app",
                                        "/Applications/~Tool.app", "/Users/aLibrary/x~", "/Users/bLibrary/x~",
                                        "/export/cLibrary/x~", "~Library/x~"}),
              list.iaList().keys());
    EXPECT_EQ(Value(tool), *list.iaList().find("/export/c/Applications/Tool.app"));
    EXPECT_TRUE(listed("/Users/b/Applications/Tool.app"));
    EXPECT_TRUE(listed("~/Applications/Tool.app"));
    EXPECT_FALSE(listed("/Users/a/Applications/~Tool.app"));
}

TEST_F(IncompatibleListTest, WarningsForRepeatedPathsAndEntriesWithoutPaths) {
    makeBundle("/Applications/Twice.app", Dictionary{{"CFBundleShortVersionString", "5.0"}});
    std::filesystem::create_directories(root / "Users/a");
    Dictionary first = range("/Applications/Twice.app", "1.0", "2.0");
    Dictionary later{{"Path", "/Applications/Twice.app"}};
    Dictionary useless{{"KnownChecksums", Array{Value("1")}}, {"Paths", Array{}}};
    // Expanded per-user paths replace earlier ones without a word.
    setList(Array{first, useless, later, Dictionary{{"Path", "~/x"}}, Dictionary{{"Paths", Array{Value("~/x")}}}});
    ASSERT_TRUE(prepare());
    ASSERT_EQ(3u, list.logged.size());
    EXPECT_EQ(kPrepare, list.logged[0].function);
    EXPECT_EQ(41, list.logged[0].line);
    EXPECT_EQ("MIG_BLACK_LIST: (WARN) -> Useless dictionary with no path set ! " + Value(useless).description(),
              list.logged[0].message);
    EXPECT_EQ((LoggedLine{kPrepare, 47, "MIG_BLACK_LIST: (WARN) -> Path set more than once /Applications/Twice.app"}),
              list.logged[1]);
    EXPECT_EQ((LoggedLine{kPrepare, 47, "MIG_BLACK_LIST: (WARN) -> Path set more than once ~/x"}), list.logged[2]);
    // The later entry wins: a path alone, so version 5.0 outside the first range matches.
    EXPECT_TRUE(listed("/Applications/Twice.app"));
}

TEST_F(IncompatibleListTest, UnreadableListDisablesEverything) {
    setList(Array{Dictionary{{"Path", "/Applications/Tool.app"}}});
    ASSERT_TRUE(prepare());
    EXPECT_TRUE(listed("/Applications/Tool.app"));

    // A missing resource: the list is emptied and every query answers false.
    EXPECT_FALSE(list.prepareIncompatibleApplicationsList("NoSuchList", FHSystem(root / "other")));
    EXPECT_EQ(root / "other", list.systemRootPath());
    EXPECT_TRUE(list.iaList().empty());
    EXPECT_FALSE(listed("/Applications/Tool.app"));
    ASSERT_EQ(1u, list.logged.size());
    EXPECT_EQ((LoggedLine{"-[FHMigrationIncompatibleApplicationsList loadPlist:]", 146,
                          "MIG_BLACK_LIST: (ERROR) -> Can't read (null), black list is disabled...."}),
              list.logged[0]);

    // A damaged one names the resource it could not read.
    writeFile(bundle.resources("Damaged.plist"), "<plist><dict><key>x</key>");
    EXPECT_FALSE(list.loadPlist("Damaged"));
    EXPECT_EQ("MIG_BLACK_LIST: (ERROR) -> Can't read " + bundle.resources("Damaged.plist") +
                  ", black list is disabled....",
              list.logged.back().message);

    // A list without the key is read, and lists nothing.
    bundle.writePlist("Other.plist", Value(Dictionary{{"Something", "else"}}));
    EXPECT_TRUE(list.prepareIncompatibleApplicationsList("Other", FHSystem(root.path())));
    EXPECT_TRUE(list.iaList().empty());
}

TEST_F(IncompatibleListTest, MessagesGoToTheTypedLogByDefault) {
    // The plain list logs through the typed log with type 100, which keeps nothing.
    FHMigrationIncompatibleApplicationsList plain;
    EXPECT_FALSE(plain.prepareIncompatibleApplicationsList("NoSuchList", FHSystem(root.path())));
    EXPECT_FALSE(plain.isPathInIncompatibleApplicationsList("/x"));
}
