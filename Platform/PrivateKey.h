// A private key read from PEM or DER, for signing archives and directories.
#pragma once

#include <memory>
#include <optional>
#include <span>

#include "Platform/Value.h"

struct evp_pkey_st;

namespace platform::security {

class PrivateKey {
public:
    // PEM (unencrypted) or DER; null when the bytes hold no private key.
    static std::shared_ptr<PrivateKey> fromData(std::span<const uint8_t> bytes);
    ~PrivateKey();
    PrivateKey(const PrivateKey&) = delete;
    PrivateKey& operator=(const PrivateKey&) = delete;

    bool isRSA() const;
    // Length in bytes of the signatures this key makes (the modulus length for RSA).
    size_t signatureSize() const;
    // An RSA PKCS#1 v1.5 signature whose DigestInfo names SHA-1 around `digest` (20
    // bytes, not hashed again); absent for another kind of key or a digest of another length.
    std::optional<Data> signRSASHA1Digest(std::span<const uint8_t> digest) const;

    evp_pkey_st* native() const { return key_; }

private:
    explicit PrivateKey(evp_pkey_st* owned) : key_(owned) {}
    evp_pkey_st* key_;
};

}  // namespace platform::security
