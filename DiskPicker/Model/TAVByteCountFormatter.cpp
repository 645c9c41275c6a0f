#include "DiskPicker/Model/TAVByteCountFormatter.h"

#include <fmt/format.h>

std::string TAVByteCountFormatter::stringFromByteCount(uint64_t bytes) {
    if (bytes == 1) return "1 byte";
    if (bytes < 1000) return fmt::format("{} bytes", bytes);
    static const char* const units[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
    double value = double(bytes);
    size_t unit = 0;
    for (value /= 1000; value >= 999.5 && unit + 1 < std::size(units); value /= 1000) ++unit;
    // Three significant digits: 1.50 reads as "1.5", 12.34 as "12.3", 250.4 as "250".
    std::string text = value < 9.995 ? fmt::format("{:.2f}", value) : value < 99.95 ? fmt::format("{:.1f}", value)
                                                                                     : fmt::format("{:.0f}", value);
    if (text.find('.') != std::string::npos) {
        while (text.back() == '0') text.pop_back();
        if (text.back() == '.') text.pop_back();
    }
    return text + " " + units[unit];
}
