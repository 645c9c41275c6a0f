#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"

#include <mutex>

namespace crateworks {

namespace {
std::mutex caMutex;
std::optional<std::string> caFile;
}  // namespace

CWDownloadClass CWSecureURLDownload::downloadClass() {
    return CWDownloadClass{
        "CWSecureURLDownload", &CWSecureURLDownload::canDownloadURL, &CWSecureURLDownload::canDownloadWithResumeData,
        [](const platform::URL& url, CWDownloadDelegate* d) -> std::shared_ptr<CWDownload> {
            return initWithURL(url, d);
        },
        [](const platform::Data& data, const std::string& dst, CWDownloadDelegate* d) -> std::shared_ptr<CWDownload> {
            return initWithResumeData(data, dst, d);
        }};
}

bool CWSecureURLDownload::canDownloadWithResumeData(const platform::Data& data) {
    return _resumeDictionary(data, kCWSecureURLDownloadResumeType).has_value();
}

void CWSecureURLDownload::setCertificateAuthorityFile(std::optional<std::string> path) {
    std::lock_guard lock(caMutex);
    caFile = std::move(path);
}

std::optional<std::string> CWSecureURLDownload::certificateAuthorityFile() {
    std::lock_guard lock(caMutex);
    return caFile;
}

platform::URLTransferOptions CWSecureURLDownload::_options() { return {certificateAuthorityFile()}; }

std::shared_ptr<CWSecureURLDownload> CWSecureURLDownload::initWithURL(const platform::URL& url,
                                                                      CWDownloadDelegate* delegate) {
    auto download = std::shared_ptr<CWSecureURLDownload>(new CWSecureURLDownload(delegate));
    return _attach(download, url, _options()) ? download : nullptr;
}

std::shared_ptr<CWSecureURLDownload> CWSecureURLDownload::initWithResumeData(const platform::Data& data,
                                                                             const std::string& destination,
                                                                             CWDownloadDelegate*) {
    auto download = std::shared_ptr<CWSecureURLDownload>(new CWSecureURLDownload(nullptr));
    return _attachResume(download, data, kCWSecureURLDownloadResumeType, destination, _options()) ? download
                                                                                                  : nullptr;
}

}  // namespace crateworks
