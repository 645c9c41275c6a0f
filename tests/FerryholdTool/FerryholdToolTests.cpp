// The ferryhold command end to end: the built binary run on fixture volumes, its XML
// read back by Python's plistlib and its JSON by Python's json.
#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "Platform/PropertyList.h"
#include "support/FrameworkFixture.h"
#include "support/VolumeBuilder.h"

using namespace testsupport;
using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
};

using testsupport::shellQuote;

// Prints the document read from standard input one item a line, as Python's repr: the
// items of an array, or "key=value" for a dictionary (nested ones flattened with "/").
constexpr const char* kPlistReader = R"(
import plistlib, sys, json
doc = plistlib.load(sys.stdin.buffer) if sys.argv[1] == 'xml' else json.load(sys.stdin)
def show(prefix, v):
    if isinstance(v, dict):
        for k, x in v.items(): show(prefix + [k], x)
    else:
        print('/'.join(repr(p) for p in prefix) + '=' + repr(v))
if isinstance(doc, list):
    for x in doc: print(repr(x))
else:
    show([], doc)
)";

class FerryholdTest : public ::testing::Test {
protected:
    void SetUp() override {
        bundle.setVersion("MigrationData", "10.7.0");
        bundle.setSystemReceiptPatterns({});
        bundle.setExclusionList({}, {}, {"/usr", "/Applications"}, {});
        writeFile(dir / "reader.py", kPlistReader);
    }

    // A volume whose system paths are exactly `system`, answered from a valid cache.
    std::string makeVolume(const std::vector<std::string>& system, const std::function<void(VolumeBuilder&)>& more) {
        VolumeBuilder volume(dir / "v");
        for (const char* id : {"com.quarn.pkg.BaseSystem", "com.quarn.pkg.Essentials", "com.quarn.pkg.BSD"})
            volume.package(id).groups({"com.quarn.FindSystemFiles.pkg-group"}).installDate(platform::Date{1000});
        volume.directory("/Library/Caches");
        more(volume);
        volume.build();
        Dictionary cache{{"systemPaths", stringArray(system)}, {"MigrationDatabaseVersion", "10.7.0"}};
        EXPECT_TRUE(platform::plist::writeXMLFile(Value(cache), volume.root() + FHSystemPathCache::kCachePath));
        return volume.root();
    }

    std::string standardVolume() {
        return makeVolume({"/Applications/Calc.app", "/bin", "/usr/lib"}, [](VolumeBuilder& v) {
            v.file("/bin/ls", 10).file("/usr/lib/libc", 10).file("/usr/local/bin/tool", 10);
            v.file("/Applications/Calc.app/Contents/Info.plist", 0,
                   {.text = "<plist><dict><key>CFBundleShortVersionString</key><string>1.0</string></dict></plist>"});
            v.file("/Applications/Games/Chess.app/Contents/Info.plist", 0,
                   {.text = "<plist><dict><key>CFBundleVersion</key><string>1</string></dict></plist>"});
            v.file("/Applications/Games/readme", 10);
            v.file("/opt/a/x", 10).file("/opt/b/y", 10);
            v.file("/Library/Fonts/f.ttf", 10).file("/Library/Caches/com.quarn.user501pictureCache", 10);
        });
    }

    Outcome ferryhold(const std::vector<std::string>& args) {
        std::string command = "env FERRYHOLD_FRAMEWORK_PATH=" + shellQuote(bundle.path()) + " " +
                              shellQuote(std::string(FERRYHOLD_BINARY_DIR) + "/ferryhold");
        for (const auto& a : args) command += " " + shellQuote(a);
        Outcome run;
        run.out = runCommand(command + " 2>" + shellQuote(dir / "stderr"), &run.status);
        run.err = readFile(dir / "stderr");
        return run;
    }

