// A product that is one local package archive ("mpkg", "pkg", "pfpkg", "dmg").
#pragma once

#include "Distribution_Layer/Product/CWProduct.h"

namespace crateworks {

inline constexpr const char* kCWProductArchiveType = "CWProductArchiveType";

class CWArchiveProduct : public CWProduct {
public:
    static bool canInitWithURL(const platform::URL& url);
    // Null when no archive class can open the file.
    static std::shared_ptr<CWProduct> initByLoadingProductAtURL(const platform::URL& url, platform::Error* error);

    std::string productType() const override { return kCWProductArchiveType; }
    std::optional<std::string> productIdentifier() const override { return std::nullopt; }
    std::optional<std::string> productVersion() const override { return std::nullopt; }
    // The archive is the product's one package.
    std::vector<std::shared_ptr<CWPackageReference>> allPackageReferences() const override { return {}; }

    explicit CWArchiveProduct(platform::URL url) : CWProduct(std::move(url)) {}

protected:
    std::shared_ptr<CWArchive> _archiveForTrustEvaluation() const override;
};

}  // namespace crateworks
