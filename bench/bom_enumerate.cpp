// Walking a large BOM against reading its bytes once, and against listing the same tree
// with `find`.
//
// Builds a tree of 500,150 entries in a temporary directory, makes its BOM with the
// project's writer, then times walking every entry with full paths through
// CWBOMDirectoryEnumerator's visitor (opening the BOM included) against the floor of
// mapping the file as the reader does and reading every byte of it once, and against
// `find DIR > /dev/null`, median of several runs each, taken in turns. Peak memory of
// one walk is measured in a fresh child process (VmHWM less the VmRSS before opening)
// and set against the BOM file's size. Targets: at most 1.5x the floor, memory at most
// 1.2x the file.
//   bom_enumerate --walk FILE [RUNS]   only walks an existing BOM and reads its bytes,
//                                      RUNS times each, and prints the medians.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "Platform/MappedFile.h"
#include "bench/BenchSupport.h"

namespace {

namespace stdfs = std::filesystem;
using bench::Clock;
using bench::median;
using bench::secondsSince;

constexpr int kTop = 50, kMiddle = 100, kFiles = 99;  // 50 + 5,000 + 495,000 entries
constexpr int kRuns = 7;

// The files are hard links to a handful of originals: making and removing half a
// million inodes would take far longer than the measurement, and neither walk being
// compared looks at inodes.
void buildTree(const stdfs::path& root) {
    stdfs::path originals = root / "originals";
    stdfs::create_directories(originals);
    for (int f = 0; f < kFiles; ++f) std::ofstream(originals / std::to_string(f)) << f;
    for (int t = 0; t < kTop; ++t)
        for (int m = 0; m < kMiddle; ++m) {
            stdfs::path dir = root / ("top" + std::to_string(t)) / ("middle" + std::to_string(m));
            stdfs::create_directories(dir);
            for (int f = 0; f < kFiles; ++f)
                stdfs::create_hard_link(originals / std::to_string(f), dir / ("file" + std::to_string(f) + ".dat"));
        }
}

// Walks every entry; answers the number of entries and adds up path lengths so the
// paths are really made.
std::pair<size_t, size_t> walkAll(const std::string& bomPath) {
    auto bom = crateworks::CWBOM::initWithBOMPath(bomPath);
    if (!bom) return {0, 0};
    auto walk = bom->directoryEnumerator();
    size_t count = 0, bytes = 0;
    walk->forEachRemaining([&](const crateworks::bom::BOMEntryView& entry) {
        ++count;
        bytes += entry.relativePath().size();
        return crateworks::bom::BOMVisit::kContinue;
    });
    return {count, bytes};
}

// The floor: the file mapped as the reader maps it, every byte read once.
uint64_t readOnce(const std::string& bomPath) {
    auto file = platform::MappedFile::open(bomPath, platform::MappedFile::Pages::onDemand);
    if (!file) return 0;
    auto bytes = file->bytes();
    uint64_t sum = 0;
    size_t at = 0;
    for (; at + 8 <= bytes.size(); at += 8) {
        uint64_t word;
        std::memcpy(&word, bytes.data() + at, 8);
        sum += word;
    }
    for (; at < bytes.size(); ++at) sum += bytes[at];
    return sum;
}

long statusKilobytes(const char* field) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::string(field).size() + 1));
    return -1;
}

int measureMemory(const std::string& bomPath) {
    long before = statusKilobytes("VmRSS");
    auto [count, bytes] = walkAll(bomPath);
    long peak = statusKilobytes("VmHWM");
    std::printf("%ld %zu %zu\n", peak - before, count, bytes);
    return 0;
}