    // The items of the document printed by a successful run, as Python reads them back.
    std::vector<std::string> items(const std::vector<std::string>& args, bool json = false) {
        std::vector<std::string> all = args;
        if (json) all.push_back("--json");
        Outcome run = ferryhold(all);
        EXPECT_EQ(0, run.status) << run.err;
        writeFile(dir / "document", run.out);
        int status = -1;
        std::string lines = runCommand("python3 " + shellQuote(dir / "reader.py") + (json ? " json" : " xml") + " < " +
                                           shellQuote(dir / "document"),
                                       &status);
        EXPECT_EQ(0, status) << run.out;
        std::vector<std::string> out;
        for (size_t at = 0, end; (end = lines.find('\n', at)) != std::string::npos; at = end + 1)
            out.push_back(lines.substr(at, end - at));
        return out;
    }

    FrameworkFixture bundle;
    TempDir dir;
};

using Lines = std::vector<std::string>;

}  // namespace

TEST_F(FerryholdTest, UserPathsWithTheirOptions) {
    std::string root = standardVolume();
    EXPECT_EQ((Lines{"'/Applications/Games'", "'/Library'", "'/opt'", "'/private'", "'/usr/local'"}),
              items({"user-paths", root}));
    EXPECT_EQ((Lines{"'/Library/Caches/com.quarn.user501pictureCache'", "'/Library/Fonts'"}),
              items({"user-paths", root, "--parent", "/Library"}));
    // An included path replaces its ancestors, even the folder the walk kept whole.
    EXPECT_EQ((Lines{"'/Applications/Games'", "'/Library'", "'/opt/a/x'", "'/private'", "'/usr/local'"}),
              items({"user-paths", root, "--include", "/opt/a/x"}));
    EXPECT_EQ((Lines{"'/opt/b'"}), items({"user-paths", root, "--parent", "/opt", "--omit", "/opt/a"}));
    // The same array as JSON.
    EXPECT_EQ(items({"user-paths", root}), items({"user-paths", root}, true));
}

TEST_F(FerryholdTest, ExpandingBundlesLooksAtTheKeptPathItself) {
    // Bundles are looked for at the kept volume-relative path as it stands, not below the
    // root; so the folder is named by a path that exists on this machine as well.
    std::string host = dir / "host";
    const char* info = "<plist><dict><key>CFBundleIdentifier</key><string>com.vendor.chess</string></dict></plist>";
    std::string root = makeVolume({"/bin"}, [&](VolumeBuilder& v) {
        v.file(host + "/Games/Chess.app/Contents/Info.plist", 0, {.text = info});
        v.file(host + "/Games/readme", 10);
    });
    writeFile(host + "/Games/Chess.app/Contents/Info.plist", info);
    auto quote = [](const std::string& p) { return "'" + p + "'"; };
    EXPECT_EQ((Lines{quote(host + "/Games")}), items({"user-paths", root, "--parent", host}));
    EXPECT_EQ((Lines{quote(host + "/Games/Chess.app"), quote(host + "/Games/readme")}),
              items({"user-paths", root, "--parent", host, "--expand-bundles"}));
    std::filesystem::remove_all(host + "/Games/Chess.app");
    EXPECT_EQ((Lines{quote(host + "/Games")}), items({"user-paths", root, "--parent", host, "--expand-bundles"}));
}

TEST_F(FerryholdTest, ChildrenWithAndWithoutSystemExclusion) {
    std::string root = standardVolume();
    EXPECT_EQ((Lines{"'/usr/local'"}), items({"children", root, "/usr"}));
    Lines plain = items({"children", root, "/usr", "--keep-system"});
    std::sort(plain.begin(), plain.end());
    EXPECT_EQ((Lines{"'/usr/lib'", "'/usr/local'"}), plain);
    EXPECT_EQ((Lines{"'/opt/b'"}), items({"children", root, "/opt", "--omit", "/opt/a"}, true));
}

