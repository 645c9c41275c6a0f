#include "support/HostileFiles.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace testsupport {

bool makeHostileFile(const std::string& kind, const std::string& path) {
    if (kind == "fifo") return mkfifo(path.c_str(), 0644) == 0;
    if (kind == "device") return mknod(path.c_str(), S_IFCHR | 0644, makedev(1, 3)) == 0;
    if (kind == "socket") {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (path.size() >= sizeof addr.sun_path) return false;
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0) return false;
        // The socket file stays when the descriptor goes: nothing will ever answer on it.
        bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        close(fd);
        return ok;
    }
    return false;
}

std::vector<HostileFile> makeHostileFiles(const std::string& stem) {
    std::vector<HostileFile> made;
    for (const char* kind : {"fifo", "device", "socket"}) {
        std::string path = stem + "." + kind;
        if (makeHostileFile(kind, path)) made.push_back({kind, path});
    }
    return made;
}

std::optional<bool> resultWithin(double seconds, const std::function<bool()>& body) {
    pid_t child = fork();
    if (child < 0) return std::nullopt;
    if (child == 0) _exit(body() ? 0 : 1);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!WIFEXITED(status)) return std::nullopt;
    return WEXITSTATUS(status) == 0;
}

}  // namespace testsupport
