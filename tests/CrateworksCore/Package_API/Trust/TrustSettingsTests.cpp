// Trust settings domains: which anchors they add, which domain trusts a root for the
// evaluated policy, and what damaged or unreadable settings grant (nothing).
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "Platform/TrustSettings.h"
#include "TrustTestSupport.h"
#include "support/TempDir.h"

using namespace crateworks;
namespace security = platform::security;
using security::TrustSettingsDomain;
using testsupport::TempDir;

namespace {

class TrustSettings : public ::testing::Test {
protected:
    TempDir tmp;
    testpki::TrustEnvironment env{tmp.path()};
    testpki::Chain chain = testpki::chainWithLeaf({}, "Settings Test Root", 3);
    std::string archive = trusttest::signArchive(tmp.path(), trusttest::makeArchive(tmp.path()), chain);

    std::shared_ptr<CWTrust> trust(std::optional<platform::Date> date = std::nullopt) {
        security::CertificateList certificates{security::Certificate::fromData(chain.leaf.der),
                                               security::Certificate::fromData(chain.intermediate.der)};
        return CWTrust::initWithCertificates(certificates, true, date);
    }
    bool trustedAsRoot(TrustSettingsDomain domain) {
        auto t = trust();
        EXPECT_TRUE(t->_evaluateTrustAtLevel(CWTrustLevelSystemDomain, nullptr));
        return t->_isTrustedAsRootCertificate(security::Certificate::fromData(chain.root.der), domain);
    }
};

TEST_F(TrustSettings, TheFirstEntryForThePolicyDecides) {
    const std::string basic = testpki::basicX509Policy();
    const std::string update = testpki::softwareUpdateSigningPolicy();
    env.setUserSettings({{chain.root, {{basic, 3}, {basic, 1}}}, {chain.intermediate, {}}});
    // An anchor (one entry trusts as root), but the first entry for the policy denies.
    EXPECT_FALSE(trustedAsRoot(TrustSettingsDomain::User));

    env.setUserSettings({{chain.root, {{update, 3}, {basic, 1}, {basic, 3}}}});
    EXPECT_TRUE(trustedAsRoot(TrustSettingsDomain::User));
    env.setUserSettings({{chain.root, {{basic, std::nullopt}}}});
    EXPECT_TRUE(trustedAsRoot(TrustSettingsDomain::User));
    env.setUserSettings({{chain.root, {{basic, 4}, {update, 1}}}});
    EXPECT_FALSE(trustedAsRoot(TrustSettingsDomain::User));
    // Each domain answers for itself.
    EXPECT_FALSE(trustedAsRoot(TrustSettingsDomain::Admin));
    EXPECT_FALSE(trustedAsRoot(TrustSettingsDomain::System));
    auto t = trust();
    EXPECT_FALSE(t->_isTrustedAsRootCertificate(nullptr, TrustSettingsDomain::User));
}

TEST_F(TrustSettings, AnEmptySettingsListTrustsForEverything) {
    env.setAdminSettings({{chain.root, {}}});
    EXPECT_TRUE(trustedAsRoot(TrustSettingsDomain::Admin));
    EXPECT_EQ(CWTrustLevelAdminDomain, trusttest::levelOf(archive));
    // Proceed, not merely unspecified: the administrator trusts this anchor explicitly.
    auto t = trust();
    EXPECT_TRUE(t->evaluateTrustReturningError(nullptr));
    EXPECT_EQ(security::kTrustResultProceed, t->trustResult());
}

TEST_F(TrustSettings, ADeniedRootIsNoAnchor) {
    env.setAdminSettings({{chain.root, {{testpki::basicX509Policy(), 3}}}});
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));
    env.setAdminSettings({{chain.root, {{testpki::basicX509Policy(), 4}}}});
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));
}

