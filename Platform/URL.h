// Absolute URLs: parsing, resolving a reference against a base, and file URLs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

class URL {
public:
    // An absolute URL ("scheme:..."), normalised; absent when the text is not one.
    static std::optional<URL> parse(std::string_view text);
    // `reference` resolved against `base` (an absolute reference stands on its own).
    static std::optional<URL> parse(std::string_view reference, const URL& base);
    // Why no URL can be parsed in this process ("libcurl.so.4 cannot be loaded: ..."),
    // which parse() then answers as if the text were no URL; absent normally.
    static std::optional<std::string> unavailableReason();
    // The file URL of an absolute path, percent-encoding what needs it.
    static URL fileURL(std::string_view path);

    const std::string& absoluteString() const { return text_; }
    // Lower-case scheme, such as "http" or "file".
    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }
    // The port written in the URL, or the scheme's default (0 when there is none).
    int port() const { return port_; }
    // The path, percent-decoded ("" for none).
    const std::string& path() const { return path_; }
    bool isFileURL() const { return scheme_ == "file"; }

    bool operator==(const URL& other) const { return text_ == other.text_; }

private:
    std::string text_, scheme_, host_, path_;
    int port_ = 0;
};

// "%41" → "A"; a "%" not followed by two hexadecimal digits stays as it is.
std::string percentDecode(std::string_view text);

}  // namespace platform
