#include "Platform/TrustPolicy.h"

#include <string>

namespace platform::security {

Oid vendorOID(std::string_view suffix) {
    return Oid::fromDotted(std::string(kVendorArc) + std::string(suffix)).value_or(Oid());
}

const Oid& basicX509PolicyOID() {
    static const Oid oid = vendorOID(".100.1.2");
    return oid;
}

const Oid& softwareUpdateSigningPolicyOID() {
    static const Oid oid = vendorOID(".100.1.10");
    return oid;
}

const Oid& softwareUpdateSigningPurposeOID() {
    static const Oid oid = vendorOID(".100.4.1");
    return oid;
}

const Oid& developmentSignedExtensionOID() {
    static const Oid oid = vendorOID(".100.6.1.99");
    return oid;
}

std::shared_ptr<TrustPolicy> TrustPolicy::search(uint32_t certificateType, const Oid& oid) {
    if (certificateType != kCertificateTypeX509v3) return nullptr;
    if (oid == basicX509PolicyOID()) return std::shared_ptr<TrustPolicy>(new TrustPolicy(oid, Kind::BasicX509));
    if (oid == softwareUpdateSigningPolicyOID())
        return std::shared_ptr<TrustPolicy>(new TrustPolicy(oid, Kind::SoftwareUpdateSigning));
    return nullptr;
}

}  // namespace platform::security
