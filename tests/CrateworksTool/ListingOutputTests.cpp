// What crateworks's listings print for names it did not choose (a tab, a newline, bytes
// that are not UTF-8), and what becomes of a listing whose standard output fails.
#include <gtest/gtest.h>

#include <filesystem>

#include "ToolRun.h"
#include "support/TempDir.h"

using testsupport::shellQuote;
using tooltest::Result;

namespace {

class ListingOutput : public ::testing::Test {
protected:
    void SetUp() override {
        testsupport::writeFile(tmp / "tree/tab\there", "1");
        testsupport::writeFile(tmp / "tree/new\nline", "22");
        testsupport::writeFile(tmp / "tree/bad\xffname", "333");
        testsupport::writeFile(tmp / "tree/back\\slash", "4444");
        std::filesystem::create_symlink("bad\xfetarget", tmp / "tree/link");
        ASSERT_EQ(0, crateworks({"xar", "create", tmp / "a.xar", tmp / "tree"}).status);
        ASSERT_EQ(0, crateworks({"bom", "make", tmp / "tree", tmp / "a.bom"}).status);
    }
    Result crateworks(const std::vector<std::string>& arguments, const std::string& redirect = "") {
        return tooltest::run("crateworks", arguments, tmp / "stderr", redirect);
    }
    testsupport::TempDir tmp;
};

// The first field of each line.
std::vector<std::string> firstFields(const std::string& text) {
    std::vector<std::string> out;
    for (const auto& line : tooltest::lines(text)) out.push_back(line.substr(0, line.find('\t')));
    std::sort(out.begin(), out.end());
    return out;
}

const std::vector<std::string> kEscapedNames{"back\\\\slash", "bad\\xffname", "link", "new\\nline", "tab\\there"};

TEST_F(ListingOutput, TextListingsEscapeNamesTheSameWay) {
    Result xar = crateworks({"xar", "list", tmp / "a.xar"});
    ASSERT_EQ(0, xar.status) << xar.err;
    EXPECT_EQ(kEscapedNames, firstFields(xar.out));
    Result bom = crateworks({"bom", "list", tmp / "a.bom"});
    ASSERT_EQ(0, bom.status) << bom.err;
    EXPECT_EQ(kEscapedNames, firstFields(bom.out));
    // Every line has all its fields; the link target is escaped in both.
    for (const auto& line : tooltest::lines(xar.out)) EXPECT_EQ(7, std::count(line.begin(), line.end(), '\t')) << line;
    for (const auto& line : tooltest::lines(bom.out)) EXPECT_EQ(7, std::count(line.begin(), line.end(), '\t')) << line;
    EXPECT_NE(std::string::npos, xar.out.find("link\tsymlink\t777\t0\t0\t0\tbad\\xfetarget\t"));
    EXPECT_NE(std::string::npos, bom.out.find("\tbad\\xfetarget\n"));
}

TEST_F(ListingOutput, XarListEndsEachLineWithTheLinkAndTheModificationTime) {
    Result xar = crateworks({"xar", "list", tmp / "a.xar"});
    std::string stamp = testsupport::runCommand("date -u -r " + shellQuote(tmp / "tree/back\\slash") +
                                                " +%Y-%m-%dT%H:%M:%SZ");
    stamp.pop_back();
    EXPECT_NE(std::string::npos, xar.out.find("back\\\\slash\tfile\t644\t0\t0\t4\t\t" + stamp + "\n")) << xar.out;
    Result json = crateworks({"xar", "list", tmp / "a.xar", "--json"});
    EXPECT_NE(std::string::npos, json.out.find("\"link\":null,\"mtime\":\"" + stamp + "\"}")) << json.out;
}

TEST_F(ListingOutput, JsonCarriesNamesThatAreNotUTF8Losslessly) {
    using tooltest::hex;
    std::string expectedPaths = "back\\\\slash|" + hex("back\\slash") + "\nbad\\ufffdname|" + hex("bad\xffname") +
                                "\nlink|" + hex("link") + "\nnew\\nline|" + hex("new\nline") + "\ntab\\there|" +
                                hex("tab\there") + "\n";
    std::string expectedTarget = "bad\\ufffdtarget|" + hex("bad\xfetarget") + "\n";
    for (const std::string kind : {"xar", "bom"}) {
        Result run = crateworks({kind, "list", tmp / ("a." + kind), "--json"});
        ASSERT_EQ(0, run.status) << run.err;
        EXPECT_EQ(5u, tooltest::lines(run.out).size()) << run.out;
        std::string paths = tooltest::namesFromJsonLines(run.out, "path", tmp / "py");
        auto sorted = tooltest::lines(paths);
        std::sort(sorted.begin(), sorted.end());
        std::string joined;
        for (const auto& line : sorted) joined += line + "\n";
        EXPECT_EQ(expectedPaths, joined) << kind;
        EXPECT_EQ(expectedTarget, tooltest::namesFromJsonLines(run.out, kind == "xar" ? "link" : "target", tmp / "py"))
            << kind;
    }
}

TEST_F(ListingOutput, AFailedStandardOutputIsAnErrorAndAClosedPipeIsQuiet) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"xar", "list", tmp / "a.xar"}, {"xar", "list", tmp / "a.xar", "--json"},
          {"bom", "list", tmp / "a.bom"}, {"xar", "digest", tmp / "a.xar"}, {"xar", "verify", tmp / "a.xar"},
          {"verify", tmp / "a.xar"}, {"trust", "--levels"}, {"receipts", tmp / "tree"}, {"--help"}, {"--version"}}) {
        Result run = crateworks(words, ">/dev/full");
        // receipts of a tree without any writes nothing, which cannot fail.
        int expected = words[0] == "receipts" ? 0 : 1;
        EXPECT_EQ(expected, run.status) << words[0] << " " << words.back();
        EXPECT_EQ(expected ? "crateworks: write error: No space left on device\n" : "", run.err) << words[0];
    }
    for (int i = 0; i < 3000; ++i) testsupport::writeFile(tmp / ("many/file" + std::to_string(i)), "");
    ASSERT_EQ(0, crateworks({"xar", "create", tmp / "many.xar", tmp / "many"}).status);
    for (std::string ignore : {"", "trap '' PIPE; "}) {
        std::string script = ignore + shellQuote(tooltest::binary("crateworks")) + " xar list " +
                             shellQuote(tmp / "many.xar") + " 2>" + shellQuote(tmp / "err") +
                             " | head -1 >/dev/null; echo ${PIPESTATUS[0]}";
        EXPECT_EQ("141\n", testsupport::runCommand("bash -c " + shellQuote(script))) << ignore;
        EXPECT_EQ("", testsupport::readFile(tmp / "err")) << ignore;
    }
}

}  // namespace

