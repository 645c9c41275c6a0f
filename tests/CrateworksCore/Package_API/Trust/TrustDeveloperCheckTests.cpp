// The developer check of maker chains, on trust objects anchored at the chain's root.
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "CrateworksCore/Package_API/Trust/CWTrustAdditions.h"
#include "Platform/TrustEvaluation.h"
#include "support/TempDir.h"
#include "support/TestPKI.h"

using namespace crateworks;
namespace security = platform::security;
using testpki::Key;
using testpki::MakerLeafKind;

namespace {

security::CertificateRef certificate(const testpki::TestCertificate& c) {
    return security::Certificate::fromData(c.der);
}

// A basic-X.509 trust object over `chain` (leaf first) anchored at `root`.
std::shared_ptr<security::Trust> anchoredTrust(const std::vector<testpki::TestCertificate>& chain,
                                               const testpki::TestCertificate& root) {
    security::CertificateList certificates;
    for (const auto& c : chain) certificates.push_back(certificate(c));
    auto trust =
        security::Trust::create(certificates, security::TrustPolicy::search(3, security::basicX509PolicyOID()));
    trust->setAnchorCertificates({certificate(root)});
    return trust;
}

struct Outcome {
    bool passed = false;
    int32_t result = 0;
    bool development = true;
};

Outcome check(const std::vector<testpki::TestCertificate>& chain, const testpki::TestCertificate& root,
              bool forDeveloper) {
    Outcome outcome;
    auto trust = anchoredTrust(chain, root);
    outcome.passed =
        CWTrustAdditions::evaluateVarennaTrust(*trust, &outcome.result, forDeveloper, &outcome.development);
    return outcome;
}

Outcome checkLeaf(const testpki::CertificateProfile& leafProfile, bool forDeveloper) {
    auto chain = testpki::chainWithLeaf(leafProfile, "Quarn Test Root");
    return check(chain.signingOrder(), chain.root, forDeveloper);
}

TEST(DeveloperCheck, MakerChainsPassWithTheirMarking) {
    Outcome distribution = checkLeaf(testpki::makerLeafProfile(MakerLeafKind::Distribution), false);
    EXPECT_TRUE(distribution.passed);
    EXPECT_EQ(security::kTrustResultProceed, distribution.result);
    EXPECT_FALSE(distribution.development);

    Outcome development = checkLeaf(testpki::makerLeafProfile(MakerLeafKind::DistributionDevelopment), false);
    EXPECT_TRUE(development.passed);
    EXPECT_TRUE(development.development);

    Outcome developer = checkLeaf(testpki::makerLeafProfile(MakerLeafKind::Developer), true);
    EXPECT_TRUE(developer.passed);
    EXPECT_FALSE(developer.development);
    // A developer certificate is not a distribution one, nor the other way round.
    EXPECT_FALSE(checkLeaf(testpki::makerLeafProfile(MakerLeafKind::Developer), false).passed);
    EXPECT_FALSE(checkLeaf(testpki::makerLeafProfile(MakerLeafKind::Distribution), true).passed);
}

TEST(DeveloperCheck, OnlyChainsOfExactlyThreeCertificatesPass) {
    auto profile = testpki::makerLeafProfile(MakerLeafKind::Distribution);
    auto root = testpki::selfSigned(testpki::authorityProfile("Quarn Test Root"), Key::pooled(0));
    auto direct = testpki::issue(profile, Key::pooled(2), root);
    Outcome two = check({direct}, root, false);
    EXPECT_FALSE(two.passed);
    EXPECT_EQ(security::kTrustResultRecoverableTrustFailure, two.result);
    EXPECT_FALSE(two.development);

    auto first = testpki::issue(testpki::authorityProfile("First Intermediate"), Key::pooled(1), root);
    auto second = testpki::issue(testpki::authorityProfile("Second Intermediate"), Key::pooled(3), first);
    auto deep = testpki::issue(profile, Key::pooled(2), second);
    Outcome four = check({deep, second, first}, root, false);
    EXPECT_FALSE(four.passed);
    EXPECT_EQ(security::kTrustResultRecoverableTrustFailure, four.result);
}

TEST(DeveloperCheck, TheIntermediateNeedsBasicConstraints) {
    auto root = testpki::selfSigned(testpki::authorityProfile("Quarn Test Root"), Key::pooled(0));
    auto intermediateProfile = testpki::authorityProfile("Unconstrained Intermediate");
    intermediateProfile.basicConstraints = false;
    auto intermediate = testpki::issue(intermediateProfile, Key::pooled(1), root);
    auto leaf = testpki::issue(testpki::makerLeafProfile(MakerLeafKind::Distribution), Key::pooled(2), intermediate);

    // Path validation already refuses an issuer that signs certificates without being
    // a CA by its basic constraints, so the check keeps the evaluation's result.
    Outcome outcome = check({leaf, intermediate}, root, false);
    EXPECT_FALSE(outcome.passed);
    EXPECT_EQ(security::kTrustResultRecoverableTrustFailure, outcome.result);
    auto trust = anchoredTrust({leaf, intermediate}, root);
    int32_t result = 0;
    CWTrustAdditions::evaluateVarennaTrust(*trust, &result, false, nullptr);
    EXPECT_EQ(79, trust->resultCode());  // keyCertSign on a certificate that is no CA
}

TEST(DeveloperCheck, TheLeafNamesExactlyOnePurposeAndTheRightExtension) {
    auto twoPurposes = testpki::makerLeafProfile(MakerLeafKind::Distribution);
    twoPurposes.extendedKeyUsage.push_back(testpki::vendor(".100.4.9"));
    EXPECT_FALSE(checkLeaf(twoPurposes, false).passed);
    EXPECT_FALSE(checkLeaf(twoPurposes, true).passed);

    auto noPurpose = testpki::makerLeafProfile(MakerLeafKind::Distribution);
    noPurpose.extendedKeyUsage.clear();
    EXPECT_FALSE(checkLeaf(noPurpose, false).passed);

    auto wrongExtension = testpki::makerLeafProfile(MakerLeafKind::Distribution);
    wrongExtension.extensions = {testpki::vendor(".100.6.1.8")};
    Outcome distribution = checkLeaf(wrongExtension, false);
    EXPECT_FALSE(distribution.passed);
    EXPECT_FALSE(distribution.development);

    auto developerWithDistributionMark = testpki::makerLeafProfile(MakerLeafKind::Developer);
    developerWithDistributionMark.extensions = {testpki::vendor(".100.6.1.10")};
    EXPECT_FALSE(checkLeaf(developerWithDistributionMark, true).passed);

    // An arc that merely begins like the marking is not the marking.
    auto longer = testpki::makerLeafProfile(MakerLeafKind::Distribution);
    longer.extensions = {testpki::vendor(".100.6.1.10.2")};
    EXPECT_FALSE(checkLeaf(longer, false).passed);
}

TEST(DeveloperCheck, AFailedEvaluationKeepsItsOwnResult) {
    auto chain = testpki::makerChain(MakerLeafKind::Distribution);
    auto stranger = testpki::selfSigned(testpki::authorityProfile("Stranger"), Key::pooled(4));
    Outcome outcome = check(chain.signingOrder(), stranger, false);
    EXPECT_FALSE(outcome.passed);
    EXPECT_EQ(security::kTrustResultRecoverableTrustFailure, outcome.result);
}

TEST(DeveloperCheck, ExtensionTestComparesWholeOIDs) {
    auto chain = testpki::makerChain(MakerLeafKind::DistributionDevelopment);
    auto leaf = certificate(chain.leaf);
    EXPECT_TRUE(CWTrustAdditions::_certificateHasExtension(*leaf, security::vendorOID(".100.6.1.10.1")));
    EXPECT_FALSE(CWTrustAdditions::_certificateHasExtension(*leaf, security::vendorOID(".100.6.1.10")));
    EXPECT_TRUE(CWTrustAdditions::_certificateHasExtension(*certificate(chain.intermediate),
                                                           *security::Oid::fromDotted("2.5.29.19")));
}

using DeveloperCheckDeathTest = ::testing::Test;

TEST_F(DeveloperCheckDeathTest, MissingResultPointerAndUnknownTargetsAreAssertions) {
    auto chain = testpki::makerChain(MakerLeafKind::Distribution);
    auto trust = anchoredTrust(chain.signingOrder(), chain.root);
    EXPECT_DEATH(CWTrustAdditions::evaluateVarennaTrust(*trust, nullptr, false, nullptr),
                 "CWTrustAdditions.cpp:67.*trust result pointer required");
    auto cwTrust = CWTrust::initWithHostTrust(trust, true, std::nullopt);
    EXPECT_DEATH(cwTrust->_evaluateTrustAtLevel(300, nullptr), "CWTrust.cpp:371.*Unexpected target trust level 300");
}

}  // namespace
