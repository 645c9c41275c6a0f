#include "Distribution_Layer/Product/CWProduct.h"

#include "CrateworksCore/Package_API/Trust/CWArchiveTrustJudgement.h"
#include "Distribution_Layer/Product/CWArchiveProduct.h"
#include "Distribution_Layer/Product/CWNetEnabledProduct.h"
#include "Distribution_Layer/Product/CWSecureNetEnabledProduct.h"

namespace crateworks {

std::vector<CWProductClass> CWProduct::_allProductClasses() {
    return {
        {"CWNetEnabledProduct", &CWNetEnabledProduct::canInitWithURL, &CWNetEnabledProduct::initByLoadingProductAtURL},
        {"CWArchiveProduct", &CWArchiveProduct::canInitWithURL, &CWArchiveProduct::initByLoadingProductAtURL},
        {"CWSecureNetEnabledProduct", &CWSecureNetEnabledProduct::canInitWithURL,
         &CWSecureNetEnabledProduct::initByLoadingProductAtURL},
    };
}

bool CWProduct::canInitWithURL(const platform::URL&) { return true; }

std::shared_ptr<CWProduct> CWProduct::productByLoadingProductAtURL(const platform::URL& url, platform::Error* error) {
    for (const CWProductClass& productClass : _allProductClasses()) {
        if (!productClass.canInitWithURL(url)) continue;
        if (auto product = productClass.initByLoadingProductAtURL(url, error)) return product;
    }
    return nullptr;
}

bool CWProduct::evaluateTrustReturningError(platform::Error* error) {
    CWArchiveTrustJudgement judgement =
        CWArchiveTrustJudgement::judgeArchive(_archiveForTrustEvaluation(), minimumRequiredTrustLevel_);
    evaluated_ = true;
    trustLevel_ = judgement.trustLevel;
    certificateChain_ = judgement.certificateChain;
    trustRef_ = judgement.trustRef;
    if (trustLevel_ >= minimumRequiredTrustLevel_) return true;
    platform::Dictionary userInfo{{kCWTrustLevelKey, platform::Value(int64_t(trustLevel_))}};
    if (judgement.signatureError)
        userInfo.set(platform::kUnderlyingErrorKey, platform::Dictionary{{"domain", judgement.signatureError->domain},
                                                                 {"code", judgement.signatureError->code},
                                                                 {"userInfo", judgement.signatureError->userInfo}});
    platform::setError(error, kCWProductErrorDomain, 0, std::move(userInfo));
    return false;
}

int32_t CWProduct::trustLevelReturningCertificateChain(std::optional<platform::security::CertificateList>* chain) {
    if (!evaluated_) evaluateTrustReturningError(nullptr);
    if (chain) *chain = certificateChain_;
    return trustLevel_;
}

int32_t CWProduct::trustLevelReturningTrustRef(std::shared_ptr<platform::security::Trust>* trustRef) {
    if (!evaluated_) evaluateTrustReturningError(nullptr);
    if (trustRef) *trustRef = trustRef_;
    return trustLevel_;
}

}  // namespace crateworks
