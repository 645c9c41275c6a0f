// Judging an archive's signature the way a product does: the first signature must
// match its signed data, and its certificates are then placed on the trust ladder
// with the maker's root tried first.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "CrateworksCore/Package_API/Archive/CWArchive.h"
#include "CrateworksCore/Package_API/Trust/CWTrust.h"

namespace crateworks {

class CWArchiveTrustJudgement {
public:
    // 100 for no archive or no signature, 0 when the first signature does not match
    // its data, else the level CWTrust reaches (whatever its evaluation answered).
    // The archive is closed afterwards.
    static CWArchiveTrustJudgement judgeArchive(const std::shared_ptr<CWArchive>& archive,
                                                int32_t lowestAcceptedTrustLevel);

    int32_t trustLevel = CWTrustLevelNotSigned;
    // The chain and trust object of the evaluation; null when none took place.
    std::optional<platform::security::CertificateList> certificateChain;
    std::shared_ptr<platform::security::Trust> trustRef;
    // The first signature's check failed with this error (level 0).
    std::optional<platform::Error> signatureError;
    // trustLevel is at least the lowest accepted level.
    bool passes = false;
};

}  // namespace crateworks
