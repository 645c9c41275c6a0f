// Trust settings: which certificates the system, the administrator and the user trust
// as roots, and for which policies.
//
//   system (2)         every certificate of the system CA store (SSL_CERT_FILE and
//                      SSL_CERT_DIR before OpenSSL's compiled defaults), trusted for
//                      everything
//   administrator (1)  /etc/ferryhold/TrustSettings.plist, or FERRYHOLD_ADMIN_TRUST_SETTINGS
//   user (0)           $XDG_CONFIG_HOME/ferryhold/TrustSettings.plist (default ~/.config),
//                      or FERRYHOLD_USER_TRUST_SETTINGS
//
// A settings file is a dictionary whose "Certificates" array holds dictionaries with
// "Certificate" (DER data) and "Settings" (an array of dictionaries with "Policy", a
// dotted OID, and "Result", an integer). Damaged parts grant nothing; an unreadable
// file counts as no settings and is reported once on the console log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Certificate.h"
#include "Platform/Oid.h"

namespace platform::security {

enum class TrustSettingsDomain : int { User = 0, Admin = 1, System = 2 };

inline constexpr int64_t kTrustSettingsResultTrustRoot = 1;
inline constexpr int64_t kTrustSettingsResultTrustAsRoot = 2;  // trusted as a root that is not self-signed
inline constexpr int64_t kTrustSettingsResultDeny = 3;
inline constexpr int64_t kTrustSettingsResultUnspecified = 4;

struct TrustSetting {
    std::optional<Oid> policy;      // absent when the entry names none, or none that parses
    bool namesPolicy = false;       // the entry has a "Policy" at all
    std::optional<int64_t> result;  // absent when the entry gives none
};

// The certificate's settings in the domain; absent when the domain has none for it.
// An empty list trusts the certificate for everything.
std::optional<std::vector<TrustSetting>> trustSettings(const Certificate& certificate, TrustSettingsDomain domain);

// Whether settings trust a certificate as a root for `policy`: an empty list does;
// otherwise the first entry whose policy equals `policy` decides (no result, or result
// 1 or 2, trusts). Absent when no entry names the policy.
std::optional<bool> settingsTrustAsRoot(const std::vector<TrustSetting>& settings, const Oid& policy);

// The system CA store, and the anchors of an evaluation with "the system's anchors":
// the store plus every certificate of the administrator and user files that is trusted
// as a root for some policy.
CertificateList systemCACertificates();
CertificateList systemAnchorCertificates();

// The settings file of the administrator or user domain (empty for the system's).
std::string trustSettingsPath(TrustSettingsDomain domain);

}  // namespace platform::security
