// crateworks xar: list, extract, create, verify and digest from the command line.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"

using testsupport::TempDir;
using xartest::runTool;
using xartest::shellQuote;

namespace {

using testsupport::lines;

TEST(XarCommand, ListPrintsOneTabSeparatedLinePerEntryInTocOrder) {
    TempDir tmp;
    xartest::makeSampleTree(tmp / "src");
    int status = -1;
    runTool("xar create " + shellQuote(tmp / "a.xar") + " " + shellQuote(tmp / "src"), &status);
    ASSERT_EQ(0, status);
    auto full = lines(runTool("xar list " + shellQuote(tmp / "a.xar"), &status));
    EXPECT_EQ(0, status);
    // The first six fields; the link target and the modification time follow them.
    std::vector<std::string> listed;
    for (const auto& line : full) {
        size_t sixth = 0;
        for (int i = 0; i < 6; ++i) sixth = line.find('\t', sixth + 1);
        listed.push_back(line.substr(0, sixth));
        std::string rest = line.substr(sixth + 1);
        EXPECT_EQ(line.starts_with("dir/link\t") ? "text.txt" : "", rest.substr(0, rest.find('\t'))) << line;
        EXPECT_EQ(20u, rest.size() - rest.find('\t') - 1) << line;  // YYYY-MM-DDTHH:MM:SSZ
    }
    EXPECT_EQ((std::vector<std::string>{
                  "dir\tdirectory\t755\t0\t0\t0",
                  "dir/binary.bin\tfile\t644\t0\t0\t70000",
                  "dir/empty\tfile\t644\t0\t0\t0",
                  "dir/link\tsymlink\t777\t0\t0\t0",
                  "dir/nested\tdirectory\t750\t0\t0\t0",
                  "dir/nested/deep\tdirectory\t755\t0\t0\t0",
                  "dir/nested/deep/leaf.txt\tfile\t644\t0\t0\t5",
                  "dir/readonly.txt\tfile\t444\t0\t0\t10",
                  "dir/text.txt\tfile\t644\t0\t0\t" + std::to_string(testsupport::readFile(tmp / "src/dir/text.txt").size()),
                  "top.txt\tfile\t644\t0\t0\t10",
              }),
              listed);

    auto json = lines(runTool("xar list " + shellQuote(tmp / "a.xar") + " --json", &status));
    ASSERT_EQ(listed.size(), json.size());
    auto archive = crateworks::CWXARArchive::initForReadingFromPath(tmp / "a.xar");
    auto* top = archive->_xar()->find("top.txt");
    EXPECT_EQ("{\"path\":\"top.txt\",\"type\":\"file\",\"mode\":\"644\",\"uid\":0,\"gid\":0,\"size\":10,"
              "\"encoding\":\"application/x-gzip\",\"archived_checksum\":\"" + top->data->archivedChecksum +
                  "\",\"extracted_checksum\":\"" + top->data->extractedChecksum + "\",\"link\":null,\"mtime\":\"" +
                  full.back().substr(full.back().size() - 20) + "\"}",
              json.back());
    // The extracted checksum is the SHA-1 of the file, as an independent tool computes it.
    EXPECT_EQ(top->data->extractedChecksum + "  " + tmp / "src/top.txt" + "\n",
              testsupport::runCommand("sha1sum " + shellQuote(tmp / "src/top.txt")));

    runTool("xar create " + shellQuote(tmp / "s.xar") + " " + shellQuote(tmp / "src") + " --store", &status);
    ASSERT_EQ(0, status);
    std::string stored = runTool("xar list " + shellQuote(tmp / "s.xar") + " --json");
    EXPECT_EQ(std::string::npos, stored.find("x-gzip"));
    EXPECT_NE(std::string::npos, stored.find("\"encoding\":\"application/octet-stream\""));
}

TEST(XarCommand, ExtractVerifyAndDigest) {
    TempDir tmp;
    xartest::makeSampleTree(tmp / "src");
    int status = -1;
    runTool("xar create " + shellQuote(tmp / "a.xar") + " " + shellQuote(tmp / "src"), &status);
    std::string out = runTool("xar extract " + shellQuote(tmp / "a.xar") + " " + shellQuote(tmp / "new/dest"), &status);
    ASSERT_EQ(0, status) << out;
    EXPECT_EQ(testsupport::readFile(tmp / "src/dir/binary.bin"), testsupport::readFile(tmp / "new/dest/dir/binary.bin"));
    struct stat st {};
    ASSERT_EQ(0, stat((tmp / "new/dest/dir/readonly.txt").c_str(), &st));
    EXPECT_EQ(0444u, st.st_mode & 07777);
    ASSERT_EQ(0, stat((tmp / "new/dest/dir/nested").c_str(), &st));
    EXPECT_EQ(0750u, st.st_mode & 07777);

    EXPECT_EQ("verified 10 entries\n", runTool("xar verify " + shellQuote(tmp / "a.xar"), &status));
    EXPECT_EQ(0, status);
    std::string digest = runTool("xar digest " + shellQuote(tmp / "a.xar"), &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ(*crateworks::CWXARArchive::initForReadingFromPath(tmp / "a.xar")->archiveDigest() + "\n", digest);
}

TEST(XarCommand, NotAnArchiveAndWrongCalls) {
    TempDir tmp;
    testsupport::writeFile(tmp / "plain.txt", "not an archive");
    int status = -1;
    for (std::string verb : {"list", "verify", "digest"}) {
        std::string out = runTool("xar " + verb + " " + shellQuote(tmp / "plain.txt"), &status);
        EXPECT_EQ(1, status) << verb;
        EXPECT_EQ(1u, lines(out).size()) << out;
        EXPECT_NE(std::string::npos, out.find(tmp / "plain.txt")) << out;
    }
    runTool("xar extract " + shellQuote(tmp / "plain.txt") + " " + shellQuote(tmp / "d"), &status);
    EXPECT_EQ(1, status);
    for (std::string call : {"xar", "xar list", "xar frobnicate x", "xar list a b", "xar create out", "xar list a --xml"}) {
        std::string out = runTool(call, &status);
        EXPECT_EQ(2, status) << call;
        EXPECT_NE(std::string::npos, out.find("Usage: crateworks xar")) << call;
    }
}

// The tool run with the libraries of `libraries` found first; its output with its errors.
std::string runWithLibraries(const std::string& libraries, const std::string& args, int* status) {
    return testsupport::runCommand("LD_LIBRARY_PATH=" + shellQuote(libraries) + " " +
                                       shellQuote(std::string(FERRYHOLD_BINARY_DIR) + "/crateworks") + " " + args +
                                       " 2>&1",
                                   status);
}

// An archive of one file made at tmp/a.xar from tmp/src, by the tool with its own libraries.
bool madeSmallArchive(const TempDir& tmp, int* status) {
    testsupport::writeFile(tmp / "src/file.txt", "body");
    runTool("xar create " + shellQuote(tmp / "a.xar") + " " + shellQuote(tmp / "src"), status);
    return *status == 0;
}

// libxml2 is loaded when a table of contents is first read; where it cannot be, the
// archive is refused with that reason, not believed empty.
TEST(XarCommand, ALibxml2ThatCannotBeLoadedIsNamed) {
    TempDir tmp;
    int status = -1;
    ASSERT_TRUE(madeSmallArchive(tmp, &status));
    testsupport::writeFile(tmp / "lib/libxml2.so.2", "");
    std::string out = runTool("xar list " + shellQuote(tmp / "a.xar"), &status);
    EXPECT_EQ(0, status) << out;  // the same archive reads with the real library
    out = runWithLibraries(tmp / "lib", "xar list " + shellQuote(tmp / "a.xar"), &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ(1u, lines(out).size()) << out;
    EXPECT_NE(std::string::npos, out.find("libxml2.so.2 cannot be loaded")) << out;
}

// libcrypto is loaded when a checksum is first computed; where it cannot be, no archive
// is written with empty checksums and none is read without checking them: each command
// fails, once naming the library, and crashes in none.
TEST(XarCommand, ALibcryptoThatCannotBeLoadedFailsEveryChecksum) {
    TempDir tmp;
    int status = -1;
    ASSERT_TRUE(madeSmallArchive(tmp, &status));
    testsupport::writeFile(tmp / "lib/libcrypto.so.3", "not a library");
    const std::string archive = shellQuote(tmp / "a.xar");
    for (const std::string& args : {"xar create " + shellQuote(tmp / "b.xar") + " " + shellQuote(tmp / "src"),
                                    "xar verify " + archive, "xar digest " + archive,
                                    "xar extract " + archive + " " + shellQuote(tmp / "out")}) {
        std::string out = runWithLibraries(tmp / "lib", args, &status);
        EXPECT_EQ(1, status) << args << "\n" << out;
        size_t named = out.find("libcrypto.so.3 cannot be loaded");
        EXPECT_NE(std::string::npos, named) << args << "\n" << out;
        EXPECT_EQ(std::string::npos, out.find("libcrypto.so.3 cannot be loaded", named + 1)) << args << "\n" << out;
    }
    struct stat st {};
    EXPECT_NE(0, lstat((tmp / "b.xar").c_str(), &st));  // nothing left where the archive was to go
    EXPECT_NE(0, lstat((tmp / "out/file.txt").c_str(), &st));
    runTool("xar verify " + shellQuote(tmp / "a.xar"), &status);
    EXPECT_EQ(0, status);  // the archive itself is sound
}

}  // namespace

namespace {

// What is found where an archive should be is named, not only refused.
TEST(XarCommand, SomethingThatIsNotAFileIsNamedForWhatItIs) {
    TempDir tmp;
    ASSERT_EQ(0, mkfifo((tmp / "fifo").c_str(), 0644));
    ASSERT_EQ(0, mkdir((tmp / "dir").c_str(), 0755));
    int status = -1;
    std::string out = runTool("xar list " + shellQuote(tmp / "fifo") + " </dev/null", &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ("crateworks xar: " + tmp / "fifo" + ": is a FIFO, not a regular file\n", out);
    out = runTool("xar verify " + shellQuote(tmp / "dir"), &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ("crateworks xar: " + tmp / "dir" + ": is a directory, not a regular file\n", out);
}

}  // namespace
