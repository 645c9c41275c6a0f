// Items that are not regular files, planted where a reader expects one, and a way to run
// a call that might block on them without letting a regression hang the suite.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

// Makes a FIFO, a character device (the null device's numbers) and a listening Unix
// socket named `stem` + ".fifo" / ".device" / ".socket" and answers their paths with a
// label each. A device that cannot be made (no mknod in a container) is left out.
struct HostileFile {
    std::string kind, path;
};
std::vector<HostileFile> makeHostileFiles(const std::string& stem);
// One of them at exactly `path`: "fifo", "device" or "socket". False when it cannot be made.
bool makeHostileFile(const std::string& kind, const std::string& path);

// Runs `body` in a child process and answers its result, or nothing when it has not
// returned within `seconds` (the child is then killed) or died.
std::optional<bool> resultWithin(double seconds, const std::function<bool()>& body);

}  // namespace testsupport
