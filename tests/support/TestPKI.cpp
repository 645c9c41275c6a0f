#include "support/TestPKI.h"

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdexcept>

#include "Platform/MakerRootCertificate.h"
#include "Platform/PropertyList.h"
#include "Platform/TrustPolicy.h"
#include "support/TempDir.h"

namespace testpki {

namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("TestPKI: " + what); }

std::string bioText(BIO* bio) {
    char* data = nullptr;
    long length = BIO_get_mem_data(bio, &data);
    return std::string(data, size_t(length));
}

void addExtension(X509* certificate, X509V3_CTX* ctx, int nid, const std::string& value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, ctx, nid, value.c_str());
    if (!extension) fail("cannot make extension " + value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

void addNullExtension(X509* certificate, const std::string& oid) {
    ASN1_OBJECT* object = OBJ_txt2obj(oid.c_str(), 1);
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    static const unsigned char kNull[] = {0x05, 0x00};
    ASN1_OCTET_STRING_set(value, kNull, sizeof kNull);
    X509_EXTENSION* extension = object ? X509_EXTENSION_create_by_OBJ(nullptr, object, 0, value) : nullptr;
    if (!extension) fail("cannot make extension " + oid);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(value);
    ASN1_OBJECT_free(object);
}

X509_NAME* makeName(const CertificateProfile& profile) {
    X509_NAME* name = X509_NAME_new();
    auto add = [&](const char* field, const std::string& value) {
        X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.c_str()),
                                   -1, -1, 0);
    };
    if (!profile.organization.empty()) add("O", profile.organization);
    add("CN", profile.commonName);
    return name;
}

void addExtensions(X509* certificate, X509* issuer, const CertificateProfile& profile) {
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, issuer ? issuer : certificate, certificate, nullptr, nullptr, 0);
    if (profile.basicConstraints)
        addExtension(certificate, &ctx, NID_basic_constraints, profile.isCA ? "critical,CA:TRUE" : "CA:FALSE");
    addExtension(certificate, &ctx, NID_key_usage,
                 profile.isCA ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
    addExtension(certificate, &ctx, NID_subject_key_identifier, "hash");
    if (issuer) addExtension(certificate, &ctx, NID_authority_key_identifier, "keyid");
    if (!profile.extendedKeyUsage.empty()) {
        std::string list;
        for (const auto& purpose : profile.extendedKeyUsage) list += (list.empty() ? "" : ",") + purpose;
        addExtension(certificate, &ctx, NID_ext_key_usage, list);
    }
    for (const auto& oid : profile.extensions) addNullExtension(certificate, oid);
}

TestCertificate finish(X509* certificate, const Key& key) {
    TestCertificate out;
    unsigned char* der = nullptr;
    int length = i2d_X509(certificate, &der);
    if (length <= 0) fail("cannot encode a certificate");
    out.der.assign(der, der + length);
    OPENSSL_free(der);
    BIO* bio = BIO_new(BIO_s_mem());
    X509_NAME_print_ex(bio, X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    out.subject = bioText(bio);
    BIO_free(bio);
    out.key = key;
    X509_free(certificate);
    return out;
}

TestCertificate make(const CertificateProfile& profile, const Key& key, const TestCertificate* issuer) {
    static long serial = 1000;
    X509* certificate = X509_new();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    time_t now = time(nullptr);
    X509_time_adj_ex(X509_getm_notBefore(certificate), 0, profile.notBeforeOffset, &now);
    X509_time_adj_ex(X509_getm_notAfter(certificate), 0, profile.notAfterOffset, &now);
    X509_NAME* name = makeName(profile);
    X509_set_subject_name(certificate, name);
    X509* issuerX509 = nullptr;
    if (issuer) {
        const unsigned char* p = issuer->der.data();
        issuerX509 = d2i_X509(nullptr, &p, long(issuer->der.size()));
        X509_set_issuer_name(certificate, X509_get_subject_name(issuerX509));
    } else {
        X509_set_issuer_name(certificate, name);
    }
    X509_NAME_free(name);
    X509_set_pubkey(certificate, key.native());
    addExtensions(certificate, issuerX509, profile);
    EVP_PKEY* signer = issuer ? issuer->key.native() : key.native();
    if (X509_sign(certificate, signer, EVP_sha256()) <= 0) fail("cannot sign a certificate");
    X509_free(issuerX509);
    return finish(certificate, key);
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) fail("cannot write " + path);
}

platform::Array settingsArray(const std::vector<TrustSettingEntry>& entries) {
    platform::Array array;
    for (const auto& entry : entries) {
        platform::Dictionary item;
        if (entry.policy) item.set("Policy", *entry.policy);
        if (entry.result) item.set("Result", *entry.result);
        array.push_back(std::move(item));
    }
    return array;
}

}  // namespace

std::string vendor(const std::string& suffix) { return std::string(platform::security::kVendorArc) + suffix; }
std::string basicX509Policy() { return vendor(".100.1.2"); }
std::string softwareUpdateSigningPolicy() { return vendor(".100.1.10"); }

Key Key::generate(int bits) {
    EVP_PKEY* key = EVP_RSA_gen(unsigned(bits));
    if (!key) fail("cannot generate an RSA key");
    Key out;
    out.key_ = std::shared_ptr<evp_pkey_st>(key, EVP_PKEY_free);
    return out;
}

Key Key::pooled(int n) {
    static std::mutex mutex;
    static std::map<int, Key> pool;
    std::lock_guard lock(mutex);
    auto it = pool.find(n);
    if (it == pool.end()) it = pool.emplace(n, generate()).first;
    return it->second;
}

