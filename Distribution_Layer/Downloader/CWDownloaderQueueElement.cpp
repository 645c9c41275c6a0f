#include "Distribution_Layer/Downloader/CWDownloaderQueueElement.h"

#include <fmt/format.h>

namespace crateworks {

namespace {

constexpr double kDownloadWeight = 0.9;
constexpr double kCheckWeight = 0.1;

}  // namespace

CWDownloaderQueueElement::CWDownloaderQueueElement(std::shared_ptr<CWPackageReference> reference,
                                                   std::string destination)
    : _packageRef(std::move(reference)), _destination(std::move(destination)) {}

std::shared_ptr<CWDownloaderQueueElement> CWDownloaderQueueElement::initWithPackageReference(
    const CWPackageReference& reference, const std::string& destination) {
    return std::make_shared<CWDownloaderQueueElement>(reference.copy(), destination);
}

uint64_t CWDownloaderQueueElement::downloadedBytes() const {
    std::lock_guard guard(_lock);
    return _downloadedBytes;
}

uint64_t CWDownloaderQueueElement::checksummedBytes() const {
    std::lock_guard guard(_lock);
    return _checksummedBytes;
}

void CWDownloaderQueueElement::_resetProgress() {
    std::lock_guard guard(_lock);
    _downloadedBytes = _checksummedBytes = _progressIncrement = 0;
}

void CWDownloaderQueueElement::_addToDownloadedBytes(uint64_t count) {
    std::lock_guard guard(_lock);
    _downloadedBytes += count;
    _progressIncrement = uint64_t(double(count) * kDownloadWeight + double(_progressIncrement));
}

void CWDownloaderQueueElement::_addToChecksummedBytes(uint64_t count) {
    std::lock_guard guard(_lock);
    _checksummedBytes += count;
    _progressIncrement = uint64_t(double(count) * kCheckWeight + double(_progressIncrement));
}

uint64_t CWDownloaderQueueElement::_reportedProgress() const {
    std::lock_guard guard(_lock);
    double reported = double(_downloadedBytes) * kDownloadWeight + double(_checksummedBytes) * kCheckWeight -
                      double(_progressIncrement);
    return reported > 0 ? uint64_t(reported) : 0;
}

uint64_t CWDownloaderQueueElement::_getAndClearProgressIncrement() {
    std::lock_guard guard(_lock);
    uint64_t increment = _progressIncrement;
    _progressIncrement = 0;
    return increment;
}

std::string CWDownloaderQueueElement::description() const {
    return fmt::format("<CWDownloaderQueueElement {} -> {}>", URLString(), _destination);
}

}  // namespace crateworks
