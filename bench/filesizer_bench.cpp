// FileSizer against `du -s` on a synthetic tree of 200,000 files in 10,100 directories,
// warm cache, median of 5 runs each, taken in turns so that a busy machine weighs on
// both alike. Checks the byte total against `find DIR ! -type d -printf '%b'` × 512.
// Targets with both processors idle: the process's own choice at most 0.60× du's wall
// time and at most 1.1× its CPU time. Then again with one processor kept busy by a
// spinning child process, the method chosen as the process would choose it at that
// moment: at most 0.95× du's wall time.
//
//   filesizer_bench            makes the tree in a temporary directory and removes it
//   filesizer_bench DIR        measures an existing tree instead
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <string>
#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "FHPathAnalysis/Support/FileSizer.h"
#include "Platform/CatalogueSession.h"
#include "bench/BenchSupport.h"

using bench::median;
using platform::CatalogueSession;

namespace {

constexpr int kRuns = 5;
constexpr int kTopDirectories = 100;
constexpr int kDirectoriesEach = 100;
constexpr int kFilesEach = 20;

std::string output(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return out;
    std::array<char, 65536> buffer;
    size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) out.append(buffer.data(), n);
    pclose(pipe);
    return out;
}

// Sizes from 0 to 9 KB, so that files take 0, 1, 2 or 3 blocks of 4 KB.
void makeTree(const std::string& root) {
    const std::string content(9000, 'x');
    uint64_t n = 0;
    for (int a = 0; a < kTopDirectories; ++a) {
        for (int b = 0; b < kDirectoriesEach; ++b) {
            std::string dir = fmt::format("{}/d{:02}/e{:02}", root, a, b);
            std::filesystem::create_directories(dir);
            for (int f = 0; f < kFilesEach; ++f, ++n) {
                std::ofstream out(fmt::format("{}/f{:02}", dir, f), std::ios::binary);
                out.write(content.data(), std::streamsize((n * 37) % content.size()));
            }
        }
    }
}

uint64_t findAllocated(const std::string& root) {
    std::string out = output("find '" + root + "' ! -type d -printf '%b\\n'");
    uint64_t blocks = 0;
    for (const char* p = out.c_str(); *p;) {
        char* end;
        blocks += strtoull(p, &end, 10);
        p = *end ? end + 1 : end;
    }
    return blocks * 512;
}

double cpuSeconds(int who) {
    struct rusage usage {};
    getrusage(who, &usage);
    auto toSeconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return toSeconds(usage.ru_utime) + toSeconds(usage.ru_stime);
}

struct Timing {
    std::vector<double> wall;
    std::vector<double> cpu;
};

// Wall time, and processor time of the process (`who` = RUSAGE_SELF, kernel workers
// included) or of its waited-for children (RUSAGE_CHILDREN).
void measure(Timing& timing, int who, const std::function<void()>& work) {
    double cpuStart = cpuSeconds(who);
    auto start = std::chrono::steady_clock::now();
    work();
    timing.wall.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    timing.cpu.push_back(cpuSeconds(who) - cpuStart);
}

std::string list(const std::vector<double>& values) {
    std::string text;
    for (double v : values) text += fmt::format("{}{:.3f}", text.empty() ? "" : " ", v);
    return text;
}

const char* methodName(CatalogueSession::Method method) {
    switch (method) {
    case CatalogueSession::Method::ioUring: return "io_uring";
    case CatalogueSession::Method::twoWalkers: return "two walkers";
    case CatalogueSession::Method::plainStatx: break;
    }
    return "plain statx";
}

}  // namespace

