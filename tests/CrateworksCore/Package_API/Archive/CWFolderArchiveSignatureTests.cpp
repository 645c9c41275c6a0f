// Code signatures of folder archives made by crateworks folder sign: the signature
// alone and with its sealed resources, checked against openssl and sha256sum.
#include <gtest/gtest.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/CWFolderArchive.h"
#include "CrateworksCore/Package_API/Archive/CWFolderArchiveSignature.h"
#include "CrateworksCore/Package_API/Trust/CWArchiveTrustJudgement.h"
#include "Platform/Digest.h"
#include "Platform/PropertyList.h"
#include "Platform/SecurityStatus.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"
#include "support/TestPKI.h"

using namespace crateworks;
namespace security = platform::security;
using testsupport::TempDir;
using xartest::runTool;
using xartest::shellQuote;

namespace {

class FolderSignature : public ::testing::Test {
protected:
    TempDir tmp;
    testpki::TrustEnvironment env{tmp.path()};
    testpki::Chain chain = testpki::makerChain(testpki::MakerLeafKind::Distribution);
    std::string folder = tmp / "Thing.pkg";

    void SetUp() override {
        env.setMakerRoot(chain.root);
        testsupport::writeFile(folder + "/Contents/Info.plist", "<plist><dict/></plist>\n");
        testsupport::writeFile(folder + "/Contents/Resources/a.txt", "first resource\n");
        testsupport::writeFile(folder + "/Contents/Resources/sub/b.bin", std::string(3000, '\x01'));
        ASSERT_EQ(0, symlink("Resources/a.txt", (folder + "/Contents/link").c_str()));
        chain.leaf.key.writePEM(tmp / "leaf.key");
        chain.leaf.writePEM(tmp / "leaf.pem");
        chain.intermediate.writePEM(tmp / "intermediate.pem");
    }
    void sign() {
        int status = -1;
        std::string out = runTool("folder sign " + shellQuote(folder) + " --identifier com.quarn.thing --key " +
                                      shellQuote(tmp / "leaf.key") + " --cert " + shellQuote(tmp / "leaf.pem") +
                                      " --cert " + shellQuote(tmp / "intermediate.pem"),
                                  &status);
        ASSERT_EQ(0, status) << out;
    }
    std::shared_ptr<CWFolderArchiveSignature> signature() {
        auto signatures = CWFolderArchive::initForReadingFromPath(folder)->archiveSignatures();
        EXPECT_TRUE(signatures && signatures->size() == 1);
        if (!signatures || signatures->empty()) return nullptr;
        return std::dynamic_pointer_cast<CWFolderArchiveSignature>(signatures->front());
    }
    // Full check and signature-only check, as statuses (0 for a pass).
    std::pair<int64_t, int64_t> checks() {
        auto s = signature();
        platform::Error full, only;
        bool fullPassed = s->verifyCodeSignatureIncludingSealedResources(true, &full);
        bool onlyPassed = s->verifySignedDataReturningError(&only);
        return {fullPassed ? 0 : full.code, onlyPassed ? 0 : only.code};
    }
};

TEST_F(FolderSignature, AnUnsignedFolderIsValidAndHasNoSignature) {
    auto archive = CWFolderArchive::initForReadingFromPath(folder);
    EXPECT_FALSE(archive->archiveSignatures());
    EXPECT_TRUE(archive->verifyReturningError(nullptr));
    EXPECT_FALSE(CWFolderArchiveSignature::initWithArchiveAtPath(""));
    EXPECT_FALSE(CWFolderArchiveSignature::initWithArchiveAtPath(folder + "/Contents/Info.plist"));
    EXPECT_EQ(CWTrustLevelNotSigned, CWArchiveTrustJudgement::judgeArchive(archive, 0).trustLevel);
}

TEST_F(FolderSignature, ASignedFolderCarriesItsIdentifierChainAndSeal) {
    sign();
    auto s = signature();
    ASSERT_TRUE(s);
    EXPECT_EQ("CodeSign", s->algorithmType());
    EXPECT_FALSE(s->signedDataReturningAlgorithm(nullptr));
    EXPECT_FALSE(s->signatureDataReturningAlgorithm(nullptr));
    auto certificates = s->certificateRefs();
    ASSERT_TRUE(certificates);
    ASSERT_EQ(2u, certificates->size());
    EXPECT_EQ(chain.leaf.der, (*certificates)[0]->der());
    EXPECT_EQ(chain.intermediate.der, (*certificates)[1]->der());
    EXPECT_EQ(std::make_pair(int64_t(0), int64_t(0)), checks());
    EXPECT_TRUE(CWFolderArchive::initForReadingFromPath(folder)->verifyReturningError(nullptr));

    std::string resources = folder + "/_CodeSignature/CodeResources";
    auto plist = platform::plist::readDictionaryFile(resources);
    ASSERT_TRUE(plist);
    EXPECT_EQ("com.quarn.thing", *plist->findString("Identifier"));
    const platform::Dictionary* files = plist->findDictionary("Files");
    ASSERT_TRUE(files);
    EXPECT_EQ((std::vector<std::string>{"Contents/Info.plist", "Contents/Resources/a.txt",
                                        "Contents/Resources/sub/b.bin", "Contents/link"}),
              files->keys());
    std::string sum = testsupport::runCommand("sha256sum " + shellQuote(folder + "/Contents/Resources/sub/b.bin"));
    EXPECT_EQ(sum.substr(0, 64), platform::digest::hex(*files->find("Contents/Resources/sub/b.bin")->data()));
    sum = testsupport::runCommand("printf %s Resources/a.txt | sha256sum");
    EXPECT_EQ(sum.substr(0, 64), platform::digest::hex(*files->find("Contents/link")->data()));

    // openssl accepts the detached signature over the exact bytes of CodeResources.
    int status = -1;
    std::string out = testsupport::runCommand("openssl cms -verify -binary -noverify -inform DER -in " +
                                                  shellQuote(folder + "/_CodeSignature/CodeSignature") + " -content " +
                                                  shellQuote(resources) + " -out /dev/null 2>&1",
                                              &status);
    EXPECT_EQ(0, status) << out;
    EXPECT_EQ(CWTrustLevelQuarnDistributedProduction,
              CWArchiveTrustJudgement::judgeArchive(CWFolderArchive::initForReadingFromPath(folder), 0).trustLevel);
}

TEST_F(FolderSignature, ResourceChangesFailOnlyTheFullCheck) {
    sign();
    testsupport::writeFile(folder + "/Contents/Resources/a.txt", "changed resource\n");
    EXPECT_EQ(std::make_pair(security::kStatusResourceModified, int64_t(0)), checks());
    platform::Error error;
    EXPECT_FALSE(CWFolderArchive::initForReadingFromPath(folder)->verifyReturningError(&error));
    EXPECT_EQ(security::kOSStatusErrorDomain, error.domain);
    EXPECT_EQ(security::kStatusResourceModified, error.code);
    EXPECT_EQ("a sealed resource was modified", error.description());

    sign();
    ASSERT_EQ(0, unlink((folder + "/Contents/Resources/sub/b.bin").c_str()));
    EXPECT_EQ(std::make_pair(security::kStatusResourceMissing, int64_t(0)), checks());

    sign();
    testsupport::writeFile(folder + "/Contents/Resources/new/extra.txt", "not sealed\n");
    EXPECT_EQ(std::make_pair(security::kStatusResourceAdded, int64_t(0)), checks());

    // What lies in _CodeSignature is not a resource.
    sign();
    testsupport::writeFile(folder + "/_CodeSignature/notes.txt", "kept beside the seal\n");
    EXPECT_EQ(std::make_pair(int64_t(0), int64_t(0)), checks());
    // A link retargeted is a modified resource.
    ASSERT_EQ(0, unlink((folder + "/Contents/link").c_str()));
    ASSERT_EQ(0, symlink("Info.plist", (folder + "/Contents/link").c_str()));
    EXPECT_EQ(std::make_pair(security::kStatusResourceModified, int64_t(0)), checks());
}

TEST_F(FolderSignature, AChangedSealFailsBothChecks) {
    sign();
    std::string resources = folder + "/_CodeSignature/CodeResources";
    std::string text = testsupport::readFile(resources);
    text.replace(text.find("com.quarn.thing"), 15, "com.quarn.thang");
    testsupport::writeFile(resources, text);
    EXPECT_EQ(std::make_pair(security::kStatusCodeSignatureInvalid, security::kStatusCodeSignatureInvalid), checks());
    EXPECT_EQ(CWTrustLevelInvalidSignature,
              CWArchiveTrustJudgement::judgeArchive(CWFolderArchive::initForReadingFromPath(folder), 0).trustLevel);

    // A seal that names a path outside the folder is refused, not followed.
    testsupport::writeFile(tmp / "outside.txt", "outside\n");
    platform::Dictionary files{
        {"../outside.txt", platform::digest::compute(platform::digest::Algorithm::SHA256, platform::Data{'o'})}};
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Dictionary{{"Identifier", "x"}, {"Files", files}}, resources));
    EXPECT_EQ(security::kStatusCodeSignatureInvalid, checks().first);
}

// A signature whose digest algorithm is one no verifier knows is refused by both
// checks; the ASan build also finds that nothing of the verification is lost.
TEST_F(FolderSignature, ASignatureNamingAnUnknownDigestIsRefused) {
    sign();
    std::string path = folder + "/_CodeSignature/CodeSignature";
    std::string der = testsupport::readFile(path);
    const std::string sha256Oid("\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01", 11);
    size_t at = der.find(sha256Oid);
    ASSERT_NE(std::string::npos, at);
    der[at + 2] = '\x72';  // the first arc of the algorithm's OID: no longer SHA-256
    testsupport::writeFile(path, der);
    EXPECT_EQ(std::make_pair(security::kStatusCodeSignatureInvalid, security::kStatusCodeSignatureInvalid), checks());
}

}  // namespace
