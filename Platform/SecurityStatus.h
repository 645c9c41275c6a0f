// Status codes of the certificate, trust and code-signature services, and their
// messages. Errors built from them carry kOSStatusErrorDomain and the status as code.
//
// Codes below 1000 are the certificate verifier's own (OpenSSL's X509_V_ERR_*
// numbers). The project's codes:
//
//   0x80012433  development-signed certificate (software-update signing policy)
//   1001        the signature does not match the signed data
//   1002        no signature check could be set up with the certificate's key
//   1101        the code signature is invalid (CMS check of CodeResources failed)
//   1102        a sealed resource was modified
//   1103        a sealed resource is missing
//   1104        a resource was added that the signature does not seal
//   1105        the directory carries no code signature
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform::security {

inline constexpr const char* kOSStatusErrorDomain = "OSStatusErrorDomain";
// The user-info key of the reason an operation failed.
inline constexpr const char* kFailureReasonKey = "failureReason";

inline constexpr int64_t kStatusDevelopmentSigned = 0x80012433;
inline constexpr int64_t kStatusSignatureMismatch = 1001;
inline constexpr int64_t kStatusVerifyContextFailed = 1002;
inline constexpr int64_t kStatusCodeSignatureInvalid = 1101;
inline constexpr int64_t kStatusResourceModified = 1102;
inline constexpr int64_t kStatusResourceMissing = 1103;
inline constexpr int64_t kStatusResourceAdded = 1104;
inline constexpr int64_t kStatusCodeUnsigned = 1105;

// The message for a status; absent for 0 and for numbers no service uses.
std::optional<std::string> messageForStatus(int64_t status);

}  // namespace platform::security
