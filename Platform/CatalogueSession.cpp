#include "Platform/CatalogueSession.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <liburing.h>
#include <mutex>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "Platform/CatalogueIterator.h"
#include "Platform/File.h"

namespace platform {

namespace {

// Requests outstanding at once: enough to keep the kernel's worker busy across many
// small directories, small enough that the descriptors kept open for them stay few.
constexpr unsigned kRingEntries = 256;
// One kernel worker sizes while this thread lists; more only contend for two cores.
constexpr unsigned kRingWorkers = 1;

// Deferred task running (kernel 6.1 and later) spares the walk an interruption per
// completion; older kernels refuse the flags and get a plain ring.
int initRing(struct io_uring* ring) {
    int rc = io_uring_queue_init(kRingEntries, ring, IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN);
    if (rc == -EINVAL) rc = io_uring_queue_init(kRingEntries, ring, 0);
    return rc;
}

int availableProcessors() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
    return CPU_COUNT(&set);
}

struct Choice {
    CatalogueSession::Method method;
    std::string description;
};

Choice probeProcessChoice() {
    using Method = CatalogueSession::Method;
    // A second walker pays off only when it has a processor of its own beside the first,
    // which is a question of this moment, not of the last minute's average.
    int processors = availableProcessors();
    double others = CatalogueSession::otherRunnableTasksNow();
    if (CatalogueSession::methodForMachine(processors, others) == Method::twoWalkers)
        return {Method::twoWalkers,
                fmt::format("FileSizer: plain statx in two walker threads over disjoint subtrees ({} processors, "
                            "{:.1f} other tasks runnable now)",
                            processors, others)};
    return {Method::plainStatx, fmt::format("FileSizer: plain statx in one walker (no processor to spare for a "
                                            "second: {} processors, {:.1f} other tasks runnable now)",
                                            processors, others)};
}

const Choice& processChoice() {
    static const Choice choice = probeProcessChoice();
    return choice;
}

std::mutex& overrideMutex() {
    static std::mutex mutex;
    return mutex;
}
std::optional<CatalogueSession::Method>& methodOverride() {
    static std::optional<CatalogueSession::Method> method;
    return method;
}

uint64_t plainAllocatedSize(int directory, const char* name) {
    struct statx sx {};
    if (statx(directory, name, AT_SYMLINK_NOFOLLOW, STATX_BLOCKS, &sx) != 0) return 0;
    return uint64_t(sx.stx_blocks) * 512;
}

}  // namespace

struct CatalogueSession::Ring {
    struct io_uring ring {};
    bool deferredTaskRun = false;
};

struct CatalogueSession::Slot {
    struct statx result {};
    int directory = -1;
    // Valid only while the request is queued, not yet submitted.
    const char* name = nullptr;
};

CatalogueSession::Method CatalogueSession::methodForMachine(int processors, double otherRunnableTasks) {
    // The first walker takes one processor and the second another; what the rest of the
    // machine runs must leave that second one free.
    return processors >= 2 && double(processors) - 1.0 - otherRunnableTasks >= 0.5 ? Method::twoWalkers
                                                                                   : Method::plainStatx;
}

double CatalogueSession::otherRunnableTasksNow() {
    // The fourth field of /proc/loadavg counts the tasks runnable at the moment it is
    // read, the reader included. A few readings a millisecond apart even out a task
    // that runs only for an instant.
    constexpr int kReadings = 5;
    double sum = 0;
    int readings = 0;
    for (int i = 0; i < kReadings; ++i) {
        if (i > 0) usleep(1000);
        int fd = ::open("/proc/loadavg", O_RDONLY | O_CLOEXEC);
        if (fd < 0) break;
        char text[128];
        ssize_t n = ::read(fd, text, sizeof text - 1);
        ::close(fd);
        if (n <= 0) break;
        text[n] = 0;
        double one, five, fifteen;
        unsigned running = 0, total = 0;
        if (sscanf(text, "%lf %lf %lf %u/%u", &one, &five, &fifteen, &running, &total) != 5 || running == 0) break;
        sum += running - 1;
        ++readings;
    }
    // Unknown counts as busy: plain statx is never much slower.
    return readings > 0 ? sum / readings : 1e9;
}

CatalogueSession::Method CatalogueSession::processMethod() { return processChoice().method; }

std::string CatalogueSession::processMethodDescription() { return processChoice().description; }

void CatalogueSession::setMethodForTesting(std::optional<Method> method) {
    std::lock_guard lock(overrideMutex());
    methodOverride() = method;
}

CatalogueSession::Method CatalogueSession::methodForNewSessions() {
    {
        std::lock_guard lock(overrideMutex());
        if (methodOverride()) return *methodOverride();
    }
    return processMethod();
}

CatalogueSession::CatalogueSession() : requested_(methodForNewSessions()), owner_(getpid()) {
    if (requested_ == Method::twoWalkers) method_ = Method::twoWalkers;
    if (requested_ == Method::ioUring && !getenv("FERRYHOLD_NO_IO_URING") && _setUpRing()) method_ = Method::ioUring;
}

bool CatalogueSession::_setUpRing() {
    auto ring = std::make_unique<Ring>();
    if (initRing(&ring->ring) < 0) return false;
    ring->deferredTaskRun = ring->ring.flags & IORING_SETUP_DEFER_TASKRUN;
    unsigned workers[2] = {kRingWorkers, kRingWorkers};
    io_uring_register_iowq_max_workers(&ring->ring, workers);
    ring_ = std::move(ring);
    slots_.resize(kRingEntries);
    freeSlots_.reserve(kRingEntries);
    for (uint32_t i = kRingEntries; i > 0; --i) freeSlots_.push_back(i - 1);
    queued_.reserve(kRingEntries);
    return true;
}

