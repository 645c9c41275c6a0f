#include "Platform/CatalogueIterator.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/CatalogueSession.h"
#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/WalkHook.h"

namespace platform {

namespace {

// The fixed part of a record getdents64 fills (glibc does not declare it); the
// zero-terminated name follows right after d_type.
struct LinuxDirent64 {
    uint64_t d_ino;
    int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
};
constexpr size_t kNameOffset = offsetof(LinuxDirent64, d_type) + 1;

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::atomic<bool> ignoreEntryTypes{false};
std::atomic<bool> bufferFailure{false};

std::mutex& failingNameMutex() {
    static std::mutex mutex;
    return mutex;
}
std::optional<std::string>& failingName() {
    static std::optional<std::string> name;
    return name;
}
std::atomic<bool> failingNameSet{false};

bool isFailingName(const char* name) {
    if (!failingNameSet.load(std::memory_order_relaxed)) return false;
    std::lock_guard lock(failingNameMutex());
    return failingName() && *failingName() == name;
}

bool isDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

}  // namespace

std::shared_ptr<CatalogueIterator> CatalogueIterator::create(CatalogueSession* session) {
    if (bufferFailure.load()) {
        errno = ENOMEM;
        return nullptr;
    }
    void* buffer = mmap(nullptr, kBufferSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (buffer == MAP_FAILED) return nullptr;
    return std::shared_ptr<CatalogueIterator>(new CatalogueIterator(session, static_cast<char*>(buffer)));
}

CatalogueIterator::CatalogueIterator(CatalogueSession* session, char* buffer) : session_(session), buffer_(buffer) {}

CatalogueIterator::~CatalogueIterator() {
    close();
    munmap(buffer_, kBufferSize);
}

bool CatalogueIterator::open(const std::string& path) {
    return _openAt(AT_FDCWD, path.c_str(), platform::path::lastComponent(path).c_str());
}

bool CatalogueIterator::open(const CatalogueIterator& parent, const char* name) {
    return _openAt(parent.descriptor_, name, name);
}

bool CatalogueIterator::open(fs::File directory) {
    close();
    _reset(directory.release());
    return descriptor_ >= 0;
}

std::optional<fs::File> CatalogueIterator::openChild(const char* name) const {
    int descriptor = _openDirectory(descriptor_, name, name);
    if (descriptor < 0) return std::nullopt;
    return fs::File::adopt(descriptor, name);
}

int CatalogueIterator::_openDirectory(int parentDescriptor, const char* path, const char* name) {
    if (isFailingName(name)) {
        errno = EACCES;
        return -1;
    }
    return openat(parentDescriptor, path, kDirectoryFlags);
}

bool CatalogueIterator::_openAt(int parentDescriptor, const char* path, const char* name) {
    close();
    _reset(_openDirectory(parentDescriptor, path, name));
    return descriptor_ >= 0;
}

void CatalogueIterator::_reset(int descriptor) {
    descriptor_ = descriptor;
    position_ = filled_ = 0;
    endOfDirectory_ = false;
}

CatalogueIterator::Status CatalogueIterator::fetch(std::span<CatalogueEntry> entries, size_t* count) {
    *count = 0;
    if (!isOpen()) return Status::error;
    while (*count < entries.size()) {
        if (position_ >= filled_) {
            // The names handed out so far point into the buffer: a batch ends where it is drained.
            if (*count > 0) break;
            if (endOfDirectory_) return Status::noMoreItems;
            // Names of earlier batches may still wait in the session's queue; they must
            // reach the kernel before the buffer holding them is read into again.
            if (session_) session_->submit();
            if (!_refill(&endOfDirectory_)) return Status::error;
            continue;
        }
        auto* record = reinterpret_cast<LinuxDirent64*>(buffer_ + position_);
        position_ += record->d_reclen;
        const char* name = buffer_ + position_ - record->d_reclen + kNameOffset;
        if (isDotOrDotDot(name)) continue;
        _describe(name, record->d_type, &entries[(*count)++]);
    }
    return Status::ok;
}

bool CatalogueIterator::_refill(bool* endOfDirectory) {
    long n = syscall(SYS_getdents64, descriptor_, buffer_, kBufferSize);
    if (n < 0) return false;
    position_ = 0;
    filled_ = size_t(n);
    *endOfDirectory = n == 0;
    return true;
}

void CatalogueIterator::_describe(const char* name, unsigned char type, CatalogueEntry* entry) const {
    fs::detail::walkReached(name);
    entry->name = name;
    entry->allocatedSize.reset();
    if (type != DT_UNKNOWN && !ignoreEntryTypes.load(std::memory_order_relaxed)) {
        entry->isDirectory = type == DT_DIR;
        return;
    }
    // The file system gave no type: ask for it, and take the block count on the way.
    struct statx sx {};
    if (statx(descriptor_, name, AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_BLOCKS, &sx) != 0) {
        entry->isDirectory = false;
        entry->allocatedSize = 0;
        return;
    }
    entry->isDirectory = S_ISDIR(sx.stx_mode);
    if (!entry->isDirectory) entry->allocatedSize = uint64_t(sx.stx_blocks) * 512;
}

void CatalogueIterator::close() {
    if (descriptor_ < 0) return;
    if (session_)
        session_->releaseDescriptor(descriptor_);
    else
        fs::File::adopt(descriptor_, {}).close();
    descriptor_ = -1;
}

std::optional<CatalogueItem> CatalogueIterator::itemAtPath(const std::string& path, Error* error) {
    struct statx sx {};
    if (path.empty() || statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE | STATX_SIZE, &sx) != 0) {
        if (error) *error = fs::posixError(path.empty() ? ENOENT : errno, path);
        return std::nullopt;
    }
    return CatalogueItem{S_ISDIR(sx.stx_mode), uint64_t(sx.stx_size)};
}

void CatalogueIterator::setFailingDirectoryNameForTesting(std::optional<std::string> name) {
    std::lock_guard lock(failingNameMutex());
    failingNameSet = name.has_value();
    failingName() = std::move(name);
}

void CatalogueIterator::setIgnoreEntryTypesForTesting(bool ignore) { ignoreEntryTypes = ignore; }

void CatalogueIterator::setBufferFailureForTesting(bool fail) { bufferFailure = fail; }

}  // namespace platform
