#include "Platform/Certificate.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "Platform/OpenSSLHandles.h"
#include "Platform/SecurityStatus.h"

namespace platform::security {

namespace {
detail::X509Ptr parseOne(std::span<const uint8_t> bytes) {
    const unsigned char* p = bytes.data();
    detail::X509Ptr x509(d2i_X509(nullptr, &p, long(bytes.size())));
    // Trailing bytes after the DER are not a certificate of their own.
    if (x509 && p == bytes.data() + bytes.size()) return x509;
    auto bio = detail::memoryBIO(bytes);
    return detail::X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

std::string nameText(const X509_NAME* name) {
    detail::BIOPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0) return {};
    char* data = nullptr;
    long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, size_t(length));
}
}  // namespace

Certificate::Certificate(x509_st* owned) : x509_(owned) {
    unsigned char* out = nullptr;
    int length = i2d_X509(x509_, &out);
    if (length > 0) der_.assign(out, out + length);
    OPENSSL_free(out);
}

Certificate::~Certificate() { X509_free(x509_); }

CertificateRef Certificate::fromData(std::span<const uint8_t> bytes) {
    if (bytes.empty()) return nullptr;
    auto x509 = parseOne(bytes);
    if (!x509) return nullptr;
    return CertificateRef(new Certificate(x509.release()));
}

CertificateList Certificate::allFromData(std::span<const uint8_t> bytes) {
    CertificateList out;
    if (bytes.empty()) return out;
    auto bio = detail::memoryBIO(bytes);
    while (X509* x509 = bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr)
        out.push_back(CertificateRef(new Certificate(x509)));
    if (out.empty())
        if (auto one = fromData(bytes)) out.push_back(one);
    return out;
}

CertificateRef Certificate::fromNative(x509_st* certificate) {
    if (!certificate || X509_up_ref(certificate) != 1) return nullptr;
    return CertificateRef(new Certificate(certificate));
}

std::string Certificate::subject() const { return nameText(X509_get_subject_name(x509_)); }

std::optional<std::string> Certificate::commonName() const {
    const X509_NAME* name = X509_get_subject_name(x509_);
    int index = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (index < 0) return std::nullopt;
    ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
    unsigned char* utf8 = nullptr;
    int length = ASN1_STRING_to_UTF8(&utf8, value);
    if (length < 0) return std::nullopt;
    std::string text(reinterpret_cast<char*>(utf8), size_t(length));
    OPENSSL_free(utf8);
    return text;
}

bool Certificate::isSelfSigned() const { return X509_self_signed(x509_, 0) == 1; }

std::optional<Date> Certificate::notAfter() const {
    const ASN1_TIME* time = X509_get0_notAfter(x509_);
    struct tm tm {};
    if (!time || ASN1_TIME_to_tm(time, &tm) != 1) return std::nullopt;
    return Date{double(timegm(&tm))};
}

std::optional<Data> Certificate::extensionValue(const Oid& oid) const {
    for (int i = 0; i < X509_get_ext_count(x509_); ++i) {
        X509_EXTENSION* extension = X509_get_ext(x509_, i);
        const ASN1_OBJECT* object = X509_EXTENSION_get_object(extension);
        const unsigned char* bytes = OBJ_get0_data(object);
        if (Data(bytes, bytes + OBJ_length(object)) != oid.bytes()) continue;
        const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(extension);
        const unsigned char* content = ASN1_STRING_get0_data(value);
        return Data(content, content + ASN1_STRING_length(value));
    }
    return std::nullopt;
}

std::vector<Oid> Certificate::extensionOIDs() const {
    std::vector<Oid> oids;
    for (int i = 0; i < X509_get_ext_count(x509_); ++i) {
        const ASN1_OBJECT* object = X509_EXTENSION_get_object(X509_get_ext(x509_, i));
        const unsigned char* bytes = OBJ_get0_data(object);
        oids.emplace_back(Data(bytes, bytes + OBJ_length(object)));
    }
    return oids;
}

std::optional<std::vector<Oid>> Certificate::extendedKeyUsage() const {
    int critical = 0;
    detail::EKUPtr usage(
        static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(x509_, NID_ext_key_usage, &critical, nullptr)));
    if (!usage) return std::nullopt;
    std::vector<Oid> purposes;
    for (int i = 0; i < sk_ASN1_OBJECT_num(usage.get()); ++i) {
        const ASN1_OBJECT* object = sk_ASN1_OBJECT_value(usage.get(), i);
        const unsigned char* bytes = OBJ_get0_data(object);
        purposes.emplace_back(Data(bytes, bytes + OBJ_length(object)));
    }
    return purposes;
}

std::optional<int64_t> Certificate::verifyRSASHA1Digest(std::span<const uint8_t> digest,
                                                        std::span<const uint8_t> signature) const {
    EVP_PKEY* key = X509_get0_pubkey(x509_);
    if (!key || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) return std::nullopt;
    detail::EVPKeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx || EVP_PKEY_verify_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()) != 1)
        return kStatusVerifyContextFailed;
    if (digest.size() != 20) return kStatusSignatureMismatch;
    int ok = EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), digest.data(), digest.size());
    return ok == 1 ? 0 : kStatusSignatureMismatch;
}

}  // namespace platform::security
