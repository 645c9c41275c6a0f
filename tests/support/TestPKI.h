// A public-key infrastructure made at test run time: RSA keys, certificates with the
// maker's purposes and extensions, ready-made maker chains, trust settings files, and
// a trust environment that points every trust source (system CA store, administrator
// and user settings, the maker's root) into a temporary directory.
//
//   testpki::TrustEnvironment env(tmp.path());
//   auto chain = testpki::makerChain(testpki::MakerLeafKind::SoftwareUpdate);
//   env.setMakerRoot(chain.root);
//   chain.leaf.writePEM(tmp / "leaf.pem"); chain.leaf.key.writePEM(tmp / "leaf.key");
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Value.h"

struct evp_pkey_st;

namespace testpki {

// The vendor arc followed by `suffix`: vendor(".100.4.9").
std::string vendor(const std::string& suffix);
// Policy OIDs as trust settings name them.
std::string basicX509Policy();
std::string softwareUpdateSigningPolicy();

class Key {
public:
    // A fresh RSA key.
    static Key generate(int bits = 2048);
    // The n-th key of a per-process pool (made on first use): distinct n, distinct keys.
    static Key pooled(int n);

    std::string privateKeyPEM() const;
    void writePEM(const std::string& path) const;
    int bits() const;
    evp_pkey_st* native() const { return key_.get(); }

private:
    std::shared_ptr<evp_pkey_st> key_;
};

struct CertificateProfile {
    std::string commonName = "Test Certificate";
    std::string organization = "Quarn Test";
    bool isCA = false;
    // Write a basic-constraints extension (CA:TRUE for a CA, CA:FALSE otherwise).
    bool basicConstraints = true;
    // Extended key usage purposes as dotted OIDs; none written when empty.
    std::vector<std::string> extendedKeyUsage;
    // Further non-critical extensions by dotted OID (their value is a DER NULL).
    std::vector<std::string> extensions;
    // Seconds from now.
    long notBeforeOffset = -86400;
    long notAfterOffset = 365L * 86400;
};

class TestCertificate {
public:
    platform::Data der;
    Key key;
    std::string subject;  // RFC 2253, as the trust code prints it

    std::string pem() const;
    void writePEM(const std::string& path) const;
    void writeDER(const std::string& path) const;
};

TestCertificate selfSigned(const CertificateProfile& profile, const Key& key);
TestCertificate issue(const CertificateProfile& profile, const Key& key, const TestCertificate& issuer);

// A CA profile: basic constraints CA:TRUE, keyCertSign, valid ten years each way.
CertificateProfile authorityProfile(const std::string& commonName);

enum class MakerLeafKind {
    SoftwareUpdate,             // EKU .100.4.1                          → 501
    SoftwareUpdateDevelopment,  // EKU .100.4.1, extension .100.6.1.99   → 500
    Distribution,               // EKU .100.4.10, extension .100.6.1.10  → 401
    DistributionDevelopment,    // EKU .100.4.10, extension .100.6.1.10.1 → 400
    Developer,                  // EKU .100.4.9, extension .100.6.1.8    → 301
};
CertificateProfile makerLeafProfile(MakerLeafKind kind, const std::string& commonName = "Quarn Test Leaf");

struct Chain {
    TestCertificate root;
    TestCertificate intermediate;
    TestCertificate leaf;
    // Leaf first, as a signature carries them.
    std::vector<TestCertificate> signingOrder() const { return {leaf, intermediate}; }
};
// Root, intermediate and leaf from pooled keys `firstKey` .. `firstKey` + 2.
Chain makerChain(MakerLeafKind kind, int firstKey = 0);
Chain chainWithLeaf(const CertificateProfile& leafProfile, const std::string& rootName, int firstKey = 0);

// Constructors rather than aggregates, so that nested braces cannot be read two ways.
struct TrustSettingEntry {
    TrustSettingEntry(std::optional<std::string> policy, std::optional<int64_t> result)
        : policy(std::move(policy)), result(result) {}
    std::optional<std::string> policy;
    std::optional<int64_t> result;
};
struct TrustSettingsCertificate {
    TrustSettingsCertificate(TestCertificate certificate, std::vector<TrustSettingEntry> settings)
        : certificate(std::move(certificate)), settings(std::move(settings)) {}
    TestCertificate certificate;
    std::vector<TrustSettingEntry> settings;  // empty: trusted for everything
};
void writeTrustSettings(const std::string& path, const std::vector<TrustSettingsCertificate>& certificates);

// Points the trust sources at files below `directory` for its lifetime: SSL_CERT_FILE
// (an empty CA bundle), SSL_CERT_DIR (an empty folder), FERRYHOLD_ADMIN_TRUST_SETTINGS
// and FERRYHOLD_USER_TRUST_SETTINGS (absent files), and the maker's root (process
// override and FERRYHOLD_MAKER_ROOT). The previous values come back afterwards.
class TrustEnvironment {
public:
    explicit TrustEnvironment(const std::string& directory);
    ~TrustEnvironment();
    TrustEnvironment(const TrustEnvironment&) = delete;
    TrustEnvironment& operator=(const TrustEnvironment&) = delete;

    void addSystemCA(const TestCertificate& certificate);
    void setMakerRoot(const TestCertificate& root);
    void setAdminSettings(const std::vector<TrustSettingsCertificate>& certificates);
    void setUserSettings(const std::vector<TrustSettingsCertificate>& certificates);

    const std::string& systemBundlePath() const { return bundle_; }
    const std::string& adminSettingsPath() const { return admin_; }
    const std::string& userSettingsPath() const { return user_; }
    // "NAME=value ..." of every variable, quoted for a shell command line.
    std::string shellAssignments() const;

private:
    std::string bundle_, certDir_, admin_, user_, makerRoot_;
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace testpki
