#include "CrateworksCore/Package_API/Trust/CWTrustAdditions.h"

#include "Platform/Exception.h"
#include "Platform/TrustPolicy.h"

namespace crateworks {

namespace security = platform::security;

namespace {
constexpr size_t kDeveloperChainLength = 3;

const security::Oid& basicConstraintsOID() {
    static const security::Oid oid = *security::Oid::fromDotted("2.5.29.19");
    return oid;
}

bool hasSinglePurpose(const security::Certificate& leaf, const security::Oid& purpose) {
    auto purposes = leaf.extendedKeyUsage();
    return purposes && purposes->size() == 1 && purposes->front() == purpose;
}

// Steps 6 and 7: the leaf's marking extension.
bool leafCarriesMarking(const security::Certificate& leaf, bool forDeveloper, bool* isDevelopmentSigned) {
    if (forDeveloper) return CWTrustAdditions::_certificateHasExtension(leaf, security::vendorOID(".100.6.1.8"));
    if (CWTrustAdditions::_certificateHasExtension(leaf, security::vendorOID(".100.6.1.10"))) return true;
    if (!CWTrustAdditions::_certificateHasExtension(leaf, security::vendorOID(".100.6.1.10.1"))) return false;
    if (isDevelopmentSigned) *isDevelopmentSigned = true;
    return true;
}

bool chainPassesDeveloperCheck(const security::CertificateList& chain, bool forDeveloper, bool* isDevelopmentSigned) {
    if (chain.size() != kDeveloperChainLength) return false;
    if (!CWTrustAdditions::_certificateHasExtension(*chain[1], basicConstraintsOID())) return false;
    const security::Certificate& leaf = *chain[0];
    if (!hasSinglePurpose(leaf, security::vendorOID(forDeveloper ? ".100.4.9" : ".100.4.10"))) return false;
    return leafCarriesMarking(leaf, forDeveloper, isDevelopmentSigned);
}
}  // namespace

bool CWTrustAdditions::_certificateHasExtension(const security::Certificate& certificate, const security::Oid& oid) {
    if (certificate.extensionValue(oid)) return true;
    for (const auto& extension : certificate.extensionOIDs())
        if (extension.bytes().size() == oid.bytes().size() && extension.bytes() == oid.bytes()) return true;
    return false;
}

bool CWTrustAdditions::evaluateVarennaTrust(security::Trust& trust, int32_t* result, bool forDeveloper,
                                            bool* isDevelopmentSigned) {
    FH_ASSERT_AT_LINE("+[CWTrustAdditions evaluateVarennaTrust:settingResult:forDeveloper:isDevelopmentSigned:]", 67,
                      result != nullptr, "trust result pointer required");
    if (isDevelopmentSigned) *isDevelopmentSigned = false;
    if (!trust.evaluate(result)) return false;
    if (*result != security::kTrustResultProceed && *result != security::kTrustResultUnspecified) return false;
    bool passed = chainPassesDeveloperCheck(trust.chain(), forDeveloper, isDevelopmentSigned);
    *result = passed ? security::kTrustResultProceed : security::kTrustResultRecoverableTrustFailure;
    return passed;
}

}  // namespace crateworks
