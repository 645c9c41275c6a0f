// The downloader's MD5 check of a finished package (checksumMatches, 64 KiB reads)
// against `md5sum FILE` on a 1 GiB file of random bytes, warm page cache, median of 5
// runs each, taken in turns so that a busy machine weighs on both alike. Before timing,
// the check must accept md5sum's digest and refuse a digest one digit off.
//
//   md5_check            makes the file in /dev/shm (or /tmp) and removes it afterwards
//   md5_check FILE       measures an existing file instead
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "Distribution_Layer/Downloader/CWDownloader.h"
#include "Platform/File.h"
#include "bench/BenchSupport.h"

extern char** environ;

namespace {

constexpr int kRuns = 5;
constexpr uint64_t kFileSize = uint64_t(1) << 30;

using bench::Clock;
using platform::fs::File;
using platform::fs::OpenOptions;
using bench::median;
using bench::secondsSince;
double cpuSeconds(const struct rusage& usage) {
    auto toSeconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime);
}

double selfCPUSeconds() {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return cpuSeconds(usage);
}

std::string loadAverage() {
    double load[3] = {0, 0, 0};
    if (getloadavg(load, 3) != 3) return "unknown";
    return fmt::format("{:.2f} {:.2f} {:.2f}", load[0], load[1], load[2]);
}

bool makeRandomFile(const std::string& path) {
    auto in = File::open("/dev/urandom");
    auto out = File::open(path, {.access = OpenOptions::Access::Write, .create = true, .truncate = true, .mode = 0600});
    if (!in || !out) return false;
    std::vector<uint8_t> buffer(1 << 20);
    uint64_t written = 0;
    while (written < kFileSize) {
        auto n = in->read(buffer);
        if (!n || *n == 0 || !out->writeAll({buffer.data(), *n})) return false;
        written += *n;
    }
    return out->close();
}

struct Child {
    int status = -1;
    double wall = 0, cpu = 0;
    std::string output;
};

// Runs `md5sum path`, its output to a pipe (kept) or to /dev/null (timed runs).
Child runMD5Sum(const std::string& path, bool keepOutput) {
    Child child;
    File reader, writer;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (keepOutput) {
        int pipeFDs[2] = {-1, -1};
        if (pipe2(pipeFDs, O_CLOEXEC) != 0) return child;
        reader = File::adopt(pipeFDs[0], "md5sum output");
        writer = File::adopt(pipeFDs[1], "md5sum output");
        posix_spawn_file_actions_adddup2(&actions, writer.descriptor(), STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    std::string program = "md5sum";
    std::vector<char*> argv{program.data(), const_cast<char*>(path.c_str()), nullptr};
    pid_t pid = -1;
    auto start = Clock::now();
    int spawned = posix_spawnp(&pid, "md5sum", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    writer.close();
    if (spawned != 0) return child;
    if (keepOutput) {
        std::array<uint8_t, 4096> buffer;
        for (;;) {
            auto n = reader.read(buffer);
            if (!n || *n == 0) break;
            child.output.append(reinterpret_cast<const char*>(buffer.data()), *n);
        }
        reader.close();
    }
    struct rusage usage {};
    while (wait4(pid, &child.status, 0, &usage) < 0 && errno == EINTR) {}
    child.wall = secondsSince(start);
    child.cpu = cpuSeconds(usage);
    return child;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2) {
        fmt::print(stderr, "usage: md5_check [FILE]\n");
        return 2;
    }
    std::string path;
    bool madeFile = false;
    if (argc == 2) {
        path = argv[1];
    } else {
        struct stat st {};
        std::string dir = stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
        path = fmt::format("{}/md5-check-{}.bin", dir, getpid());
        fmt::print("making {} ({} bytes of random data)\n", path, kFileSize);
        std::fflush(stdout);
        if (!makeRandomFile(path)) {
            fmt::print(stderr, "md5_check: cannot make {}\n", path);
            unlink(path.c_str());
            return 1;
        }
        madeFile = true;
    }
    auto finish = [&](int status) {
        if (madeFile) unlink(path.c_str());
        return status;
    };
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        fmt::print(stderr, "md5_check: {} is not a regular file\n", path);
        return finish(1);
    }
    const uint64_t size = uint64_t(st.st_size);

    // md5sum's digest is the reference; this first pass also warms the page cache.
    Child reference = runMD5Sum(path, true);
    if (reference.status != 0 || reference.output.size() < 32) {
        fmt::print(stderr, "md5_check: md5sum failed on {}\n", path);
        return finish(1);
    }
    const std::string expected = reference.output.substr(0, 32);
    std::string wrong = expected;
    wrong[31] = wrong[31] == '0' ? '1' : '0';
    uint64_t counted = 0;
    bool accepts = crateworks::downloader_checks::checksumMatches(path, expected, [&](uint64_t n) { counted += n; });
    bool refuses = !crateworks::downloader_checks::checksumMatches(path, wrong, [](uint64_t) {});
    if (!accepts || !refuses || counted != size) {
        fmt::print(stderr, "md5_check: the check disagrees with md5sum (accepts {}, refuses {}, counted {} of {})\n",
                   accepts, refuses, counted, size);
        return finish(1);
    }

    fmt::print("file {} ({} bytes), md5 {}\nload average before: {}\n", path, size, expected, loadAverage());
    std::vector<double> ours, ourCPU, theirs, theirCPU;
    for (int run = 0; run < kRuns; ++run) {
        uint64_t checked = 0;
        double cpuBefore = selfCPUSeconds();
        auto start = Clock::now();
        bool matched = crateworks::downloader_checks::checksumMatches(path, expected, [&](uint64_t n) { checked += n; });
        ours.push_back(secondsSince(start));
        ourCPU.push_back(selfCPUSeconds() - cpuBefore);
        if (!matched || checked != size) {
            fmt::print(stderr, "md5_check: run {} did not match\n", run + 1);
            return finish(1);
        }
        Child timed = runMD5Sum(path, false);
        if (timed.status != 0) {
            fmt::print(stderr, "md5_check: md5sum failed in run {}\n", run + 1);
            return finish(1);
        }
        theirs.push_back(timed.wall);
        theirCPU.push_back(timed.cpu);
        fmt::print("run {}: checksumMatches {:.3f} s (cpu {:.3f} s), md5sum {:.3f} s (cpu {:.3f} s)\n", run + 1,
                   ours.back(), ourCPU.back(), theirs.back(), theirCPU.back());
        std::fflush(stdout);
    }
    double mOurs = median(ours), mTheirs = median(theirs);
    double gib = double(size) / double(1 << 30);
    fmt::print("load average after:  {}\n", loadAverage());
    fmt::print("checksumMatches: median {:.3f} s ({:.0f} MiB/s), cpu median {:.3f} s\n", mOurs, 1024 * gib / mOurs,
               median(ourCPU));
    fmt::print("md5sum:          median {:.3f} s ({:.0f} MiB/s), cpu median {:.3f} s\n", mTheirs, 1024 * gib / mTheirs,
               median(theirCPU));
    fmt::print("ratio (ours / md5sum): {:.3f}\n", mOurs / mTheirs);
    return finish(0);
}
