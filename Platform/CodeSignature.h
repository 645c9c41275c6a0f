// Code signatures of directories.
//
// A signed directory holds _CodeSignature/CodeResources, a property list with
// "Identifier" (the code identifier) and "Files" (path relative to the directory →
// SHA-256 of the file; of the target text for a symbolic link), and
// _CodeSignature/CodeSignature, a detached CMS signature (DER) over the exact bytes of
// CodeResources that carries the signer's certificate chain. The chain is judged by
// the trust code, not here.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Certificate.h"
#include "Platform/Error.h"
#include "Platform/PrivateKey.h"

namespace platform::security {

// Flags of signingInformation.
inline constexpr uint32_t kSigningInformationDefault = 0;
inline constexpr uint32_t kSigningInformationCertificates = 2;
// Flags of checkValidity: 0 checks everything.
inline constexpr uint32_t kValidityDoNotValidateExecutable = 2;
inline constexpr uint32_t kValidityDoNotValidateResources = 4;

inline constexpr const char* kCodeSignatureDirectory = "_CodeSignature";

struct SigningInformation {
    std::string identifier;
    // With kSigningInformationCertificates: the signer's certificate first (the one
    // the signer information names), the others in stored order.
    CertificateList certificates;
};

class StaticCode {
public:
    // Null unless `path` is a directory.
    static std::shared_ptr<StaticCode> create(const std::string& path);

    const std::string& path() const { return path_; }
    // Absent when the directory is not signed: either file missing, CodeResources not a
    // dictionary with an "Identifier" string, or a signature that does not parse.
    std::optional<SigningInformation> signingInformation(uint32_t flags) const;
    // 0 when valid; else a status of SecurityStatus.h. Flags 0: the CMS signature over
    // CodeResources, every sealed file present with its hash, and no other file or link
    // outside _CodeSignature. With kValidityDoNotValidateResources: the signature alone.
    int64_t checkValidity(uint32_t flags) const;
    // After a checkValidity that failed on a resource: its path relative to the directory.
    const std::optional<std::string>& failedResource() const { return failedResource_; }

private:
    explicit StaticCode(std::string path) : path_(std::move(path)) {}
    int64_t _checkResources(const Dictionary& files) const;
    std::string path_;
    mutable std::optional<std::string> failedResource_;
};

// Writes `directory`/_CodeSignature (CodeResources, then CodeSignature) sealing every
// regular file and symbolic link below the directory outside _CodeSignature.
// `certificates` starts with the key's own certificate. False with an error on failure.
bool signDirectory(const std::string& directory, const std::string& identifier, const PrivateKey& key,
                   const CertificateList& certificates, Error* error = nullptr);

}  // namespace platform::security
