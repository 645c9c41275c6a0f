#include "FHPathAnalysis/Support/FHLogItem.h"

#include <utility>

FHLogItem::FHLogItem(int32_t type, std::optional<platform::Date> date, std::optional<std::string> function,
                     int64_t line, std::optional<std::string> string)
    : date_(date.value_or(platform::Date::now())),
      function_(std::move(function)),
      line_(line),
      string_(std::move(string).value_or(std::string())),
      type_(type) {}

FHLogItem::FHLogItem(int32_t type, std::string string)
    : FHLogItem(type, std::nullopt, std::nullopt, 0, std::move(string)) {}

FHLogItem::FHLogItem(int32_t type, fmt::string_view format, fmt::format_args arguments)
    : FHLogItem(type, fmt::vformat(format, arguments)) {}

std::string FHLogItem::string() const { return fmt::format("{} {}", date_.description(), string_); }

std::string FHLogItem::description() const {
    if (!function_) return string();
    return fmt::format("{} {}:{} {}", date_.description(), *function_, line_, string_);
}
