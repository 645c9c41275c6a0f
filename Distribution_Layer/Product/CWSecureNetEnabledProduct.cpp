#include "Distribution_Layer/Product/CWSecureNetEnabledProduct.h"

#include <cstdlib>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/Strings.h"

namespace crateworks {

namespace {

std::string temporaryDirectory() {
    const char* tmp = std::getenv("TMPDIR");
    return tmp && *tmp ? tmp : "/tmp";
}

}  // namespace

std::shared_ptr<CWProduct> CWSecureNetEnabledProduct::initByLoadingProductAtURL(const platform::URL& url,
                                                                                platform::Error* error) {
    platform::URL productURL = _standardizedProductURL(url, productInfoFileName());
    auto info = _fetchProductInfo(productURL, productInfoFileName(), error);
    if (!info) return nullptr;
    auto product = std::make_shared<CWSecureNetEnabledProduct>(productURL, info);
    if (!_load(*product, error) || !product->archive_) return nullptr;
    return product;
}

bool CWSecureNetEnabledProduct::_isDistributionArchiveInsideProduct(const platform::URL& archiveURL) const {
    if (!archiveURL.isFileURL() || !URL().isFileURL()) return false;
    return platform::str::hasPrefix(platform::path::standardize(archiveURL.path()),
                                    platform::path::standardize(URL().path()));
}

bool CWSecureNetEnabledProduct::didReceiveDataFromDistributionURL(const platform::Data& data,
                                                                  const platform::URL& url, platform::Error* error) {
    distributionData_ = data;
    std::string path = url.path();
    if (!_isDistributionArchiveInsideProduct(url)) {
        path = platform::path::appendComponent(temporaryDirectory(), platform::path::lastComponent(url.path()));
        if (!platform::fs::writeFileAtomically(path, data, error)) return false;
    }
    archivePath_ = path;
    archive_ = CWArchive::archiveWithPath(path);
    return archive_ != nullptr;
}

std::shared_ptr<CWArchive> CWSecureNetEnabledProduct::_archiveForTrustEvaluation() const {
    // Judging closes the archive it is given, so it gets a fresh one.
    return archivePath_.empty() ? nullptr : CWArchive::archiveWithPath(archivePath_);
}

}  // namespace crateworks
