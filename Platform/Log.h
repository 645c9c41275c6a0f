// The console log and the system log, each behind a process-wide sink that tests
// may replace to read what was logged.
#pragma once

#include <fmt/format.h>
#include <functional>
#include <string>
#include <string_view>

namespace platform {

// Receives one message of the console log (before time stamp and process name are added).
using ConsoleSink = std::function<void(std::string_view message)>;
// Receives one system-log entry: the numeric priority (facility and level combined) and the text.
using SystemLogSink = std::function<void(int priority, std::string_view message)>;

// Writes "YYYY-MM-DD HH:MM:SS.mmm program[pid] message" to standard error and copies
// the message to the system log (installer facility, notice level).
void consoleLog(std::string_view message);

template <typename... Args>
void consoleLogf(fmt::format_string<Args...> format, Args&&... args) {
    consoleLog(fmt::format(format, std::forward<Args>(args)...));
}

// Sends the message to the system log with the given priority.
void systemLog(int priority, std::string_view message);

// Replace the sinks; an empty function restores the default. Both return the previous sink.
ConsoleSink setConsoleSink(ConsoleSink sink);
SystemLogSink setSystemLogSink(SystemLogSink sink);

// Priority of the package library's own lines: installer facility (14 << 3), given level.
inline constexpr int kInstallerFacility = 14 << 3;
inline constexpr int kLogError = 3;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogNotice = 5;
inline constexpr int kLogDebug = 7;

}  // namespace platform
