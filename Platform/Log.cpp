#include "Platform/Log.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <syslog.h>
#include <unistd.h>
#include <utility>
#include <cstring>

#include "Platform/ProcessInfo.h"

namespace platform {

namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}
ConsoleSink& consoleSink() {
    static ConsoleSink sink;
    return sink;
}
SystemLogSink& systemLogSink() {
    static SystemLogSink sink;
    return sink;
}

void defaultConsole(std::string_view message) {
    using namespace std::chrono;
    auto now = system_clock::now();
    time_t secs = system_clock::to_time_t(now);
    auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm tm{};
    localtime_r(&secs, &tm);
    static const std::string program = process::processName();
    std::string line = fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {}[{}] {}\n", tm.tm_year + 1900,
                                   tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis, program,
                                   getpid(), message);
    fwrite(line.data(), 1, line.size(), stderr);
    fflush(stderr);
}

}  // namespace

void systemLog(int priority, std::string_view message) {
    SystemLogSink sink;
    {
        std::lock_guard lock(sinkMutex());
        sink = systemLogSink();
    }
    if (sink) {
        sink(priority, message);
        return;
    }
    std::string text(message);
    syslog(priority, "%s", text.c_str());
}

void consoleLog(std::string_view message) {
    ConsoleSink sink;
    {
        std::lock_guard lock(sinkMutex());
        sink = consoleSink();
    }
    if (sink)
        sink(message);
    else
        defaultConsole(message);
    systemLog(kInstallerFacility | kLogNotice, message);
}

ConsoleSink setConsoleSink(ConsoleSink sink) {
    std::lock_guard lock(sinkMutex());
    return std::exchange(consoleSink(), std::move(sink));
}

SystemLogSink setSystemLogSink(SystemLogSink sink) {
    std::lock_guard lock(sinkMutex());
    return std::exchange(systemLogSink(), std::move(sink));
}

}  // namespace platform
