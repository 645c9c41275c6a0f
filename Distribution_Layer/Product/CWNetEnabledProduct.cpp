#include "Distribution_Layer/Product/CWNetEnabledProduct.h"

#include "Distribution_Layer/Downloader/CWURLConnection.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "Platform/Strings.h"

namespace crateworks {

namespace {

platform::Error loadError(const platform::URL& indexURL, std::optional<std::string> reason) {
    platform::Dictionary userInfo{{"NSURL", indexURL.absoluteString()}};
    if (reason) userInfo.set("NSLocalizedFailureReason", *reason);
    return {kCWFoundationErrorDomain, kCWFileReadCorruptFileError, std::move(userInfo)};
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
    std::optional<platform::Value> plist =
        platform::plist::readBytes(*body);
    if (!plist) {
        if (error) *error = loadError(indexURL, "The index is not a property list.");
        return nullptr;
    }
    auto info = CWProductInfo::initWithDictionary(*plist, indexURL);
    if (!info && error) *error = loadError(indexURL, std::nullopt);
    return info;
}

bool CWNetEnabledProduct::_load(CWNetEnabledProduct& product, const char* infoFileName, platform::Error* error) {
    std::optional<platform::URL> distributionURL = product.info_->preferredDistributionURL();
    if (!distributionURL) return true;
    std::optional<platform::URLResponse> response;
    std::optional<platform::Data> data =
        CWURLConnection::sendSynchronousRequest(platform::URLRequest(*distributionURL), &response, error);
    (void)infoFileName;
    return data && product.didReceiveDataFromDistributionURL(*data, *distributionURL, error);
}

std::shared_ptr<CWProduct> CWNetEnabledProduct::initByLoadingProductAtURL(const platform::URL& url,
                                                                          platform::Error* error) {
    platform::URL productURL = _standardizedProductURL(url, productInfoFileName());
    auto info = _fetchProductInfo(productURL, productInfoFileName(), error);
    if (!info) return nullptr;
    auto product = std::make_shared<CWNetEnabledProduct>(productURL, info);
    return _load(*product, productInfoFileName(), error) ? product : nullptr;
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

}  // namespace crateworks
