// Pieces the crateworks commands share: byte counts and durations for people, trust
// levels given on the command line, the terminal, and SIGINT on a run loop.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/RunLoop.h"

namespace crateworks::tool {

// "512 B", "1.5 KiB", "3.2 GiB".
std::string humanBytes(double bytes);
// "H:MM:SS"; "-:--:--" for a negative (unknown) number of seconds.
std::string humanDuration(double seconds);

// A trust level by number or by name ("QuarnSoftwareProduction"); absent for anything else.
std::optional<int32_t> parseTrustLevel(const std::string& text);
// "name (number)".
std::string describeTrustLevel(int32_t level);

// Whether standard output / standard error is a terminal.
bool stdoutIsTerminal();
bool stderrIsTerminal();

// From the first call on, SIGINT sets a flag and wakes `loop` instead of ending the
// process; interrupted() reads the flag.
void catchInterrupt(platform::RunLoop& loop);
bool interrupted();

// Text from the network or a volume made safe to print on one line: control
// characters and DEL become "?".
std::string printable(const std::string& text);

}  // namespace crateworks::tool
