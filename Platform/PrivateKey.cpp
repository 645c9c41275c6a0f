#include "Platform/PrivateKey.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "Platform/OpenSSLHandles.h"

namespace platform::security {

std::shared_ptr<PrivateKey> PrivateKey::fromData(std::span<const uint8_t> bytes) {
    if (bytes.empty()) return nullptr;
    auto bio = detail::memoryBIO(bytes);
    EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    if (!key) {
        const unsigned char* p = bytes.data();
        key = d2i_AutoPrivateKey(nullptr, &p, long(bytes.size()));
    }
    if (!key) return nullptr;
    return std::shared_ptr<PrivateKey>(new PrivateKey(key));
}

PrivateKey::~PrivateKey() { EVP_PKEY_free(key_); }

bool PrivateKey::isRSA() const { return EVP_PKEY_get_base_id(key_) == EVP_PKEY_RSA; }

size_t PrivateKey::signatureSize() const { return size_t(EVP_PKEY_get_size(key_)); }

std::optional<Data> PrivateKey::signRSASHA1Digest(std::span<const uint8_t> digest) const {
    if (!isRSA() || digest.size() != 20) return std::nullopt;
    detail::EVPKeyCtxPtr ctx(EVP_PKEY_CTX_new(key_, nullptr));
    size_t length = 0;
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()) != 1 ||
        EVP_PKEY_sign(ctx.get(), nullptr, &length, digest.data(), digest.size()) != 1)
        return std::nullopt;
    Data signature(length);
    if (EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()) != 1) return std::nullopt;
    signature.resize(length);
    return signature;
}

}  // namespace platform::security
