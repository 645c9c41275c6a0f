// Fuzzes the system path cache on an analysed volume: its reader and the tests on the
// file before it is believed. The first byte chooses how the file is planted (mode,
// owner, age, a symbolic link or a FIFO in its place, whether the receipts' date is
// known); the rest is the cache's content.
#include <cstdint>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "FuzzSupport.h"

namespace {

enum : uint8_t {
    kLooseMode = 1,       // 0664 instead of 0644
    kOtherOwner = 2,      // owned by user and group 1
    kLink = 4,            // a symbolic link to the content instead of the file
    kOld = 8,             // last modified in 2001, before the rule data
    kReceiptDate = 16,    // the receipts' latest install date is known (2005)
    kFIFO = 32,           // a FIFO in the cache's place
};

constexpr const char* kCache = "Library/Caches/com.quarn.FindSystemFiles.plist";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    uint8_t how = data[0];
    std::string_view content(reinterpret_cast<const char*>(data + 1), size - 1);
    fuzzsupport::Scratch scratch;
    if (!scratch.ok() || !scratch.makeDirectory("Library/Caches")) return 0;
    std::string cache = scratch / kCache;
    std::string file = (how & kLink) ? scratch / "elsewhere.plist" : cache;
    if (how & kFIFO) {
        if (mkfifo(cache.c_str(), 0644) != 0) return 0;
    } else {
        if (!scratch.write((how & kLink) ? "elsewhere.plist" : kCache, content)) return 0;
        if ((how & kLink) && symlink(file.c_str(), cache.c_str()) != 0) return 0;
    }
    chmod(file.c_str(), (how & kLooseMode) ? 0664 : 0644);
    if (how & kOtherOwner) (void)!chown(file.c_str(), 1, 1);
    if (how & kOld) {
        utimbuf times{978307200, 978307200};
        utime(file.c_str(), &times);
    }
    std::optional<platform::Date> receiptDate;
    if (how & kReceiptDate) receiptDate = platform::Date{1104537600};
    FHSystemPathCache reader(scratch.path(), receiptDate);
    if (auto paths = reader.read())
        for (const auto& path : *paths) (void)path.size();
    return 0;
}
