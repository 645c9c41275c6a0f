#include "FHPathAnalysis/Support/FileSizer.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "Platform/CatalogueIterator.h"
#include "Platform/CatalogueSession.h"
#include "Platform/File.h"
#include "Platform/Log.h"
#include "Platform/Path.h"

using platform::CatalogueEntry;
using platform::CatalogueIterator;
using platform::CatalogueSession;

namespace {

// Where the catalogue keeps the targets of directory hard links; the name ends in a
// carriage return. Sized as 0 when it is the path asked for, never looked at.
constexpr std::string_view kPrivateDirectoryDataName = ".HFS+ Private Directory Data\r";

std::atomic<uint8_t> runFlag{0};

std::mutex& sizerLock() {
    static std::mutex lock;
    return lock;
}

bool running() { return runFlag.load(std::memory_order_relaxed) == 1; }

bool debugging() { return getenv("FHDebugFileSizer") != nullptr; }

void reportMethodOnce() {
    static std::atomic<bool> reported{false};
    if (!reported.exchange(true)) platform::consoleLog(CatalogueSession::processMethodDescription());
}

// How long a walker polls for what it waits on before it sleeps: work handed over
// within microseconds then costs no wake-up, which on a virtual machine can take longer
// than sizing a small directory. kNextSizing covers the gap between one path and the
// next of a list sized back to back.
constexpr std::chrono::microseconds kHandOverSpin{50};
constexpr std::chrono::microseconds kNextSizingSpin{500};

void relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Polls `ready` for up to `limit`; whether it became true.
template <typename Ready>
bool spinUntil(Ready ready, std::chrono::microseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    do {
        for (int i = 0; i < 64; ++i) {
            if (ready()) return true;
            relax();
        }
    } while (std::chrono::steady_clock::now() < end);
    return ready();
}

// The directories that two walkers share out, and whether one of them waits for work.
// A walker that meets a subdirectory while the other waits hands it over instead of
// descending; one that runs out of work waits for the other to hand it something. The
// sizing is done when both wait with nothing left to hand over.
class WalkerShare {
public:
    explicit WalkerShare(int walkers) : walkers_(walkers) {}

    // Checked at every item: a load, no lock.
    bool hungry() const { return hungry_.load(std::memory_order_relaxed); }

    void give(platform::fs::File directory) {
        std::lock_guard lock(mutex_);
        pending_.push_back(std::move(directory));
        waiting_.store(pending_.size(), std::memory_order_release);
        hungry_.store(false, std::memory_order_relaxed);
        changed_.notify_one();
    }

    // The next directory to walk; false once the sizing is done (or cancelled, when what
    // waits is dropped).
    bool take(platform::fs::File* directory) {
        std::unique_lock lock(mutex_);
        ++idle_;
        for (;;) {
            const bool cancelled = !running();
            if (cancelled) {
                pending_.clear();
                waiting_.store(0, std::memory_order_release);
            }
            if (!pending_.empty()) {
                *directory = std::move(pending_.back());
                pending_.pop_back();
                waiting_.store(pending_.size(), std::memory_order_release);
                --idle_;
                hungry_.store(idle_ > 0 && pending_.empty(), std::memory_order_relaxed);
                return true;
            }
            if (idle_ >= walkers_ || done_.load(std::memory_order_relaxed)) {
                done_.store(true, std::memory_order_release);
                hungry_.store(false, std::memory_order_relaxed);
                changed_.notify_all();
                return false;
            }
            // Cancelled, nothing more is handed over: the other walker's arrival here, when
            // its current item is done, ends the wait.
            hungry_.store(!cancelled, std::memory_order_relaxed);
            bool changed = false;
            if (!cancelled) {
                lock.unlock();
                changed = spinUntil(
                    [&] { return waiting_.load(std::memory_order_acquire) > 0 || done_.load(std::memory_order_acquire); },
                    kHandOverSpin);
                lock.lock();
            }
            if (!changed && pending_.empty() && !done_.load(std::memory_order_relaxed)) changed_.wait(lock);
        }
    }

