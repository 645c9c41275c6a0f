#include "CrateworksTool/ToolSupport.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <csignal>
#include <filesystem>
#include <map>
#include <fmt/format.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "Platform/Path.h"
#include "Platform/Terminal.h"

namespace crateworks::tool {

namespace {

std::atomic<bool> interruptFlag{false};
std::atomic<int> interruptSignal{SIGINT};
std::atomic<platform::RunLoop*> interruptLoop{nullptr};

std::atomic<bool> widthChanged{true};
int width = 80;

void onWindowChange(int) { widthChanged = true; }

void onInterrupt(int signal) {
    if (!interruptFlag.exchange(true)) interruptSignal = signal;
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

std::vector<int32_t> trustLevels() {
    std::vector<int32_t> levels;
    for (int32_t level = 0; level <= CWTrustLevelQuarnSoftwareProduction; ++level)
        if (CWTrust::stringForTrustLevel(level)) levels.push_back(level);
    return levels;
}

std::string shortTrustLevelName(int32_t level) {
    std::string name = CWTrust::stringForTrustLevel(level).value_or("");
    constexpr std::string_view prefix = "CWTrustLevel";
    if (name.starts_with(prefix)) name.erase(0, prefix.size());
    std::string out;
    for (char c : name) {
        if (std::isupper(static_cast<unsigned char>(c))) {
            if (!out.empty()) out += '-';
            out += char(std::tolower(static_cast<unsigned char>(c)));
        } else {
            out += c;
        }
    }
    return out;
}

std::optional<int32_t> parseTrustLevel(const std::string& text) {
    for (int32_t level : trustLevels()) {
        if (text == *CWTrust::stringForTrustLevel(level) || text == std::to_string(level) ||
            text == shortTrustLevelName(level))
            return level;
    }
    return std::nullopt;
}

std::string checkTrustLevel(const std::string& text) {
    if (parseTrustLevel(text)) return {};
    return "not a trust level (see crateworks trust --levels): " + text;
}

std::string describeTrustLevel(int32_t level) {
    return fmt::format("{} ({})", CWTrust::stringForTrustLevel(level).value_or("unknown"), level);
}

void watchTerminalWidth() {
    struct sigaction action {};
    action.sa_handler = onWindowChange;
    action.sa_flags = SA_RESTART;
    sigaction(SIGWINCH, &action, nullptr);
}

int terminalWidth() {
    if (widthChanged.exchange(false)) width = platform::terminal::columns(STDERR_FILENO).value_or(80);
    return width;
}

std::string fitted(const std::string& line) {
    size_t room = size_t(std::max(1, terminalWidth() - 1));
    return line.size() <= room ? line : line.substr(0, room);
}

bool stdoutIsTerminal() { return isatty(STDOUT_FILENO) == 1; }
bool stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void catchInterrupt(platform::RunLoop& loop) {
    interruptLoop = &loop;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

bool interrupted() { return interruptFlag; }

int interruptedStatus() { return 128 + interruptSignal; }

std::string httpStatusText(int status) {
    static const std::map<int, const char*> reasons{
        {400, "Bad Request"},       {401, "Unauthorized"},          {403, "Forbidden"},
        {404, "Not Found"},         {405, "Method Not Allowed"},    {407, "Proxy Authentication Required"},
        {408, "Request Timeout"},   {410, "Gone"},                  {416, "Range Not Satisfiable"},
        {429, "Too Many Requests"}, {500, "Internal Server Error"}, {501, "Not Implemented"},
        {502, "Bad Gateway"},       {503, "Service Unavailable"},   {504, "Gateway Timeout"},
    };
    auto found = reasons.find(status);
    return found == reasons.end() ? fmt::format("HTTP {}", status) : fmt::format("HTTP {} {}", status, found->second);
}

std::optional<platform::URL> urlFromArgument(const std::string& text) {
    if (auto url = platform::URL::parse(text)) return url;
    if (text.find("://") != std::string::npos) return std::nullopt;
    if (text.starts_with("/")) return platform::URL::fileURL(text);
    std::error_code failed;
    std::string cwd = std::filesystem::current_path(failed).string();
    if (failed) return std::nullopt;
    return platform::URL::fileURL(platform::path::appendComponent(cwd, text));
}

std::string printable(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if ((unsigned char)c < 0x20 || c == 0x7f) c = '?';
    return out;
}

}  // namespace crateworks::tool
