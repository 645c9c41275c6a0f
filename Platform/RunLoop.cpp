#include "Platform/RunLoop.h"

#include <algorithm>
#include <cerrno>
#include <future>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace platform {

namespace {

std::mutex& mainMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<RunLoop>& mainLoop() {
    static std::shared_ptr<RunLoop> loop;
    return loop;
}
thread_local std::shared_ptr<RunLoop> threadLoop;

int millisecondsUntil(RunLoop::Clock::time_point deadline) {
    auto left = deadline - RunLoop::Clock::now();
    if (left <= RunLoop::Clock::duration::zero()) return 0;
    // Round up so that a wait never ends just before the deadline and spins.
    auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return int(std::min<int64_t>(ms, 60'000));
}

}  // namespace

std::shared_ptr<RunLoop> RunLoop::current() {
    if (!threadLoop) {
        threadLoop = std::shared_ptr<RunLoop>(new RunLoop());
        std::lock_guard lock(mainMutex());
        if (!mainLoop()) mainLoop() = threadLoop;
    }
    return threadLoop;
}

std::shared_ptr<RunLoop> RunLoop::main() {
    std::lock_guard lock(mainMutex());
    return mainLoop();
}

void RunLoop::makeCurrentThreadMain() {
    auto loop = current();
    std::lock_guard lock(mainMutex());
    mainLoop() = loop;
}

RunLoop::RunLoop()
    : owner_(std::this_thread::get_id()),
      wake_(fs::File::adopt(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "run loop wake-up")) {}

RunLoop::~RunLoop() = default;

void RunLoop::perform(std::function<void()> call) {
    {
        std::lock_guard lock(postedMutex_);
        posted_.push_back(std::move(call));
    }
    wakeUp();
}

void RunLoop::performAndWait(const std::function<void()>& call) {
    if (isCurrent()) {
        call();
        return;
    }
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    perform([&call, done] {
        call();
        done->set_value();
    });
    finished.wait();
}

void RunLoop::wakeUp() {
    // A full counter (EAGAIN) already means "wake up".
    uint64_t one = 1;
    wake_.writeAll({reinterpret_cast<const uint8_t*>(&one), sizeof one});
}

std::shared_ptr<RunLoopTimer> RunLoop::addTimer(double interval, bool repeats, std::function<void()> action) {
    auto timer = std::make_shared<RunLoopTimer>();
    timer->interval_ = std::chrono::duration<double>(std::max(interval, 0.0));
    timer->fireTime_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(timer->interval_);
    timer->repeats_ = repeats;
    timer->action_ = std::move(action);
    timers_.push_back(timer);
    return timer;
}

void RunLoop::watch(int fd, short events, std::function<void(short)> handler) {
    auto shared = std::make_shared<std::function<void(short)>>(std::move(handler));
    for (auto& w : watches_) {
        if (w.fd == fd) {
            w.events = events;
            w.handler = std::move(shared);
            return;
        }
    }
    watches_.push_back(Watch{fd, events, std::move(shared)});
}

void RunLoop::unwatch(int fd) {
    std::erase_if(watches_, [fd](const Watch& w) { return w.fd == fd; });
}

void RunLoop::runFor(double seconds) {
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (Clock::now() < deadline) _runOnce(deadline);
}

void RunLoop::runUntil(const std::function<bool()>& done) {
    while (!done()) _runOnce(Clock::now() + std::chrono::seconds(60));
}

RunLoop::Clock::time_point RunLoop::_nextTimerFire(Clock::time_point deadline) const {
    for (const auto& t : timers_)
        if (t->valid_ && t->fireTime_ < deadline) deadline = t->fireTime_;
    return deadline;
}

bool RunLoop::_runOnce(Clock::time_point deadline) {
    std::vector<pollfd> fds;
    fds.push_back(pollfd{wake_.descriptor(), POLLIN, 0});
    for (const auto& w : watches_) fds.push_back(pollfd{w.fd, w.events, 0});
    int ready = poll(fds.data(), fds.size(), millisecondsUntil(_nextTimerFire(deadline)));
    if (ready < 0 && errno != EINTR) return false;
    if (fds[0].revents) {
        uint64_t count;
        wake_.read({reinterpret_cast<uint8_t*>(&count), sizeof count});
    }
    _performPosted();
    for (size_t i = 1; i < fds.size() && ready > 0; ++i) {
        if (!fds[i].revents) continue;
        // A handler may have dropped or replaced this watch meanwhile: look it up again.
        auto it = std::find_if(watches_.begin(), watches_.end(), [&](const Watch& w) { return w.fd == fds[i].fd; });
        if (it == watches_.end()) continue;
        auto handler = it->handler;
        (*handler)(fds[i].revents);
    }
    _fireTimers();
    return ready > 0;
}

void RunLoop::_performPosted() {
    std::vector<std::function<void()>> calls;
    {
        std::lock_guard lock(postedMutex_);
        calls.swap(posted_);
    }
    for (auto& call : calls) call();
}

void RunLoop::_fireTimers() {
    auto now = Clock::now();
    std::vector<std::shared_ptr<RunLoopTimer>> due;
    for (const auto& t : timers_)
        if (t->valid_ && t->fireTime_ <= now) due.push_back(t);
    for (const auto& t : due) {
        if (!t->valid_) continue;
        if (t->repeats_) {
            auto step = std::chrono::duration_cast<Clock::duration>(t->interval_);
            if (step <= Clock::duration::zero()) step = std::chrono::milliseconds(1);
            // Skip missed firings rather than firing them all at once.
            while (t->fireTime_ <= now) t->fireTime_ += step;
        } else {
            t->valid_ = false;
        }
        t->action_();
    }
    std::erase_if(timers_, [](const auto& t) { return !t->valid_; });
}

}  // namespace platform
