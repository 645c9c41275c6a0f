// A net-enabled product ("index.sproduct") whose distribution is a signed archive.
#pragma once

#include "Distribution_Layer/Product/CWNetEnabledProduct.h"

namespace crateworks {

inline constexpr const char* kCWProductSecureNetEnabledType = "CWProductSecureNetEnabledType";

class CWSecureNetEnabledProduct : public CWNetEnabledProduct {
public:
    static bool canInitWithURL(const platform::URL& url) { return CWNetEnabledProduct::canInitWithURL(url); }
    // Succeeds only when the distribution archive could be opened.
    static std::shared_ptr<CWProduct> initByLoadingProductAtURL(const platform::URL& url, platform::Error* error);
    static const char* productInfoFileName() { return "index.sproduct"; }

    std::string productType() const override { return kCWProductSecureNetEnabledType; }
    const char* _productInfoFileName() const override { return productInfoFileName(); }
    const std::shared_ptr<CWArchive>& distributionArchive() const { return archive_; }

    using CWNetEnabledProduct::CWNetEnabledProduct;

protected:
    bool didReceiveDataFromDistributionURL(const platform::Data& data, const platform::URL& url,
                                           platform::Error* error) override;
    std::shared_ptr<CWArchive> _archiveForTrustEvaluation() const override;

private:
    bool _isDistributionArchiveInsideProduct(const platform::URL& archiveURL) const;

    std::shared_ptr<CWArchive> archive_;
    std::string archivePath_;
};

}  // namespace crateworks