TEST_F(FerryholdTest, IncompatibleUsesTheRunningFrameworksList) {
    std::string root = standardVolume();
    std::filesystem::create_directories(root + "/Users/alice");
    bundle.writePlist("Blocked.plist",
                      Value(Dictionary{{"IncompatiblePaths",
                                        Array{Dictionary{{"Path", "~/Applications/Old.app"}},
                                              Dictionary{{"Path", "/Applications/Games/Chess.app"},
                                                         {"MinimumBundleVersion", "1"}},
                                              Dictionary{{"Path", "/Applications/Calc.app"},
                                                         {"MaximumBundleVersion", "0.5"}}}}}));
    // The analysed volume's own framework is never read.
    std::string volumeCopy = root + "/System/Library/PrivateFrameworks/Ferryhold.framework/Resources/Blocked.plist";
    std::filesystem::create_directories(std::filesystem::path(volumeCopy).parent_path());
    ASSERT_TRUE(platform::plist::writeXMLFile(
        Value(Dictionary{{"IncompatiblePaths", Array{Dictionary{{"Path", "/Applications/Fine.app"}}}}}), volumeCopy));
    EXPECT_EQ((Lines{"'/Users/alice/Applications/Old.app'=True", "'/Applications/Games/Chess.app'=True",
                     "'/Applications/Calc.app'=False", "'/Applications/Fine.app'=False"}),
              items({"incompatible", root, "Blocked", "/Users/alice/Applications/Old.app",
                     "/Applications/Games/Chess.app", "/Applications/Calc.app", "/Applications/Fine.app"}));

    Outcome missing = ferryhold({"incompatible", root, "NoSuchList", "/x"});
    EXPECT_EQ(1, missing.status);
    EXPECT_EQ("", missing.out);
    EXPECT_EQ("ferryhold: NoSuchList.plist: the list cannot be read from the framework's resources\n", missing.err);

    // --lists names the lists there are to test against, and nothing else of the bundle.
    bundle.writePlist("Other.plist", Value(Dictionary{{"IncompatiblePaths", Array{}}}));
    bundle.writePlist("NotAList.plist", Value(Dictionary{{"Something", "else"}}));
    EXPECT_EQ((Lines{"'Blocked'", "'Other'"}), items({"incompatible", "--lists"}));
}

TEST_F(FerryholdTest, SizesAndTheirTotal) {
    TempDir volume;
    writeFile(volume / "a", std::string(1234, 'a'));
    writeFile(volume / "line\rbreak", std::string(10, 'r'));
    writeFile(volume / "d/x", std::string(100000, 'x'));
    int status = -1;
    std::string du = runCommand("find " + shellQuote(volume / "d") +
                                    " -mindepth 1 ! -type d -printf '%b\\n' | awk '{s += $1} END {print s * 512}'",
                                &status);
    uint64_t below = std::stoull(du);
    Lines expected{"'Sizes'/'/a'=1234", "'Sizes'/'/line\\rbreak'=10", "'Sizes'/'/d'=" + std::to_string(below),
                   "'Sizes'/'/none'=0", "'TotalSize'=" + std::to_string(1234 + 10 + below + 1234)};
    Lines args{"size", volume.path(), "/a", "/line\rbreak", "/d", "/none", "/a"};
    EXPECT_EQ(expected, items(args));
    EXPECT_EQ(expected, items(args, true));
    // The carriage return reaches the document as a character reference.
    Outcome run = ferryhold(args);
    EXPECT_NE(std::string::npos, run.out.find("<key>/line&#13;break</key>"));
}

TEST_F(FerryholdTest, DocumentsStayReadableWhatEverThePathsHold) {
    TempDir volume;
    writeFile(volume / "tab\tquote\"back\\slash", "1");
    writeFile(volume / "caf\xc3\xa9", "22");
    writeFile(volume / "raw\xff", "333");
    Lines args{"size", volume.path(), "/tab\tquote\"back\\slash", "/caf\xc3\xa9", "/raw\xff"};
    Lines expected{"'Sizes'/'/tab\\tquote\"back\\\\slash'=1", "'Sizes'/'/caf\xc3\xa9'=2",
                   "'Sizes'/'/raw\xef\xbf\xbd'=3", "'TotalSize'=6"};
    // JSON read by Python's json, XML by plistlib: U+FFFD stands for the byte in both.
    EXPECT_EQ(expected, items(args, true));
    EXPECT_EQ(expected, items(args));
    // ... and one warning names the path, escaped as the listings escape it.
    for (bool json : {false, true}) {
        Lines all = args;
        if (json) all.push_back("--json");
        Outcome run = ferryhold(all);
        EXPECT_EQ(0, run.status);
        EXPECT_EQ("ferryhold: warning: /raw\\xff: not valid UTF-8, written with U+FFFD\n", run.err);
    }
}

