#include "CrateworksCore/Package_API/Trust/CWArchiveTrustJudgement.h"

#include "CrateworksCore/Package_API/Archive/CWArchiveSignature.h"

namespace crateworks {

namespace {
std::shared_ptr<CWTrust> trustForSignature(CWArchiveSignature& signature, std::optional<platform::Date> date) {
    if (auto host = signature.verificationTrustRef()) return CWTrust::initWithHostTrust(host, true, date);
    auto certificates = signature.certificateRefs();
    return certificates ? CWTrust::initWithCertificates(*certificates, true, date) : nullptr;
}

int32_t judge(CWArchive& archive, CWArchiveTrustJudgement& judgement) {
    auto signatures = archive.archiveSignatures();
    if (!signatures || signatures->empty()) return CWTrustLevelNotSigned;
    CWArchiveSignature& signature = *signatures->front();
    platform::Error error;
    if (!signature.verifySignedDataReturningError(&error)) {
        if (!error.domain.empty()) judgement.signatureError = error;
        return CWTrustLevelInvalidSignature;
    }
    auto trust = trustForSignature(signature, archive.archiveSignatureDate());
    if (!trust) return CWTrustLevelNotSigned;
    trust->evaluateTrustReturningError(nullptr);
    judgement.certificateChain = trust->certificateChain();
    judgement.trustRef = trust->trustRef();
    return trust->trustLevel();
}
}  // namespace

CWArchiveTrustJudgement CWArchiveTrustJudgement::judgeArchive(const std::shared_ptr<CWArchive>& archive,
                                                              int32_t lowestAcceptedTrustLevel) {
    CWArchiveTrustJudgement judgement;
    if (archive) {
        judgement.trustLevel = judge(*archive, judgement);
        archive->closeArchive();
    }
    judgement.passes = judgement.trustLevel >= lowestAcceptedTrustLevel;
    return judgement;
}

}  // namespace crateworks
