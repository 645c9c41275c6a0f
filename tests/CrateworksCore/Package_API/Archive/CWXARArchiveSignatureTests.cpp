// Signatures of XAR archives signed by crateworks xar sign: what they carry, the check
// against their signed data (compared with openssl), and damaged signatures.
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchiveSignature.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "CrateworksCore/Package_API/Trust/CWArchiveTrustJudgement.h"
#include "Platform/Base64.h"
#include "Platform/Digest.h"
#include "Platform/Exception.h"
#include "Platform/SecurityStatus.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"
#include "support/TestPKI.h"

using namespace crateworks;
using testsupport::TempDir;
using xartest::runTool;
using xartest::shellQuote;

namespace {

// Only what every subclass must supply, left out.
class BareSignature : public CWArchiveSignature {};

class XARSignature : public ::testing::Test {
protected:
    TempDir tmp;
    testpki::TrustEnvironment env{tmp.path()};
    testpki::Chain chain = testpki::makerChain(testpki::MakerLeafKind::SoftwareUpdate);
    std::string archive = tmp / "signed.xar";

    void SetUp() override {
        env.setMakerRoot(chain.root);
        xartest::makeSampleTree(tmp / "src");
        int status = -1;
        std::string out =
            runTool("xar create " + shellQuote(tmp / "plain.xar") + " " + shellQuote(tmp / "src"), &status);
        ASSERT_EQ(0, status) << out;
        chain.leaf.key.writePEM(tmp / "leaf.key");
        chain.leaf.writePEM(tmp / "leaf.pem");
        chain.intermediate.writePEM(tmp / "intermediate.pem");
        out = runTool("xar sign " + shellQuote(tmp / "plain.xar") + " " + shellQuote(archive) + " --key " +
                          shellQuote(tmp / "leaf.key") + " --cert " + shellQuote(tmp / "leaf.pem") + " --cert " +
                          shellQuote(tmp / "intermediate.pem"),
                      &status);
        ASSERT_EQ(0, status) << out;
    }
    std::shared_ptr<CWArchiveSignature> firstSignature() {
        auto signatures = CWXARArchive::initForReadingFromPath(archive)->archiveSignatures();
        EXPECT_TRUE(signatures && signatures->size() == 1);
        return signatures && !signatures->empty() ? signatures->front() : nullptr;
    }
};

TEST(ArchiveSignature, TheBaseClassIsAbstract) {
    BareSignature bare;
    auto raisesFor = [](const std::function<void()>& call, const std::string& method) {
        try {
            call();
            ADD_FAILURE() << method << " did not raise";
        } catch (const platform::Exception& e) {
            EXPECT_EQ("CWArchiveSignatureException", e.name());
            EXPECT_EQ("Concrete subclasses must implement " + method, e.reason());
        }
    };
    raisesFor([&] { bare.certificateRefs(); }, "-[CWArchiveSignature certificateRefs]");
    raisesFor([&] { bare.algorithmType(); }, "-[CWArchiveSignature algorithmType]");
    raisesFor([&] { bare.signedDataReturningAlgorithm(nullptr); },
              "-[CWArchiveSignature signedDataReturningAlgorithm:]");
    raisesFor([&] { bare.signatureDataReturningAlgorithm(nullptr); },
              "-[CWArchiveSignature signatureDataReturningAlgorithm:]");
    EXPECT_FALSE(bare._hasSigningCertificate(nullptr));
    EXPECT_EQ(nullptr, bare.verificationTrustRef());
}

TEST_F(XARSignature, CarriesTheChainTheChecksumAndAnRSASignatureOverIt) {
    auto signature = firstSignature();
    ASSERT_TRUE(signature);
    EXPECT_EQ("RSA", signature->algorithmType());
    auto certificates = signature->certificateRefs();
    ASSERT_TRUE(certificates);
    ASSERT_EQ(2u, certificates->size());
    EXPECT_EQ(chain.leaf.der, (*certificates)[0]->der());
    EXPECT_EQ(chain.intermediate.der, (*certificates)[1]->der());

    std::optional<std::string> algorithm;
    auto signedData = signature->signedDataReturningAlgorithm(&algorithm);
    EXPECT_EQ("RSA", algorithm);
    ASSERT_TRUE(signedData);
    EXPECT_EQ(CWXARArchive::initForReadingFromPath(archive)->archiveDigest(), platform::digest::hex(*signedData));
    auto signatureData = signature->signatureDataReturningAlgorithm(nullptr);
    ASSERT_TRUE(signatureData);
    EXPECT_EQ(256u, signatureData->size());  // a 2048-bit key
    platform::Error error;
    EXPECT_TRUE(signature->verifySignedDataReturningError(&error));

    // openssl agrees: PKCS#1 v1.5 with a SHA-1 DigestInfo around the checksum.
    testsupport::writeFile(tmp / "checksum.bin", std::string(signedData->begin(), signedData->end()));
    testsupport::writeFile(tmp / "signature.bin", std::string(signatureData->begin(), signatureData->end()));
    int status = -1;
    std::string out = testsupport::runCommand("openssl pkeyutl -verify -certin -inkey " + shellQuote(tmp / "leaf.pem") +
                                                  " -pkeyopt digest:sha1 -in " + shellQuote(tmp / "checksum.bin") +
                                                  " -sigfile " + shellQuote(tmp / "signature.bin") + " 2>&1",
                                              &status);
    EXPECT_EQ(0, status) << out;

    EXPECT_TRUE(signature->_hasSigningCertificate(platform::security::Certificate::fromData(chain.leaf.der)));
    EXPECT_FALSE(signature->_hasSigningCertificate(platform::security::Certificate::fromData(chain.intermediate.der)));
    EXPECT_FALSE(signature->_hasSigningCertificate(nullptr));
    EXPECT_EQ(
        "CWXARArchiveSignature type RSA with certificates:\n - Quarn Test Leaf\n - Quarn Test Root Intermediate\n",
        signature->description());
}

TEST_F(XARSignature, ASignedArchiveIsAnOrdinaryArchiveStill) {
    int status = -1;
    EXPECT_EQ("verified 10 entries\n", runTool("xar verify " + shellQuote(archive), &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(runTool("xar list " + shellQuote(tmp / "plain.xar")), runTool("xar list " + shellQuote(archive)));
    std::string listed = testsupport::runCommand("bsdtar -tf " + shellQuote(archive) + " 2>&1", &status);
    EXPECT_EQ(0, status) << listed;
    EXPECT_NE(std::string::npos, listed.find("dir/nested/deep/leaf.txt"));
    auto opened = CWXARArchive::initForReadingFromPath(archive);
    EXPECT_EQ(testsupport::readFile(tmp / "src/top.txt"), [&] {
        auto data = opened->dataForPath("top.txt");
        return data ? std::string(data->begin(), data->end()) : std::string();
    }());
    EXPECT_EQ(CWTrustLevelQuarnSoftwareProduction, CWArchiveTrustJudgement::judgeArchive(opened, 0).trustLevel);
}

TEST_F(XARSignature, AlteredSignedDataNoLongerMatches) {
    // A changed TOC with a checksum that matches it: the signature is over the old checksum.
    xartest::editToc(archive, [](std::string& xml) { xartest::replaceOnce(xml, "top.txt", "TOP.txt"); });
    auto signature = firstSignature();
    ASSERT_TRUE(signature);
    platform::Error error;
    EXPECT_FALSE(signature->verifySignedDataReturningError(&error));
    EXPECT_EQ(platform::security::kOSStatusErrorDomain, error.domain);
    EXPECT_EQ(platform::security::kStatusSignatureMismatch, error.code);
    EXPECT_EQ("the signature does not match the signed data", error.description());
    auto judgement = CWArchiveTrustJudgement::judgeArchive(CWXARArchive::initForReadingFromPath(archive),
                                                           CWTrustLevelInvalidSignature);
    EXPECT_EQ(CWTrustLevelInvalidSignature, judgement.trustLevel);
    EXPECT_TRUE(judgement.passes);
}

TEST_F(XARSignature, OnlyRSASignaturesCount) {
    xartest::editToc(archive, [](std::string& xml) { xartest::replaceOnce(xml, "style=\"RSA\"", "style=\"CMS\""); });
    auto opened = CWXARArchive::initForReadingFromPath(archive);
    ASSERT_TRUE(opened);
    ASSERT_TRUE(opened->archiveSignatures());
    EXPECT_TRUE(opened->archiveSignatures()->empty());
    EXPECT_EQ(CWTrustLevelNotSigned, CWArchiveTrustJudgement::judgeArchive(opened, 0).trustLevel);
    // A signature object of another type lists no certificates and checks nothing.
    auto cms = CWXARArchiveSignature::initWithXARSignature(*opened->_xar(), 0);
    ASSERT_TRUE(cms);
    EXPECT_EQ("CMS", cms->algorithmType());
    EXPECT_FALSE(cms->certificateRefs());
    platform::Error error;
    EXPECT_FALSE(cms->verifySignedDataReturningError(&error));
    EXPECT_EQ("", error.domain);
    EXPECT_FALSE(CWXARArchiveSignature::initWithXARSignature(*opened->_xar(), 1));
}

TEST_F(XARSignature, UnreadableCertificatesAreSkipped) {
    std::string leafBase64 = platform::base64::encode(chain.leaf.der);
    xartest::editToc(archive, [&](std::string& xml) {
        xartest::replaceOnce(xml, leafBase64, platform::base64::encode(platform::Data{0x30, 0x03, 0x02, 0x01, 0x01}));
    });
    auto signature = firstSignature();
    ASSERT_TRUE(signature);
    auto certificates = signature->certificateRefs();
    ASSERT_TRUE(certificates);
    ASSERT_EQ(1u, certificates->size());
    EXPECT_EQ(chain.intermediate.der, certificates->front()->der());
    EXPECT_FALSE(signature->_hasSigningCertificate(platform::security::Certificate::fromData(chain.leaf.der)));
    // The intermediate's key did not make the signature.
    EXPECT_FALSE(signature->verifySignedData());
}

TEST_F(XARSignature, ASignatureLongerThanTheHeapIsNoSignature) {
    for (std::string size : {"99999999999", "18446744073709551615"}) {
        xartest::editToc(archive, [&](std::string& xml) {
            std::string::size_type at = xml.find("<signature");
            ASSERT_NE(std::string::npos, at);
            at = xml.find("<size>", at);
            xml.replace(at, xml.find("</size>", at) - at, "<size>" + size);
        });
        auto signature = firstSignature();
        ASSERT_TRUE(signature);
        EXPECT_FALSE(signature->signatureDataReturningAlgorithm(nullptr));
        platform::Error error;
        EXPECT_FALSE(signature->verifySignedDataReturningError(&error));
        EXPECT_EQ("", error.domain);
        EXPECT_EQ(CWTrustLevelInvalidSignature,
                  CWArchiveTrustJudgement::judgeArchive(CWXARArchive::initForReadingFromPath(archive), 0).trustLevel);
    }
}

TEST_F(XARSignature, TheSignatureTakesTheKeysModulusLength) {
    auto leaf = testpki::issue(testpki::makerLeafProfile(testpki::MakerLeafKind::SoftwareUpdate),
                               testpki::Key::generate(3072), chain.intermediate);
    leaf.key.writePEM(tmp / "big.key");
    leaf.writePEM(tmp / "big.pem");
    int status = -1;
    std::string out = runTool("xar sign " + shellQuote(tmp / "plain.xar") + " " + shellQuote(archive) + " --key " +
                                  shellQuote(tmp / "big.key") + " --cert " + shellQuote(tmp / "big.pem") + " --cert " +
                                  shellQuote(tmp / "intermediate.pem"),
                              &status);
    ASSERT_EQ(0, status) << out;
    auto signature = firstSignature();
    EXPECT_EQ(384u, signature->signatureDataReturningAlgorithm(nullptr)->size());
    EXPECT_TRUE(signature->verifySignedData());
    EXPECT_NE(std::string::npos, xartest::tocOf(archive).find("<size>384</size>"));
}

}  // namespace
