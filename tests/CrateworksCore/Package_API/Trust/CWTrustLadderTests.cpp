// The trust ladder on archives signed by the crateworks tool: every level a signed or
// unsigned archive can reach, and what the evaluation leaves behind.
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Archive/CWArchiveSignature.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "Platform/SecurityStatus.h"
#include "TrustTestSupport.h"
#include "support/TempDir.h"

using namespace crateworks;
using testpki::MakerLeafKind;
using testsupport::TempDir;

namespace {

constexpr long kYear = 365L * 86400;

class TrustLadder : public ::testing::Test {
protected:
    TempDir tmp;
    testpki::TrustEnvironment env{tmp.path()};
    std::string plain = trusttest::makeArchive(tmp.path());

    int32_t levelFor(const testpki::Chain& chain, const std::optional<std::string>& date = {}) {
        return trusttest::levelOf(trusttest::signArchive(tmp.path(), plain, chain, date));
    }
    // A leaf under a root that is nobody's anchor until the test makes it one.
    testpki::Chain ordinaryChain(const std::string& rootName, testpki::CertificateProfile leaf = {}) {
        return testpki::chainWithLeaf(leaf, rootName, 3);
    }
};

TEST_F(TrustLadder, MakerRootLevelsFollowTheLeafsPurposeAndMarking) {
    const std::vector<std::pair<MakerLeafKind, int32_t>> cases = {
        {MakerLeafKind::SoftwareUpdate, CWTrustLevelQuarnSoftwareProduction},
        {MakerLeafKind::SoftwareUpdateDevelopment, CWTrustLevelQuarnSoftwareDevelopment},
        {MakerLeafKind::Distribution, CWTrustLevelQuarnDistributedProduction},
        {MakerLeafKind::DistributionDevelopment, CWTrustLevelQuarnDistributedDevelopment},
        {MakerLeafKind::Developer, CWTrustLevelQuarnDeveloperProduction},
    };
    for (const auto& [kind, expected] : cases) {
        auto chain = testpki::makerChain(kind);
        env.setMakerRoot(chain.root);
        auto judgement = trusttest::judge(trusttest::signArchive(tmp.path(), plain, chain));
        EXPECT_EQ(expected, judgement.trustLevel) << int(kind);
        ASSERT_TRUE(judgement.certificateChain);
        ASSERT_EQ(3u, judgement.certificateChain->size());
        EXPECT_EQ(chain.root.der, judgement.certificateChain->back()->der());
        // A maker level keeps the maker's root as the only anchor.
        EXPECT_FALSE(judgement.trustRef->usesSystemAnchors());
    }
}

TEST_F(TrustLadder, AMakerChainIsNotTrustedWithoutTheMakersRoot) {
    auto chain = testpki::makerChain(MakerLeafKind::SoftwareUpdate);
    // The built-in root (or one of another maker) does not anchor the test chain.
    env.setMakerRoot(testpki::selfSigned(testpki::authorityProfile("Someone Else"), testpki::Key::pooled(6)));
    EXPECT_EQ(CWTrustLevelNotTrusted, levelFor(chain));
}

TEST_F(TrustLadder, DomainLevelsFollowWhereTheAnchorIsTrusted) {
    auto chain = ordinaryChain("Domain Test Root");
    EXPECT_EQ(CWTrustLevelNotTrusted, levelFor(chain));

    env.setUserSettings({{chain.root, {}}});
    EXPECT_EQ(CWTrustLevelUserDomain, levelFor(chain));
    env.setUserSettings({{chain.root, {{testpki::basicX509Policy(), 2}}}});
    EXPECT_EQ(CWTrustLevelUserDomain, levelFor(chain));

    // The administrator is asked before the user, the system before both.
    env.setAdminSettings({{chain.root, {{testpki::basicX509Policy(), std::nullopt}}}});
    EXPECT_EQ(CWTrustLevelAdminDomain, levelFor(chain));
    env.addSystemCA(chain.root);
    auto judgement = trusttest::judge(trusttest::signArchive(tmp.path(), plain, chain));
    EXPECT_EQ(CWTrustLevelSystemDomain, judgement.trustLevel);
    ASSERT_TRUE(judgement.certificateChain);
    std::vector<std::string> subjects;
    for (const auto& c : *judgement.certificateChain) subjects.push_back(c->subject());
    EXPECT_EQ((std::vector<std::string>{chain.leaf.subject, chain.intermediate.subject, chain.root.subject}), subjects);
    EXPECT_TRUE(judgement.trustRef->usesSystemAnchors());
}

TEST_F(TrustLadder, ALeafThatExpiredAfterSigningIsTrustedAtTheSigningDateOnly) {
    testpki::CertificateProfile leaf;
    leaf.notBeforeOffset = -3 * kYear;
    leaf.notAfterOffset = -kYear;
    auto chain = ordinaryChain("Expiry Test Root", leaf);
    env.addSystemCA(chain.root);
    std::string signedThen = trusttest::signArchive(tmp.path(), plain, chain, trusttest::isoFromNow(-2 * kYear));
    EXPECT_EQ(CWTrustLevelExpiredCertificate, trusttest::levelOf(signedThen));

    // The evaluation itself answers false, and says why.
    auto archive = CWXARArchive::initForReadingFromPath(signedThen);
    auto signature = archive->archiveSignatures()->front();
    auto trust = CWTrust::initWithCertificates(*signature->certificateRefs(), true, archive->archiveSignatureDate());
    platform::Error error;
    EXPECT_FALSE(trust->evaluateTrustReturningError(&error));
    EXPECT_EQ(CWTrustLevelExpiredCertificate, trust->trustLevel());
    EXPECT_EQ(platform::security::kOSStatusErrorDomain, error.domain);
    EXPECT_EQ(10, error.code);  // the certificate has expired
    EXPECT_EQ(platform::Value(5), *error.userInfo.find(kCWHostTrustResultKey));
    EXPECT_EQ("CWTrustLevelExpiredCertificate", *error.userInfo.findString(kCWTrustLevelKey));
    EXPECT_EQ("certificate has expired", *error.userInfo.findString(platform::security::kFailureReasonKey));
    // Evaluated once more at the current date, the verify date is now again.
    EXPECT_NEAR(platform::Date::now().secondsSince1970, trust->trustRef()->verifyDate().secondsSince1970, 60);

    // Signed when the leaf had already expired: not trusted at all.
    std::string signedLate =
        trusttest::signArchive(tmp.path(), plain, chain, trusttest::isoFromNow(-kYear / 2), "late.xar");
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(signedLate));
    // Without a signing date there is nothing to fall back on.
    auto undated = CWTrust::initWithCertificates(*signature->certificateRefs(), true, std::nullopt);
    EXPECT_FALSE(undated->evaluateTrustReturningError(nullptr));
    EXPECT_EQ(CWTrustLevelNotTrusted, undated->trustLevel());
}