    // A walker that cannot walk (it has no listing buffer) takes no part: what would have
    // been handed to it is walked by the others.
    void leave() {
        std::lock_guard lock(mutex_);
        --walkers_;
        if (idle_ >= walkers_) changed_.notify_all();
    }

    // Ends the sizing at once, whatever the walkers are doing: for a walker that leaves
    // by an exception, so that the other does not wait for it.
    void abandon() {
        std::lock_guard lock(mutex_);
        pending_.clear();
        waiting_.store(0, std::memory_order_release);
        hungry_.store(false, std::memory_order_relaxed);
        done_.store(true, std::memory_order_release);
        changed_.notify_all();
    }

private:
    int walkers_;
    std::atomic<bool> hungry_{false};
    std::atomic<size_t> waiting_{0};
    std::atomic<bool> done_{false};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<platform::fs::File> pending_;
    int idle_ = 0;
};

// An entry whose name is null has been handed to the other walker.
struct Level {
    std::shared_ptr<CatalogueIterator> iterator;
    std::array<CatalogueEntry, CatalogueIterator::kBatchSize> entries;
    size_t count = 0;
    size_t next = 0;  // the entry to look at next
};

// What a directory walk needs, kept per thread and reused from one sizing to the next:
// the session that adds up sizes, and one level for each depth reached so far. Nothing
// is allocated per item; a level is made the first time a walk goes that deep.
class Walk {
public:
    pid_t owner() const { return session_.owner(); }
    CatalogueSession::Method requestedMethod() const { return session_.requestedMethod(); }
    bool busy = false;

    // Allocated bytes below the directory at `path`; 0 when it cannot be listed. With a
    // share, the bytes of this walker's part only: the subdirectories it handed over are
    // another's, and it goes on with what it is handed until the share is done.
    uint64_t sizeOfDirectory(const std::string& path, WalkerShare* share = nullptr) {
        _discardLeftovers();
        share_ = share;
        Level* top = _level(0);
        if (top && top->iterator->open(path))
            _walk(0);
        else if (top)
            platform::consoleLog("FSOpenIterator failed.");
        // The other walker ends only with this one, whatever became of the walk above.
        if (share) _walkShared(*share, top);
        share_ = nullptr;
        return session_.takeTotal();
    }

    // Walks what `share` hands out until it is done; the bytes of those walks.
    uint64_t sizeOfShare(WalkerShare& share) {
        _discardLeftovers();
        share_ = &share;
        _walkShared(share, _level(0));
        share_ = nullptr;
        return session_.takeTotal();
    }

private:
    // A sizing that ended by an exception (a log sink may throw) leaves bytes counted and
    // directories open: neither belongs to the next one.
    void _discardLeftovers() {
        for (auto& level : levels_) level->iterator->close();
        session_.takeTotal();
    }

    Level* _level(size_t depth) {
        while (levels_.size() <= depth) {
            auto iterator = CatalogueIterator::create(&session_);
            if (!iterator) {
                int code = errno;
                platform::consoleLogf("Error allocating buffer for size {} ({}:{})", CatalogueIterator::kBufferSize,
                                      code, strerror(code));
                return nullptr;
            }
            levels_.push_back(std::make_unique<Level>());
            levels_.back()->iterator = std::move(iterator);
        }
        return levels_[depth].get();
    }

    void _walk(size_t depth) {
        Level& current = *levels_[depth];
        for (;;) {
            auto status = current.iterator->fetch(current.entries, &current.count);
            if (status == CatalogueIterator::Status::error) break;
            nothingToHandOver_ = false;  // the new batch may hold directories
            for (current.next = 0; current.next < current.count && running();) {
                CatalogueEntry& entry = current.entries[current.next];
                // Looked at every item, so that the other walker is not left waiting
                // while this one sizes a long run of files.
                if (share_ && !nothingToHandOver_ && share_->hungry()) _handOverShallowest(depth);
                ++current.next;
                if (!entry.name) continue;
                if (entry.isDirectory)
                    _descend(depth + 1, current, entry.name);
                else
                    session_.addSizeOf(*current.iterator, entry);
            }
            session_.submit();
            if (status != CatalogueIterator::Status::ok || !running()) break;
        }
        current.iterator->close();
    }

