// crateworks's command line: help and version at every level, wrong calls of each kind,
// --opt=value, short forms, options in any position and "--".
#include <gtest/gtest.h>

#include "ToolRun.h"
#include "support/TempDir.h"

using tooltest::Result;

namespace {

class CrateworksCommandLine : public ::testing::Test {
protected:
    testsupport::TempDir tmp;
    Result crateworks(const std::vector<std::string>& arguments, const std::string& redirect = "") {
        return tooltest::run("crateworks", arguments, tmp / "stderr", redirect);
    }
};

TEST_F(CrateworksCommandLine, HelpAtEveryLevelGoesToStandardOutput) {
    for (std::string command : {"", "bom", "bom list", "bom make", "receipts", "xar", "xar list", "xar extract",
                                "xar create", "xar verify", "xar digest", "xar sign", "folder", "folder sign", "verify",
                                "trust", "download", "fetch"}) {
        for (std::string flag : {"--help", "-h"}) {
            std::vector<std::string> words;
            for (const auto& word : tooltest::lines(command.empty() ? "" : command + "\n")) {
                size_t space = word.find(' ');
                words.push_back(word.substr(0, space));
                if (space != std::string::npos) words.push_back(word.substr(space + 1));
            }
            words.push_back(flag);
            Result run = crateworks(words);
            EXPECT_EQ(0, run.status) << command << flag;
            EXPECT_EQ("", run.err) << command;
            std::string usage = "Usage: crateworks" + (command.empty() ? "" : " " + command) + " [OPTIONS]";
            EXPECT_NE(std::string::npos, run.out.find(usage)) << command << "\n" << run.out;
        }
    }
    Result version = crateworks({"--version"});
    EXPECT_EQ(0, version.status);
    EXPECT_EQ("crateworks " FERRYHOLD_VERSION "\n", version.out);
}

TEST_F(CrateworksCommandLine, AWrongCallNamesTheProblemThenThatCommandsUsage) {
    struct Case {
        std::vector<std::string> words;
        std::string command, named;
    };
    for (const Case& c : std::vector<Case>{
             {{}, "crateworks", "subcommand is required"},
             {{"frobnicate"}, "crateworks", "unknown command 'frobnicate'"},
             {{"xar", "frobnicate", "x"}, "crateworks xar", "unknown command 'frobnicate'"},
             {{"xar"}, "crateworks xar", "subcommand is required"},
             {{"xar", "list"}, "crateworks xar list", "ARCHIVE is required"},
             {{"xar", "list", "a", "b"}, "crateworks xar list", "b"},
             {{"xar", "list", "a", "--xml"}, "crateworks xar list", "--xml"},
             {{"bom", "make", "dir"}, "crateworks bom make", "OUT is required"},
             {{"fetch", "u", "d", "--jobs"}, "crateworks fetch", "--jobs"},
             {{"fetch", "u", "d", "--jobs=0"}, "crateworks fetch", "not a whole number above 0: 0"},
             {{"fetch", "u", "d", "-j", "two"}, "crateworks fetch", "two"},
             {{"trust", "x", "--min", "sky-high"}, "crateworks trust", "sky-high"},
             {{"trust"}, "crateworks trust", "PATH or --levels"},
             {{"trust", "x", "--levels"}, "crateworks trust", "--levels"},
             {{"xar", "sign", "in", "out", "--key", "k"}, "crateworks xar sign", "--cert"},
             {{"folder", "sign", "d", "--identifier", "", "--key", "k", "--cert", "c"}, "crateworks folder sign",
              "--identifier"},
         }) {
        Result run = crateworks(c.words);
        std::string call = c.words.empty() ? "(none)" : c.words[0] + (c.words.size() > 1 ? " " + c.words[1] : "");
        EXPECT_EQ(2, run.status) << call;
        EXPECT_EQ("", run.out) << call;
        auto lines = tooltest::lines(run.err);
        ASSERT_FALSE(lines.empty()) << call;
        EXPECT_EQ(0u, lines[0].rfind(c.command + ": ", 0)) << lines[0];
        EXPECT_NE(std::string::npos, lines[0].find(c.named)) << lines[0];
        EXPECT_NE(std::string::npos, run.err.find("Usage: " + c.command + " [OPTIONS]")) << run.err;
    }
}

TEST_F(CrateworksCommandLine, OptionsTakeEitherSpellingInAnyPosition) {
    testsupport::writeFile(tmp / "tree/file.txt", "text");
    ASSERT_EQ(0, crateworks({"xar", "create", tmp / "a.xar", tmp / "tree"}).status);
    // An unsigned archive is at level 100: the minimum decides the status however it is given.
    struct Case {
        std::vector<std::string> words;
        int status;
    };
    for (const Case& c : std::vector<Case>{
             {{"trust", tmp / "a.xar", "--min", "100"}, 0},
             {{"trust", tmp / "a.xar", "--min=200"}, 3},
             {{"trust", "--min=not-signed", tmp / "a.xar"}, 0},
             {{"trust", "-m", "system-domain", tmp / "a.xar"}, 3},
             {{"trust", tmp / "a.xar", "-m", "CWTrustLevelNotSigned"}, 0},
             {{"-q", "trust", tmp / "a.xar", "-m", "user-domain"}, 3},
             {{"trust", tmp / "a.xar", "-m", "user-domain", "--quiet"}, 3},
         }) {
        Result run = crateworks(c.words);
        EXPECT_EQ(c.status, run.status) << c.words[1] << " " << c.words.back() << "\n" << run.err;
        EXPECT_EQ("CWTrustLevelNotSigned\t100\n", run.out);
    }
    Result before = crateworks({"xar", "list", "--json", tmp / "a.xar"});
    Result after = crateworks({"xar", "list", tmp / "a.xar", "--json"});
    EXPECT_EQ(0, before.status);
    EXPECT_EQ(before.out, after.out);
    EXPECT_EQ('{', before.out[0]);
    // After "--" a word that looks like an option is a name.
    Result made = tooltest::run("crateworks", {"xar", "create", "--", "--json", tmp / "tree"}, tmp / "stderr", "", tmp.path());
    ASSERT_EQ(0, made.status) << made.err;
    Result named = tooltest::run("crateworks", {"xar", "list", "--", "--json"}, tmp / "stderr", "", tmp.path());
    EXPECT_EQ(0, named.status) << named.err;
    EXPECT_EQ(0u, named.out.find("file.txt\tfile\t")) << named.out;
}

TEST_F(CrateworksCommandLine, TrustLevelsListEveryLevelWithBothNames) {
    Result run = crateworks({"trust", "--levels"});
    EXPECT_EQ(0, run.status);
    auto lines = tooltest::lines(run.out);
    ASSERT_EQ(13u, lines.size());
    EXPECT_EQ("0\tCWTrustLevelInvalidSignature\tinvalid-signature", lines.front());
    EXPECT_EQ("202\tCWTrustLevelSystemDomain\tsystem-domain", lines[6]);
    EXPECT_EQ("501\tCWTrustLevelQuarnSoftwareProduction\tquarn-software-production", lines.back());
    // Every short name is accepted back by --min, as is every number.
    testsupport::writeFile(tmp / "tree/f", "x");
    ASSERT_EQ(0, crateworks({"xar", "create", tmp / "a.xar", tmp / "tree"}).status);
    for (const auto& line : lines) {
        std::string number = line.substr(0, line.find('\t'));
        std::string shortName = line.substr(line.rfind('\t') + 1);
        int expected = std::stoi(number) <= 100 ? 0 : 3;
        EXPECT_EQ(expected, crateworks({"trust", tmp / "a.xar", "--min", shortName}).status) << shortName;
        EXPECT_EQ(expected, crateworks({"trust", tmp / "a.xar", "--min", number}).status) << number;
    }
}

}  // namespace
