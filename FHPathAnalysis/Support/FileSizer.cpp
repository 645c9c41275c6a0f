#include "FHPathAnalysis/Support/FileSizer.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <mutex>
#include <unistd.h>
#include <vector>

#include "Platform/CatalogueIterator.h"
#include "Platform/CatalogueSession.h"
#include "Platform/Log.h"
#include "Platform/Path.h"

using platform::CatalogueEntry;
using platform::CatalogueIterator;
using platform::CatalogueSession;

namespace {

// Where the catalogue keeps the targets of directory hard links; the name ends in a
// carriage return. Sized as 0 when it is the path asked for, never looked at.
constexpr std::string_view kPrivateDirectoryDataName = ".HFS+ Private Directory Data\r";

std::atomic<uint8_t> runFlag{0};

std::mutex& sizerLock() {
    static std::mutex lock;
    return lock;
}

bool running() { return runFlag.load(std::memory_order_relaxed) == 1; }

bool debugging() { return getenv("FHDebugFileSizer") != nullptr; }

void reportMethodOnce() {
    static std::atomic<bool> reported{false};
    if (!reported.exchange(true)) platform::consoleLog(CatalogueSession::processMethodDescription());
}

// One nesting level of a walk: its iterator and the batch it fetched last.
struct Level {
    std::shared_ptr<CatalogueIterator> iterator;
    std::array<CatalogueEntry, CatalogueIterator::kBatchSize> entries;
};

// What a directory walk needs, kept per thread and reused from one sizing to the next:
// the session that adds up sizes, and one level for each depth reached so far. Nothing
// is allocated per item; a level is made the first time a walk goes that deep.
class Walk {
public:
    pid_t owner() const { return session_.owner(); }
    CatalogueSession::Method requestedMethod() const { return session_.requestedMethod(); }
    bool busy = false;

    // Allocated bytes below the directory at `path`; 0 when it cannot be listed.
    uint64_t sizeOfDirectory(const std::string& path) {
        Level* top = _level(0);
        if (!top) return 0;
        if (!top->iterator->open(path)) {
            platform::consoleLog("FSOpenIterator failed.");
            return 0;
        }
        _walk(0);
        return session_.takeTotal();
    }

private:
    Level* _level(size_t depth) {
        while (levels_.size() <= depth) {
            auto iterator = CatalogueIterator::create(&session_);
            if (!iterator) {
                int code = errno;
                platform::consoleLogf("Error allocating buffer for size {} ({}:{})", CatalogueIterator::kBufferSize,
                                      code, strerror(code));
                return nullptr;
            }
            levels_.push_back(std::make_unique<Level>());
            levels_.back()->iterator = std::move(iterator);
        }
        return levels_[depth].get();
    }

    void _walk(size_t depth) {
        Level& current = *levels_[depth];
        for (;;) {
            size_t count = 0;
            auto status = current.iterator->fetch(current.entries, &count);
            if (status == CatalogueIterator::Status::error) break;
            for (size_t i = 0; i < count && running(); ++i) {
                const CatalogueEntry& entry = current.entries[i];
                if (entry.isDirectory)
                    _descend(depth + 1, current, entry.name);
                else
                    session_.addSizeOf(*current.iterator, entry);
            }
            session_.submit();
            if (status != CatalogueIterator::Status::ok || !running()) break;
        }
        current.iterator->close();
    }

    // An unreadable child counts 0 and its parent's walk goes on.
    void _descend(size_t depth, const Level& parent, const char* name) {
        Level* child = _level(depth);
        if (!child) return;
        if (!child->iterator->open(*parent.iterator, name)) {
            platform::consoleLog("FSOpenIterator failed.");
            return;
        }
        _walk(depth);
    }

    CatalogueSession session_;
    std::vector<std::unique_ptr<Level>> levels_;
};

uint64_t walkDirectory(const std::string& path) {
    thread_local std::unique_ptr<Walk> cached;
    // A walk inherited through fork shares its ring with the parent; one made before a
    // test chose another statx method does not use it.
    if (cached && !cached->busy &&
        (cached->owner() != getpid() || cached->requestedMethod() != CatalogueSession::methodForNewSessions()))
        cached.reset();
    if (!cached) cached = std::make_unique<Walk>();
    if (cached->busy) {
        // Sizing again from inside a walk (a log sink, say) needs a walk of its own.
        Walk nested;
        return nested.sizeOfDirectory(path);
    }
    struct Lease {
        Walk& walk;
        ~Lease() { walk.busy = false; }
    } lease{*cached};
    cached->busy = true;
    return cached->sizeOfDirectory(path);
}

}  // namespace

uint64_t FileSizer::sizeForPath(const std::string& path) {
    uint64_t result = 0;
    {
        std::lock_guard lock(sizerLock());
        runFlag = 1;
        platform::Error error;
        auto item = CatalogueIterator::itemAtPath(path, &error);
        if (!item) {
            if (debugging()) platform::consoleLogf("*** FSF Error on {} : {}", path, error.description());
        } else if (item->isDirectory) {
            result = directorySizeAtPath(path).value_or(0);
        } else {
            result = item->logicalSize;
        }
    }
    if (debugging()) platform::consoleLogf("sizeForPath returned {} for {}", result, path);
    return result;
}

uint64_t FileSizer::sizeForPaths(const std::vector<std::string>& paths) { return sizeForPaths(paths, std::nullopt); }

uint64_t FileSizer::sizeForPaths(const std::vector<std::string>& paths, const std::optional<std::string>& volume) {
    uint64_t total = 0;
    for (const std::string& path : paths) {
        total += sizeForPath(volume ? platform::path::appendComponent(*volume, path) : path);
        if (!running()) break;
    }
    return total;
}

std::optional<uint64_t> FileSizer::directorySizeAtPath(const std::string& path) {
    if (path.empty()) return std::nullopt;
    if (platform::path::lastComponent(path) == kPrivateDirectoryDataName) return 0;
    auto item = CatalogueIterator::itemAtPath(path);
    if (!item) return std::nullopt;
    if (!item->isDirectory) return item->logicalSize;
    bool debug = debugging();
    if (debug) reportMethodOnce();
    uint64_t size = walkDirectory(path);
    if (debug) platform::consoleLogf("FileSizerGetHFSFolderSize2 returned {} for {}", size, path);
    return size;
}

void FileSizer::cancel() { runFlag = 0; }
