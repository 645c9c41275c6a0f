#include "Distribution_Layer/Product/CWNetEnabledProduct.h"

#include <cctype>
#include <cerrno>

#include "Distribution_Layer/Downloader/CWURLConnection.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "Platform/Strings.h"
#include "Platform/UserDefaults.h"

namespace crateworks {

namespace {

platform::Error loadError(const platform::URL& indexURL, std::optional<std::string> reason) {
    platform::Dictionary userInfo{{platform::kURLErrorKey, indexURL.absoluteString()}};
    if (indexURL.isFileURL()) userInfo.set(platform::kFilePathErrorKey, indexURL.path());
    if (reason) userInfo.set(platform::kFailureReasonKey, *reason);
    return {platform::kGeneralErrorDomain, platform::kFileReadCorruptFileError, std::move(userInfo)};
}

// UTF-8 bytes escaped so that the text is one relative path segment: everything but the
// unreserved characters and the sub-delimiters is escaped, ":" too, so that the first
// segment of a relative reference is never read as a scheme.
std::string percentEscapedSegment(std::string_view text) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        bool plain = (c < 0x80 && std::isalnum(c)) ||
                     std::string_view("-._~!$&'()*+,;=@").find(char(c)) != std::string_view::npos;
        if (plain) {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

// A localization becomes part of a file name, so it must be one plain name.
bool isUsableLocalization(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos && platform::str::isValidUTF8(name);
}

}  // namespace

CWNetEnabledProduct::CWNetEnabledProduct(platform::URL url, std::shared_ptr<CWProductInfo> info)
    : CWProduct(std::move(url)), info_(std::move(info)) {}

bool CWNetEnabledProduct::canInitWithURL(const platform::URL& url) { return CWProduct::canInitWithURL(url); }

platform::URL CWNetEnabledProduct::_standardizedProductURL(const platform::URL& url, const char* infoFileName) {
    std::string text = url.absoluteString();
    if (platform::str::hasSuffix(text, std::string("/") + infoFileName))
        text.resize(text.size() - std::char_traits<char>::length(infoFileName));
    if (!platform::str::hasSuffix(text, "/")) text += "/";
    return platform::URL::parse(text).value_or(url);
}

std::shared_ptr<CWProductInfo> CWNetEnabledProduct::_fetchProductInfo(const platform::URL& productURL,
                                                                      const char* infoFileName,
                                                                      platform::Error* error) {
    platform::URL indexURL = *platform::URL::parse(infoFileName, productURL);
    platform::URLRequest request(indexURL, platform::URLRequest::ReloadIgnoringLocalCacheData, 180);
    std::optional<platform::URLResponse> response;
    std::optional<platform::Data> body = CWURLConnection::sendSynchronousRequest(request, &response, error);
    if (!body) return nullptr;
    platform::Error parseError;
    std::optional<platform::Value> plist = platform::plist::readBytes(*body, &parseError);
    if (!plist) {
        if (error) {
            const std::string* reason = parseError.userInfo.findString(platform::kFailureReasonKey);
            *error = loadError(indexURL, reason ? std::optional<std::string>(*reason) : std::nullopt);
        }
        return nullptr;
    }
    auto info = CWProductInfo::initWithDictionary(*plist, indexURL);
    if (!info && error) *error = loadError(indexURL, std::nullopt);
    return info;
}

bool CWNetEnabledProduct::_load(CWNetEnabledProduct& product, platform::Error* error) {
    std::optional<platform::URL> distributionURL = product.info_->preferredDistributionURL();
    if (!distributionURL) return true;
    std::optional<platform::URLResponse> response;
    std::optional<platform::Data> data =
        CWURLConnection::sendSynchronousRequest(platform::URLRequest(*distributionURL), &response, error);
    return data && product.didReceiveDataFromDistributionURL(*data, *distributionURL, error);
}

std::shared_ptr<CWProduct> CWNetEnabledProduct::initByLoadingProductAtURL(const platform::URL& url,
                                                                          platform::Error* error) {
    platform::URL productURL = _standardizedProductURL(url, productInfoFileName());
    auto info = _fetchProductInfo(productURL, productInfoFileName(), error);
    if (!info) return nullptr;
    auto product = std::make_shared<CWNetEnabledProduct>(productURL, info);
    return _load(*product, error) ? product : nullptr;
}

bool CWNetEnabledProduct::didReceiveDataFromDistributionURL(const platform::Data& data, const platform::URL&,
                                                            platform::Error*) {
    distributionData_ = data;
    return true;
}

std::optional<std::string> CWNetEnabledProduct::suggestedPackagePathFromPackageReference(
    const CWPackageReference& reference) const {
    std::string path = platform::path::appendComponent(URL().path(),
                                                       platform::path::lastComponent(reference.URL().path()));
    if (reference.URL().isFileURL() && reference.URL().path() == path) return std::nullopt;
    return path;
}

std::string CWNetEnabledProduct::_localizationForStoredDistribution() {
    std::optional<platform::Value> languages = platform::defaults::objectForKey("QuarnLanguages");
    if (languages && languages->array() && !languages->array()->empty())
        if (const std::string* first = languages->array()->front().string(); first && isUsableLocalization(*first))
            return *first;
    return "en";
}

bool CWNetEnabledProduct::_setDistributionFlatData(const platform::Data& data, platform::Error* error) {
    if (!URL().isFileURL()) {
        platform::setError(error, platform::kGeneralErrorDomain, platform::kFileWriteUnsupportedSchemeError,
                           platform::Dictionary{{platform::kURLErrorKey, URL().absoluteString()}});
        return false;
    }
    std::string stem = platform::path::deletingExtension(platform::path::lastComponent(URL().path()));
    if (stem.empty() || stem == "/") {
        // A product at the root of the file system has no name to file the document under.
        if (error) *error = platform::fs::posixError(EINVAL, URL().path());
        return false;
    }
    std::string localization = _localizationForStoredDistribution();
    std::string fileName = percentEscapedSegment(stem + "." + localization + ".dist");
    std::optional<platform::URL> distributionURL = platform::URL::parse(fileName, URL());
    if (!distributionURL) {
        if (error) *error = platform::fs::posixError(EINVAL, URL().path());
        return false;
    }
    if (!platform::fs::writeFileAtomically(distributionURL->path(), data, error)) return false;

    // The index is committed from a copy, so that a failed write leaves the product as it was.
    CWProductInfo updated = *info_;
    updated.setDistributionURL(*distributionURL, localization);
    std::string indexPath = platform::path::appendComponent(URL().path(), _productInfoFileName());
    if (!platform::plist::writeXMLFile(platform::Value(updated.dictionaryRepresentation()), indexPath, error))
        return false;
    *info_ = std::move(updated);
    if (info_->preferredDistributionURL() == distributionURL) distributionData_ = data;
    return true;
}

}  // namespace crateworks
