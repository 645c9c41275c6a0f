// Fuzzes certificates and chains as an archive's table of contents carries them: each
// part of the input is one certificate in base64 text, the signer's first. The first
// part stands in for the maker's root. Each certificate is read and looked at, and
// the chain is put on the trust ladder with and without the maker's root, at a fixed
// signing date, with an empty system store.
#include <cstdint>
#include <cstdlib>

#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "CrateworksCore/Package_API/Trust/CWTrustAdditions.h"
#include "FuzzSupport.h"
#include "Platform/Base64.h"
#include "Platform/MakerRootCertificate.h"
#include "Platform/TrustPolicy.h"

namespace sec = platform::security;

namespace {

fuzzsupport::Scratch* scratch;

void lookAt(const sec::Certificate& certificate) {
    (void)certificate.subject();
    (void)certificate.commonName();
    (void)certificate.isSelfSigned();
    if (auto date = certificate.notAfter()) (void)date->description();
    for (const auto& oid : certificate.extensionOIDs()) (void)certificate.extensionValue(oid);
    (void)certificate.extendedKeyUsage();
    (void)crateworks::CWTrustAdditions::_certificateHasExtension(certificate, sec::vendorOID(".100.6.1.10"));
    const uint8_t digest[20] = {1, 2, 3};
    const uint8_t signature[256] = {4, 5, 6};
    (void)certificate.verifyRSASHA1Digest(digest, signature);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    static fuzzsupport::Scratch directory;
    scratch = &directory;
    fuzzsupport::isolateTrustStores(*scratch, "absent-user.plist", "absent-admin.plist");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzzsupport::parts(data, size, 6);
    sec::CertificateList chain;
    std::optional<platform::Data> root;
    for (size_t i = 0; i < parts.size(); ++i) {
        auto der = platform::base64::decode(parts[i]);
        if (!der) continue;
        if (i == 0) {
            root = *der;
            continue;
        }
        if (auto certificate = sec::Certificate::fromData(*der)) {
            lookAt(*certificate);
            chain.push_back(certificate);
        }
    }
    sec::setMakerRootCertificateOverride(root);
    const platform::Date signed2026{1767225600};
    for (bool usingMakerRoot : {true, false}) {
        auto trust = crateworks::CWTrust::initWithCertificates(chain, usingMakerRoot, signed2026);
        if (!trust) break;
        platform::Error error;
        (void)trust->evaluateTrustReturningError(&error);
        (void)trust->trustLevel();
        if (auto built = trust->certificateChain())
            for (const auto& certificate : *built) (void)certificate->subject();
    }
    sec::setMakerRootCertificateOverride(std::nullopt);
    return 0;
}
