#include "Distribution_Layer/Downloader/CWDownloaderQueue.h"

#include <algorithm>

#include "Platform/Log.h"

namespace crateworks {

std::vector<std::shared_ptr<CWDownloaderQueueElement>> CWDownloaderQueue::activeElements() const {
    std::vector<std::shared_ptr<CWDownloaderQueueElement>> elements;
    elements.reserve(_active.size());
    for (const auto& [url, element] : _active) elements.push_back(element);
    return elements;
}

std::vector<std::shared_ptr<CWDownloaderQueueElement>> CWDownloaderQueue::allElements() const {
    auto elements = activeElements();
    elements.insert(elements.end(), _queue.begin(), _queue.end());
    return elements;
}

std::shared_ptr<CWDownloaderQueueElement> CWDownloaderQueue::activateNextElement() {
    if (_active.size() >= maxConcurrentDownloadCount() || _queue.empty()) return nullptr;
    auto element = _queue.front();
    _queue.pop_front();
    _active.emplace_back(element->URLString(), element);
    return element;
}

std::shared_ptr<CWDownloaderQueueElement> CWDownloaderQueue::activeElementForURL(const std::string& absoluteURL) const {
    for (const auto& [url, element] : _active)
        if (url == absoluteURL) return element;
    return nullptr;
}

bool CWDownloaderQueue::isActive(const std::shared_ptr<CWDownloaderQueueElement>& element) const {
    return std::any_of(_active.begin(), _active.end(), [&](const auto& entry) { return entry.second == element; });
}

// By identity: two packages may share a URL, and the one that finished is the one to go.
bool CWDownloaderQueue::_removeActive(const std::shared_ptr<CWDownloaderQueueElement>& element) {
    auto found = std::find_if(_active.begin(), _active.end(), [&](const auto& entry) { return entry.second == element; });
    if (found == _active.end()) return false;
    _active.erase(found);
    return true;
}

void CWDownloaderQueue::addElement(const std::shared_ptr<CWDownloaderQueueElement>& element) {
    _queue.push_back(element);
    element->_resetProgress();
    _adjustQueueSizeBy(int64_t(element->packageReference()->fileSize()));
}

void CWDownloaderQueue::removeElement(const std::shared_ptr<CWDownloaderQueueElement>& element, bool didFinish) {
    if (!_removeActive(element)) {
        auto waiting = std::find(_queue.begin(), _queue.end(), element);
        if (waiting == _queue.end()) {
            platform::systemLog(platform::kInstallerFacility | platform::kLogWarning,
                                fmt::format("Element {} not in queue!", element->description()));
            return;
        }
        _queue.erase(waiting);
    }
    uint64_t downloaded = element->downloadedBytes(), size = element->packageReference()->fileSize();
    _sizeDequeued += std::min(downloaded, size);
    if (downloaded < size) _adjustQueueSizeBy(int64_t(downloaded - size));
    if (didFinish) _dequeuedProgressIncrement += element->_getAndClearProgressIncrement();
    else element->_resetProgress();
}

void CWDownloaderQueue::revertElement(const std::shared_ptr<CWDownloaderQueueElement>& element, bool keepActive) {
    uint64_t downloaded = element->downloadedBytes();
    _sizeDequeued += downloaded;
    element->_resetProgress();
    _adjustQueueSizeBy(int64_t(downloaded));
    if (!keepActive) deactivateElement(element);
}

void CWDownloaderQueue::deactivateElement(const std::shared_ptr<CWDownloaderQueueElement>& element) {
    if (!_removeActive(element)) return;
    _queue.push_front(element);
}

void CWDownloaderQueue::clearAll() {
    _queue.clear();
    _active.clear();
    _sizeDequeued = _sizeDownloaded = _totalSizeQueued = _dequeuedProgressIncrement = 0;
    _progressDerating = 1.0;
    _progressPercentage = -1.0;
}

void CWDownloaderQueue::updateProgressInfo() {
    if (_totalSizeQueued == 0) return;
    uint64_t downloaded = _sizeDequeued, increment = _dequeuedProgressIncrement;
    _sizeToDownload = _sizeToCheck = 0;
    for (const auto& element : allElements()) {
        uint64_t size = element->packageReference()->fileSize();
        uint64_t elementDownloaded = element->downloadedBytes();
        // A server may send more than the reference's size; what is left never goes below 0.
        _sizeToDownload += size - std::min(size, elementDownloaded);
        downloaded += elementDownloaded;
        _sizeToCheck += size - std::min(size, element->checksummedBytes());
        increment += element->_getAndClearProgressIncrement();
    }
    _dequeuedProgressIncrement = 0;
    _sizeDownloaded = std::min(downloaded, _totalSizeQueued);
    double base = _progressPercentage == -1.0 ? 0 : _progressPercentage;
    _progressPercentage =
        std::min(100.0, _progressDerating * (double(increment) / double(_totalSizeQueued)) * 100.0 + base);
    if (isEmpty() && downloaded == _totalSizeQueued) _progressPercentage = 100.0;
}

void CWDownloaderQueue::_adjustQueueSizeBy(int64_t delta) {
    _totalSizeQueued += uint64_t(delta);
    if (!(_progressPercentage > 0)) return;
    uint64_t reported = 0;
    for (const auto& element : allElements()) reported += element->_reportedProgress();
    double total = double(_totalSizeQueued);
    double remainingShare = (total - double(_sizeDequeued) - double(reported)) / total;
    // With nothing left to do (or a total of 0) there is nothing to spread the rest over.
    if (!(remainingShare > 0)) return;
    _progressDerating = ((100.0 - _progressPercentage) / 100.0) / remainingShare;
}

}  // namespace crateworks