TEST_F(TrustSettings, ARootTrustedForAnotherPolicyValidatesWithoutDomainTrust) {
    env.setUserSettings({{chain.root, {{testpki::softwareUpdateSigningPolicy(), 1}}}});
    auto undated = trust();
    EXPECT_FALSE(undated->evaluateTrustReturningError(nullptr));
    EXPECT_EQ(CWTrustLevelNotTrusted, undated->trustLevel());
    EXPECT_EQ(security::kTrustResultUnspecified, undated->trustResult());
    // With the archive's signing date the chain is valid then, which is all it earns.
    EXPECT_EQ(CWTrustLevelExpiredCertificate, trusttest::levelOf(archive));
}

TEST_F(TrustSettings, SystemCADirectoryIsReadByHashedName) {
    std::string pem = tmp / "root.pem";
    chain.root.writePEM(pem);
    std::string hash = testsupport::runCommand("openssl x509 -noout -hash -in " + trusttest::shellQuote(pem));
    hash.erase(hash.find_last_not_of("\n") + 1);
    ASSERT_EQ(8u, hash.size());
    chain.root.writePEM(tmp / ("system-ca.d/" + hash + ".0"));
    EXPECT_EQ(CWTrustLevelSystemDomain, trusttest::levelOf(archive));
    auto t = trust();
    ASSERT_TRUE(t->evaluateTrustReturningError(nullptr));
    EXPECT_EQ(security::kTrustResultUnspecified, t->trustResult());
    EXPECT_NE(0u, t->trustRef()->chainStatus().back() & security::kChainStatusIsInAnchors);
    EXPECT_NE(0u, t->trustRef()->chainStatus().back() & security::kChainStatusIsRoot);
    EXPECT_EQ(0u, t->trustRef()->chainStatus().front());
}

TEST_F(TrustSettings, AnUnreadableSettingsFileCountsForNothingAndIsReportedOnce) {
    std::vector<std::string> logged;
    platform::setConsoleSink([&](std::string_view m) { logged.emplace_back(m); });
    testsupport::writeFile(env.adminSettingsPath() + "/inside", "a folder where the file should be");
    env.setUserSettings({{chain.root, {}}});
    EXPECT_EQ(CWTrustLevelUserDomain, trusttest::levelOf(archive));
    EXPECT_EQ(CWTrustLevelUserDomain, trusttest::levelOf(archive));
    platform::setConsoleSink({});
    ASSERT_EQ(1u, logged.size());
    EXPECT_NE(std::string::npos, logged[0].find(env.adminSettingsPath()));
}

TEST_F(TrustSettings, DamagedSettingsGrantNothing) {
    platform::setConsoleSink([](std::string_view) {});
    testsupport::writeFile(env.adminSettingsPath(), "<plist version=\"1.0\"><array/></plist>");
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));

    platform::Data der = chain.root.der;
    auto write = [&](platform::Dictionary top) {
        ASSERT_TRUE(platform::plist::writeXMLFile(top, env.adminSettingsPath()));
    };
    write({{"Certificates", platform::Dictionary{{"Certificate", der}}}});
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));
    write({{"Certificates", platform::Array{platform::Dictionary{{"Certificate", der}, {"Settings", "all"}}}}});
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));
    write({{"Certificates",
            platform::Array{platform::Dictionary{{"Certificate", der}, {"Settings", platform::Array{"everything"}}}}}});
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));
    write({{"Certificates",
            platform::Array{platform::Dictionary{
                {"Certificate", der}, {"Settings", platform::Array{platform::Dictionary{{"Result", "1"}}}}}}}});
    EXPECT_EQ(CWTrustLevelNotTrusted, trusttest::levelOf(archive));

    // A damaged entry spoils only itself.
    platform::Data garbage(der.begin(), der.begin() + 40);
    write({{"Certificates",
            platform::Array{platform::Dictionary{{"Certificate", garbage}, {"Settings", platform::Array{}}},
                            platform::Dictionary{{"Certificate", der}, {"Settings", platform::Array{}}}}}});
    EXPECT_EQ(CWTrustLevelAdminDomain, trusttest::levelOf(archive));
    platform::setConsoleSink({});
}

}  // namespace
