// The developer check of the maker's chains: a chain of exactly leaf, intermediate and
// root whose leaf names one maker purpose and carries the maker's marking extension.
#pragma once

#include <cstdint>

#include "Platform/Certificate.h"
#include "Platform/TrustEvaluation.h"

namespace crateworks {

class CWTrustAdditions {
public:
    // Evaluates `trust`; when it yields 1 or 4, checks the built chain: three
    // certificates, the intermediate with basic constraints, the leaf's extended key
    // usage exactly vendor arc .100.4.9 (developer) or .100.4.10 (distribution), and
    // the leaf's extension .100.6.1.8 (developer) or .100.6.1.10, else .100.6.1.10.1
    // (distribution, development-signed: `isDevelopmentSigned` is set). Writes 1 into
    // `result` when the check passed, else 5 (or the evaluation's own result when that
    // was not 1 or 4). `result` is required.
    static bool evaluateVarennaTrust(platform::security::Trust& trust, int32_t* result, bool forDeveloper,
                                     bool* isDevelopmentSigned);

    // Whether the certificate carries the extension: a field value for the OID, or one
    // of its X.509 v3 extensions with an OID of the same length and bytes.
    static bool _certificateHasExtension(const platform::security::Certificate& certificate,
                                         const platform::security::Oid& oid);
};

}  // namespace crateworks