TEST_F(FerryholdTest, QuietAndVerboseGovernTheLibrariesConsoleLines) {
    TempDir volume;
    writeFile(volume / "file", "1");
    Outcome verbose = ferryhold({"-v", "size", volume.path(), "/file"});
    EXPECT_EQ(0, verbose.status);
    EXPECT_NE(std::string::npos, verbose.err.find("sizeForPath returned 1 for")) << verbose.err;
    Outcome plain = ferryhold({"size", volume.path(), "/file"});
    EXPECT_EQ("", plain.err);
    EXPECT_EQ(verbose.out, plain.out);
    // -q silences the console even when a debug switch asks for lines; the tool's own
    // error line stays.
    std::string command = "env FHDebugFileSizer=1 FERRYHOLD_FRAMEWORK_PATH=" + shellQuote(bundle.path()) + " " +
                          shellQuote(std::string(FERRYHOLD_BINARY_DIR) + "/ferryhold");
    int status = -1;
    runCommand(command + " size " + shellQuote(volume.path()) + " /file -q 2>" + shellQuote(dir / "stderr"), &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ("", readFile(dir / "stderr"));
    runCommand(command + " --quiet usage " + shellQuote(dir / "missing") + " 2>" + shellQuote(dir / "stderr"), &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ("ferryhold: " + dir / "missing" + ": no such directory\n", readFile(dir / "stderr"));
}

TEST_F(FerryholdTest, AnAnswerThatCannotBeWrittenIsAFailure) {
    TempDir volume;
    writeFile(volume / "file", "1");
    for (const Lines& args : {Lines{"size", volume.path(), "/file"}, Lines{"usage", volume.path(), "--json"},
                              Lines{"--help"}, Lines{"--version"}}) {
        std::string command = "env FERRYHOLD_FRAMEWORK_PATH=" + shellQuote(bundle.path()) + " " +
                              shellQuote(std::string(FERRYHOLD_BINARY_DIR) + "/ferryhold");
        for (const auto& a : args) command += " " + shellQuote(a);
        int status = -1;
        runCommand(command + " >/dev/full 2>" + shellQuote(dir / "stderr"), &status);
        EXPECT_EQ(1, status) << args[0];
        EXPECT_EQ("ferryhold: write error: No space left on device\n", readFile(dir / "stderr"));
        // A reader that goes away ends the command quietly, never with 0.
        std::string script = "trap '' PIPE; " + command + " 2>" + shellQuote(dir / "stderr") +
                             " | true; echo ${PIPESTATUS[0]}";
        std::string piped = runCommand("bash -c " + shellQuote(script));
        EXPECT_TRUE(piped == "141\n" || piped == "0\n") << piped;
        EXPECT_EQ("", readFile(dir / "stderr"));
    }
}

TEST_F(FerryholdTest, UsageOfTheFileSystem) {
    TempDir volume;
    Lines got = items({"usage", volume.path()});
    ASSERT_EQ(2u, got.size());
    ASSERT_EQ(0u, got[0].rfind("'UsedSize'=", 0));
    ASSERT_EQ(0u, got[1].rfind("'FreeSize'=", 0));
    uint64_t used = std::stoull(got[0].substr(11)), free = std::stoull(got[1].substr(11));
    uint64_t total = std::stoull(runCommand("stat -f -c '%b * %S' " + shellQuote(volume.path()) + " | bc"));
    EXPECT_EQ(total, used + free);
}

TEST_F(FerryholdTest, NothingToSayExitsOne) {
    for (const Lines& args : {Lines{"user-paths", dir / "missing"}, Lines{"usage", dir / "missing"},
                              Lines{"size", dir / "missing", "/a"}, Lines{"children", dir / "missing", "/"}}) {
        Outcome run = ferryhold(args);
        EXPECT_EQ(1, run.status) << args[0];
        EXPECT_EQ("", run.out);
        EXPECT_EQ("ferryhold: " + dir / "missing" + ": no such directory\n", run.err);
    }
    std::string root = standardVolume();
    Outcome noFolder = ferryhold({"children", root, "/nowhere"});
    EXPECT_EQ(1, noFolder.status);
    EXPECT_EQ("ferryhold: /nowhere: no such folder on " + root + "\n", noFolder.err);

    // A volume without system receipts, and an empty fallback list: nothing to analyse with.
    bundle.setFallbackSystemPaths({});
    TempDir bare;
    std::filesystem::create_directories(bare / "Users/alice");
    for (const Lines& args : {Lines{"user-paths", bare.path()}, Lines{"children", bare.path(), "/Users"}}) {
        Outcome run = ferryhold(args);
        EXPECT_EQ(1, run.status) << args[0];
        EXPECT_EQ("", run.out);
        EXPECT_TRUE(run.err.ends_with("ferryhold: " + bare.path() + ": the volume cannot be analysed\n")) << run.err;
    }
}

TEST_F(FerryholdTest, WrongCallsNameTheProblemAndShowThatCommandsUsage) {
    std::string root = dir.path();
    struct Case {
        Lines args;
        std::string command, named;
    };
    for (const Case& c : std::vector<Case>{
             {{}, "ferryhold", "subcommand is required"},
             {{"reap", root}, "ferryhold", "reap"},
             {{"user-paths"}, "ferryhold user-paths", "ROOT is required"},
             {{"user-paths", root, "extra"}, "ferryhold user-paths", "extra"},
             {{"user-paths", root, "--include", "/a", "--expand-bundles"}, "ferryhold user-paths", "excludes"},
             {{"user-paths", root, "--keep-system"}, "ferryhold user-paths", "--keep-system"},
             {{"user-paths", root, "--parent"}, "ferryhold user-paths", "--parent"},
             {{"user-paths", "relative/root"}, "ferryhold user-paths", "ROOT must be an absolute path"},
             {{"size", "v", "/a"}, "ferryhold size", "ROOT must be an absolute path"},
             {{"children", root}, "ferryhold children", "FOLDER"},
             {{"incompatible", root, "List"}, "ferryhold incompatible", "ROOT, LIST and at least one PATH"},
             {{"size", root}, "ferryhold size", "PATH is required"},
             {{"usage", root, "--omit", "/a"}, "ferryhold usage", "--omit"},
             {{"usage", root, "-q", "-v"}, "ferryhold usage", "excludes"},
         }) {
        Outcome run = ferryhold(c.args);
        std::string call = c.args.empty() ? "(none)" : c.args[0] + " " + std::to_string(c.args.size());
        EXPECT_EQ(2, run.status) << call;
        EXPECT_EQ("", run.out) << call;
        std::string first = run.err.substr(0, run.err.find('\n'));
        EXPECT_EQ(0u, first.rfind(c.command + ": ", 0)) << first;
        EXPECT_NE(std::string::npos, first.find(c.named)) << first;
        EXPECT_NE(std::string::npos, run.err.find("Usage: " + c.command + " [OPTIONS]")) << run.err;
    }
    for (const Lines& args : {Lines{"--help"}, Lines{"-h"}, Lines{"user-paths", "--help"}, Lines{"children", "-h"},
                              Lines{"incompatible", "--help"}, Lines{"size", "--help"}, Lines{"usage", "-h"}}) {
        Outcome help = ferryhold(args);
        EXPECT_EQ(0, help.status) << args[0];
        EXPECT_EQ("", help.err);
        std::string command = args.size() == 1 ? "ferryhold" : "ferryhold " + args[0];
        EXPECT_NE(std::string::npos, help.out.find("Usage: " + command + " [OPTIONS]")) << help.out;
    }
    Outcome version = ferryhold({"--version"});
    EXPECT_EQ(0, version.status);
    EXPECT_EQ("ferryhold " FERRYHOLD_VERSION "\n", version.out);
    // "--" ends the options, so a path may look like one.
    writeFile(dir / "--json", "12");
    EXPECT_EQ((Lines{"'Sizes'/'--json'=2", "'TotalSize'=2"}), items({"size", root, "--", "--json"}));
}
