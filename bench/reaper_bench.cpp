// The reaper chain on a benchmark volume: 120 system receipts listing 400,000 BOM
// entries in all, 150,000 files on disk.
//
//   reaper_bench [VOLUME_DIR]
//   reaper_bench --build VOLUME_DIR SCALE
//
// Builds the volume in VOLUME_DIR (default: a temporary directory, removed at the end;
// an existing VOLUME_DIR is reused), then measures, as medians of several warm runs:
//   1. _findSystemPaths against a plain enumeration of the same BOM files (target ≤ 1.5×);
//   2. systemPaths answered from the cache against the first, uncached one (target ≤ 0.2×);
//   3. the reaper command without and with its cache against `du -s` over exactly the
//      reapable paths it printed (targets ≤ 0.75× and ≤ 0.60×).
// With --build it only builds the volume, with SCALE times as many BOM entries and files
// (0.25, 1, 4, ...), for the scaling table of bench/speed_report.sh.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "support/TempDir.h"
#include "support/VolumeBuilder.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRuns = 5;
constexpr size_t kPackages = 120;
constexpr size_t kBOMEntries = 400000;
constexpr size_t kFilesOnDisk = 150000;

double seconds(const std::function<void()>& work) {
    auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(const std::function<void()>& work) {
    std::vector<double> times;
    for (int i = 0; i < kRuns; ++i) times.push_back(seconds(work));
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// Each package installs a framework (a "System" path, reported whole), a kernel
// extension, a tool folder under /usr/share and files under /usr/lib; a third of its
// entries exist on disk with real contents, the rest are listed in its BOM only.
void buildVolume(const std::string& root, double scale = 1) {
    testsupport::VolumeBuilder volume(root);
    volume.systemVersion("10.6.8");
    volume.directory("/Library/Caches");
    const size_t perPackage = size_t(double(kBOMEntries) * scale) / kPackages;
    const size_t onDiskPerPackage = size_t(double(kFilesOnDisk) * scale) / kPackages;
    for (size_t p = 0; p < kPackages; ++p) {
        std::string id = p == 0 ? "com.quarn.pkg.BaseSystem"
                         : p == 1 ? "com.quarn.pkg.Essentials"
                         : p == 2 ? "com.quarn.pkg.BSD"
                                  : "com.quarn.pkg.Part" + std::to_string(p);
        auto package = volume.package(id).groups({"com.quarn.FindSystemFiles.pkg-group"});
        std::string n = std::to_string(p);
        size_t onDisk = 0;
        for (size_t f = 0; f < onDiskPerPackage; ++f, ++onDisk) {
            std::string folder = f % 3 == 0 ? "/usr/share/tool" + n + "/d" + std::to_string(f / 100)
                                 : f % 3 == 1 ? "/System/Library/Extensions/k" + n + ".kext/Contents/d" + std::to_string(f / 100)
                                              : "/usr/lib/lib" + n + "/d" + std::to_string(f / 100);
            package.file(folder + "/f" + std::to_string(f), 1000 + (f * 37) % 4000, {.fill = true});
        }
        package.generate(perPackage - onDisk - 60, "/System/Library/Frameworks/F" + n + ".framework", 50);
    }
    volume.build();
    fprintf(stderr, "reaper_bench: built %s with %zu BOM entries\n", root.c_str(), volume.bomEntryCount());
}

std::string runReaper(const std::string& root) {
    std::string command = std::string(FERRYHOLD_BENCH_BINARY_DIR) + "/reaper '" + root + "' 10.7 2>/dev/null";
    std::string out = testsupport::runCommand(command);
    return out;
}

std::vector<std::string> reapablePaths(const std::string& document) {
    std::vector<std::string> paths;
    auto doc = platform::plist::readBytes(std::span(reinterpret_cast<const uint8_t*>(document.data()), document.size()));
    if (!doc || !doc->dictionary()) return paths;
    if (auto* list = doc->dictionary()->findArray("ReapablePaths"))
        for (const auto& p : *list) paths.push_back(*p.string());
    return paths;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--build") {
        double scale = atof(argv[3]);
        if (scale <= 0 || std::filesystem::exists(argv[2])) {
            fprintf(stderr, "reaper_bench: --build needs a new directory and a scale above 0\n");
            return 2;
        }
        buildVolume(std::filesystem::absolute(argv[2]), scale);
        return 0;
    }
    std::unique_ptr<testsupport::TempDir> temp;
    std::string root;
    if (argc > 1) {
        root = std::filesystem::absolute(argv[1]);
    } else {
        temp = std::make_unique<testsupport::TempDir>();
        root = temp->path() + "/volume";
    }
    if (!std::filesystem::exists(root)) buildVolume(root);
    platform::setConsoleSink([](std::string_view) {});
    std::string cache = root + FHSystemPathCache::kCachePath;

    // 1. The finder's walk against a plain walk of the same BOM files.
    auto finder = FHFindSystemFiles::initWithRootPath(root);
    if (!finder || !finder->systemReceipts()) {
        fprintf(stderr, "reaper_bench: no sane system receipts on %s\n", root.c_str());
        return 1;
    }
    size_t entries = 0;
    double plain = median([&] {
        entries = 0;
        for (const auto& receipt : *finder->systemReceipts()) {
            auto walk = receipt->_directoryEnumerator();
            while (walk && walk->nextObject()) ++entries;
            walk.reset();
            receipt->_freeBOM();
        }
    });
    size_t found = 0;
    double walk = median([&] { found = finder->_findSystemPaths().value_or(std::vector<std::string>{}).size(); });
    printf("system receipts: %zu, BOM entries walked: %zu, system paths: %zu\n", finder->systemReceipts()->size(),
           entries, found);
    printf("_findSystemPaths %.3f s, plain BOM enumeration %.3f s, ratio %.2f (target <= 1.5)\n", walk, plain,
           walk / plain);

    // 2. systemPaths without and with the cache.
    std::filesystem::remove(cache);
    double first = seconds([&] { FHFindSystemFiles::initWithRootPath(root)->systemPaths(); });
    double cached = median([&] { FHFindSystemFiles::initWithRootPath(root)->systemPaths(); });
    printf("systemPaths first %.3f s, from the cache %.3f s, ratio %.3f (target <= 0.2)\n", first, cached,
           cached / first);

    // 3. The reaper command against du over the paths it reports.
    std::vector<std::string> paths = reapablePaths(runReaper(root));
    std::string du = "du -s";
    size_t existing = 0;
    for (const auto& p : paths)
        if (std::filesystem::exists(std::filesystem::symlink_status(root + p))) {
            du += " '" + root + p + "'";
            ++existing;
        }
    du += " >/dev/null 2>&1";
    double duTime = median([&] { testsupport::runCommand(du); });
    double uncached = median([&] {
        std::filesystem::remove(cache);
        runReaper(root);
    });
    double withCache = median([&] { runReaper(root); });
    printf("reapable paths: %zu (%zu on disk)\n", paths.size(), existing);
    printf("reaper without cache %.3f s, du -s %.3f s, ratio %.2f (target <= 0.75)\n", uncached, duTime,
           uncached / duTime);
    printf("reaper with cache %.3f s, du -s %.3f s, ratio %.2f (target <= 0.60)\n", withCache, duTime,
           withCache / duTime);
    return 0;
}
