// Trust policies, named by OID below the maker's arc, and the arc itself.
//
// The maker's arc is the UUID-derived arc of 95d38679-77c2-41b7-93d3-9f8ea8bcbf4d;
// every OID the system writes relative to it hangs below it.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "Platform/Oid.h"

namespace platform::security {

inline constexpr const char* kVendorArc = "2.25.199153273475661425360081730690382348109";
// The vendor arc followed by `suffix` (".100.4.9").
Oid vendorOID(std::string_view suffix);

inline constexpr uint32_t kCertificateTypeX509v3 = 3;

// Basic X.509 (path validation alone): vendor arc .100.1.2.
const Oid& basicX509PolicyOID();
// Software-update signing (path validation, and the leaf's extended key usage names
// vendor arc .100.4.1; a leaf carrying vendor arc .100.6.1.99 is development-signed):
// vendor arc .100.1.10.
const Oid& softwareUpdateSigningPolicyOID();
const Oid& softwareUpdateSigningPurposeOID();
const Oid& developmentSignedExtensionOID();

class TrustPolicy {
public:
    enum class Kind { BasicX509, SoftwareUpdateSigning };

    // The first policy for the certificate type and OID; null when there is none.
    static std::shared_ptr<TrustPolicy> search(uint32_t certificateType, const Oid& oid);

    const Oid& oid() const { return oid_; }
    Kind kind() const { return kind_; }

private:
    TrustPolicy(Oid oid, Kind kind) : oid_(std::move(oid)), kind_(kind) {}
    Oid oid_;
    Kind kind_;
};

}  // namespace platform::security
