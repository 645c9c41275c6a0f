// A product's index: identifier, version, its distributions and its package references.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Distribution_Layer/Product/CWPackageReference.h"
#include "Platform/URL.h"
#include "Platform/Value.h"

namespace crateworks {

class CWProductInfo {
public:
    // Null when the dictionary is not a dictionary value.
    static std::shared_ptr<CWProductInfo> initWithDictionary(const platform::Value& dictionary,
                                                             const std::optional<platform::URL>& baseURL);

    std::optional<std::string> productIdentifier() const;
    std::optional<std::string> productVersion() const;
    // Absent when the index names one "DistributionArchive", else the names of "Distributions".
    std::optional<std::vector<std::string>> localizations() const;
    // The archive's URL for no localization, else that localization's; absent when not recorded.
    std::optional<platform::URL> distributionURLForLocalization(const std::optional<std::string>& localization) const;
    // The archive's URL, or the first localization in the user's preferred order that has a URL.
    std::optional<platform::URL> preferredDistributionURL() const;
    // Built from "Packages" on first use, leaving out entries that do not make a reference.
    const std::vector<std::shared_ptr<CWPackageReference>>& packageReferences() const;

    void setDistributionURL(const platform::URL& URL, const std::optional<std::string>& localization);
    void setPackageReferences(const std::vector<std::shared_ptr<CWPackageReference>>& references);
    // Absent values remove their key.
    void setProductIdentifier(const std::optional<std::string>& identifier, const std::optional<std::string>& version);

    const platform::Dictionary& dictionaryRepresentation() const { return productInfoDictionary_; }
    const std::optional<platform::URL>& baseURL() const { return baseURL_; }

    // The user's languages in order of preference: the "QuarnLanguages" default, else "en".
    static std::vector<std::string> preferredLanguages();

    CWProductInfo(platform::Dictionary dictionary, std::optional<platform::URL> baseURL);

private:
    std::optional<platform::URL> _resolvedURL(const std::string* text) const;
    std::string _relativeString(const platform::URL& URL) const;

    platform::Dictionary productInfoDictionary_;
    std::optional<platform::URL> baseURL_;
    mutable std::optional<std::vector<std::shared_ptr<CWPackageReference>>> cachedPackageReferences_;
};

}  // namespace crateworks
