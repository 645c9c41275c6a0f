// The code signature of a directory standing in for a package archive.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "CrateworksCore/Package_API/Archive/CWArchiveSignature.h"
#include "Platform/CodeSignature.h"

namespace crateworks {

class CWFolderArchiveSignature : public CWArchiveSignature {
public:
    // Null for an empty path, a path that is not a directory, or a directory whose
    // signing information holds no code identifier (it is not signed).
    static std::shared_ptr<CWFolderArchiveSignature> initWithArchiveAtPath(const std::string& path);

    // The signer's certificate first, then the others the signature carries.
    std::optional<platform::security::CertificateList> certificateRefs() override;
    std::optional<std::string> algorithmType() override { return std::string(kCWSignatureAlgorithmCodeSign); }
    std::optional<platform::Data> signedDataReturningAlgorithm(std::optional<std::string>*) override {
        return std::nullopt;
    }
    std::optional<platform::Data> signatureDataReturningAlgorithm(std::optional<std::string>*) override {
        return std::nullopt;
    }
    // With `includingSealedResources` every sealed file is checked as well (flags 0);
    // otherwise the signature alone (flags 6). On failure the error carries the status
    // as code and its message as description.
    bool verifyCodeSignatureIncludingSealedResources(bool includingSealedResources, platform::Error* error);
    // The signature alone.
    bool verifySignedDataReturningError(platform::Error* error) override;

    const char* className() const override { return "CWFolderArchiveSignature"; }

private:
    CWFolderArchiveSignature() = default;
    std::shared_ptr<platform::security::StaticCode> _staticCode;
};

}  // namespace crateworks
