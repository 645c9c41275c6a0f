#include "FHPathAnalysis/Support/FHLogging.h"

#include <algorithm>
#include <mutex>
#include <string>

#include "Platform/Log.h"

namespace {

constexpr int32_t kSystemLogMaximumType = 40;

bool isKeptType(int32_t type) { return type == 0 || type == 5; }

struct LogState {
    FHLogging::ItemList items;
    std::mutex lock;
};

LogState& state() {
    static LogState shared;
    return shared;
}

}  // namespace

void FHLogging::logType(int32_t type, const char* function, int32_t line, std::string_view string) {
    if (type <= kSystemLogMaximumType) platform::systemLog(kSystemLogPriority, string);
    if (!isKeptType(type)) return;
    std::optional<std::string> functionName;
    if (function) functionName = function;
    auto item = std::make_shared<FHLogItem>(type, platform::Date::now(), std::move(functionName),
                                            static_cast<int64_t>(line), std::string(string));
    std::lock_guard guard(state().lock);
    state().items.push_back(std::move(item));
}

const FHLogging::ItemList& FHLogging::logItems() { return state().items; }

FHLogging::ItemList FHLogging::logItemsForTypes(std::span<const uint32_t> types) {
    auto end = std::find(types.begin(), types.end(), kTypeListTerminator);
    std::span<const uint32_t> wanted(types.begin(), end);
    ItemList result;
    if (wanted.empty()) return result;

    ItemList snapshot;
    {
        std::lock_guard guard(state().lock);
        snapshot = state().items;
    }
    result.reserve(snapshot.size());
    for (const auto& item : snapshot) {
        auto count = std::count(wanted.begin(), wanted.end(), static_cast<uint32_t>(item->type()));
        for (decltype(count) i = 0; i < count; ++i) result.push_back(item);
    }
    return result;
}

FHLogging::ItemList FHLogging::logItemsForTypes(const uint32_t* types) {
    if (!types) return {};
    size_t length = 0;
    while (types[length] != kTypeListTerminator) ++length;
    return logItemsForTypes(std::span<const uint32_t>(types, length));
}
