#include "Distribution_Layer/Product/CWProductInfo.h"

#include <algorithm>

#include "Platform/Strings.h"
#include "Platform/UserDefaults.h"

namespace crateworks {

CWProductInfo::CWProductInfo(platform::Dictionary dictionary, std::optional<platform::URL> baseURL)
    : productInfoDictionary_(std::move(dictionary)), baseURL_(std::move(baseURL)) {}

std::shared_ptr<CWProductInfo> CWProductInfo::initWithDictionary(const platform::Value& dictionary,
                                                                 const std::optional<platform::URL>& baseURL) {
    const platform::Dictionary* d = dictionary.dictionary();
    if (!d) return nullptr;
    return std::make_shared<CWProductInfo>(*d, baseURL);
}

std::optional<std::string> CWProductInfo::productIdentifier() const {
    const std::string* s = productInfoDictionary_.findString("ProductIdentifier");
    return s ? std::optional<std::string>(*s) : std::nullopt;
}

std::optional<std::string> CWProductInfo::productVersion() const {
    const std::string* s = productInfoDictionary_.findString("ProductVersion");
    return s ? std::optional<std::string>(*s) : std::nullopt;
}

std::optional<std::vector<std::string>> CWProductInfo::localizations() const {
    if (productInfoDictionary_.contains("DistributionArchive")) return std::nullopt;
    const platform::Dictionary* distributions = productInfoDictionary_.findDictionary("Distributions");
    return distributions ? distributions->keys() : std::vector<std::string>{};
}

std::optional<platform::URL> CWProductInfo::_resolvedURL(const std::string* text) const {
    if (!text) return std::nullopt;
    return baseURL_ ? platform::URL::parse(*text, *baseURL_) : platform::URL::parse(*text);
}

std::optional<platform::URL> CWProductInfo::distributionURLForLocalization(
    const std::optional<std::string>& localization) const {
    if (!localization) return _resolvedURL(productInfoDictionary_.findString("DistributionArchive"));
    const platform::Dictionary* distributions = productInfoDictionary_.findDictionary("Distributions");
    return distributions ? _resolvedURL(distributions->findString(*localization)) : std::nullopt;
}

std::vector<std::string> CWProductInfo::preferredLanguages() {
    std::vector<std::string> languages;
    if (auto value = platform::defaults::objectForKey("QuarnLanguages"); value && value->array())
        for (const platform::Value& entry : *value->array())
            if (const std::string* s = entry.string()) languages.push_back(*s);
    if (languages.empty()) languages.push_back("en");
    return languages;
}

std::optional<platform::URL> CWProductInfo::preferredDistributionURL() const {
    std::optional<std::vector<std::string>> names = localizations();
    if (!names) return distributionURLForLocalization(std::nullopt);
    // The user's order first; the localizations the user did not name follow in the index's order.
    std::vector<std::string> ordered;
    for (const std::string& language : preferredLanguages())
        if (std::find(names->begin(), names->end(), language) != names->end()) ordered.push_back(language);
    for (const std::string& name : *names)
        if (std::find(ordered.begin(), ordered.end(), name) == ordered.end()) ordered.push_back(name);
    for (const std::string& name : ordered)
        if (auto url = distributionURLForLocalization(name)) return url;
    return std::nullopt;
}

const std::vector<std::shared_ptr<CWPackageReference>>& CWProductInfo::packageReferences() const {
    if (cachedPackageReferences_) return *cachedPackageReferences_;
    cachedPackageReferences_.emplace();
    if (const platform::Array* packages = productInfoDictionary_.findArray("Packages"))
        for (const platform::Value& entry : *packages)
            if (const platform::Dictionary* d = entry.dictionary())
                if (auto reference = CWPackageReference::initWithDictionaryRepresentation(*d, baseURL_))
                    cachedPackageReferences_->push_back(std::move(reference));
    return *cachedPackageReferences_;
}

std::string CWProductInfo::_relativeString(const platform::URL& URL) const {
    if (!baseURL_) return URL.absoluteString();
    const std::string& base = baseURL_->absoluteString();
    std::string directory = base.substr(0, base.rfind('/') + 1);
    const std::string& text = URL.absoluteString();
    if (platform::str::hasPrefix(text, directory) && text.size() > directory.size())
        return text.substr(directory.size());
    return text;
}

void CWProductInfo::setDistributionURL(const platform::URL& URL, const std::optional<std::string>& localization) {
    if (!localization) {
        productInfoDictionary_.set("DistributionArchive", _relativeString(URL));
        return;
    }
    platform::Dictionary* distributions = nullptr;
    if (platform::Value* existing = productInfoDictionary_.find("Distributions")) distributions = existing->dictionary();
    if (!distributions) {
        productInfoDictionary_.set("Distributions", platform::Dictionary{});
        distributions = productInfoDictionary_.find("Distributions")->dictionary();
    }
    distributions->set(*localization, _relativeString(URL));
}

void CWProductInfo::setPackageReferences(const std::vector<std::shared_ptr<CWPackageReference>>& references) {
    platform::Array packages;
    for (const auto& reference : references) packages.push_back(reference->dictionaryRepresentation());
    productInfoDictionary_.set("Packages", std::move(packages));
    cachedPackageReferences_.reset();
}

void CWProductInfo::setProductIdentifier(const std::optional<std::string>& identifier,
                                         const std::optional<std::string>& version) {
    if (identifier) productInfoDictionary_.set("ProductIdentifier", *identifier);
    else productInfoDictionary_.remove("ProductIdentifier");
    if (version) productInfoDictionary_.set("ProductVersion", *version);
    else productInfoDictionary_.remove("ProductVersion");
}

}  // namespace crateworks
