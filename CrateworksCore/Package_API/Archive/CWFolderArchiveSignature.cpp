#include "CrateworksCore/Package_API/Archive/CWFolderArchiveSignature.h"

#include "Platform/SecurityStatus.h"

namespace crateworks {

namespace security = platform::security;

std::shared_ptr<CWFolderArchiveSignature> CWFolderArchiveSignature::initWithArchiveAtPath(const std::string& path) {
    if (path.empty()) return nullptr;
    auto code = security::StaticCode::create(path);
    auto information = code ? code->signingInformation(security::kSigningInformationDefault) : std::nullopt;
    if (!information || information->identifier.empty()) return nullptr;
    std::shared_ptr<CWFolderArchiveSignature> signature(new CWFolderArchiveSignature());
    signature->_staticCode = std::move(code);
    return signature;
}

std::optional<security::CertificateList> CWFolderArchiveSignature::certificateRefs() {
    auto information = _staticCode->signingInformation(security::kSigningInformationCertificates);
    if (!information) return std::nullopt;
    return information->certificates;
}

bool CWFolderArchiveSignature::verifyCodeSignatureIncludingSealedResources(bool includingSealedResources,
                                                                           platform::Error* error) {
    uint32_t flags = includingSealedResources
                         ? 0
                         : security::kValidityDoNotValidateExecutable | security::kValidityDoNotValidateResources;
    int64_t status = _staticCode->checkValidity(flags);
    if (status == 0) return true;
    platform::Dictionary info;
    if (auto message = security::messageForStatus(status)) {
        info.set(platform::kErrorDescriptionKey, *message);
        info.set(platform::kFailureReasonKey, *message);
    }
    // Which resource, so that a changed folder names what changed.
    if (const auto& resource = _staticCode->failedResource()) info.set(platform::kFilePathErrorKey, *resource);
    platform::setError(error, security::kOSStatusErrorDomain, status, std::move(info));
    return false;
}

bool CWFolderArchiveSignature::verifySignedDataReturningError(platform::Error* error) {
    return verifyCodeSignatureIncludingSealedResources(false, error);
}

}  // namespace crateworks
