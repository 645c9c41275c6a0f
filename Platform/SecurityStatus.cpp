#include "Platform/SecurityStatus.h"

#include "Platform/CryptoLibrary.h"

namespace platform::security {

std::optional<std::string> messageForStatus(int64_t status) {
    switch (status) {
    case 0: return std::nullopt;
    case kStatusDevelopmentSigned: return "development-signed certificate";
    case kStatusSignatureMismatch: return "the signature does not match the signed data";
    case kStatusVerifyContextFailed: return "the signature cannot be checked with the certificate's key";
    case kStatusCodeSignatureInvalid: return "the code signature is invalid";
    case kStatusResourceModified: return "a sealed resource was modified";
    case kStatusResourceMissing: return "a sealed resource is missing";
    case kStatusResourceAdded: return "a resource was added that the code signature does not seal";
    case kStatusCodeUnsigned: return "the code is not signed";
    default: break;
    }
    if (status > 0 && status < 1000) {
        if (const CryptoLibrary* crypto = CryptoLibrary::get())
            return std::string(crypto->X509_verify_cert_error_string(long(status)));
        return "certificate verification error " + std::to_string(status);
    }
    return std::nullopt;
}

}  // namespace platform::security