CatalogueSession::~CatalogueSession() {
    if (!ring_) return;
    // A ring inherited through fork belongs to the parent: leave its requests alone.
    if (owner_ == getpid()) {
        submit();
        while (inFlight_ > 0 && ring_) _reap(true);
    }
    if (ring_) io_uring_queue_exit(&ring_->ring);
}

void CatalogueSession::addSizeOf(const CatalogueIterator& iterator, const CatalogueEntry& entry) {
    if (entry.allocatedSize) {
        total_ += *entry.allocatedSize;
        return;
    }
    if (method_ != Method::ioUring) {
        total_ += plainAllocatedSize(iterator.descriptor(), entry.name);
        return;
    }
    while (freeSlots_.empty() && method_ == Method::ioUring) {
        submit();
        if (freeSlots_.empty()) _reap(true);
    }
    if (method_ == Method::plainStatx) {
        total_ += plainAllocatedSize(iterator.descriptor(), entry.name);
        return;
    }
    uint32_t slot = freeSlots_.back();
    freeSlots_.pop_back();
    Slot& s = slots_[slot];
    s.directory = iterator.descriptor();
    s.name = entry.name;
    _retain(s.directory);
    // Every queued request holds a slot, and there are no more slots than ring entries.
    struct io_uring_sqe* sqe = io_uring_get_sqe(&ring_->ring);
    io_uring_prep_statx(sqe, s.directory, s.name, AT_SYMLINK_NOFOLLOW, STATX_BLOCKS, &s.result);
    io_uring_sqe_set_data64(sqe, slot);
    queued_.push_back(slot);
}

void CatalogueSession::submit() {
    if (method_ != Method::ioUring || queued_.empty()) return;
    int rc;
    for (;;) {
        rc = ring_->deferredTaskRun ? io_uring_submit_and_get_events(&ring_->ring) : io_uring_submit(&ring_->ring);
        if (rc == -EINTR) continue;
        // Short of room in the kernel for now: let requests finish, then try again.
        if ((rc == -EAGAIN || rc == -EBUSY) && inFlight_ > 0) {
            _reap(true);
            if (!ring_) return;
            continue;
        }
        break;
    }
    if (rc < 0) return _fallBackToPlainStatx();
    size_t submitted = std::min(size_t(rc), queued_.size());
    queued_.erase(queued_.begin(), queued_.begin() + ptrdiff_t(submitted));
    inFlight_ += uint32_t(submitted);
    _reap(false);
}

// Collects the completions already posted; with `wait`, first waits for one.
void CatalogueSession::_reap(bool wait) {
    if (!ring_) return;
    struct io_uring_cqe* cqe = nullptr;
    if (wait && inFlight_ > 0) {
        int rc;
        do rc = io_uring_wait_cqe(&ring_->ring, &cqe);
        while (rc == -EINTR);
        if (rc < 0) return _fallBackToPlainStatx();
    }
    unsigned head;
    unsigned seen = 0;
    io_uring_for_each_cqe(&ring_->ring, head, cqe) {
        _complete(uint32_t(io_uring_cqe_get_data64(cqe)), cqe->res);
        ++seen;
    }
    io_uring_cq_advance(&ring_->ring, seen);
}

void CatalogueSession::_complete(uint32_t slot, int result) {
    Slot& s = slots_[slot];
    if (result == 0) total_ += uint64_t(s.result.stx_blocks) * 512;
    --inFlight_;
    _release(s.directory);
    s.directory = -1;
    freeSlots_.push_back(slot);
}

// The ring stopped taking requests (a refusing sandbox, a lost ring): finish what it
// has, size what is still queued one by one, and go on without it.
void CatalogueSession::_fallBackToPlainStatx() {
    auto ring = std::move(ring_);
    struct io_uring_cqe* cqe = nullptr;
    while (inFlight_ > 0 && io_uring_wait_cqe(&ring->ring, &cqe) == 0) {
        _complete(uint32_t(io_uring_cqe_get_data64(cqe)), cqe->res);
        io_uring_cqe_seen(&ring->ring, cqe);
    }
    inFlight_ = 0;
    for (uint32_t slot : queued_) {
        total_ += plainAllocatedSize(slots_[slot].directory, slots_[slot].name);
        _release(slots_[slot].directory);
    }
    queued_.clear();
    io_uring_queue_exit(&ring->ring);
    method_ = Method::plainStatx;
}

uint64_t CatalogueSession::takeTotal() {
    submit();
    while (inFlight_ > 0 && ring_) _reap(true);
    return std::exchange(total_, 0);
}

void CatalogueSession::releaseDescriptor(int descriptor) {
    if (descriptor < 0) return;
    if (size_t(descriptor) < references_.size() && references_[size_t(descriptor)] > 0) {
        closeWhenDone_[size_t(descriptor)] = 1;
        return;
    }
    fs::File::adopt(descriptor, {}).close();
}

void CatalogueSession::_retain(int descriptor) {
    if (size_t(descriptor) >= references_.size()) {
        references_.resize(size_t(descriptor) + 64, 0);
        closeWhenDone_.resize(size_t(descriptor) + 64, 0);
    }
    ++references_[size_t(descriptor)];
}

void CatalogueSession::_release(int descriptor) {
    uint32_t& count = references_[size_t(descriptor)];
    if (--count == 0 && closeWhenDone_[size_t(descriptor)]) {
        closeWhenDone_[size_t(descriptor)] = 0;
        fs::File::adopt(descriptor, {}).close();
    }
}

}  // namespace platform