    // An unreadable child counts 0 and its parent's walk goes on.
    void _descend(size_t depth, const Level& parent, const char* name) {
        Level* child = _level(depth);
        if (!child) return;
        if (!child->iterator->open(*parent.iterator, name)) {
            platform::consoleLog("FSOpenIterator failed.");
            return;
        }
        _walk(depth);
    }

    // Without a listing buffer (`top` null) this walker leaves the share to the other.
    void _walkShared(WalkerShare& share, Level* top) {
        if (!top) return share.leave();
        platform::fs::File directory;
        while (share.take(&directory))
            if (top->iterator->open(std::move(directory))) _walk(0);
    }

    // Hands the other walker the subdirectory nearest the top of this walk that is still
    // to be walked here, so that it gets as much work as can be had for one hand-over:
    // the directories listed but not yet entered at each level, from the top down to
    // `depth`.
    void _handOverShallowest(size_t depth) {
        for (size_t d = 0; d <= depth; ++d) {
            Level& level = *levels_[d];
            for (size_t i = level.next; i < level.count; ++i) {
                CatalogueEntry& entry = level.entries[i];
                if (!entry.name || !entry.isDirectory) continue;
                if (auto child = level.iterator->openChild(entry.name))
                    share_->give(std::move(*child));
                else
                    platform::consoleLog("FSOpenIterator failed.");
                entry.name = nullptr;
                return;
            }
        }
        // Nothing above or here until the next batch is listed.
        nothingToHandOver_ = true;
    }

    CatalogueSession session_;
    std::vector<std::unique_ptr<Level>> levels_;
    WalkerShare* share_ = nullptr;
    bool nothingToHandOver_ = false;
};

// The second walker: a thread kept for the process, which takes part in one sizing at a
// time. Made on first use and never destroyed, so that no exit has to stop it; a
// process forked from one that had it makes its own.
class SecondWalker {
public:
    // The process's second walker, free for a sizing; null when another sizing has it.
    // Null as well where no thread can be started (a limit on tasks, a sandbox): sizing
    // then goes on with one walker, and the process does not try again.
    static SecondWalker* claim() {
        static std::mutex guard;
        static SecondWalker* walker = nullptr;
        static pid_t failedIn = 0;
        std::lock_guard lock(guard);
        if (!walker || walker->owner_ != getpid()) {  // a fork's copy is left be
            if (failedIn == getpid()) return nullptr;
            walker = nullptr;
            try {
                walker = new SecondWalker();
            } catch (const std::system_error&) {
                failedIn = getpid();
                return nullptr;
            }
        }
        bool expected = false;
        return walker->claimed_.compare_exchange_strong(expected, true) ? walker : nullptr;
    }

    // Starts walking what `share` hands out, beside the calling thread.
    void start(WalkerShare& share) {
        {
            std::lock_guard lock(mutex_);
            finished_.store(false, std::memory_order_relaxed);
            share_.store(&share, std::memory_order_release);
        }
        changed_.notify_all();
    }

    // Waits until the share is done; the bytes this walker counted. Frees it for the next
    // sizing. What its walk threw (a log sink may throw) is thrown here, on the thread
    // that asked for the sizing, unless `rethrow` is false (that thread is unwinding).
    uint64_t finish(bool rethrow = true) {
        spinUntil([&] { return finished_.load(std::memory_order_acquire); }, kHandOverSpin);
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return finished_.load(std::memory_order_relaxed); });
        claimed_.store(false);
        if (auto thrown = std::exchange(thrown_, nullptr); thrown && rethrow) std::rethrow_exception(thrown);
        return total_;
    }

