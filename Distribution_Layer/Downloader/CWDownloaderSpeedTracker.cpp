#include "Distribution_Layer/Downloader/CWDownloaderSpeedTracker.h"

namespace crateworks {

void CWDownloaderSpeedTracker::updateSpeedAt(Clock::time_point now) {
    double elapsed = std::chrono::duration<double>(now - _queueStartTime).count();
    uint64_t bytes = bytesSinceQueueStart();
    if (bytes == 0 || elapsed <= 0) {
        setAverageBytesPerSecond(0);
        return;
    }
    // A stalled transfer keeps the average it had.
    if (bytes == _bytesAtLastUpdate.load(std::memory_order_relaxed)) return;
    _bytesAtLastUpdate.store(bytes, std::memory_order_relaxed);
    auto rate = uint64_t(double(bytes) / elapsed);
    uint64_t old = averageBytesPerSecond();
    setAverageBytesPerSecond(old == 0 ? rate : (old + rate) / 2);
}

}  // namespace crateworks
