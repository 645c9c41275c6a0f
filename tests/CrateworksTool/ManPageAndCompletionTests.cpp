// The tools' man pages render without a warning, and their bash completion parses and
// completes what the tools accept.
#include <gtest/gtest.h>

#include "ToolRun.h"
#include "support/TempDir.h"

using testsupport::runCommand;
using testsupport::shellQuote;

namespace {

const std::string kBuild = std::string(FERRYHOLD_BINARY_DIR) + "/..";

TEST(ManPages, RenderWithoutWarningsAndDescribeEveryCommand) {
    testsupport::TempDir tmp;
    for (std::string page : {"reaper", "ferryhold", "crateworks"}) {
        std::string path = kBuild + "/man/" + page + ".1";
        int status = -1;
        std::string rendered = runCommand("MANWIDTH=80 man --warnings -l " + shellQuote(path) + " 2>" +
                                              shellQuote(tmp / "warnings"),
                                          &status);
        EXPECT_EQ(0, status) << page;
        EXPECT_EQ("", testsupport::readFile(tmp / "warnings")) << page;
        EXPECT_NE(std::string::npos, rendered.find("EXIT STATUS")) << page;
    }
    // Every command word the tool's help lists has its entry in the page.
    std::string page = runCommand("MANWIDTH=200 man -l " + shellQuote(kBuild + "/man/crateworks.1") + " 2>/dev/null");
    for (std::string word : {"bom list", "bom make", "receipts", "xar list", "xar extract", "xar create", "xar verify",
                             "xar digest", "xar sign", "folder sign", "verify", "trust", "trust --levels", "download",
                             "fetch"})
        EXPECT_TRUE(page.find("\n       " + word + " ") != std::string::npos ||
                    page.find("\n       " + word + "\n") != std::string::npos)
            << word;
    // ... and every trust level the tool knows, with its short name.
    std::string levels = runCommand(shellQuote(tooltest::binary("crateworks")) + " trust --levels");
    for (const auto& line : tooltest::lines(levels)) {
        std::string name = line.substr(line.find('\t') + 1);
        std::string shortName = name.substr(name.find('\t') + 1);
        name = name.substr(0, name.find('\t'));
        EXPECT_NE(std::string::npos, page.find(name)) << name;
        EXPECT_NE(std::string::npos, page.find(shortName)) << shortName;
    }
}

// What completing the words gives, one candidate a line.
std::string complete(const std::string& script, const std::string& function, const std::vector<std::string>& words) {
    std::string array;
    for (const auto& word : words) array += " " + shellQuote(word);
    std::string body = "PATH=" + shellQuote(FERRYHOLD_BINARY_DIR) + ":$PATH; source " + shellQuote(script) +
                       "; COMP_WORDS=(" + array + "); COMP_CWORD=" + std::to_string(words.size() - 1) + "; " +
                       function + "; printf '%s\\n' \"${COMPREPLY[@]}\" | LC_ALL=C sort";
    return runCommand("bash -c " + shellQuote(body));
}

TEST(BashCompletion, ParsesAndCompletesCommandsOptionsAndLevels) {
    std::string source = FERRYHOLD_SOURCE_DIR;
    std::string crateworks = source + "/CrateworksTool/crateworks.bash-completion";
    std::string ferryhold = source + "/FerryholdTool/ferryhold.bash-completion";
    for (const auto& script : {crateworks, ferryhold}) {
        int status = -1;
        runCommand("bash -n " + shellQuote(script), &status);
        EXPECT_EQ(0, status) << script;
    }
    EXPECT_EQ("xar\n", complete(crateworks, "_crateworks", {"crateworks", "xa"}));
    EXPECT_EQ("verify\n", complete(crateworks, "_crateworks", {"crateworks", "ver"}));
    EXPECT_EQ("digest\n", complete(crateworks, "_crateworks", {"crateworks", "xar", "di"}));
    EXPECT_EQ("--json\n", complete(crateworks, "_crateworks", {"crateworks", "xar", "list", "a.xar", "--js"}));
    EXPECT_EQ("system-domain\n", complete(crateworks, "_crateworks", {"crateworks", "trust", "x", "--min", "sys"}));
    EXPECT_EQ("--jobs\n", complete(crateworks, "_crateworks", {"crateworks", "fetch", "--jo"}));
    EXPECT_EQ("usage\nuser-paths\n", complete(ferryhold, "_ferryhold", {"ferryhold", "us"}));
    EXPECT_EQ("--keep-system\n", complete(ferryhold, "_ferryhold", {"ferryhold", "children", "/", "--ke"}));
    EXPECT_EQ("--lists\n", complete(ferryhold, "_ferryhold", {"ferryhold", "incompatible", "--li"}));
}

}  // namespace
