// The download queue's bookkeeping: waiting and active elements, and the sizes from
// which one progress percentage for the whole run is made.
//
// The percentage only ever grows. Each update adds the weighted bytes fetched and
// checked since the last one, as a share of the total, times the derating. When the
// total changes (a package added, a transfer started over, a package dropped) the
// derating is recomputed so that the percentage still to go is spread over the work
// still to do: the bar never jumps back, and it reaches 100 with the last byte checked.
//
// Used on the downloader's thread only; the elements' counters carry their own locks.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Distribution_Layer/Downloader/CWDownloaderQueueElement.h"

namespace crateworks {

class CWDownloaderQueue {
public:
    uint64_t maxConcurrentDownloadCount() const { return _maxConcurrentDownloadCount.load(); }
    void setMaxConcurrentDownloadCount(uint64_t count) { _maxConcurrentDownloadCount = count; }

    // No waiting and no active element.
    bool isEmpty() const { return _queue.empty() && _active.empty(); }
    std::vector<std::shared_ptr<CWDownloaderQueueElement>> activeElements() const;
    // Active elements first, then the waiting ones front to back.
    std::vector<std::shared_ptr<CWDownloaderQueueElement>> allElements() const;
    // Moves the front waiting element into the active ones; null when the active count
    // has reached the maximum or nothing waits.
    std::shared_ptr<CWDownloaderQueueElement> activateNextElement();
    std::shared_ptr<CWDownloaderQueueElement> activeElementForURL(const std::string& absoluteURL) const;
    // Whether this very element is active (another with the same URL may be).
    bool isActive(const std::shared_ptr<CWDownloaderQueueElement>& element) const;

    uint64_t totalSizeQueued() const { return _totalSizeQueued; }
    uint64_t sizeDownloaded() const { return _sizeDownloaded; }
    uint64_t sizeToDownload() const { return _sizeToDownload; }
    uint64_t sizeToCheck() const { return _sizeToCheck; }
    uint64_t sizeDequeued() const { return _sizeDequeued; }
    // 0 to 100; -1.0 before any progress.
    double progressPercentage() const { return _progressPercentage; }
    double progressDerating() const { return _progressDerating; }

    // Appends the element and counts its size into the total.
    void addElement(const std::shared_ptr<CWDownloaderQueueElement>& element);
    // Takes a finished or failed element out of the queue, shrinking the total by the
    // part of it never fetched.
    void removeElement(const std::shared_ptr<CWDownloaderQueueElement>& element, bool didFinish);
    // The element starts over: what it had fetched is written off and must be fetched
    // again. Unless `keepActive`, it goes back to the front of the waiting list.
    void revertElement(const std::shared_ptr<CWDownloaderQueueElement>& element, bool keepActive);
    // An active element goes back to the front of the waiting list.
    void deactivateElement(const std::shared_ptr<CWDownloaderQueueElement>& element);
    // Empties the queue and zeroes its counters.
    void clearAll();

    void gotDataOfLength(uint64_t length, CWDownloaderQueueElement& element) { element._addToDownloadedBytes(length); }
    void checkedDataOfLength(uint64_t length, CWDownloaderQueueElement& element) {
        element._addToChecksummedBytes(length);
    }

    // Recomputes the sizes and the percentage; nothing happens while the total is 0.
    void updateProgressInfo();
    // Adds `delta` (negative shrinks) to the total and rederates the percentage.
    void _adjustQueueSizeBy(int64_t delta);

private:
    bool _removeActive(const std::shared_ptr<CWDownloaderQueueElement>& element);

    std::atomic<uint64_t> _maxConcurrentDownloadCount{1};
    std::deque<std::shared_ptr<CWDownloaderQueueElement>> _queue;
    // Keyed by absolute package URL, in the order the elements became active.
    std::vector<std::pair<std::string, std::shared_ptr<CWDownloaderQueueElement>>> _active;
    uint64_t _totalSizeQueued = 0;
    uint64_t _sizeDequeued = 0;
    uint64_t _sizeDownloaded = 0;
    uint64_t _sizeToDownload = 0;
    uint64_t _sizeToCheck = 0;
    uint64_t _dequeuedProgressIncrement = 0;
    double _progressDerating = 1.0;
    double _progressPercentage = -1.0;
};

}  // namespace crateworks
