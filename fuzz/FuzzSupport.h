// What the fuzz targets and their seed generator share: quiet logs, a private scratch
// directory for one input, and inputs made of several parts.
//
// A target whose reader takes several files reads its input as parts joined by
// kPartSeparator; the seed generator joins them the same way, so a seed is readable
// text wherever its parts are.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "Platform/Log.h"

namespace fuzzsupport {

inline constexpr std::string_view kPartSeparator = "\n--8<--\n";

// The input split at every separator; at most `maxParts` parts, the last one taking the rest.
inline std::vector<std::string> parts(const uint8_t* data, size_t size, size_t maxParts) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> out;
    while (out.size() + 1 < maxParts) {
        size_t at = rest.find(kPartSeparator);
        if (at == std::string_view::npos) break;
        out.emplace_back(rest.substr(0, at));
        rest.remove_prefix(at + kPartSeparator.size());
    }
    out.emplace_back(rest);
    return out;
}

inline std::string join(const std::vector<std::string>& pieces) {
    std::string out;
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (i) out += kPartSeparator;
        out += pieces[i];
    }
    return out;
}

// The console and system logs swallow everything: a reader may log about every input.
inline void quietLogs() {
    platform::setConsoleSink([](std::string_view) {});
    platform::setSystemLogSink([](int, std::string_view) {});
}

// A fresh directory below the temporary directory, removed with everything in it when
// the object goes. Nothing a target writes lies outside it.
class Scratch {
public:
    Scratch() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ferryhold-fuzz-XXXXXX").string();
        if (mkdtemp(pattern.data())) path_ = pattern;
    }
    ~Scratch() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string operator/(std::string_view relative) const { return path_ + "/" + std::string(relative); }

    // Writes `bytes` to the relative path, making its parent directories; false on failure.
    bool write(std::string_view relative, std::string_view bytes) const {
        std::filesystem::path file = *this / relative;
        std::error_code error;
        std::filesystem::create_directories(file.parent_path(), error);
        FILE* out = fopen(file.c_str(), "wb");
        if (!out) return false;
        bool written = fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
        return fclose(out) == 0 && written;
    }
    bool makeDirectory(std::string_view relative) const {
        std::error_code error;
        std::filesystem::create_directories(*this / relative, error);
        return !error;
    }

private:
    std::string path_;
};

// Points the trust code at stores of the scratch folder's own: an empty system anchor
// file and folder, and the user and administrator trust-settings files named (kept in
// the scratch folder, absent until a target writes them). Aborts when they cannot be made.
inline void isolateTrustStores(Scratch& scratch, const std::string& user, const std::string& admin) {
    if (!scratch.ok() || !scratch.write("ca/store.pem", "") || !scratch.makeDirectory("ca/hashed")) abort();
    setenv("SSL_CERT_FILE", (scratch / "ca/store.pem").c_str(), 1);
    setenv("SSL_CERT_DIR", (scratch / "ca/hashed").c_str(), 1);
    setenv("FERRYHOLD_USER_TRUST_SETTINGS", (scratch / user).c_str(), 1);
    setenv("FERRYHOLD_ADMIN_TRUST_SETTINGS", (scratch / admin).c_str(), 1);
}

}  // namespace fuzzsupport
