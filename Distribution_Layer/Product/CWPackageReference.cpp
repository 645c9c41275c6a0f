#include "Distribution_Layer/Product/CWPackageReference.h"

#include <functional>

#include "Platform/Path.h"
#include "Platform/Strings.h"

namespace crateworks {

namespace {

const std::string kEmpty;

// The part of `url` below the directory `base` names, when it lies there.
std::optional<std::string> relativeString(const platform::URL& url, const platform::URL& base) {
    const std::string& b = base.absoluteString();
    std::string directory = b.substr(0, b.rfind('/') + 1);
    const std::string& u = url.absoluteString();
    if (directory.empty() || !platform::str::hasPrefix(u, directory) || u.size() == directory.size())
        return std::nullopt;
    return u.substr(directory.size());
}

// The URL names a file: its path ends in a name, not at a folder, ".", ".." or the root.
// A package is stored under that name beside its product or in a fetch's destination.
bool namesAFile(const platform::URL& url) {
    const std::string path = url.path();
    std::string name = platform::path::lastComponent(path);
    return !path.empty() && path.back() != '/' && !name.empty() && name != "/" && name != "." && name != "..";
}

}  // namespace

CWPackageReference::CWPackageReference(platform::Dictionary dictionary, std::optional<platform::URL> baseURL,
                                       platform::URL url)
    : dictionary_(std::move(dictionary)), baseURL_(std::move(baseURL)), url_(std::move(url)) {}

std::shared_ptr<CWPackageReference> CWPackageReference::initWithDictionaryRepresentation(
    const platform::Dictionary& dictionary, const std::optional<platform::URL>& baseURL) {
    const std::string* text = dictionary.findString("URL");
    if (!text || !dictionary.findString("Identifier") || !dictionary.findString("Version")) return nullptr;
    std::optional<platform::URL> url = baseURL ? platform::URL::parse(*text, *baseURL) : platform::URL::parse(*text);
    if (!url || !namesAFile(*url)) return nullptr;
    return std::make_shared<CWPackageReference>(dictionary, baseURL, std::move(*url));
}

std::shared_ptr<CWPackageReference> CWPackageReference::initWithURL(const platform::URL& URL,
                                                                    const std::string& identifier,
                                                                    const std::string& version, uint64_t fileSize,
                                                                    const std::optional<std::string>& MD5,
                                                                    const std::optional<platform::URL>& baseURL) {
    if (identifier.empty() || version.empty() || !namesAFile(URL)) return nullptr;
    std::optional<std::string> relative = baseURL ? relativeString(URL, *baseURL) : std::nullopt;
    platform::Dictionary dictionary;
    dictionary.set("URL", relative ? *relative : URL.absoluteString());
    dictionary.set("Identifier", identifier);
    dictionary.set("Version", version);
    dictionary.set("Size", platform::Value(fileSize));
    if (MD5) dictionary.set("MD5", *MD5);
    return std::make_shared<CWPackageReference>(std::move(dictionary), relative ? baseURL : std::nullopt, URL);
}

const std::string& CWPackageReference::identifier() const {
    const std::string* s = dictionary_.findString("Identifier");
    return s ? *s : kEmpty;
}

const std::string& CWPackageReference::version() const {
    const std::string* s = dictionary_.findString("Version");
    return s ? *s : kEmpty;
}

uint64_t CWPackageReference::fileSize() const {
    const platform::Value* size = dictionary_.find("Size");
    if (!size) return 0;
    if (auto u = size->unsignedInteger()) return *u;
    if (auto i = size->integer(); i && *i > 0) return uint64_t(*i);
    return 0;
}

std::optional<std::string> CWPackageReference::MD5() const {
    const std::string* s = dictionary_.findString("MD5");
    return s ? std::optional<std::string>(*s) : std::nullopt;
}

bool CWPackageReference::isEqual(const CWPackageReference& other) const {
    if (identifier() != other.identifier() || version() != other.version()) return false;
    bool sameWritten = *dictionary_.findString("URL") == *other.dictionary_.findString("URL") &&
                       baseURL_ == other.baseURL_;
    return sameWritten || url_ == other.url_;
}

size_t CWPackageReference::hash() const {
    // Equal written URLs with equal bases resolve alike, so the absolute URL is shared by every equal pair.
    std::hash<std::string> h;
    return h(identifier()) ^ (h(version()) * 31) ^ (h(url_.absoluteString()) * 131);
}

}  // namespace crateworks
