// Fuzzes the trust settings files of the user and administrator domains (the input's
// two parts), as the anchors of an evaluation and certificate by certificate. The
// system store is an empty file and folder of the target's, so the settings alone
// decide, and the answer does not depend on the machine.
#include <cstdint>
#include <cstdlib>

#include "FuzzSupport.h"
#include "Platform/PropertyList.h"
#include "Platform/TrustPolicy.h"
#include "Platform/TrustSettings.h"

namespace sec = platform::security;

namespace {

// One directory for the whole run: the settings paths are process-wide, and the
// reader reports an unreadable file once per path.
fuzzsupport::Scratch* scratch;

// The certificates the settings file names, as its reader would find them.
sec::CertificateList namedCertificates(const std::string& bytes) {
    sec::CertificateList out;
    auto top = platform::plist::readBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
    const platform::Dictionary* dictionary = top ? top->dictionary() : nullptr;
    const platform::Array* list = dictionary ? dictionary->findArray("Certificates") : nullptr;
    if (!list) return out;
    for (const auto& item : *list) {
        if (out.size() == 4) break;
        const platform::Dictionary* entry = item.dictionary();
        const platform::Value* der = entry ? entry->find("Certificate") : nullptr;
        if (der && der->data())
            if (auto certificate = sec::Certificate::fromData(*der->data())) out.push_back(certificate);
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    static fuzzsupport::Scratch directory;
    scratch = &directory;
    fuzzsupport::isolateTrustStores(*scratch, "user.plist", "admin.plist");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzzsupport::parts(data, size, 2);
    parts.resize(2);
    if (!scratch->write("user.plist", parts[0]) || !scratch->write("admin.plist", parts[1])) return 0;
    (void)sec::systemAnchorCertificates();
    const sec::Oid* policies[] = {&sec::basicX509PolicyOID(), &sec::softwareUpdateSigningPolicyOID()};
    for (const auto& certificate : namedCertificates(parts[0]))
        for (auto domain : {sec::TrustSettingsDomain::User, sec::TrustSettingsDomain::Admin})
            if (auto settings = sec::trustSettings(*certificate, domain))
                for (const sec::Oid* policy : policies) (void)sec::settingsTrustAsRoot(*settings, *policy);
    return 0;
}