TEST_F(TrustLadder, AnUnknownRootIsSignedButNotTrusted) {
    auto chain = ordinaryChain("Unknown Root");
    std::string path = trusttest::signArchive(tmp.path(), plain, chain);
    auto judgement = trusttest::judge(path);
    EXPECT_EQ(CWTrustLevelNotTrusted, judgement.trustLevel);
    EXPECT_TRUE(judgement.passes);  // lowest accepted level 0
    auto archive = CWXARArchive::initForReadingFromPath(path);
    auto trust =
        CWTrust::initWithCertificates(*archive->archiveSignatures()->front()->certificateRefs(), true, std::nullopt);
    platform::Error error;
    EXPECT_FALSE(trust->evaluateTrustReturningError(&error));
    EXPECT_EQ(20, error.code);  // unable to get local issuer certificate
    EXPECT_EQ("CWTrustLevelNotTrusted", *error.userInfo.findString(kCWTrustLevelKey));
    EXPECT_EQ(platform::security::kTrustResultRecoverableTrustFailure, trust->trustResult());
}

TEST_F(TrustLadder, AnAlteredSignatureIsInvalidAndNotEvaluated) {
    auto chain = testpki::makerChain(MakerLeafKind::SoftwareUpdate);
    env.setMakerRoot(chain.root);
    std::string path = trusttest::signArchive(tmp.path(), plain, chain);
    uint64_t heap = CWXARArchive::initForReadingFromPath(path)->_xar()->heapOffset();
    std::string bytes = testsupport::readFile(path);
    bytes[heap + 20 + 100] ^= 0x01;  // inside the signature, which follows the 20-byte checksum
    testsupport::writeFile(path, bytes);
    auto judgement = trusttest::judge(path);
    EXPECT_EQ(CWTrustLevelInvalidSignature, judgement.trustLevel);
    EXPECT_FALSE(judgement.certificateChain);
    EXPECT_FALSE(judgement.trustRef);
    ASSERT_TRUE(judgement.signatureError);
    EXPECT_EQ(platform::security::kStatusSignatureMismatch, judgement.signatureError->code);
}

