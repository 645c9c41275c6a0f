// The typed log: a numeric type, the calling function, the line and a message. Types of
// 40 or less go to the system log; types 0 and 5 are also kept in memory for hosts to
// read back.
//
// Callers write FHLog(type, message) or FHLog(type, "format {}", args...); where the
// function should carry its name as this system spells it, FHLogIn(type, name, ...).
#pragma once

#include <cstdint>
#include <fmt/format.h>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "FHPathAnalysis/Support/FHLogItem.h"

#define FHLog(type, ...) ::FHLogging::logType((type), __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__)
#define FHLogIn(type, functionName, ...) ::FHLogging::logType((type), (functionName), __LINE__, __VA_ARGS__)

class FHLogging {
public:
    using ItemList = std::vector<std::shared_ptr<FHLogItem>>;

    // Ends a sequence of types given to logItemsForTypes.
    static constexpr uint32_t kTypeListTerminator = 0xFFFFFFFF;
    // Installer facility, error level.
    static constexpr int kSystemLogPriority = 115;

    FHLogging() = delete;

    // `function` is ASCII, or null when unknown.
    static void logType(int32_t type, const char* function, int32_t line, std::string_view string);

    template <typename... Args>
        requires(sizeof...(Args) > 0)
    static void logType(int32_t type, const char* function, int32_t line, fmt::format_string<Args...> format,
                        Args&&... args) {
        logType(type, function, line, std::string_view(fmt::format(format, std::forward<Args>(args)...)));
    }

    // The live list of kept items, not a copy, and taken without the lock: it only grows.
    static const ItemList& logItems();

    // The kept items whose type is among `types`, in the order they were logged; an item
    // is listed once for every time its type occurs. The sequence ends at the terminator
    // or at the end of the span, whichever comes first.
    static ItemList logItemsForTypes(std::span<const uint32_t> types);
    // The same over a sequence ended by the terminator; null gives an empty list.
    static ItemList logItemsForTypes(const uint32_t* types);
};
