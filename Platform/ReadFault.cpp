#include "Platform/ReadFault.h"

#include <atomic>
#include <mutex>

namespace platform::fs {

namespace {
// The flag spares every read the lock while nothing is armed, which is always outside tests.
std::atomic<bool> gArmed{false};
std::mutex gMutex;
std::optional<ReadFault> gFault;
}  // namespace

void setReadFault(std::optional<ReadFault> fault) {
    std::lock_guard lock(gMutex);
    gFault = std::move(fault);
    gArmed.store(gFault.has_value(), std::memory_order_release);
}

std::optional<ReadFault> detail::readFaultFor(const std::string& path) {
    if (!gArmed.load(std::memory_order_acquire)) return std::nullopt;
    std::lock_guard lock(gMutex);
    if (!gFault || !path.ends_with(gFault->pathSuffix)) return std::nullopt;
    return gFault;
}

}  // namespace platform::fs
