// A signature of a package archive: its algorithm, the bytes it signs, its own bytes
// and its certificate chain (signing certificate first), and the check that the
// signature matches the data it signs. Who to trust is CWTrust's question.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Certificate.h"
#include "Platform/Error.h"
#include "Platform/TrustEvaluation.h"
#include "Platform/Value.h"

namespace crateworks {

// Algorithm names.
inline constexpr const char* kCWSignatureAlgorithmRSA = "RSA";
inline constexpr const char* kCWSignatureAlgorithmCMS = "CMS";
inline constexpr const char* kCWSignatureAlgorithmCodeSign = "CodeSign";

class CWArchiveSignature {
public:
    virtual ~CWArchiveSignature() = default;

    // Abstract here: each raises "CWArchiveSignatureException".
    virtual std::optional<platform::security::CertificateList> certificateRefs();
    virtual std::optional<std::string> algorithmType();
    virtual std::optional<platform::Data> signedDataReturningAlgorithm(std::optional<std::string>* algorithm);
    virtual std::optional<platform::Data> signatureDataReturningAlgorithm(std::optional<std::string>* algorithm);

    virtual bool _hasSigningCertificate(const platform::security::CertificateRef& certificate);
    bool verifySignedData() { return verifySignedDataReturningError(nullptr); }
    // An "RSA" signature whose bytes check against the signed data with the signing
    // certificate's key; false (with no error) for any other algorithm.
    virtual bool verifySignedDataReturningError(platform::Error* error);
    bool _verifyLegacyWithSignedData(const std::optional<platform::Data>& signedData,
                                     const std::optional<platform::Data>& signatureData, platform::Error* error);
    // Always null: nothing in this library sets it.
    std::shared_ptr<platform::security::Trust> verificationTrustRef() const { return _verifyTrustRef; }

    // "CLASS type ALGORITHM with certificates:\n", then " - NAME\n" per certificate
    // that has a common name.
    std::string description();
    virtual const char* className() const { return "CWArchiveSignature"; }

protected:
    CWArchiveSignature() = default;
    [[noreturn]] static void _raiseAbstract(const char* method);

    std::shared_ptr<platform::security::Trust> _verifyTrustRef;
};

}  // namespace crateworks
