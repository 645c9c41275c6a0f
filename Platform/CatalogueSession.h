// Adds up the allocated sizes of the non-directory children that a catalogue walk
// hands it: statx relative to the child's directory, asking only for the block count,
// without following a final symbolic link. Allocated data size = blocks × 512; the
// resource fork counts 0 on this platform.
//
// Plain statx calls size each child at once. With two walker threads, each walker has a
// session of its own and the two walk disjoint subtrees (FileSizer hands them out).
// Through io_uring, the requests of one batch are submitted together and their
// results collected while the walk goes on, so the kernel's workers size one
// directory while the walk lists the next; where io_uring cannot be set up, plain
// statx calls do the same work, one at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace platform {

class CatalogueIterator;
struct CatalogueEntry;

class CatalogueSession {
public:
    // plainStatx: one walker, sizing each child with statx as it is listed.
    // twoWalkers: two walker threads over disjoint subtrees, each with plain statx.
    // ioUring: one walker whose statx requests the kernel's worker runs beside it. On
    // two processors it measured slower than two walkers, at half again their CPU time,
    // so a process never chooses it; tests and benchmarks ask for it, and with the
    // environment variable FERRYHOLD_NO_IO_URING set they get plain statx instead.
    enum class Method { ioUring, plainStatx, twoWalkers };

    // Chosen once per process, when the first session is made (methodForMachine).
    static Method processMethod();
    // Two walkers when, of `processors`, one is left for the second walker once
    // `otherRunnableTasks` (other tasks wanting a processor now) have theirs; one
    // otherwise, and always on a single processor.
    static Method methodForMachine(int processors, double otherRunnableTasks);
    // The tasks other than this one that are runnable now, from a few readings of the
    // kernel's count a millisecond apart (about 5 ms in all); very large when unknown.
    static double otherRunnableTasksNow();
    // One line saying which method the process uses and why.
    static std::string processMethodDescription();
    // Tests: sessions created from now on use `method` (io_uring only where the kernel
    // allows it); nullopt restores the process choice.
    static void setMethodForTesting(std::optional<Method> method);
    // The method a session created now asks for: the test override, else the process's.
    static Method methodForNewSessions();

    CatalogueSession();
    // Waits for the requests still running and closes the descriptors kept for them.
    ~CatalogueSession();
    CatalogueSession(const CatalogueSession&) = delete;
    CatalogueSession& operator=(const CatalogueSession&) = delete;

    // The method in use: the one asked for, unless io_uring could not be set up.
    Method method() const { return method_; }
    Method requestedMethod() const { return requested_; }
    // The process that set up the session; a forked child must make its own.
    pid_t owner() const { return owner_; }

    // Counts the allocated size of `entry`, a non-directory child of the directory open
    // in `iterator`: at once with plain statx, else queued for the next submit().
    void addSizeOf(const CatalogueIterator& iterator, const CatalogueEntry& entry);
    // Hands the queued requests to the kernel together and collects those finished,
    // without waiting. Must come before the listing buffer of a queued name is reused.
    void submit();
    // Waits for every outstanding request, then answers the bytes counted since the
    // last call and starts again from 0.
    uint64_t takeTotal();
    // Closes `descriptor` now, or once no outstanding request refers to it.
    void releaseDescriptor(int descriptor);

private:
    struct Ring;
    struct Slot;

    bool _setUpRing();
    void _reap(bool wait);
    void _complete(uint32_t slot, int result);
    void _fallBackToPlainStatx();
    void _retain(int descriptor);
    void _release(int descriptor);

    Method requested_;
    Method method_ = Method::plainStatx;
    pid_t owner_;
    uint64_t total_ = 0;
    std::unique_ptr<Ring> ring_;
    std::vector<Slot> slots_;
    std::vector<uint32_t> freeSlots_;
    std::vector<uint32_t> queued_;
    uint32_t inFlight_ = 0;
    // Per descriptor number: outstanding requests, and whether its iterator has closed.
    std::vector<uint32_t> references_;
    std::vector<uint8_t> closeWhenDone_;
};

}  // namespace platform
