#include "Platform/WalkHook.h"

#include <atomic>
#include <mutex>

namespace platform::fs {

namespace {
// The flag spares every item of every walk the lock while no hook is set.
std::atomic<bool> gSet{false};
std::mutex gMutex;
WalkHook gHook;
}  // namespace

void setWalkHook(WalkHook hook) {
    std::lock_guard lock(gMutex);
    gHook = std::move(hook);
    gSet.store(bool(gHook), std::memory_order_release);
}

void detail::walkReached(std::string_view name) {
    if (!gSet.load(std::memory_order_acquire)) return;
    WalkHook hook;
    {
        std::lock_guard lock(gMutex);
        hook = gHook;
    }
    if (hook) hook(name);
}

}  // namespace platform::fs
