#include "CrateworksCore/Package_API/Trust/CWTrust.h"

#include <fmt/format.h>

#include "CrateworksCore/Package_API/Trust/CWTrustAdditions.h"
#include "Platform/Exception.h"
#include "Platform/MakerRootCertificate.h"
#include "Platform/SecurityStatus.h"

namespace crateworks {

namespace security = platform::security;
using security::TrustSettingsDomain;

std::shared_ptr<CWTrust> CWTrust::initWithCertificates(const security::CertificateList& certificates,
                                                       bool usingQuarnRoot,
                                                       std::optional<platform::Date> signatureDate) {
    if (certificates.empty()) return nullptr;
    auto trust = security::Trust::create(certificates, nullptr);
    if (!trust) return nullptr;
    return initWithHostTrust(std::move(trust), usingQuarnRoot, signatureDate);
}

std::shared_ptr<CWTrust> CWTrust::initWithHostTrust(std::shared_ptr<security::Trust> trust, bool usingQuarnRoot,
                                                    std::optional<platform::Date> signatureDate) {
    if (!trust) return nullptr;
    std::shared_ptr<CWTrust> result(new CWTrust());
    result->_trustRef = std::move(trust);
    result->_quarnRootMode = usingQuarnRoot;
    result->_signingDate = signatureDate;
    return result;
}

std::optional<security::CertificateList> CWTrust::certificateChain() const {
    if (_trustRef->chain().empty()) return std::nullopt;
    return _trustRef->chain();
}

std::optional<std::string> CWTrust::stringForTrustLevel(int32_t level) {
    switch (level) {
    case CWTrustLevelInvalidSignature: return "CWTrustLevelInvalidSignature";
    case CWTrustLevelNotTrusted: return "CWTrustLevelNotTrusted";
    case CWTrustLevelExpiredCertificate: return "CWTrustLevelExpiredCertificate";
    case CWTrustLevelNotSigned: return "CWTrustLevelNotSigned";
    case CWTrustLevelUserDomain: return "CWTrustLevelUserDomain";
    case CWTrustLevelAdminDomain: return "CWTrustLevelAdminDomain";
    case CWTrustLevelSystemDomain: return "CWTrustLevelSystemDomain";
    case CWTrustLevelQuarnDeveloperDevelopment: return "CWTrustLevelQuarnDeveloperDevelopment";
    case CWTrustLevelQuarnDeveloperProduction: return "CWTrustLevelQuarnDeveloperProduction";
    case CWTrustLevelQuarnDistributedDevelopment: return "CWTrustLevelQuarnDistributedDevelopment";
    case CWTrustLevelQuarnDistributedProduction: return "CWTrustLevelQuarnDistributedProduction";
    case CWTrustLevelQuarnSoftwareDevelopment: return "CWTrustLevelQuarnSoftwareDevelopment";
    case CWTrustLevelQuarnSoftwareProduction: return "CWTrustLevelQuarnSoftwareProduction";
    default: return std::nullopt;
    }
}

void CWTrust::_enterQuarnRootMode() {
    // A root that cannot be read is not reported: no maker level can pass then.
    auto root = security::Certificate::fromData(security::makerRootCertificateData());
    if (root) _trustRef->setAnchorCertificates({root});
}

bool CWTrust::_restoreSystemTrustMode() {
    _trustRef->useSystemAnchors();
    return true;
}

bool CWTrust::_enterDateSignedMode() {
    if (!_signingDate) return false;
    return _trustRef->setVerifyDate(*_signingDate);
}

bool CWTrust::_restoreCurrentDateMode() { return _trustRef->setVerifyDate(platform::Date::now()); }

bool CWTrust::_setCurrentPolicyWithOID(std::span<const uint8_t> oid) {
    auto policy = security::TrustPolicy::search(security::kCertificateTypeX509v3,
                                                security::Oid(platform::Data(oid.begin(), oid.end())));
    if (!policy || !_trustRef->setPolicy(policy)) return false;
    _policyRef = std::move(policy);
    return true;
}

bool CWTrust::_evaluateTrustAtLevel(int32_t targetLevel, bool* isDevelopmentSigned) {
    _trustResult = security::kTrustResultOtherError;
    if (isDevelopmentSigned) *isDevelopmentSigned = false;
    const security::Oid* policy = nullptr;
    bool developerCheck = false;
    bool forDeveloper = false;
    switch (targetLevel) {
    case CWTrustLevelSystemDomain: policy = &security::basicX509PolicyOID(); break;
    case CWTrustLevelQuarnDeveloperProduction:
        policy = &security::basicX509PolicyOID();
        developerCheck = forDeveloper = true;
        break;
    case CWTrustLevelQuarnDistributedProduction:
        policy = &security::basicX509PolicyOID();
        developerCheck = true;
        break;
    case CWTrustLevelQuarnSoftwareProduction: policy = &security::softwareUpdateSigningPolicyOID(); break;
    default:
        FH_ASSERT_AT_LINE("-[CWTrust _evaluateTrustAtLevel:isDevelopmentSigned:]", 371, false,
                          fmt::format("Unexpected target trust level {}", targetLevel));
    }
    if (!_setCurrentPolicyWithOID(policy->bytes())) return false;
    if (developerCheck)
        return CWTrustAdditions::evaluateVarennaTrust(*_trustRef, &_trustResult, forDeveloper, isDevelopmentSigned);

    if (!_trustRef->evaluate(&_trustResult)) return false;
    if (_trustResult == security::kTrustResultProceed || _trustResult == security::kTrustResultUnspecified) return true;
    // A development-signed chain passes at the development variant of the level.
    if (isDevelopmentSigned && _trustResult == security::kTrustResultRecoverableTrustFailure &&
        _trustRef->resultCode() == security::kStatusDevelopmentSigned) {
        *isDevelopmentSigned = true;
        return true;
    }
    return false;
}

security::CertificateRef CWTrust::_anchorCertificateFromEvaluation() {
    const auto& chain = _trustRef->chain();
    const auto& status = _trustRef->chainStatus();
    if (chain.empty() || status.size() != chain.size()) return nullptr;
    if (status.back() & (security::kChainStatusIsInAnchors | security::kChainStatusIsRoot)) return chain.back();
    return nullptr;
}

bool CWTrust::_isTrustedAsRootCertificate(const security::CertificateRef& certificate, TrustSettingsDomain domain) {
    if (!certificate || !_policyRef) return false;
    auto settings = security::trustSettings(*certificate, domain);
    if (!settings) return false;
    return security::settingsTrustAsRoot(*settings, _policyRef->oid()).value_or(false);
}

bool CWTrust::_passesMakerRootLadder() {
    _enterQuarnRootMode();
    for (int32_t target : {CWTrustLevelQuarnSoftwareProduction, CWTrustLevelQuarnDistributedProduction,
                           CWTrustLevelQuarnDeveloperProduction}) {
        bool isDevelopmentSigned = false;
        if (_evaluateTrustAtLevel(target, &isDevelopmentSigned)) {
            _trustLevel = isDevelopmentSigned ? target - 1 : target;
            return true;
        }
    }
    _restoreSystemTrustMode();
    return false;
}

void CWTrust::_setDomainLevel() {
    auto anchor = _anchorCertificateFromEvaluation();
    if (_isTrustedAsRootCertificate(anchor, TrustSettingsDomain::System))
        _trustLevel = CWTrustLevelSystemDomain;
    else if (_isTrustedAsRootCertificate(anchor, TrustSettingsDomain::Admin))
        _trustLevel = CWTrustLevelAdminDomain;
    else if (_isTrustedAsRootCertificate(anchor, TrustSettingsDomain::User))
        _trustLevel = CWTrustLevelUserDomain;
}

bool CWTrust::evaluateTrustReturningError(platform::Error* error) {
    _trustLevel = CWTrustLevelNotTrusted;
    if (_quarnRootMode && _passesMakerRootLadder()) return true;
    if (_evaluateTrustAtLevel(CWTrustLevelSystemDomain, nullptr)) {
        _setDomainLevel();
        if (_trustLevel >= CWTrustLevelUserDomain) return true;
    }
    if (_enterDateSignedMode()) {
        if (_evaluateTrustAtLevel(CWTrustLevelSystemDomain, nullptr)) _trustLevel = CWTrustLevelExpiredCertificate;
        _restoreCurrentDateMode();
        // Leaves the trust object evaluated at the current date for certificateChain and trustRef.
        _evaluateTrustAtLevel(CWTrustLevelSystemDomain, nullptr);
    }
    if (error) {
        int64_t code = _trustRef->resultCode();
        platform::Dictionary info{{kCWHostTrustResultKey, _trustResult},
                                  {kCWTrustLevelKey, stringForTrustLevel(_trustLevel).value_or("")}};
        if (auto message = security::messageForStatus(code)) info.set(security::kFailureReasonKey, *message);
        platform::setError(error, security::kOSStatusErrorDomain, code, std::move(info));
    }
    return false;
}

}  // namespace crateworks
