#include "Platform/URL.h"

#include <fmt/format.h>
#include <memory>

#include "Platform/CurlLibrary.h"

namespace platform {

namespace {

struct HandleFree {
    void operator()(CURLU* h) const { CurlLibrary::loaded().url_cleanup(h); }
};
using Handle = std::unique_ptr<CURLU, HandleFree>;

std::string part(const CurlLibrary& curl, CURLU* h, CURLUPart which, unsigned flags = 0) {
    char* value = nullptr;
    if (curl.url_get(h, which, &value, flags) != CURLUE_OK || !value) return {};
    std::string out(value);
    curl.free(value);
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
    const CurlLibrary* curl = CurlLibrary::get();
    if (!curl) return std::nullopt;
    Handle h(curl->url());
    // Any scheme is accepted: a URL names a source, not only something this client can fetch.
    if (!h || curl->url_set(h.get(), CURLUPART_URL, std::string(text).c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return std::nullopt;
    URL url;
    url.text_ = part(*curl, h.get(), CURLUPART_URL);
    url.scheme_ = part(*curl, h.get(), CURLUPART_SCHEME);
    url.host_ = part(*curl, h.get(), CURLUPART_HOST);
    url.path_ = percentDecode(part(*curl, h.get(), CURLUPART_PATH));
    std::string port = part(*curl, h.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    url.port_ = port.empty() ? 0 : std::stoi(port);
    if (url.text_.empty() || url.scheme_.empty()) return std::nullopt;
    return url;
}

std::optional<URL> URL::parse(std::string_view reference, const URL& base) {
    const CurlLibrary* curl = CurlLibrary::get();
    if (!curl) return std::nullopt;
    Handle h(curl->url());
    if (!h || curl->url_set(h.get(), CURLUPART_URL, base.text_.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return std::nullopt;
    if (curl->url_set(h.get(), CURLUPART_URL, std::string(reference).c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return std::nullopt;
    return parse(part(*curl, h.get(), CURLUPART_URL));
}

std::optional<std::string> URL::unavailableReason() {
    if (CurlLibrary::get()) return std::nullopt;
    return fmt::format("{} cannot be loaded: {}", CurlLibrary::kFileName, CurlLibrary::loadFailure());
}

URL URL::fileURL(std::string_view path) {
    static const char* hex = "0123456789ABCDEF";
    std::string text = "file://";
    for (unsigned char c : path) {
        bool plain = isalnum(c) || std::string_view("/-._~!$&'()*+,;=:@").find(char(c)) != std::string_view::npos;
        if (plain) {
            text += char(c);
        } else {
            text += '%';
            text += hex[c >> 4];
            text += hex[c & 15];
        }
    }
    URL url;
    url.text_ = text;
    url.scheme_ = "file";
    url.path_ = std::string(path);
    return url;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out += char(hi * 16 + lo);
                i += 2;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

}  // namespace platform
