// A running average of bytes per second since the tracker was made.
//
// Bytes may be counted from any thread; the average is updated and read on the
// downloader's thread, by its indicator timer.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace crateworks {

class CWDownloaderSpeedTracker {
public:
    using Clock = std::chrono::steady_clock;

    CWDownloaderSpeedTracker() : CWDownloaderSpeedTracker(Clock::now()) {}
    explicit CWDownloaderSpeedTracker(Clock::time_point queueStartTime) : _queueStartTime(queueStartTime) {}

    void didGetBytes(uint64_t count) { _bytesSinceQueueStart.fetch_add(count, std::memory_order_relaxed); }
    // Folds the bytes seen so far into the average. A tracker that saw nothing (or no
    // time) averages 0; one that saw nothing new since the last update keeps its average.
    void updateSpeed() { updateSpeedAt(Clock::now()); }
    void updateSpeedAt(Clock::time_point now);

    uint64_t averageBytesPerSecond() const { return _averageBytesPerSecond.load(std::memory_order_relaxed); }
    void setAverageBytesPerSecond(uint64_t value) { _averageBytesPerSecond.store(value, std::memory_order_relaxed); }
    uint64_t bytesSinceQueueStart() const { return _bytesSinceQueueStart.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> _averageBytesPerSecond{0};
    const Clock::time_point _queueStartTime;
    std::atomic<uint64_t> _bytesSinceQueueStart{0};
    std::atomic<uint64_t> _bytesAtLastUpdate{0};
};

}  // namespace crateworks