namespace {

TEST_F(ListingOutput, DashIsStandardInputOrOutputForWholeFiles) {
    std::string fromFile = crateworks({"xar", "list", tmp / "a.xar"}).out;
    Result listed = crateworks({"xar", "list", "-"}, "<" + shellQuote(tmp / "a.xar"));
    EXPECT_EQ(0, listed.status) << listed.err;
    EXPECT_EQ(fromFile, listed.out);
    Result bom = crateworks({"bom", "list", "-", "--json"}, "<" + shellQuote(tmp / "a.bom"));
    EXPECT_EQ(0, bom.status) << bom.err;
    EXPECT_EQ(crateworks({"bom", "list", tmp / "a.bom", "--json"}).out, bom.out);

    // An archive written to standard output reads back as the same entries, and
    // extracts from standard input.
    Result created = crateworks({"xar", "create", "-", tmp / "tree"}, ">" + shellQuote(tmp / "piped.xar"));
    ASSERT_EQ(0, created.status) << created.err;
    EXPECT_EQ(tooltest::lines(fromFile).size(),
              tooltest::lines(crateworks({"xar", "list", tmp / "piped.xar"}).out).size());
    Result extracted = crateworks({"xar", "extract", "-", tmp / "out"}, "<" + shellQuote(tmp / "piped.xar"));
    ASSERT_EQ(0, extracted.status) << extracted.err;
    EXPECT_EQ("333", testsupport::readFile(tmp / "out/bad\xffname"));
    EXPECT_EQ("verified 5 entries\n", crateworks({"xar", "verify", "-"}, "<" + shellQuote(tmp / "piped.xar")).out);
    // Something that is not an archive on standard input fails as a file would.
    Result text = crateworks({"xar", "list", "-"}, "<" + shellQuote(tmp / "tree/tab\there"));
    EXPECT_EQ(1, text.status);
    EXPECT_EQ("", text.out);
    EXPECT_EQ("crateworks xar: standard input: not a XAR archive (too short for a header)\n", text.err);
    // A damaged archive on standard input is named as such, never by its spooled copy.
    std::string archive = testsupport::readFile(tmp / "piped.xar");
    testsupport::writeFile(tmp / "cut.xar", archive.substr(0, archive.size() - 100));
    for (const std::string& argument : {std::string("-"), tmp / "cut.xar"}) {
        Result cut = crateworks({"xar", "list", argument}, "<" + shellQuote(tmp / "cut.xar"));
        EXPECT_EQ(1, cut.status) << argument;
        EXPECT_EQ(1, std::count(cut.err.begin(), cut.err.end(), '\n')) << cut.err;
        EXPECT_NE(std::string::npos, cut.err.find(argument == "-" ? "standard input" : argument)) << cut.err;
        EXPECT_EQ(std::string::npos, cut.err.find("/proc/")) << cut.err;
    }
}

}  // namespace
