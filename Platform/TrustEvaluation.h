// The trust object: certificates (leaf first, the others untrusted intermediates), one
// policy, anchors (an explicit list or the system's), a verify date, and the outcome
// of the last evaluation: result value, result code, the chain built and a status word
// per chain element.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Platform/Certificate.h"
#include "Platform/TrustPolicy.h"
#include "Platform/Value.h"

namespace platform::security {

// Result values of an evaluation.
inline constexpr int32_t kTrustResultInvalid = 0;
inline constexpr int32_t kTrustResultProceed = 1;      // anchor explicitly trusted by user or administrator settings
inline constexpr int32_t kTrustResultUnspecified = 4;  // valid chain to any other anchor
inline constexpr int32_t kTrustResultRecoverableTrustFailure = 5;
inline constexpr int32_t kTrustResultFatalTrustFailure = 6;
inline constexpr int32_t kTrustResultOtherError = 7;

// Status bits of a chain element.
inline constexpr uint32_t kChainStatusIsInAnchors = 0x8;
inline constexpr uint32_t kChainStatusIsRoot = 0x10;

class Trust {
public:
    // Null for an empty list. `policy` may be null and installed later.
    static std::shared_ptr<Trust> create(CertificateList certificates, std::shared_ptr<TrustPolicy> policy);

    const CertificateList& certificates() const { return certificates_; }
    bool setPolicy(std::shared_ptr<TrustPolicy> policy);
    const std::shared_ptr<TrustPolicy>& policy() const { return policy_; }
    // The only anchors of later evaluations; an empty list trusts nothing.
    bool setAnchorCertificates(CertificateList anchors);
    // Back to the system's anchors (see TrustSettings.h).
    void useSystemAnchors() { anchors_.reset(); }
    bool usesSystemAnchors() const { return !anchors_; }
    bool setVerifyDate(Date date);
    Date verifyDate() const { return verifyDate_.value_or(Date::now()); }

    // Path validation with the anchors as the only trusted certificates at the verify
    // date, then the policy's checks. False, with result 7, when no evaluation was
    // possible (no policy, or the verifier could not be set up).
    bool evaluate(int32_t* result = nullptr);
    int32_t result() const { return result_; }
    // 0, kStatusDevelopmentSigned, or the verifier's error number.
    int64_t resultCode() const { return resultCode_; }
    // The chain the last evaluation built, leaf first, and the status bits of each element.
    const CertificateList& chain() const { return chain_; }
    const std::vector<uint32_t>& chainStatus() const { return chainStatus_; }

private:
    Trust() = default;
    void _judgePolicy();

    CertificateList certificates_;
    std::shared_ptr<TrustPolicy> policy_;
    std::optional<CertificateList> anchors_;
    std::optional<Date> verifyDate_;
    int32_t result_ = kTrustResultInvalid;
    int64_t resultCode_ = 0;
    CertificateList chain_;
    std::vector<uint32_t> chainStatus_;
};

}  // namespace platform::security