std::string Key::privateKeyPEM() const {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(bio, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
    std::string text = bioText(bio);
    BIO_free(bio);
    return text;
}

void Key::writePEM(const std::string& path) const { writeText(path, privateKeyPEM()); }

int Key::bits() const { return EVP_PKEY_get_bits(key_.get()); }

std::string TestCertificate::pem() const {
    const unsigned char* p = der.data();
    X509* certificate = d2i_X509(nullptr, &p, long(der.size()));
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, certificate);
    std::string text = bioText(bio);
    BIO_free(bio);
    X509_free(certificate);
    return text;
}

void TestCertificate::writePEM(const std::string& path) const { writeText(path, pem()); }
void TestCertificate::writeDER(const std::string& path) const { writeText(path, std::string(der.begin(), der.end())); }

TestCertificate selfSigned(const CertificateProfile& profile, const Key& key) { return make(profile, key, nullptr); }
TestCertificate issue(const CertificateProfile& profile, const Key& key, const TestCertificate& issuer) {
    return make(profile, key, &issuer);
}

CertificateProfile authorityProfile(const std::string& commonName) {
    CertificateProfile profile;
    profile.commonName = commonName;
    profile.isCA = true;
    profile.notBeforeOffset = -10L * 365 * 86400;
    profile.notAfterOffset = 10L * 365 * 86400;
    return profile;
}

CertificateProfile makerLeafProfile(MakerLeafKind kind, const std::string& commonName) {
    CertificateProfile profile;
    profile.commonName = commonName;
    switch (kind) {
    case MakerLeafKind::SoftwareUpdate: profile.extendedKeyUsage = {vendor(".100.4.1")}; break;
    case MakerLeafKind::SoftwareUpdateDevelopment:
        profile.extendedKeyUsage = {vendor(".100.4.1")};
        profile.extensions = {vendor(".100.6.1.99")};
        break;
    case MakerLeafKind::Distribution:
        profile.extendedKeyUsage = {vendor(".100.4.10")};
        profile.extensions = {vendor(".100.6.1.10")};
        break;
    case MakerLeafKind::DistributionDevelopment:
        profile.extendedKeyUsage = {vendor(".100.4.10")};
        profile.extensions = {vendor(".100.6.1.10.1")};
        break;
    case MakerLeafKind::Developer:
        profile.extendedKeyUsage = {vendor(".100.4.9")};
        profile.extensions = {vendor(".100.6.1.8")};
        break;
    }
    return profile;
}

Chain chainWithLeaf(const CertificateProfile& leafProfile, const std::string& rootName, int firstKey) {
    Chain chain;
    chain.root = selfSigned(authorityProfile(rootName), Key::pooled(firstKey));
    chain.intermediate = issue(authorityProfile(rootName + " Intermediate"), Key::pooled(firstKey + 1), chain.root);
    chain.leaf = issue(leafProfile, Key::pooled(firstKey + 2), chain.intermediate);
    return chain;
}

Chain makerChain(MakerLeafKind kind, int firstKey) {
    return chainWithLeaf(makerLeafProfile(kind), "Quarn Test Root", firstKey);
}

void writeTrustSettings(const std::string& path, const std::vector<TrustSettingsCertificate>& certificates) {
    platform::Array entries;
    for (const auto& c : certificates)
        entries.push_back(
            platform::Dictionary{{"Certificate", c.certificate.der}, {"Settings", settingsArray(c.settings)}});
    if (!platform::plist::writeXMLFile(platform::Dictionary{{"Certificates", std::move(entries)}}, path))
        fail("cannot write " + path);
}

TrustEnvironment::TrustEnvironment(const std::string& directory)
    : bundle_(directory + "/system-ca.pem"),
      certDir_(directory + "/system-ca.d"),
      admin_(directory + "/admin-TrustSettings.plist"),
      user_(directory + "/user-TrustSettings.plist"),
      makerRoot_(directory + "/MakerRoot.cer") {
    testsupport::writeFile(bundle_, "");
    testsupport::writeFile(certDir_ + "/README", "no hashed names here\n");
    auto set = [&](const char* name, const std::string& value) {
        const char* old = getenv(name);
        saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
        setenv(name, value.c_str(), 1);
    };
    set("SSL_CERT_FILE", bundle_);
    set("SSL_CERT_DIR", certDir_);
    set("FERRYHOLD_ADMIN_TRUST_SETTINGS", admin_);
    set("FERRYHOLD_USER_TRUST_SETTINGS", user_);
    set("FERRYHOLD_MAKER_ROOT", makerRoot_);
}

TrustEnvironment::~TrustEnvironment() {
    for (const auto& [name, value] : saved_) {
        if (value)
            setenv(name.c_str(), value->c_str(), 1);
        else
            unsetenv(name.c_str());
    }
    platform::security::setMakerRootCertificateOverride(std::nullopt);
}

void TrustEnvironment::addSystemCA(const TestCertificate& certificate) {
    std::ofstream(bundle_, std::ios::app | std::ios::binary) << certificate.pem();
}

void TrustEnvironment::setMakerRoot(const TestCertificate& root) {
    root.writeDER(makerRoot_);
    platform::security::setMakerRootCertificateOverride(root.der);
}

void TrustEnvironment::setAdminSettings(const std::vector<TrustSettingsCertificate>& certificates) {
    writeTrustSettings(admin_, certificates);
}

void TrustEnvironment::setUserSettings(const std::vector<TrustSettingsCertificate>& certificates) {
    writeTrustSettings(user_, certificates);
}

std::string TrustEnvironment::shellAssignments() const {
    std::string out;
    for (const auto& [name, value] : saved_) {
        std::string current = getenv(name.c_str()) ? getenv(name.c_str()) : "";
        out += name + "='" + current + "' ";
    }
    return out;
}

}  // namespace testpki
