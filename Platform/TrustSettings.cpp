#include "Platform/TrustSettings.h"

#include <cstdlib>
#include <mutex>
#include <set>

#include "Platform/CryptoLibrary.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"

namespace platform::security {

namespace {

struct SettingsEntry {
    CertificateRef certificate;
    std::vector<TrustSetting> settings;
};

void reportUnreadableOnce(const std::string& path, const std::string& why) {
    static std::mutex mutex;
    static std::set<std::string> reported;
    std::lock_guard lock(mutex);
    if (!reported.insert(path).second) return;
    consoleLogf("Trust settings file {} {}; it counts as no settings", path, why);
}

// One "Settings" array; absent when any part of it is damaged.
std::optional<std::vector<TrustSetting>> parseSettings(const Array& array) {
    std::vector<TrustSetting> settings;
    for (const Value& value : array) {
        const Dictionary* item = value.dictionary();
        if (!item) return std::nullopt;
        TrustSetting setting;
        if (const Value* policy = item->find("Policy")) {
            if (!policy->string()) return std::nullopt;
            setting.namesPolicy = true;
            setting.policy = Oid::fromDotted(*policy->string());
        }
        if (const Value* result = item->find("Result")) {
            if (!result->integer()) return std::nullopt;
            setting.result = result->integer();
        }
        settings.push_back(std::move(setting));
    }
    return settings;
}

std::vector<SettingsEntry> readSettingsFile(const std::string& path) {
    std::vector<SettingsEntry> entries;
    if (path.empty() || !fs::existsNoFollow(path)) return entries;
    auto top = plist::readFile(path);
    if (!top) {
        reportUnreadableOnce(path, "cannot be read");
        return entries;
    }
    const Dictionary* dictionary = top->dictionary();
    const Array* certificates = dictionary ? dictionary->findArray("Certificates") : nullptr;
    if (!certificates) {
        reportUnreadableOnce(path, "is not a dictionary with a \"Certificates\" array");
        return entries;
    }
    for (const Value& value : *certificates) {
        const Dictionary* item = value.dictionary();
        const Value* der = item ? item->find("Certificate") : nullptr;
        const Array* settings = item ? item->findArray("Settings") : nullptr;
        if (!der || !der->data() || !settings) continue;
        auto certificate = Certificate::fromData(*der->data());
        auto parsed = parseSettings(*settings);
        if (certificate && parsed) entries.push_back({certificate, std::move(*parsed)});
    }
    return entries;
}

std::string environment(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

bool trustedAsRootForSomePolicy(const std::vector<TrustSetting>& settings) {
    if (settings.empty()) return true;
    for (const auto& s : settings)
        // An entry without a result trusts as root, as it does for its own policy.
        if (!s.result || s.result == kTrustSettingsResultTrustRoot || s.result == kTrustSettingsResultTrustAsRoot)
            return true;
    return false;
}

void appendUnique(CertificateList& list, const CertificateRef& certificate) {
    for (const auto& c : list)
        if (*c == *certificate) return;
    list.push_back(certificate);
}

// OpenSSL's hashed names in a certificate directory: eight hex digits, a dot, a number.
bool isHashedName(const std::string& name) {
    size_t dot = name.find('.');
    if (dot != 8 || dot + 1 >= name.size()) return false;
    return name.find_first_not_of("0123456789abcdef") == 8 &&
           name.find_first_not_of("0123456789", dot + 1) == std::string::npos;
}

void readCertificateFile(const std::string& path, CertificateList& out) {
    auto bytes = fs::readRegularFile(path);
    if (!bytes) return;
    for (auto& certificate : Certificate::allFromData(*bytes)) appendUnique(out, certificate);
}

}  // namespace

std::string trustSettingsPath(TrustSettingsDomain domain) {
    if (domain == TrustSettingsDomain::Admin) {
        std::string override = environment("FERRYHOLD_ADMIN_TRUST_SETTINGS");
        return override.empty() ? "/etc/ferryhold/TrustSettings.plist" : override;
    }
    if (domain == TrustSettingsDomain::User) {
        std::string override = environment("FERRYHOLD_USER_TRUST_SETTINGS");
        if (!override.empty()) return override;
        std::string config = environment("XDG_CONFIG_HOME");
        if (config.empty()) config = path::standardize("~/.config");
        return path::appendComponent(config, "ferryhold/TrustSettings.plist");
    }
    return {};
}

CertificateList systemCACertificates() {
    CertificateList out;
    // Where the library was built to look, unless its environment variables say otherwise.
    const CryptoLibrary* crypto = CryptoLibrary::get();
    if (!crypto) return out;
    std::string file = environment(crypto->X509_get_default_cert_file_env());
    readCertificateFile(file.empty() ? crypto->X509_get_default_cert_file() : file, out);
    std::string dirs = environment(crypto->X509_get_default_cert_dir_env());
    if (dirs.empty()) dirs = crypto->X509_get_default_cert_dir();
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t colon = dirs.find(':', start);
        std::string dir = dirs.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        if (auto names = dir.empty() ? std::nullopt : fs::contentsOfDirectory(dir))
            for (const auto& name : *names)
                if (isHashedName(name)) readCertificateFile(path::appendComponent(dir, name), out);
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    return out;
}

CertificateList systemAnchorCertificates() {
    CertificateList anchors = systemCACertificates();
    for (auto domain : {TrustSettingsDomain::Admin, TrustSettingsDomain::User})
        for (const auto& entry : readSettingsFile(trustSettingsPath(domain)))
            if (trustedAsRootForSomePolicy(entry.settings)) appendUnique(anchors, entry.certificate);
    return anchors;
}

std::optional<std::vector<TrustSetting>> trustSettings(const Certificate& certificate, TrustSettingsDomain domain) {
    if (domain == TrustSettingsDomain::System) {
        for (const auto& c : systemCACertificates())
            if (*c == certificate) return std::vector<TrustSetting>{};
        return std::nullopt;
    }
    for (auto& entry : readSettingsFile(trustSettingsPath(domain)))
        if (*entry.certificate == certificate) return std::move(entry.settings);
    return std::nullopt;
}

std::optional<bool> settingsTrustAsRoot(const std::vector<TrustSetting>& settings, const Oid& policy) {
    if (settings.empty()) return true;
    for (const auto& s : settings) {
        if (!s.policy || *s.policy != policy) continue;
        return !s.result || *s.result == kTrustSettingsResultTrustRoot || *s.result == kTrustSettingsResultTrustAsRoot;
    }
    return std::nullopt;
}

}  // namespace platform::security
