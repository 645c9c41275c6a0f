#include "CrateworksCore/Package_API/Archive/CWArchiveSignature.h"

#include <fmt/format.h>

#include "Platform/Exception.h"
#include "Platform/SecurityStatus.h"

namespace crateworks {

using platform::security::CertificateList;
using platform::security::CertificateRef;

void CWArchiveSignature::_raiseAbstract(const char* method) {
    throw platform::Exception("CWArchiveSignatureException",
                              fmt::format("Concrete subclasses must implement {}", method));
}

std::optional<CertificateList> CWArchiveSignature::certificateRefs() {
    _raiseAbstract("-[CWArchiveSignature certificateRefs]");
}

std::optional<std::string> CWArchiveSignature::algorithmType() {
    _raiseAbstract("-[CWArchiveSignature algorithmType]");
}

std::optional<platform::Data> CWArchiveSignature::signedDataReturningAlgorithm(std::optional<std::string>*) {
    _raiseAbstract("-[CWArchiveSignature signedDataReturningAlgorithm:]");
}

std::optional<platform::Data> CWArchiveSignature::signatureDataReturningAlgorithm(std::optional<std::string>*) {
    _raiseAbstract("-[CWArchiveSignature signatureDataReturningAlgorithm:]");
}

bool CWArchiveSignature::_hasSigningCertificate(const CertificateRef&) { return false; }

bool CWArchiveSignature::verifySignedDataReturningError(platform::Error* error) {
    if (algorithmType() != kCWSignatureAlgorithmRSA) return false;
    auto signedData = signedDataReturningAlgorithm(nullptr);
    auto signatureData = signatureDataReturningAlgorithm(nullptr);
    return _verifyLegacyWithSignedData(signedData, signatureData, error);
}

bool CWArchiveSignature::_verifyLegacyWithSignedData(const std::optional<platform::Data>& signedData,
                                                     const std::optional<platform::Data>& signatureData,
                                                     platform::Error* error) {
    if (!signedData || !signatureData) return false;
    auto certificates = certificateRefs();
    if (!certificates || certificates->empty()) return false;
    // A certificate without an RSA key to check with gives false and no error, on purpose.
    auto status = certificates->front()->verifyRSASHA1Digest(*signedData, *signatureData);
    if (!status) return false;
    if (*status == 0) return true;
    platform::Dictionary info;
    if (auto message = platform::security::messageForStatus(*status))
        info.set(platform::kErrorDescriptionKey, *message);
    platform::setError(error, platform::security::kOSStatusErrorDomain, *status, std::move(info));
    return false;
}

std::string CWArchiveSignature::description() {
    std::string text = fmt::format("{} type {} with certificates:\n", className(), algorithmType().value_or("(null)"));
    if (auto certificates = certificateRefs())
        for (const auto& certificate : *certificates)
            if (auto name = certificate->commonName()) text += fmt::format(" - {}\n", *name);
    return text;
}

}  // namespace crateworks
