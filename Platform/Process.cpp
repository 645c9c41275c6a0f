#include "Platform/Process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "Platform/FileSystem.h"

extern char** environ;

namespace platform {

namespace {

// How long a terminated child may take to exit before it is killed outright, and how
// often it is looked at meanwhile: soon at first, since a child whose output has ended
// is usually exiting already, then less often.
constexpr auto kTerminationGrace = std::chrono::seconds(2);
constexpr auto kFirstPollInterval = std::chrono::microseconds(50);
constexpr auto kLongestPollInterval = std::chrono::microseconds(5000);

class SpawnFileActions {
public:
    SpawnFileActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnFileActions() { posix_spawn_file_actions_destroy(&actions_); }
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

}  // namespace

std::unique_ptr<Process> Process::spawn(const std::string& path, const std::vector<std::string>& arguments,
                                        Error* error) {
    int fds[2];
    // Close-on-exec, so that no other child started meanwhile keeps a copy of the pipe.
    if (pipe2(fds, O_CLOEXEC) != 0) {
        if (error) *error = fs::posixError(errno, path);
        return nullptr;
    }
    auto output = fs::File::adopt(fds[0], path);
    auto childOutput = fs::File::adopt(fds[1], path);
    SpawnFileActions actions;
    posix_spawn_file_actions_adddup2(actions.get(), childOutput.descriptor(), STDOUT_FILENO);

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    pid_t pid = 0;
    int result = posix_spawn(&pid, path.c_str(), actions.get(), nullptr, argv.data(), environ);
    childOutput.close();
    if (result != 0) {
        if (error) *error = fs::posixError(result, path);
        return nullptr;
    }
    return std::unique_ptr<Process>(new Process(pid, std::move(output)));
}

Process::~Process() {
    closeOutput();
    if (exitStatus_) return;
    if (isRunning()) {
        terminate();
        auto deadline = std::chrono::steady_clock::now() + kTerminationGrace;
        for (auto interval = kFirstPollInterval; isRunning() && std::chrono::steady_clock::now() < deadline;
             interval = std::min(interval * 2, kLongestPollInterval))
            std::this_thread::sleep_for(interval);
        if (isRunning()) kill(pid_, SIGKILL);
    }
    waitUntilExit();
}

ssize_t Process::readOutput(std::span<char> buffer) {
    if (!output_) return -1;
    auto n = output_.read({reinterpret_cast<uint8_t*>(buffer.data()), buffer.size()});
    return n ? ssize_t(*n) : -1;
}

void Process::closeOutput() { output_.close(); }

void Process::_recordWaitStatus(int status) {
    if (WIFEXITED(status))
        exitStatus_ = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        exitStatus_ = 128 + WTERMSIG(status);
}

bool Process::isRunning() {
    if (exitStatus_) return false;
    int status = 0;
    pid_t result = waitpid(pid_, &status, WNOHANG);
    if (result == pid_) _recordWaitStatus(status);
    if (result < 0) exitStatus_ = -1;  // not our child any more: nothing left to wait for
    return !exitStatus_;
}

void Process::terminate() {
    // Only before reaping: afterwards the id may belong to another process.
    if (isRunning()) kill(pid_, SIGTERM);
}

int Process::waitUntilExit() {
    while (!exitStatus_) {
        int status = 0;
        pid_t result = waitpid(pid_, &status, 0);
        if (result == pid_)
            _recordWaitStatus(status);
        else if (result < 0 && errno != EINTR)
            exitStatus_ = -1;
    }
    return *exitStatus_;
}

}  // namespace platform