private:
    // The thread is started last, once every member it uses exists.
    SecondWalker() : owner_(getpid()) { std::thread([this] { _run(); }).detach(); }

    void _run() {
        Walk walk;
        for (;;) {
            spinUntil([&] { return share_.load(std::memory_order_acquire) != nullptr; }, kNextSizingSpin);
            WalkerShare* share;
            {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [&] { return share_.load(std::memory_order_relaxed) != nullptr; });
                share = share_.load(std::memory_order_relaxed);
            }
            uint64_t total = 0;
            std::exception_ptr thrown;
            try {
                total = walk.sizeOfShare(*share);
            } catch (...) {
                thrown = std::current_exception();
                share->abandon();
            }
            {
                std::lock_guard lock(mutex_);
                share_.store(nullptr, std::memory_order_relaxed);
                total_ = total;
                thrown_ = thrown;
                finished_.store(true, std::memory_order_release);
            }
            changed_.notify_all();
        }
    }

    const pid_t owner_;
    std::atomic<bool> claimed_{false};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<WalkerShare*> share_{nullptr};
    uint64_t total_ = 0;
    std::exception_ptr thrown_;
    std::atomic<bool> finished_{true};
};

uint64_t walkDirectory(const std::string& path) {
    thread_local std::unique_ptr<Walk> cached;
    // A walk inherited through fork shares its ring with the parent; one made before a
    // test chose another statx method does not use it.
    if (cached && !cached->busy &&
        (cached->owner() != getpid() || cached->requestedMethod() != CatalogueSession::methodForNewSessions()))
        cached.reset();
    if (!cached) cached = std::make_unique<Walk>();
    if (cached->busy) {
        // Sizing again from inside a walk (a log sink, say) needs a walk of its own.
        Walk nested;
        return nested.sizeOfDirectory(path);
    }
    struct Lease {
        Walk& walk;
        ~Lease() { walk.busy = false; }
    } lease{*cached};
    cached->busy = true;
    if (cached->requestedMethod() == CatalogueSession::Method::twoWalkers) {
        if (SecondWalker* second = SecondWalker::claim()) {
            WalkerShare share(2);
            second->start(share);
            // Should this walker leave by an exception, the other is stopped and waited for
            // before the share it walks goes away.
            struct Join {
                WalkerShare& share;
                SecondWalker& second;
                bool joined = false;
                ~Join() {
                    if (joined) return;
                    share.abandon();
                    second.finish(false);
                }
            } join{share, *second};
            uint64_t mine = cached->sizeOfDirectory(path, &share);
            join.joined = true;
            return mine + second->finish();
        }
    }
    return cached->sizeOfDirectory(path);
}

}  // namespace

uint64_t FileSizer::sizeForPath(const std::string& path) {
    uint64_t result = 0;
    {
        std::lock_guard lock(sizerLock());
        runFlag = 1;
        platform::Error error;
        auto item = CatalogueIterator::itemAtPath(path, &error);
        if (!item) {
            if (debugging()) platform::consoleLogf("*** FSF Error on {} : {}", path, error.description());
        } else if (item->isDirectory) {
            result = directorySizeAtPath(path).value_or(0);
        } else {
            result = item->logicalSize;
        }
    }
    if (debugging()) platform::consoleLogf("sizeForPath returned {} for {}", result, path);
    return result;
}

uint64_t FileSizer::sizeForPaths(const std::vector<std::string>& paths) { return sizeForPaths(paths, std::nullopt); }

uint64_t FileSizer::sizeForPaths(const std::vector<std::string>& paths, const std::optional<std::string>& volume) {
    uint64_t total = 0;
    for (const std::string& path : paths) {
        total += sizeForPath(volume ? platform::path::appendComponent(*volume, path) : path);
        if (!running()) break;
    }
    return total;
}

std::optional<uint64_t> FileSizer::directorySizeAtPath(const std::string& path) {
    if (path.empty()) return std::nullopt;
    if (platform::path::lastComponent(path) == kPrivateDirectoryDataName) return 0;
    auto item = CatalogueIterator::itemAtPath(path);
    if (!item) return std::nullopt;
    if (!item->isDirectory) return item->logicalSize;
    bool debug = debugging();
    if (debug) reportMethodOnce();
    uint64_t size = walkDirectory(path);
    if (debug) platform::consoleLogf("FileSizerGetHFSFolderSize2 returned {} for {}", size, path);
    return size;
}

void FileSizer::cancel() { runFlag = 0; }
