// Our XAR reader and writer against an independent implementation (bsdtar), both ways.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/Archive/CWArchive.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "Platform/FileTreeEnumerator.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"

using namespace crateworks;
using testsupport::runCommand;
using testsupport::TempDir;
using xartest::runTool;
using xartest::shellQuote;

namespace {

// One line per item: path, type, permission bits, link target, and the modification
// time of files and directories.
std::string treeListing(const std::string& root) {
    return runCommand("cd " + shellQuote(root) +
                      " && find . -mindepth 1 \\( -type l -printf '%p %y %l\\n' \\) -o -printf '%p %y %m %Ts\\n'"
                      " | LC_ALL=C sort");
}

void expectSameTrees(const std::string& expected, const std::string& actual) {
    int status = -1;
    std::string diff = runCommand("diff -r --no-dereference " + shellQuote(expected) + " " + shellQuote(actual), &status);
    EXPECT_EQ(0, status) << diff;
    EXPECT_EQ(treeListing(expected), treeListing(actual));
}

class XarInterop : public ::testing::TestWithParam<std::string> {};

TEST_P(XarInterop, ArchivesWrittenByBsdtarListReadVerifyAndExtract) {
    TempDir tmp;
    xartest::makeSampleTree(tmp / "src");
    std::string archive = tmp / "b.xar";
    int status = -1;
    runCommand("bsdtar -C " + shellQuote(tmp / "src") + " --format xar --options xar:compression=" + GetParam() +
                   " -cf " + shellQuote(archive) + " top.txt dir",
               &status);
    ASSERT_EQ(0, status);

    auto opened = CWArchive::archiveWithPath(archive);
    ASSERT_TRUE(opened);
    EXPECT_STREQ("CWXARArchive", opened->className());
    platform::Error error;
    EXPECT_TRUE(opened->verifyReturningError(&error)) << error.description();

    // Every item of the tree is listed, and every file reads back byte for byte.
    std::vector<std::string> expected, listed;
    platform::FileTreeEnumerator walk(tmp / "src");
    while (auto p = walk.nextObject()) expected.push_back(*p);
    auto enumerator = opened->enumeratorAtPath("");
    while (auto p = enumerator->nextObject()) {
        listed.push_back(*p);
        auto attributes = opened->fileAttributesAtPath(*p);
        ASSERT_TRUE(attributes);
        if (*attributes->findString(platform::fs::kFileType) != platform::fs::kFileTypeRegular) continue;
        auto data = opened->dataForPath(*p);
        ASSERT_TRUE(data) << *p;
        EXPECT_EQ(testsupport::readFile(tmp / "src/" + *p), std::string(data->begin(), data->end())) << *p;
    }
    std::sort(expected.begin(), expected.end());
    std::sort(listed.begin(), listed.end());
    EXPECT_EQ(expected, listed);

    std::string out = runTool("xar extract " + shellQuote(archive) + " " + shellQuote(tmp / "out"), &status);
    ASSERT_EQ(0, status) << out;
    expectSameTrees(tmp / "src", tmp / "out");
    EXPECT_EQ("verified " + std::to_string(listed.size()) + " entries\n",
              runTool("xar verify " + shellQuote(archive), &status));
}

INSTANTIATE_TEST_SUITE_P(Encodings, XarInterop, ::testing::Values("gzip", "none", "bzip2", "xz"));

TEST(XarInteropWriter, ArchivesWeWriteExtractWithBsdtarByteForByte) {
    for (std::string store : {"", " --store"}) {
        TempDir tmp;
        xartest::makeSampleTree(tmp / "src");
        std::string archive = tmp / "ours.xar";
        int status = -1;
        std::string out = runTool("xar create " + shellQuote(archive) + " " + shellQuote(tmp / "src") + store, &status);
        ASSERT_EQ(0, status) << out;

        out = runCommand("mkdir " + shellQuote(tmp / "out") + " && bsdtar -xpf " + shellQuote(archive) + " -C " +
                             shellQuote(tmp / "out") + " 2>&1",
                         &status);
        ASSERT_EQ(0, status) << out;
        expectSameTrees(tmp / "src", tmp / "out");

        // bsdtar lists what we list, in the same order.
        std::string ours = runCommand(std::string(FERRYHOLD_BINARY_DIR) + "/crateworks xar list " + shellQuote(archive) +
                                      " | cut -f1");
        std::string theirs = runCommand("bsdtar -tf " + shellQuote(archive));
        EXPECT_EQ(ours, theirs) << store;
    }
}

}  // namespace