// Walks an existing BOM and reads its bytes, again and again in turns (for a profiler),
// and prints the medians.
int walkOnly(const std::string& bomPath, const char* runsText) {
    char* end = nullptr;
    long runs = runsText ? std::strtol(runsText, &end, 10) : 100;
    if (runsText && (*runsText == '\0' || *end != '\0' || runs < 1 || runs > 100000)) {
        std::fprintf(stderr, "bom_enumerate: RUNS must be a number from 1 to 100000, not \"%s\"\n", runsText);
        return 2;
    }
    if (!crateworks::CWBOM::initWithBOMPath(bomPath) || walkAll(bomPath).first == 0) {
        std::fprintf(stderr, "bom_enumerate: %s: not a BOM that can be walked\n", bomPath.c_str());
        return 1;
    }
    std::vector<double> bomTimes, floorTimes;
    uint64_t checksum = 0;
    for (long run = 0; run < runs; ++run) {
        auto start = Clock::now();
        checksum += walkAll(bomPath).second;
        bomTimes.push_back(secondsSince(start));
        start = Clock::now();
        checksum += readOnce(bomPath);
        floorTimes.push_back(secondsSince(start));
    }
    std::printf("BOM walk %.2f ms, reading the bytes once %.2f ms: %.2fx (%llx)\n", median(bomTimes) * 1e3,
                median(floorTimes) * 1e3, median(bomTimes) / median(floorTimes), (unsigned long long)checksum);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--measure-memory") return measureMemory(argv[2]);
    if ((argc == 3 || argc == 4) && std::string(argv[1]) == "--walk") return walkOnly(argv[2], argc == 4 ? argv[3] : nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    std::string pattern = (stdfs::temp_directory_path() / "bom-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return 1;
    stdfs::path work = pattern, tree = work / "tree";
    std::string bomPath = (work / "tree.bom").string();

    auto start = Clock::now();
    buildTree(tree);
    std::printf("tree of %d entries built in %.1f s\n", 1 + kFiles + kTop + kTop * kMiddle + kTop * kMiddle * kFiles,
                secondsSince(start));
    start = Clock::now();
    auto made = crateworks::CWMutableBOM::initWithDirectory(tree.string(), bomPath, false, std::nullopt);
    if (!made || !made->commitData()) {
        std::fprintf(stderr, "cannot make the BOM\n");
        stdfs::remove_all(work);
        return 1;
    }
    made.reset();
    uintmax_t bomSize = stdfs::file_size(bomPath);
    std::printf("BOM made in %.1f s: %.1f MiB\n", secondsSince(start), double(bomSize) / (1 << 20));

    std::string find = "find '" + tree.string() + "' > /dev/null";
    if (std::system(find.c_str()) != 0) return 1;  // warms the caches for both sides
    walkAll(bomPath);
    std::vector<double> bomTimes, floorTimes, findTimes;
    size_t entries = 0;
    uint64_t checksum = 0;
    for (int run = 0; run < kRuns; ++run) {
        start = Clock::now();
        entries = walkAll(bomPath).first;
        bomTimes.push_back(secondsSince(start));
        start = Clock::now();
        checksum += readOnce(bomPath);
        floorTimes.push_back(secondsSince(start));
        start = Clock::now();
        if (std::system(find.c_str()) != 0) return 1;
        findTimes.push_back(secondsSince(start));
    }
    double bomTime = median(bomTimes), floorTime = median(floorTimes), findTime = median(findTimes);
    std::printf("entries walked: %zu (sum of the bytes: %llx)\n", entries, (unsigned long long)checksum);
    std::printf("BOM walk with full paths: %.1f ms (median of %d)\n", bomTime * 1e3, kRuns);
    std::printf("reading the bytes once:   %.1f ms (median of %d)\n", floorTime * 1e3, kRuns);
    std::printf("find DIR > /dev/null:     %.1f ms (median of %d)\n", findTime * 1e3, kRuns);
    std::printf("BOM walk / reading the bytes once: %.2fx (target at most 1.5x)\n", bomTime / floorTime);
    std::printf("BOM walk / find: %.3fx\n", bomTime / findTime);

    std::string child = stdfs::read_symlink("/proc/self/exe").string() + " --measure-memory '" + bomPath + "'";
    if (FILE* pipe = popen(child.c_str(), "r")) {
        long growthKB = 0;
        if (std::fscanf(pipe, "%ld", &growthKB) == 1)
            std::printf("peak memory growth during the walk: %.1f MiB = %.2fx the BOM file (target at most 1.2x)\n",
                        double(growthKB) / 1024, double(growthKB) * 1024 / double(bomSize));
        pclose(pipe);
    }
    stdfs::remove_all(work);
    return 0;
}
