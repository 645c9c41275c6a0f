#include "Platform/PrivateKey.h"

#include "Platform/OpenSSLHandles.h"

namespace platform::security {

using detail::crypto;

std::shared_ptr<PrivateKey> PrivateKey::fromData(std::span<const uint8_t> bytes) {
    if (bytes.empty() || !CryptoLibrary::get()) return nullptr;
    auto bio = detail::memoryBIO(bytes);
    EVP_PKEY* key = bio ? crypto().PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    if (!key) {
        const unsigned char* p = bytes.data();
        key = crypto().d2i_AutoPrivateKey(nullptr, &p, long(bytes.size()));
    }
    if (!key) return nullptr;
    return std::shared_ptr<PrivateKey>(new PrivateKey(key));
}

PrivateKey::~PrivateKey() { crypto().EVP_PKEY_free(key_); }

bool PrivateKey::isRSA() const { return crypto().EVP_PKEY_get_base_id(key_) == EVP_PKEY_RSA; }

size_t PrivateKey::signatureSize() const { return size_t(crypto().EVP_PKEY_get_size(key_)); }

std::optional<Data> PrivateKey::signRSASHA1Digest(std::span<const uint8_t> digest) const {
    if (!isRSA() || digest.size() != 20) return std::nullopt;
    const CryptoLibrary& c = crypto();
    detail::EVPKeyCtxPtr ctx(c.EVP_PKEY_CTX_new(key_, nullptr));
    size_t length = 0;
    if (!ctx || c.EVP_PKEY_sign_init(ctx.get()) != 1 ||
        c.EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        c.EVP_PKEY_CTX_set_signature_md(ctx.get(), c.EVP_sha1()) != 1 ||
        c.EVP_PKEY_sign(ctx.get(), nullptr, &length, digest.data(), digest.size()) != 1)
        return std::nullopt;
    Data signature(length);
    if (c.EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()) != 1) return std::nullopt;
    signature.resize(length);
    return signature;
}

}  // namespace platform::security
