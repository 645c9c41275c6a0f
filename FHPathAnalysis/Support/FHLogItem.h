// One record of the typed log: when, where from, the type and the message.
#pragma once

#include <cstdint>
#include <fmt/format.h>
#include <optional>
#include <string>

#include "Platform/Value.h"

class FHLogItem {
public:
    // initWithType:atTime:inFunction:atLine:withString: — a missing date becomes now, a
    // missing message the empty string.
    FHLogItem(int32_t type, std::optional<platform::Date> date, std::optional<std::string> function, int64_t line,
              std::optional<std::string> string);
    // initWithType:withString: — now, no function, line 0.
    FHLogItem(int32_t type, std::string string);
    // initWithType:withFormat:arguments: — the message formatted with no locale.
    FHLogItem(int32_t type, fmt::string_view format, fmt::format_args arguments);

    // initWithType:withFormat:
    template <typename... Args>
    static FHLogItem withFormat(int32_t type, fmt::format_string<Args...> format, Args&&... args) {
        return FHLogItem(type, fmt::format(format, std::forward<Args>(args)...));
    }

    const platform::Date& date() const { return date_; }
    const std::optional<std::string>& function() const { return function_; }
    int64_t line() const { return line_; }
    int32_t type() const { return type_; }

    // The date's description and the message, one blank between them.
    std::string string() const;
    // The bare message.
    std::string rawString() const { return string_; }
    // "DATE FUNCTION:LINE MESSAGE" with a function name, else the same text as string().
    std::string description() const;

private:
    platform::Date date_;
    std::optional<std::string> function_;
    int64_t line_;
    std::string string_;
    int32_t type_;
};
