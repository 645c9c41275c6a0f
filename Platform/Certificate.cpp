#include "Platform/Certificate.h"

#include "Platform/OpenSSLHandles.h"
#include "Platform/SecurityStatus.h"

namespace platform::security {

using detail::crypto;

namespace {
detail::X509Ptr parseOne(std::span<const uint8_t> bytes) {
    const unsigned char* p = bytes.data();
    detail::X509Ptr x509(crypto().d2i_X509(nullptr, &p, long(bytes.size())));
    // Trailing bytes after the DER are not a certificate of their own.
    if (x509 && p == bytes.data() + bytes.size()) return x509;
    auto bio = detail::memoryBIO(bytes);
    return detail::X509Ptr(bio ? crypto().PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

std::string nameText(const X509_NAME* name) {
    detail::BIOPtr bio(crypto().BIO_new(crypto().BIO_s_mem()));
    if (!bio || crypto().X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0) return {};
    char* data = nullptr;
    long length = crypto().BIO_ctrl(bio.get(), BIO_CTRL_INFO, 0, &data);  // BIO_get_mem_data
    return std::string(data, size_t(length));
}
}  // namespace

Certificate::Certificate(x509_st* owned) : x509_(owned) {
    unsigned char* out = nullptr;
    int length = crypto().i2d_X509(x509_, &out);
    if (length > 0) der_.assign(out, out + length);
    detail::freeMemory(out);
}

Certificate::~Certificate() { crypto().X509_free(x509_); }

CertificateRef Certificate::fromData(std::span<const uint8_t> bytes) {
    if (bytes.empty() || !CryptoLibrary::get()) return nullptr;
    auto x509 = parseOne(bytes);
    if (!x509) return nullptr;
    return CertificateRef(new Certificate(x509.release()));
}

CertificateList Certificate::allFromData(std::span<const uint8_t> bytes) {
    CertificateList out;
    if (bytes.empty() || !CryptoLibrary::get()) return out;
    auto bio = detail::memoryBIO(bytes);
    while (X509* x509 = bio ? crypto().PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr)
        out.push_back(CertificateRef(new Certificate(x509)));
    if (out.empty())
        if (auto one = fromData(bytes)) out.push_back(one);
    return out;
}

CertificateRef Certificate::fromNative(x509_st* certificate) {
    // Any object of the library was made by it: the table is loaded.
    if (!certificate || crypto().X509_up_ref(certificate) != 1) return nullptr;
    return CertificateRef(new Certificate(certificate));
}

std::string Certificate::subject() const { return nameText(crypto().X509_get_subject_name(x509_)); }

std::optional<std::string> Certificate::commonName() const {
    const X509_NAME* name = crypto().X509_get_subject_name(x509_);
    int index = crypto().X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (index < 0) return std::nullopt;
    ASN1_STRING* value = crypto().X509_NAME_ENTRY_get_data(crypto().X509_NAME_get_entry(name, index));
    unsigned char* utf8 = nullptr;
    int length = crypto().ASN1_STRING_to_UTF8(&utf8, value);
    if (length < 0) return std::nullopt;
    std::string text(reinterpret_cast<char*>(utf8), size_t(length));
    detail::freeMemory(utf8);
    return text;
}

bool Certificate::isSelfSigned() const { return crypto().X509_self_signed(x509_, 0) == 1; }

std::optional<Date> Certificate::notAfter() const {
    const ASN1_TIME* time = crypto().X509_get0_notAfter(x509_);
    struct tm tm {};
    if (!time || crypto().ASN1_TIME_to_tm(time, &tm) != 1) return std::nullopt;
    return Date{double(timegm(&tm))};
}

std::optional<Data> Certificate::extensionValue(const Oid& oid) const {
    for (int i = 0; i < crypto().X509_get_ext_count(x509_); ++i) {
        X509_EXTENSION* extension = crypto().X509_get_ext(x509_, i);
        const ASN1_OBJECT* object = crypto().X509_EXTENSION_get_object(extension);
        const unsigned char* bytes = crypto().OBJ_get0_data(object);
        if (Data(bytes, bytes + crypto().OBJ_length(object)) != oid.bytes()) continue;
        const ASN1_OCTET_STRING* value = crypto().X509_EXTENSION_get_data(extension);
        const unsigned char* content = crypto().ASN1_STRING_get0_data(value);
        return Data(content, content + crypto().ASN1_STRING_length(value));
    }
    return std::nullopt;
}

std::vector<Oid> Certificate::extensionOIDs() const {
    std::vector<Oid> oids;
    for (int i = 0; i < crypto().X509_get_ext_count(x509_); ++i) {
        const ASN1_OBJECT* object = crypto().X509_EXTENSION_get_object(crypto().X509_get_ext(x509_, i));
        const unsigned char* bytes = crypto().OBJ_get0_data(object);
        oids.emplace_back(Data(bytes, bytes + crypto().OBJ_length(object)));
    }
    return oids;
}

std::optional<std::vector<Oid>> Certificate::extendedKeyUsage() const {
    int critical = 0;
    detail::EKUPtr usage(
        static_cast<EXTENDED_KEY_USAGE*>(crypto().X509_get_ext_d2i(x509_, NID_ext_key_usage, &critical, nullptr)));
    if (!usage) return std::nullopt;
    std::vector<Oid> purposes;
    for (int i = 0; i < detail::stackCount(usage.get()); ++i) {
        const ASN1_OBJECT* object = detail::stackItem<ASN1_OBJECT>(usage.get(), i);
        const unsigned char* bytes = crypto().OBJ_get0_data(object);
        purposes.emplace_back(Data(bytes, bytes + crypto().OBJ_length(object)));
    }
    return purposes;
}

std::optional<int64_t> Certificate::verifyRSASHA1Digest(std::span<const uint8_t> digest,
                                                        std::span<const uint8_t> signature) const {
    EVP_PKEY* key = crypto().X509_get0_pubkey(x509_);
    if (!key || crypto().EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) return std::nullopt;
    detail::EVPKeyCtxPtr ctx(crypto().EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx || crypto().EVP_PKEY_verify_init(ctx.get()) != 1 ||
        crypto().EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        crypto().EVP_PKEY_CTX_set_signature_md(ctx.get(), crypto().EVP_sha1()) != 1)
        return kStatusVerifyContextFailed;
    if (digest.size() != 20) return kStatusSignatureMismatch;
    int ok = crypto().EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), digest.data(), digest.size());
    return ok == 1 ? 0 : kStatusSignatureMismatch;
}

}  // namespace platform::security
