#include "Distribution_Layer/Product/CWArchiveProduct.h"

#include <algorithm>
#include <array>

#include "Platform/Path.h"

namespace crateworks {

bool CWArchiveProduct::canInitWithURL(const platform::URL& url) {
    static const std::array<std::string, 4> kExtensions{"mpkg", "pkg", "pfpkg", "dmg"};
    if (!url.isFileURL()) return false;
    std::string extension = platform::path::extension(url.path());
    bool known = std::find(kExtensions.begin(), kExtensions.end(), extension) != kExtensions.end();
    return known && CWProduct::canInitWithURL(url);
}

std::shared_ptr<CWProduct> CWArchiveProduct::initByLoadingProductAtURL(const platform::URL& url,
                                                                       platform::Error* error) {
    if (!CWArchive::archiveWithPath(url.path())) {
        platform::setError(error, platform::kGeneralErrorDomain, platform::kFileReadCorruptFileError,
                           platform::Dictionary{{platform::kFilePathErrorKey, url.path()}});
        return nullptr;
    }
    return std::make_shared<CWArchiveProduct>(url);
}

std::shared_ptr<CWArchive> CWArchiveProduct::_archiveForTrustEvaluation() const {
    return CWArchive::archiveWithPath(URL().path());
}

}  // namespace crateworks
