// Pieces the crateworks commands share: byte counts and durations for people, trust
// levels given on the command line, the terminal, and SIGINT on a run loop.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/RunLoop.h"
#include "Platform/URL.h"

namespace crateworks::tool {

// "512 B", "1.5 KiB", "3.2 GiB".
std::string humanBytes(double bytes);
// "H:MM:SS"; "-:--:--" for a negative (unknown) number of seconds.
std::string humanDuration(double seconds);

// Every trust level, lowest first.
std::vector<int32_t> trustLevels();
// A level's short name: its name without "CWTrustLevel", in lower-case words joined by
// "-" ("system-domain" for CWTrustLevelSystemDomain).
std::string shortTrustLevelName(int32_t level);
// A trust level by number, full name or short name; absent for anything else.
std::optional<int32_t> parseTrustLevel(const std::string& text);
// A CLI11 check for an option that takes a trust level.
std::string checkTrustLevel(const std::string& text);
// "name (number)".
std::string describeTrustLevel(int32_t level);

// The width of the terminal on standard error, read again after each SIGWINCH once
// watchTerminalWidth() has been called; 80 when it does not say.
void watchTerminalWidth();
int terminalWidth();
// `line` cut to fit the terminal's width, so that a redrawn progress line never wraps.
std::string fitted(const std::string& line);

// Whether standard output / standard error is a terminal.
bool stdoutIsTerminal();
bool stderrIsTerminal();

// From the first call on, SIGINT, SIGTERM and SIGHUP set a flag and wake `loop`
// instead of ending the process, so that a transfer keeps its resume data whoever
// stops it; interrupted() reads the flag.
void catchInterrupt(platform::RunLoop& loop);
bool interrupted();
// The exit status for the signal that interrupted: 128 + its number (130, 143, 129).
int interruptedStatus();

// "HTTP 404 Not Found": the status and its reason phrase.
std::string httpStatusText(int status);

// A URL as given, or a path on this machine taken as a file URL; absent for neither.
std::optional<platform::URL> urlFromArgument(const std::string& text);

// Text from the network or a volume made safe to print on one line: control
// characters and DEL become "?".
std::string printable(const std::string& text);

}  // namespace crateworks::tool
