#include "Platform/TrustEvaluation.h"

#include <cmath>

#include "Platform/OpenSSLHandles.h"
#include "Platform/SecurityStatus.h"
#include "Platform/TrustSettings.h"

namespace platform::security {

namespace {
// Intermediates between leaf and anchor; a signature carries a handful at most.
constexpr int kMaxChainDepth = 10;

// Faults of the certificates themselves are fatal; everything else (dates, missing
// anchors, purposes) may be put right and is recoverable.
int32_t resultForVerifyError(int error) {
    switch (error) {
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    case X509_V_ERR_CRL_SIGNATURE_FAILURE:
    case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
    case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
    case X509_V_ERR_INVALID_EXTENSION:
    case X509_V_ERR_UNSUPPORTED_SIGNATURE_ALGORITHM:
    case X509_V_ERR_SIGNATURE_ALGORITHM_MISMATCH: return kTrustResultFatalTrustFailure;
    default: return kTrustResultRecoverableTrustFailure;
    }
}

bool contains(const std::vector<Oid>& oids, const Oid& oid) {
    for (const auto& o : oids)
        if (o == oid) return true;
    return false;
}

bool explicitlyTrusted(const Certificate& anchor, const Oid& policy) {
    for (auto domain : {TrustSettingsDomain::User, TrustSettingsDomain::Admin}) {
        auto settings = trustSettings(anchor, domain);
        if (settings && settingsTrustAsRoot(*settings, policy).value_or(false)) return true;
    }
    return false;
}
}  // namespace

std::shared_ptr<Trust> Trust::create(CertificateList certificates, std::shared_ptr<TrustPolicy> policy) {
    if (certificates.empty()) return nullptr;
    for (const auto& c : certificates)
        if (!c) return nullptr;
    std::shared_ptr<Trust> trust(new Trust());
    trust->certificates_ = std::move(certificates);
    trust->policy_ = std::move(policy);
    return trust;
}

bool Trust::setPolicy(std::shared_ptr<TrustPolicy> policy) {
    if (!policy) return false;
    policy_ = std::move(policy);
    return true;
}

bool Trust::setAnchorCertificates(CertificateList anchors) {
    for (const auto& a : anchors)
        if (!a) return false;
    anchors_ = std::move(anchors);
    return true;
}

bool Trust::setVerifyDate(Date date) {
    if (!std::isfinite(date.secondsSince1970)) return false;
    verifyDate_ = date;
    return true;
}

bool Trust::evaluate(int32_t* resultOut) {
    result_ = kTrustResultOtherError;
    resultCode_ = 0;
    chain_.clear();
    chainStatus_.clear();
    auto finish = [&](bool ok) {
        if (resultOut) *resultOut = result_;
        return ok;
    };
    // The certificates were read by the library, so it is loaded; asked all the same.
    const CryptoLibrary* crypto = CryptoLibrary::get();
    if (!policy_ || !crypto) return finish(false);

    CertificateList anchors = anchors_ ? *anchors_ : systemAnchorCertificates();
    detail::StorePtr store(crypto->X509_STORE_new());
    detail::X509StackPtr untrusted = detail::newX509Stack();
    detail::StoreCtxPtr ctx(crypto->X509_STORE_CTX_new());
    if (!store || !untrusted || !ctx) return finish(false);
    for (const auto& anchor : anchors) crypto->X509_STORE_add_cert(store.get(), anchor->native());
    for (size_t i = 1; i < certificates_.size(); ++i)
        if (!detail::pushX509(untrusted.get(), certificates_[i]->native())) return finish(false);
    if (crypto->X509_STORE_CTX_init(ctx.get(), store.get(), certificates_[0]->native(), untrusted.get()) != 1)
        return finish(false);
    X509_VERIFY_PARAM* param = crypto->X509_STORE_CTX_get0_param(ctx.get());
    // Any anchor ends a chain, a root that is not self-signed included.
    crypto->X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
    crypto->X509_VERIFY_PARAM_set_depth(param, kMaxChainDepth);
    crypto->X509_VERIFY_PARAM_set_time(param, time_t(verifyDate().secondsSince1970));

    bool valid = crypto->X509_verify_cert(ctx.get()) == 1;
    if (STACK_OF(X509)* built = crypto->X509_STORE_CTX_get0_chain(ctx.get())) {
        for (int i = 0; i < detail::stackCount(built); ++i) {
            auto certificate = Certificate::fromNative(detail::stackItem<X509>(built, i));
            uint32_t status = certificate->isSelfSigned() ? kChainStatusIsRoot : 0;
            for (const auto& anchor : anchors)
                if (*anchor == *certificate) status |= kChainStatusIsInAnchors;
            chain_.push_back(std::move(certificate));
            chainStatus_.push_back(status);
        }
    }
    if (!valid) {
        resultCode_ = crypto->X509_STORE_CTX_get_error(ctx.get());
        result_ = resultForVerifyError(int(resultCode_));
        return finish(true);
    }
    _judgePolicy();
    return finish(true);
}

void Trust::_judgePolicy() {
    if (policy_->kind() == TrustPolicy::Kind::SoftwareUpdateSigning) {
        const Certificate& leaf = *certificates_[0];
        auto purposes = leaf.extendedKeyUsage();
        if (!purposes || !contains(*purposes, softwareUpdateSigningPurposeOID())) {
            result_ = kTrustResultRecoverableTrustFailure;
            resultCode_ = X509_V_ERR_INVALID_PURPOSE;
            return;
        }
        if (leaf.extensionValue(developmentSignedExtensionOID())) {
            result_ = kTrustResultRecoverableTrustFailure;
            resultCode_ = kStatusDevelopmentSigned;
            return;
        }
    }
    const Certificate& anchor = *chain_.back();
    result_ = explicitlyTrusted(anchor, policy_->oid()) ? kTrustResultProceed : kTrustResultUnspecified;
}

}  // namespace platform::security
