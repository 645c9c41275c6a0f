#include "CrateworksCore/Package_API/Archive/CWXARArchiveSignature.h"

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"

namespace crateworks {

using platform::security::Certificate;
using platform::security::CertificateList;
using platform::security::CertificateRef;

namespace {
// CWXARArchive archiveSignatures makes its signatures through this.
const bool installed = [] {
    CWXARArchive::setSignatureWrapper([](const xar::XarReader& xar, size_t index) -> std::shared_ptr<CWArchiveSignature> {
        return CWXARArchiveSignature::initWithXARSignature(xar, index);
    });
    return true;
}();
}  // namespace

std::shared_ptr<CWXARArchiveSignature> CWXARArchiveSignature::initWithXARSignature(const xar::XarReader& xar,
                                                                                   size_t signatureIndex) {
    if (signatureIndex >= xar.signatures().size()) return nullptr;
    const xar::Signature& signature = xar.signatures()[signatureIndex];
    std::shared_ptr<CWXARArchiveSignature> result(new CWXARArchiveSignature());
    result->_type = signature.type;
    result->_certificates = signature.certificates;
    result->_signedData = xar.signedData();
    result->_signatureData = xar.signatureBytes(signature);
    return result;
}

std::optional<std::string> CWXARArchiveSignature::algorithmType() {
    if (_type.empty()) return std::nullopt;
    return _type;
}

std::optional<CertificateList> CWXARArchiveSignature::certificateRefs() {
    if (algorithmType() != kCWSignatureAlgorithmRSA) return std::nullopt;
    CertificateList certificates;
    for (const auto& der : _certificates)
        if (auto certificate = Certificate::fromData(der)) certificates.push_back(std::move(certificate));
    return certificates;
}

std::optional<platform::Data> CWXARArchiveSignature::signedDataReturningAlgorithm(
    std::optional<std::string>* algorithm) {
    if (algorithm) *algorithm = algorithmType();
    return _signedData;
}

std::optional<platform::Data> CWXARArchiveSignature::signatureDataReturningAlgorithm(
    std::optional<std::string>* algorithm) {
    if (algorithm) *algorithm = algorithmType();
    return _signatureData;
}

bool CWXARArchiveSignature::_hasSigningCertificate(const CertificateRef& certificate) {
    if (!certificate || _certificates.empty()) return false;
    auto first = Certificate::fromData(_certificates.front());
    return first && *first == *certificate;
}

}  // namespace crateworks
