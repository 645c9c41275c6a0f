// crateworks trust, xar sign and folder sign from the command line.
#include <gtest/gtest.h>

#include <filesystem>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "Platform/FileSystem.h"
#include "TrustTestSupport.h"
#include "support/TempDir.h"

using namespace crateworks;
using testpki::MakerLeafKind;
using testsupport::TempDir;
using trusttest::runTool;
using trusttest::runToolWithErrors;
using trusttest::shellQuote;

namespace {

class TrustCommand : public ::testing::Test {
protected:
    TempDir tmp;
    testpki::TrustEnvironment env{tmp.path()};
    std::string plain = trusttest::makeArchive(tmp.path());
};

TEST_F(TrustCommand, PrintsTheLevelThenTheBuiltChain) {
    auto chain = testpki::makerChain(MakerLeafKind::SoftwareUpdate);
    env.setMakerRoot(chain.root);  // the child reads FERRYHOLD_MAKER_ROOT
    std::string archive = trusttest::signArchive(tmp.path(), plain, chain);
    int status = -1;
    EXPECT_EQ("CWTrustLevelQuarnSoftwareProduction\t501\n" + chain.leaf.subject + "\n" + chain.intermediate.subject +
                  "\n" + chain.root.subject + "\n",
              runTool("trust " + shellQuote(archive), &status));
    EXPECT_EQ(0, status);
    runTool("trust " + shellQuote(archive) + " --min 501", &status);
    EXPECT_EQ(0, status);
    runTool("trust --min CWTrustLevelQuarnSoftwareProduction " + shellQuote(archive), &status);
    EXPECT_EQ(0, status);
}

TEST_F(TrustCommand, MinimumLevelsSetTheExitStatus) {
    auto chain = testpki::chainWithLeaf({}, "Unknown Root", 3);
    std::string archive = trusttest::signArchive(tmp.path(), plain, chain);
    int status = -1;
    std::string out = runTool("trust " + shellQuote(archive), &status);
    EXPECT_EQ(0, status);  // any level is an answer without --min
    EXPECT_EQ(0u, out.find("CWTrustLevelNotTrusted\t1\n" + chain.leaf.subject + "\n"));
    out = runTool("trust " + shellQuote(archive) + " --min CWTrustLevelUserDomain", &status);
    EXPECT_EQ(3, status);
    EXPECT_EQ(0u, out.find("CWTrustLevelNotTrusted\t1\n"));
    runTool("trust " + shellQuote(archive) + " --min 1", &status);
    EXPECT_EQ(0, status);

    EXPECT_EQ("CWTrustLevelNotSigned\t100\n", runTool("trust " + shellQuote(plain), &status));
    EXPECT_EQ(0, status);
    runTool("trust " + shellQuote(plain) + " --min 200", &status);
    EXPECT_EQ(3, status);
}

TEST_F(TrustCommand, WrongCallsAndMissingPaths) {
    int status = -1;
    runToolWithErrors("trust", &status);
    EXPECT_EQ(2, status);
    runToolWithErrors("trust " + shellQuote(plain) + " --min 3", &status);
    EXPECT_EQ(2, status);
    runToolWithErrors("trust " + shellQuote(plain) + " --min", &status);
    EXPECT_EQ(2, status);
    std::string missing = tmp / "no-such.xar";
    std::string out = runToolWithErrors("trust " + shellQuote(missing), &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, out.find(missing)) << out;
    // A file that is no archive has no level to give: it is named, with nothing printed.
    testsupport::writeFile(tmp / "text.txt", "not an archive");
    int verifyStatus = -1;
    for (const std::string command : {"trust ", "verify "}) {
        int* st = command == "trust " ? &status : &verifyStatus;
        EXPECT_EQ("", runTool(command + shellQuote(tmp / "text.txt"), st));
        std::string said = runTool(command + shellQuote(tmp / "text.txt") + " 2>&1 >/dev/null", st);
        EXPECT_NE(std::string::npos, said.find(tmp / "text.txt" + ": not an archive")) << said;
    }
    EXPECT_EQ(1, status);
    EXPECT_EQ(1, verifyStatus);
}

TEST_F(TrustCommand, SignedFoldersAreJudgedByTheirCodeSignature) {
    auto chain = testpki::makerChain(MakerLeafKind::Distribution);
    env.setMakerRoot(chain.root);
    testsupport::writeFile(tmp / "folder/Contents/file.txt", "contents\n");
    chain.leaf.key.writePEM(tmp / "leaf.key");
    chain.leaf.writePEM(tmp / "leaf.pem");
    chain.intermediate.writePEM(tmp / "intermediate.pem");
    int status = -1;
    EXPECT_EQ("CWTrustLevelNotSigned\t100\n", runTool("trust " + shellQuote(tmp / "folder"), &status));
    std::string out =
        runToolWithErrors("folder sign " + shellQuote(tmp / "folder") + " --identifier com.quarn.test" + " --key " +
                              shellQuote(tmp / "leaf.key") + " --cert " + shellQuote(tmp / "leaf.pem") + " --cert " +
                              shellQuote(tmp / "intermediate.pem"),
                          &status);
    ASSERT_EQ(0, status) << out;
    out = runTool("trust " + shellQuote(tmp / "folder"), &status);
    EXPECT_EQ(0u, out.find("CWTrustLevelQuarnDistributedProduction\t401\n")) << out;
    std::string said = runTool("trust " + shellQuote(tmp / "folder") + " 2>&1 >/dev/null", &status);
    EXPECT_EQ("crateworks trust: " + tmp / "folder" + ": contents verified\n", said);
    EXPECT_EQ("verified\n", runTool("verify " + shellQuote(tmp / "folder"), &status));
    EXPECT_EQ(0, status);
    // Only the signature counts for the level, but a changed resource is never passed
    // over in silence: trust says so on standard error, and verify fails naming it.
    testsupport::writeFile(tmp / "folder/Contents/file.txt", "changed\n");
    out = runTool("trust " + shellQuote(tmp / "folder"), &status);
    EXPECT_EQ(0u, out.find("CWTrustLevelQuarnDistributedProduction\t401\n")) << out;
    EXPECT_EQ(0, status);
    said = runTool("trust " + shellQuote(tmp / "folder") + " 2>&1 >/dev/null", &status);
    EXPECT_EQ(0u, said.find("crateworks trust: " + tmp / "folder" + ": contents do not verify: ")) << said;
    EXPECT_NE(std::string::npos, said.find("file.txt")) << said;
    EXPECT_EQ("", runTool("verify " + shellQuote(tmp / "folder"), &status));
    EXPECT_EQ(1, status);
    said = runTool("verify " + shellQuote(tmp / "folder") + " 2>&1 >/dev/null", &status);
    EXPECT_NE(std::string::npos, said.find("file.txt")) << said;
    // A file added after signing is not sealed either.
    testsupport::writeFile(tmp / "folder/Contents/file.txt", "contents\n");
    EXPECT_EQ("verified\n", runTool("verify " + shellQuote(tmp / "folder"), &status));
    testsupport::writeFile(tmp / "folder/Contents/extra", "");
    runTool("verify " + shellQuote(tmp / "folder"), &status);
    EXPECT_EQ(1, status);
    std::filesystem::remove(tmp / "folder/Contents/extra");
    testsupport::writeFile(tmp / "folder/_CodeSignature/CodeResources", "<plist><dict/></plist>");
    out = runTool("trust " + shellQuote(tmp / "folder"), &status);
    EXPECT_EQ("CWTrustLevelNotSigned\t100\n", out);  // no identifier: not a signed folder
}

TEST_F(TrustCommand, XarSignWritesTheDateAndRefusesBadIdentities) {
    auto chain = testpki::chainWithLeaf({}, "Signing Root", 3);
    std::string archive = trusttest::signArchive(tmp.path(), plain, chain, "2021-06-01T12:30:00");
    auto opened = CWXARArchive::initForReadingFromPath(archive);
    ASSERT_TRUE(opened);
    EXPECT_EQ("2021-06-01T12:30:00", opened->_xar()->archivePropertyGet("creation-time"));
    EXPECT_EQ(platform::Date::fromISO8601("2021-06-01T12:30:00Z"), opened->archiveSignatureDate());

    chain.leaf.writePEM(tmp / "leaf.pem");
    testpki::Key::pooled(7).writePEM(tmp / "other.key");
    chain.leaf.key.writePEM(tmp / "leaf.key");
    testsupport::writeFile(tmp / "junk.pem", "-----BEGIN CERTIFICATE-----\nnot base64\n-----END CERTIFICATE-----\n");
    std::string out = tmp / "out.xar";
    int status = -1;
    std::string messages =
        runToolWithErrors("xar sign " + shellQuote(plain) + " " + shellQuote(out) + " --key " +
                              shellQuote(tmp / "other.key") + " --cert " + shellQuote(tmp / "leaf.pem"),
                          &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, messages.find("does not belong")) << messages;
    EXPECT_FALSE(platform::fs::existsNoFollow(out));
    messages = runToolWithErrors("xar sign " + shellQuote(plain) + " " + shellQuote(out) + " --key " +
                                     shellQuote(tmp / "leaf.key") + " --cert " + shellQuote(tmp / "junk.pem"),
                                 &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, messages.find("junk.pem: not a certificate")) << messages;
    runToolWithErrors(
        "xar sign " + shellQuote(plain) + " " + shellQuote(out) + " --cert " + shellQuote(tmp / "leaf.pem"), &status);
    EXPECT_EQ(2, status);
    runToolWithErrors("xar sign " + shellQuote(plain) + " " + shellQuote(out) + " --key " +
                          shellQuote(tmp / "leaf.key") + " --cert " + shellQuote(tmp / "leaf.pem") +
                          " --date yesterday",
                      &status);
    EXPECT_EQ(2, status);
    EXPECT_FALSE(platform::fs::existsNoFollow(out));
}

}  // namespace
