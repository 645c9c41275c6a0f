#include "CrateworksTool/ToolSupport.h"

#include <atomic>
#include <csignal>
#include <fmt/format.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Trust/CWTrust.h"

namespace crateworks::tool {

namespace {

std::atomic<bool> interruptFlag{false};
std::atomic<platform::RunLoop*> interruptLoop{nullptr};

void onInterrupt(int) {
    interruptFlag = true;
    if (auto* loop = interruptLoop.load()) loop->wakeUp();
}

}  // namespace

std::string humanBytes(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) bytes /= 1024, ++unit;
    return unit == 0 ? fmt::format("{:.0f} {}", bytes, units[unit]) : fmt::format("{:.1f} {}", bytes, units[unit]);
}

std::string humanDuration(double seconds) {
    if (seconds < 0) return "-:--:--";
    auto whole = int64_t(seconds);
    return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

std::optional<int32_t> parseTrustLevel(const std::string& text) {
    for (int32_t level = 0; level <= CWTrustLevelQuarnSoftwareProduction; ++level) {
        auto name = CWTrust::stringForTrustLevel(level);
        if (name && (text == *name || text == std::to_string(level))) return level;
    }
    return std::nullopt;
}

std::string describeTrustLevel(int32_t level) {
    return fmt::format("{} ({})", CWTrust::stringForTrustLevel(level).value_or("unknown"), level);
}

bool stdoutIsTerminal() { return isatty(STDOUT_FILENO) == 1; }
bool stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void catchInterrupt(platform::RunLoop& loop) {
    interruptLoop = &loop;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
}

bool interrupted() { return interruptFlag; }

std::string printable(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if ((unsigned char)c < 0x20 || c == 0x7f) c = '?';
    return out;
}

}  // namespace crateworks::tool
