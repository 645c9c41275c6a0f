// X.509 certificates: made from DER or PEM bytes, with the few fields the trust code
// reads (names, extensions, extended key usage) and the check of an RSA signature
// made with the certificate's key.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Platform/Oid.h"
#include "Platform/Value.h"

struct x509_st;

namespace platform::security {

class Certificate;
using CertificateRef = std::shared_ptr<Certificate>;
using CertificateList = std::vector<CertificateRef>;

class Certificate {
public:
    // DER, or PEM (the first certificate of the text); null when the bytes are neither.
    static CertificateRef fromData(std::span<const uint8_t> bytes);
    // Every certificate of a PEM text (or the one DER certificate); empty when none parses.
    static CertificateList allFromData(std::span<const uint8_t> bytes);
    // Shares an OpenSSL certificate (its reference count is raised).
    static CertificateRef fromNative(x509_st* certificate);
    ~Certificate();
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    const Data& der() const { return der_; }
    // The subject as RFC 2253 text ("CN=Leaf,O=Quarn").
    std::string subject() const;
    std::optional<std::string> commonName() const;
    // Issuer and subject are the same name and the key identifiers do not contradict it.
    bool isSelfSigned() const;
    std::optional<Date> notAfter() const;

    // The value (DER of the extension's content) of the extension with this OID.
    std::optional<Data> extensionValue(const Oid& oid) const;
    // The OIDs of every X.509 v3 extension, in stored order.
    std::vector<Oid> extensionOIDs() const;
    // The purposes of the extended-key-usage extension; absent when there is none or it
    // does not parse.
    std::optional<std::vector<Oid>> extendedKeyUsage() const;

    // Checks an RSA PKCS#1 v1.5 signature whose DigestInfo names SHA-1 around `digest`
    // (the digest itself is not hashed again). Absent when the certificate has no RSA
    // public key to check with; otherwise 0 when the signature matches, else a status
    // of SecurityStatus.h.
    std::optional<int64_t> verifyRSASHA1Digest(std::span<const uint8_t> digest,
                                               std::span<const uint8_t> signature) const;

    x509_st* native() const { return x509_; }
    bool operator==(const Certificate& other) const { return der_ == other.der_; }

private:
    explicit Certificate(x509_st* owned);
    x509_st* x509_;
    Data der_;
};

}  // namespace platform::security
