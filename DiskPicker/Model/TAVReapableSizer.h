// The reapable size of one volume for a target release, worked out on a thread of its
// own by the reaper's own analysis (FHPathAnalyzer::prunedReaperPathsReturningSize).
//
// The analysis's sizer is process-wide and serialised, so sizers take turns through the
// `turn` mutex they share (their models share one for the process): cancelling then
// stops the one analysis under way (its finder and the sizer) and keeps the waiting
// ones from starting.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

class FHPathAnalyzer;

class TAVReapableSizer {
public:
    // Called once, on the sizer's thread: the size (absent when the analysis gives none
    // or was cancelled) and whether it was cancelled.
    using Completion = std::function<void(std::optional<uint64_t> size, bool cancelled)>;

    TAVReapableSizer(std::string rootPath, std::string targetVersion, std::shared_ptr<std::mutex> turn,
                     Completion completion);
    // Cancels and waits for the thread.
    ~TAVReapableSizer();
    TAVReapableSizer(const TAVReapableSizer&) = delete;
    TAVReapableSizer& operator=(const TAVReapableSizer&) = delete;

    void start();
    // Any thread, any time; a completion not yet made says cancelled, without a size.
    void cancel();
    void join();

private:
    void _run();

    std::string _rootPath;
    std::string _targetVersion;
    std::shared_ptr<std::mutex> _turn;
    Completion _completion;
    std::thread _thread;
    std::mutex _lock;  // guards _analyzer against cancel
    std::shared_ptr<FHPathAnalyzer> _analyzer;
    std::atomic<bool> _cancelled{false};
};
