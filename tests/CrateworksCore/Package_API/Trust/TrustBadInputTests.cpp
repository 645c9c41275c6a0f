// Hostile or broken input to the trust code: no crash, a low level or false.
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "Platform/Certificate.h"
#include "Platform/MakerRootCertificate.h"
#include "Platform/SecurityStatus.h"
#include "TrustTestSupport.h"
#include "support/TempDir.h"

using namespace crateworks;
namespace security = platform::security;
using testsupport::TempDir;

namespace {

TEST(TrustBadInput, CertificatesThatDoNotParse) {
    auto good = testpki::selfSigned(testpki::authorityProfile("Parse Test"), testpki::Key::pooled(0));
    EXPECT_FALSE(security::Certificate::fromData(platform::Data{}));
    EXPECT_FALSE(security::Certificate::fromData(platform::Data{0x30, 0x82, 0xff, 0xff, 0x01}));
    EXPECT_FALSE(security::Certificate::fromData(platform::Data(good.der.begin(), good.der.end() - 1)));
    platform::Data trailing = good.der;
    trailing.push_back(0);
    EXPECT_FALSE(security::Certificate::fromData(trailing));
    std::string pem = good.pem();
    auto fromPEM = security::Certificate::fromData(platform::Data(pem.begin(), pem.end()));
    ASSERT_TRUE(fromPEM);
    EXPECT_EQ(good.der, fromPEM->der());
    EXPECT_EQ("Parse Test", fromPEM->commonName());
    EXPECT_EQ(good.subject, fromPEM->subject());
    EXPECT_TRUE(fromPEM->isSelfSigned());
    EXPECT_FALSE(fromPEM->extendedKeyUsage());
    // A signature check against a certificate needs a matching 20-byte digest.
    platform::Data digest(20, 7), signature(256, 1);
    EXPECT_EQ(security::kStatusSignatureMismatch, fromPEM->verifyRSASHA1Digest(digest, signature));
    EXPECT_EQ(security::kStatusSignatureMismatch, fromPEM->verifyRSASHA1Digest(platform::Data(3), signature));
}

TEST(TrustBadInput, AChainOfAHundredCertificatesIsNotTrusted) {
    TempDir tmp;
    testpki::TrustEnvironment env(tmp.path());
    // One key throughout: only the length of the chain matters here.
    testpki::Key key = testpki::Key::pooled(0);
    std::vector<testpki::TestCertificate> chain{testpki::selfSigned(testpki::authorityProfile("Link 0"), key)};
    for (int i = 1; i < 100; ++i)
        chain.push_back(testpki::issue(testpki::authorityProfile("Link " + std::to_string(i)), key, chain.back()));
    env.addSystemCA(chain.front());
    std::vector<testpki::TestCertificate> rest(chain.rbegin() + 1, chain.rend());
    std::string archive = trusttest::signArchive(tmp.path(), trusttest::makeArchive(tmp.path()), chain.back(), rest);
    auto judgement = trusttest::judge(archive);
    EXPECT_EQ(CWTrustLevelNotTrusted, judgement.trustLevel);
    auto trust = CWTrust::initWithHostTrust(judgement.trustRef, false, std::nullopt);
    platform::Error error;
    EXPECT_FALSE(trust->evaluateTrustReturningError(&error));
    EXPECT_EQ("certificate chain too long", *error.userInfo.findString(security::kFailureReasonKey));
}

TEST(TrustBadInput, MessagesForEveryStatusTheServicesUse) {
    EXPECT_EQ("development-signed certificate", security::messageForStatus(security::kStatusDevelopmentSigned));
    EXPECT_EQ("certificate has expired", security::messageForStatus(10));
    EXPECT_EQ("a sealed resource is missing", security::messageForStatus(security::kStatusResourceMissing));
    EXPECT_FALSE(security::messageForStatus(0));
    EXPECT_FALSE(security::messageForStatus(-4));
}

TEST(TrustBadInput, AMissingOrDamagedMakerRootPassesNoMakerLevel) {
    TempDir tmp;
    testpki::TrustEnvironment env(tmp.path());
    auto chain = testpki::makerChain(testpki::MakerLeafKind::SoftwareUpdate);
    std::string archive = trusttest::signArchive(tmp.path(), trusttest::makeArchive(tmp.path()), chain);
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));  // FERRYHOLD_MAKER_ROOT names no file yet
    security::setMakerRootCertificateOverride(platform::Data{1, 2, 3});
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));
    // The built-in root is a certificate of its own, not the test's.
    auto builtIn = security::Certificate::fromData(security::builtInMakerRootCertificateData());
    ASSERT_TRUE(builtIn);
    EXPECT_TRUE(builtIn->isSelfSigned());
    EXPECT_NE(chain.root.der, builtIn->der());
}

TEST(TrustBadInput, OIDsRoundTripAndRejectNonsense) {
    auto oid = security::Oid::fromDotted(testpki::vendor(".100.4.9"));
    ASSERT_TRUE(oid);
    EXPECT_EQ(testpki::vendor(".100.4.9"), oid->dotted());
    EXPECT_FALSE(security::Oid::fromDotted(""));
    EXPECT_FALSE(security::Oid::fromDotted("commonName"));
    EXPECT_FALSE(security::Oid::fromDotted("1..2"));
    EXPECT_EQ("", security::Oid(platform::Data{0x80}).dotted());
    EXPECT_FALSE(security::TrustPolicy::search(2, security::basicX509PolicyOID()));
    EXPECT_FALSE(security::TrustPolicy::search(3, *security::Oid::fromDotted("1.2.3")));
}

}  // namespace
