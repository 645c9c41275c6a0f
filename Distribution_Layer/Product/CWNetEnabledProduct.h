// A product published as an index ("index.product") beside its distribution and packages.
#pragma once

#include "Distribution_Layer/Product/CWProduct.h"
#include "Distribution_Layer/Product/CWProductInfo.h"

namespace crateworks {

inline constexpr const char* kCWProductNetEnabledType = "CWProductNetEnabledType";

class CWNetEnabledProduct : public CWProduct {
public:
    static bool canInitWithURL(const platform::URL& url);
    // Fetches the index and the preferred distribution; null with an error when either fails.
    static std::shared_ptr<CWProduct> initByLoadingProductAtURL(const platform::URL& url, platform::Error* error);
    static const char* productInfoFileName() { return "index.product"; }
    // The product's directory URL, ending in "/", without a trailing index file name.
    static platform::URL _standardizedProductURL(const platform::URL& url, const char* infoFileName);

    std::string productType() const override { return kCWProductNetEnabledType; }
    std::optional<std::string> productIdentifier() const override { return info_->productIdentifier(); }
    std::optional<std::string> productVersion() const override { return info_->productVersion(); }
    std::vector<std::shared_ptr<CWPackageReference>> allPackageReferences() const override {
        return info_->packageReferences();
    }
    const CWProductInfo& productInfo() const { return *info_; }
    const std::optional<platform::Data>& distributionData() const { return distributionData_; }
    // Where the package belongs beside the product; absent when it is already there.
    std::optional<std::string> suggestedPackagePathFromPackageReference(const CWPackageReference& reference) const;

    // Stores a distribution document beside the index as "<product name>.<localization>.dist",
    // the localization being the user's first language, records it under that localization
    // and rewrites the index. Only products on disk (file URLs) can be written. The index
    // in memory changes only once it has been written back.
    bool _setDistributionFlatData(const platform::Data& data, platform::Error* error);
    // The name of the product's index file: the class's productInfoFileName().
    virtual const char* _productInfoFileName() const { return productInfoFileName(); }
    // The localization a stored distribution is filed under: the first "QuarnLanguages"
    // entry when it is a usable name, else "en".
    static std::string _localizationForStoredDistribution();

    CWNetEnabledProduct(platform::URL url, std::shared_ptr<CWProductInfo> info);

protected:
    // Fetches the preferred distribution of the product's already loaded index.
    static bool _load(CWNetEnabledProduct& product, platform::Error* error);
    // Decides on the distribution's bytes; the plain product keeps them.
    virtual bool didReceiveDataFromDistributionURL(const platform::Data& data, const platform::URL& url,
                                                   platform::Error* error);
    static std::shared_ptr<CWProductInfo> _fetchProductInfo(const platform::URL& productURL,
                                                            const char* infoFileName, platform::Error* error);

    std::shared_ptr<CWProductInfo> info_;
    std::optional<platform::Data> distributionData_;
};

}  // namespace crateworks
