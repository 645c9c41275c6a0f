// A run loop per thread: calls posted from any thread, timers, and file descriptors
// watched for readiness, all handled on the loop's own thread while it runs.
//
// The main loop is the loop of the thread that made the first loop, unless a thread
// names itself with makeCurrentThreadMain().
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/File.h"

namespace platform {

class RunLoop;

// A timer made by RunLoop::addTimer. Invalidating it (from its loop's thread) stops it.
class RunLoopTimer {
public:
    void invalidate() { valid_ = false; }
    bool isValid() const { return valid_; }

private:
    friend class RunLoop;
    std::chrono::steady_clock::time_point fireTime_;
    std::chrono::duration<double> interval_{};
    bool repeats_ = false;
    bool valid_ = true;
    std::function<void()> action_;
};

class RunLoop {
public:
    using Clock = std::chrono::steady_clock;

    // The loop of the calling thread, made on first use.
    static std::shared_ptr<RunLoop> current();
    // The main loop, or null when no loop has been made yet.
    static std::shared_ptr<RunLoop> main();
    // Makes the calling thread's loop the main loop.
    static void makeCurrentThreadMain();

    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    bool isCurrent() const { return std::this_thread::get_id() == owner_; }

    // Queues a call for the loop's thread and returns at once; calls run in posting order.
    void perform(std::function<void()> call);
    // Runs the call on the loop's thread and returns once it has run. On the loop's own
    // thread the call runs at once; otherwise the loop's thread must be running its loop.
    void performAndWait(const std::function<void()>& call);

    // A timer firing `interval` seconds from now, and every `interval` after when repeating.
    // Only from the loop's own thread.
    std::shared_ptr<RunLoopTimer> addTimer(double interval, bool repeats, std::function<void()> action);

    // Watches a descriptor for poll(2) `events`; the handler gets the returned events.
    // Watching a descriptor again replaces its events and handler. Only from the loop's thread.
    void watch(int fd, short events, std::function<void(short revents)> handler);
    void unwatch(int fd);

    // Runs the loop until `seconds` have passed, handling calls, timers and descriptors.
    // Only from the loop's own thread.
    void runFor(double seconds);
    // Runs the loop until `done` answers true, testing it after every handled event.
    void runUntil(const std::function<bool()>& done);

    // Makes a running loop return from its current wait (any thread).
    void wakeUp();

private:
    RunLoop();
    // Waits at most until `deadline` and handles what became ready; false when nothing did.
    bool _runOnce(Clock::time_point deadline);
    void _performPosted();
    void _fireTimers();
    Clock::time_point _nextTimerFire(Clock::time_point deadline) const;

    struct Watch {
        int fd;
        short events;
        std::shared_ptr<std::function<void(short)>> handler;
    };

    std::thread::id owner_;
    fs::File wake_;  // an eventfd: written to wake the loop, read to rearm it
    std::mutex postedMutex_;
    std::vector<std::function<void()>> posted_;
    std::vector<std::shared_ptr<RunLoopTimer>> timers_;
    std::vector<Watch> watches_;
};

}  // namespace platform
