// A child process started from a program path with its standard output on a pipe.
// Environment, working directory, standard input and standard error are inherited.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

#include "Platform/Error.h"
#include "Platform/File.h"

namespace platform {

class Process {
public:
    // Starts `path` (not searched for in PATH) with argv [path, arguments...]. Null, with
    // `error` set in the POSIX domain, when the program cannot be started.
    static std::unique_ptr<Process> spawn(const std::string& path, const std::vector<std::string>& arguments,
                                          Error* error = nullptr);
    // Closes the pipe; a child still running is terminated, and the child is always reaped.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t processIdentifier() const { return pid_; }

    // Reads what the child has written, blocking until something arrives. The number of
    // bytes read; 0 at the end of its output; -1 on a read error.
    ssize_t readOutput(std::span<char> buffer);
    // Gives up the reading end of the pipe; a child still writing then gets SIGPIPE.
    void closeOutput();

    // Whether the child has not exited yet (an exited child is reaped here).
    bool isRunning();
    // Sends SIGTERM to a child still running.
    void terminate();
    // Waits for the child to exit: its exit status, 128 + the signal that ended it, or -1
    // when it can no longer be waited for.
    int waitUntilExit();

private:
    Process(pid_t pid, fs::File output) : pid_(pid), output_(std::move(output)) {}
    void _recordWaitStatus(int status);

    pid_t pid_;
    fs::File output_;
    std::optional<int> exitStatus_;
};

}  // namespace platform