TEST_F(TrustLadder, UnsignedArchivesAndMissingArchivesAreNotSigned) {
    EXPECT_EQ(CWTrustLevelNotSigned, trusttest::levelOf(plain));
    auto none = CWArchiveTrustJudgement::judgeArchive(nullptr, CWTrustLevelNotSigned);
    EXPECT_EQ(CWTrustLevelNotSigned, none.trustLevel);
    EXPECT_TRUE(none.passes);
    EXPECT_FALSE(CWArchiveTrustJudgement::judgeArchive(nullptr, CWTrustLevelUserDomain).passes);
}

TEST_F(TrustLadder, NoPathReachesTheDevelopmentDeveloperLevel) {
    // A developer purpose with the distribution's development marking is no level of the maker's.
    testpki::CertificateProfile leaf = testpki::makerLeafProfile(MakerLeafKind::Developer);
    leaf.extensions = {testpki::vendor(".100.6.1.10.1")};
    auto chain = testpki::chainWithLeaf(leaf, "Quarn Test Root");
    env.setMakerRoot(chain.root);
    EXPECT_EQ(CWTrustLevelNotTrusted, levelFor(chain));
}

TEST(TrustLevelNames, EveryLevelHasItsNameAndNothingElseHasOne) {
    EXPECT_EQ("CWTrustLevelInvalidSignature", CWTrust::stringForTrustLevel(0));
    EXPECT_EQ("CWTrustLevelExpiredCertificate", CWTrust::stringForTrustLevel(2));
    EXPECT_EQ("CWTrustLevelNotSigned", CWTrust::stringForTrustLevel(100));
    EXPECT_EQ("CWTrustLevelAdminDomain", CWTrust::stringForTrustLevel(201));
    EXPECT_EQ("CWTrustLevelQuarnDeveloperDevelopment", CWTrust::stringForTrustLevel(300));
    EXPECT_EQ("CWTrustLevelQuarnSoftwareProduction", CWTrust::stringForTrustLevel(501));
    int named = 0;
    for (int32_t level = -5; level < 1000; ++level) named += CWTrust::stringForTrustLevel(level).has_value();
    EXPECT_EQ(13, named);
    EXPECT_FALSE(CWTrust::stringForTrustLevel(3));
    EXPECT_FALSE(CWTrust::stringForTrustLevel(502));
}

TEST(TrustCreation, EmptyListsAndNullTrustObjectsMakeNoTrust) {
    EXPECT_EQ(nullptr, CWTrust::initWithCertificates({}, true, std::nullopt));
    EXPECT_EQ(nullptr, CWTrust::initWithHostTrust(nullptr, false, std::nullopt));
    auto leaf = testpki::selfSigned(testpki::authorityProfile("Lonely"), testpki::Key::pooled(0));
    auto certificate = platform::security::Certificate::fromData(leaf.der);
    auto host = platform::security::Trust::create({certificate}, nullptr);
    auto trust = CWTrust::initWithHostTrust(host, false, std::nullopt);
    ASSERT_TRUE(trust);
    EXPECT_EQ(host, trust->trustRef());
    EXPECT_FALSE(trust->certificateChain());
}

}  // namespace
