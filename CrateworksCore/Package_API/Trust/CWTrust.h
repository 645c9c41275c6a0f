// How far the signing certificate of an archive is to be trusted, as one level of a
// fixed ladder. Callers compare levels with < and >=, so the numbers are part of the
// interface.
//
// A CWTrust is made for one evaluation. Evaluating changes the trust object's anchors,
// policy and verify date as it goes: afterwards the anchors are the system's unless a
// maker-root level passed, and the verify date is now unless no signing date was known.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Platform/Certificate.h"
#include "Platform/Error.h"
#include "Platform/TrustEvaluation.h"
#include "Platform/TrustPolicy.h"
#include "Platform/TrustSettings.h"

namespace crateworks {

enum CWTrustLevel : int32_t {
    CWTrustLevelInvalidSignature = 0,
    CWTrustLevelNotTrusted = 1,
    CWTrustLevelExpiredCertificate = 2,
    CWTrustLevelNotSigned = 100,
    CWTrustLevelUserDomain = 200,
    CWTrustLevelAdminDomain = 201,
    CWTrustLevelSystemDomain = 202,
    CWTrustLevelQuarnDeveloperDevelopment = 300,
    CWTrustLevelQuarnDeveloperProduction = 301,
    CWTrustLevelQuarnDistributedDevelopment = 400,
    CWTrustLevelQuarnDistributedProduction = 401,
    CWTrustLevelQuarnSoftwareDevelopment = 500,
    CWTrustLevelQuarnSoftwareProduction = 501,
};

// Keys of the error of evaluateTrustReturningError.
inline constexpr const char* kCWHostTrustResultKey = "HostTrustResult";
inline constexpr const char* kCWTrustLevelKey = "CWTrustLevel";

class CWTrust {
public:
    // Null for an empty list, or when no trust object can be made of the certificates.
    static std::shared_ptr<CWTrust> initWithCertificates(const platform::security::CertificateList& certificates,
                                                         bool usingQuarnRoot,
                                                         std::optional<platform::Date> signatureDate);
    // Null for a null trust object; the CWTrust shares it.
    static std::shared_ptr<CWTrust> initWithHostTrust(std::shared_ptr<platform::security::Trust> trust,
                                                      bool usingQuarnRoot, std::optional<platform::Date> signatureDate);

    // True when a trusted level (200 or more) was reached. trustLevel() is meaningful
    // afterwards in every case: 1, or 2 for a chain that was valid when signed. On
    // false the error carries the evaluation's result code, "HostTrustResult",
    // "CWTrustLevel" and the failure reason.
    bool evaluateTrustReturningError(platform::Error* error);

    std::shared_ptr<platform::security::Trust> trustRef() const { return _trustRef; }
    int32_t trustResult() const { return _trustResult; }
    int32_t trustLevel() const { return _trustLevel; }
    // The chain the last evaluation built; null before any.
    std::optional<platform::security::CertificateList> certificateChain() const;

    // The level's name; absent for any other number.
    static std::optional<std::string> stringForTrustLevel(int32_t level);

    void _enterQuarnRootMode();
    bool _restoreSystemTrustMode();
    bool _enterDateSignedMode();
    bool _restoreCurrentDateMode();
    // `oid` is the policy OID's DER content bytes.
    bool _setCurrentPolicyWithOID(std::span<const uint8_t> oid);
    // Only 202, 301, 401 and 501 are targets; any other fails an assertion.
    bool _evaluateTrustAtLevel(int32_t targetLevel, bool* isDevelopmentSigned);
    platform::security::CertificateRef _anchorCertificateFromEvaluation();
    bool _isTrustedAsRootCertificate(const platform::security::CertificateRef& certificate,
                                     platform::security::TrustSettingsDomain domain);

private:
    CWTrust() = default;
    bool _passesMakerRootLadder();
    void _setDomainLevel();

    std::shared_ptr<platform::security::Trust> _trustRef;
    std::shared_ptr<platform::security::TrustPolicy> _policyRef;
    int32_t _trustResult = platform::security::kTrustResultOtherError;
    int32_t _trustLevel = CWTrustLevelNotTrusted;
    std::optional<platform::Date> _signingDate;
    bool _quarnRootMode = false;
};

}  // namespace crateworks
