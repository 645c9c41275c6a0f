// An installable unit opened from a URL: its identity, its package references and its trust.
//
// The kind of product is chosen by the URL: each class in _allProductClasses() that can
// take the URL tries to load it, in order, and the first that succeeds is the product.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/CWArchive.h"
#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "Distribution_Layer/Product/CWPackageReference.h"
#include "Platform/Certificate.h"
#include "Platform/Error.h"
#include "Platform/TrustEvaluation.h"
#include "Platform/URL.h"

namespace crateworks {

inline constexpr const char* kCWProductErrorDomain = "CWProductErrorDomain";
// Products hand back the platform's general codes (Platform/Error.h):
// kFileReadCorruptFileError for an index or package that cannot be read, and
// kFileWriteUnsupportedSchemeError for writing to a product that is not on disk.

class CWProduct;

struct CWProductClass {
    std::string name;
    bool (*canInitWithURL)(const platform::URL& url);
    std::shared_ptr<CWProduct> (*initByLoadingProductAtURL)(const platform::URL& url, platform::Error* error);
};

class CWProduct {
public:
    virtual ~CWProduct() = default;

    // The first product class that takes the URL and loads it; null (with the last error) when none does.
    static std::shared_ptr<CWProduct> productByLoadingProductAtURL(const platform::URL& url, platform::Error* error);
    static std::vector<CWProductClass> _allProductClasses();
    // Any URL; subclasses narrow it.
    static bool canInitWithURL(const platform::URL& url);

    const platform::URL& URL() const { return url_; }
    virtual std::string productType() const = 0;
    virtual std::optional<std::string> productIdentifier() const = 0;
    virtual std::optional<std::string> productVersion() const = 0;
    virtual std::vector<std::shared_ptr<CWPackageReference>> allPackageReferences() const = 0;

    void setMinimumRequiredTrustLevel(int32_t level) { minimumRequiredTrustLevel_ = level; }
    int32_t minimumRequiredTrustLevel() const { return minimumRequiredTrustLevel_; }
    // Judges the product's archive; false, with a "CWProductErrorDomain" error, below the minimum.
    bool evaluateTrustReturningError(platform::Error* error);
    // The level, evaluating first when that has not happened yet.
    int32_t trustLevelReturningCertificateChain(std::optional<platform::security::CertificateList>* chain);
    int32_t trustLevelReturningTrustRef(std::shared_ptr<platform::security::Trust>* trustRef);

protected:
    explicit CWProduct(platform::URL url) : url_(std::move(url)) {}
    // The archive whose signature speaks for the product; null when there is none (level 100).
    virtual std::shared_ptr<CWArchive> _archiveForTrustEvaluation() const { return nullptr; }

private:
    platform::URL url_;
    int32_t minimumRequiredTrustLevel_ = 0;
    bool evaluated_ = false;
    int32_t trustLevel_ = 100;
    std::optional<platform::security::CertificateList> certificateChain_;
    std::shared_ptr<platform::security::Trust> trustRef_;
};

}  // namespace crateworks
