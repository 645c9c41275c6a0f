// Fuzzes a product's index (index.product, a property list) as a load reads it, from
// a web server and from a folder: the distributions, every package reference it makes,
// and where each package would be put beside the product. That place must be a plain
// name in the product's own folder, whatever the index says.
#include <cstdint>
#include <cstdlib>

#include "Distribution_Layer/Product/CWNetEnabledProduct.h"
#include "Distribution_Layer/Product/CWProductInfo.h"
#include "FuzzSupport.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"

namespace cw = crateworks;

namespace {

void checkPlace(const cw::CWNetEnabledProduct& product, const cw::CWPackageReference& reference) {
    auto place = product.suggestedPackagePathFromPackageReference(reference);
    if (!place) return;
    std::string folder = product.URL().path();
    std::string name = platform::path::lastComponent(*place);
    if (platform::path::deletingLastComponent(*place) != platform::path::standardize(folder) || name.empty() ||
        name == "." || name == ".." || name.find('/') != std::string::npos)
        abort();
}

void readIndex(const platform::Value& index, const char* productURL) {
    auto url = platform::URL::parse(productURL);
    auto indexURL = platform::URL::parse("index.product", *url);
    auto info = cw::CWProductInfo::initWithDictionary(index, indexURL);
    if (!info) return;
    (void)info->productIdentifier();
    (void)info->productVersion();
    if (auto localizations = info->localizations())
        for (const auto& localization : *localizations) (void)info->distributionURLForLocalization(localization);
    (void)info->distributionURLForLocalization(std::nullopt);
    (void)info->preferredDistributionURL();
    cw::CWNetEnabledProduct product(*url, info);
    const auto& references = info->packageReferences();
    for (const auto& reference : references) {
        (void)reference->URL().absoluteString();
        (void)reference->identifier();
        (void)reference->version();
        (void)reference->fileSize();
        (void)reference->MD5();
        (void)reference->hash();
        if (!reference->isEqual(*reference->copy())) abort();
        checkPlace(product, *reference);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto index = platform::plist::readBytes({data, size});
    if (!index) return 0;
    readIndex(*index, "https://updates.example.com/products/Example/");
    readIndex(*index, "file:///srv/products/Example/");
    return 0;
}