int main(int argc, char** argv) {
    std::string root;
    bool made = false;
    if (argc > 1) {
        root = argv[1];
    } else {
        std::string base = (std::filesystem::temp_directory_path() / "filesizer-bench-XXXXXX").string();
        if (!mkdtemp(base.data())) return 2;
        root = base;
        made = true;
        fmt::print("making {} files in {} directories below {}\n", kTopDirectories * kDirectoriesEach * kFilesEach,
                   kTopDirectories * kDirectoriesEach + kTopDirectories, root);
        makeTree(root);
    }
    fmt::print("{}\n", CatalogueSession::processMethodDescription());

    uint64_t expected = findAllocated(root);
    // Warm the caches for both before timing either.
    std::string duLine = output("du -s '" + root + "'");
    FileSizer::sizeForPath(root);

    Timing du, sizer, two, ring, plain;
    uint64_t sizerTotal = 0, twoTotal = 0, ringTotal = 0, plainTotal = 0;
    for (int run = 0; run < kRuns; ++run) {
        measure(du, RUSAGE_CHILDREN, [&] { duLine = output("du -s '" + root + "'"); });
        CatalogueSession::setMethodForTesting(std::nullopt);
        measure(sizer, RUSAGE_SELF, [&] { sizerTotal = FileSizer::sizeForPath(root); });
        CatalogueSession::setMethodForTesting(CatalogueSession::Method::twoWalkers);
        measure(two, RUSAGE_SELF, [&] { twoTotal = FileSizer::sizeForPath(root); });
        CatalogueSession::setMethodForTesting(CatalogueSession::Method::ioUring);
        measure(ring, RUSAGE_SELF, [&] { ringTotal = FileSizer::sizeForPath(root); });
        CatalogueSession::setMethodForTesting(CatalogueSession::Method::plainStatx);
        measure(plain, RUSAGE_SELF, [&] { plainTotal = FileSizer::sizeForPath(root); });
    }

    double duWall = median(du.wall), duCpu = median(du.cpu);
    auto report = [&](const char* name, const Timing& t) {
        fmt::print("{:<22} wall median {:.3f} s [{}] ratio {:.2f}; cpu median {:.3f} s ratio {:.2f}\n", name,
                   median(t.wall), list(t.wall), median(t.wall) / duWall, median(t.cpu), median(t.cpu) / duCpu);
    };
    fmt::print("{:<22} wall median {:.3f} s [{}]; cpu median {:.3f} s  ({} KiB, directories included)\n", "du -s",
               duWall, list(du.wall), duCpu, duLine.substr(0, duLine.find('\t')));
    report("FileSizer (process)", sizer);
    report("FileSizer two walkers", two);
    report("FileSizer io_uring", ring);
    report("FileSizer plain statx", plain);
    fmt::print("FileSizer (process), both processors idle: wall ratio {:.2f} (target <= 0.60), cpu ratio {:.2f} "
               "(target <= 1.10)\n",
               median(sizer.wall) / duWall, median(sizer.cpu) / duCpu);
    fmt::print("load average {}", output("cat /proc/loadavg"));

    // One processor busy.
    pid_t spinner = fork();
    if (spinner == 0) {
        std::atomic<uint64_t> n{0};
        for (;;) n.fetch_add(1, std::memory_order_relaxed);
    }
    usleep(100000);
    auto busyMethod = CatalogueSession::methodForMachine(int(std::thread::hardware_concurrency()),
                                                         CatalogueSession::otherRunnableTasksNow());
    CatalogueSession::setMethodForTesting(busyMethod);
    Timing duBusy, sizerBusy;
    uint64_t busyTotal = 0;
    for (int run = 0; run < kRuns; ++run) {
        measure(duBusy, RUSAGE_CHILDREN, [&] { output("du -s '" + root + "'"); });
        measure(sizerBusy, RUSAGE_SELF, [&] { busyTotal = FileSizer::sizeForPath(root); });
    }
    kill(spinner, SIGKILL);
    waitpid(spinner, nullptr, 0);
    CatalogueSession::setMethodForTesting(std::nullopt);
    fmt::print("one processor busy: du -s wall median {:.3f} s [{}]; FileSizer ({}) wall median {:.3f} s [{}], "
               "ratio {:.2f} (target <= 0.95)\n",
               median(duBusy.wall), list(duBusy.wall),
               methodName(busyMethod), median(sizerBusy.wall),
               list(sizerBusy.wall), median(sizerBusy.wall) / median(duBusy.wall));

    bool agree = sizerTotal == expected && twoTotal == expected && ringTotal == expected && plainTotal == expected &&
                 busyTotal == expected;
    fmt::print("bytes: find {}  FileSizer {}  two walkers {}  io_uring {}  plain statx {}  one busy {}  {}\n",
               expected, sizerTotal, twoTotal, ringTotal, plainTotal, busyTotal, agree ? "equal" : "DIFFERENT");

    if (made) std::filesystem::remove_all(root);
    return agree ? 0 : 1;
}
