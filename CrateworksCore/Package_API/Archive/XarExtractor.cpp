#include "CrateworksCore/Package_API/Archive/XarExtractor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

#include "CrateworksCore/Package_API/Archive/ArchiveErrors.h"
#include "CrateworksCore/Package_API/Archive/XarLimits.h"
#include "Platform/Digest.h"
#include "Platform/Log.h"

namespace crateworks::xar {

namespace {
constexpr size_t kDecodeWindow = 64;
constexpr unsigned kDecodeThreads = 2;

bool writeAll(int fd, const uint8_t* bytes, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, bytes, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes += n;
        size -= size_t(n);
    }
    return true;
}

bool isRegular(File file) { return file->type == "file" || (file->type == "hardlink" && file->data); }

bool fitsInMemory(File file) { return !file->data || file->data->size <= kMaxInMemoryEntrySize; }

// Decodes the in-memory files of an archive ahead of the writer, in TOC order.
class DecodeAhead {
public:
    DecodeAhead(const XarHandle& archive, std::vector<File> files)
        : archive_(archive), files_(std::move(files)), results_(files_.size()), ready_(files_.size(), false) {
        for (unsigned i = 0; i < std::min<size_t>(kDecodeThreads, files_.size()); ++i)
            threads_.emplace_back([this] { _work(); });
    }
    ~DecodeAhead() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        for (auto& t : threads_) t.join();
    }

    // The decoded bytes of files[index] (absent when the entry is damaged); indexes are
    // taken in order.
    std::optional<platform::Data> take(size_t index) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return ready_[index]; });
        consumed_ = index + 1;
        changed_.notify_all();
        return std::move(results_[index]);
    }

private:
    void _work() {
        for (;;) {
            size_t index;
            {
                std::unique_lock lock(mutex_);
                changed_.wait(lock, [&] { return stopping_ || (next_ < files_.size() && next_ < consumed_ + kDecodeWindow); });
                if (stopping_) return;
                index = next_++;
            }
            auto bytes = archive_.extractToBuffer(files_[index], true);
            {
                std::lock_guard lock(mutex_);
                results_[index] = std::move(bytes);
                ready_[index] = true;
            }
            changed_.notify_all();
        }
    }

    const XarHandle& archive_;
    std::vector<File> files_;
    std::vector<std::optional<platform::Data>> results_;
    std::vector<bool> ready_;
    size_t next_ = 0;
    size_t consumed_ = 0;
    bool stopping_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::thread> threads_;
};
}  // namespace

XarExtractor::XarExtractor(const XarHandle& archive, platform::ExtractionRoot& root)
    : archive_(archive), root_(root) {}

mode_t XarExtractor::modeOf(File file, mode_t fallback) {
    const Property* p = file->find("mode");
    if (!p || !p->value || p->value->empty()) return fallback;
    mode_t mode = 0;
    for (char c : *p->value) {
        if (c < '0' || c > '7') return fallback;
        mode = mode_t((mode << 3) | mode_t(c - '0'));
        if (mode > 07777) return fallback;
    }
    return mode;
}

std::optional<platform::Date> XarExtractor::modificationDateOf(File file) {
    const Property* p = file->find("mtime");
    if (!p || !p->value) return std::nullopt;
    return platform::Date::fromISO8601(*p->value);
}

bool XarExtractor::_writeFile(File file, const std::string& relativePath, const platform::Data& bytes,
                              platform::Error* error) {
    auto pending = root_.createFile(relativePath, error);
    if (!pending) return false;
    if (!writeAll(pending->fd, bytes.data(), bytes.size())) {
        int saved = errno;
        root_.discard(*pending);
        setPOSIXError(error, saved, relativePath);
        return false;
    }
    return root_.commit(*pending, modeOf(file, 0644), modificationDateOf(file), error);
}

bool XarExtractor::_streamFile(File file, const std::string& relativePath, platform::Error* error) {
    const DataInfo& d = *file->data;
    auto archivedAlgorithm = platform::digest::fromName(d.archivedChecksumStyle);
    auto extractedAlgorithm = platform::digest::fromName(d.extractedChecksumStyle);
    if ((!d.archivedChecksum.empty() && !archivedAlgorithm) || (!d.extractedChecksum.empty() && !extractedAlgorithm)) {
        setCorruptFileError(error, file->path);
        return false;
    }
    auto pending = root_.createFile(relativePath, error);
    if (!pending) return false;
    platform::digest::Hasher archived(archivedAlgorithm.value_or(platform::digest::Algorithm::SHA1));
    platform::digest::Hasher extracted(extractedAlgorithm.value_or(platform::digest::Algorithm::SHA1));
    uint64_t position = 0;
    bool writeFailed = false;
    auto read = [&](uint8_t* buffer, size_t capacity) -> int64_t {
        uint64_t n = std::min<uint64_t>(capacity, d.length - position);
        if (n > 0 && !archive_.readHeap(d.offset + position, n, buffer)) return -1;
        position += n;
        archived.update({buffer, size_t(n)});
        return int64_t(n);
    };
    auto write = [&](std::span<const uint8_t> bytes) {
        extracted.update(bytes);
        writeFailed = !writeAll(pending->fd, bytes.data(), bytes.size());
        return !writeFailed;
    };
    bool ok = decodeStream(d.encoding, d.size, read, write);
    int saved = errno;
    ok = ok && (d.archivedChecksum.empty() || platform::digest::hex(archived.finish()) == d.archivedChecksum) &&
         (d.extractedChecksum.empty() || platform::digest::hex(extracted.finish()) == d.extractedChecksum);
    if (!ok) {
        root_.discard(*pending);
        if (writeFailed) setPOSIXError(error, saved, relativePath);
        else setCorruptFileError(error, file->path);
        return false;
    }
    return root_.commit(*pending, modeOf(file, 0644), modificationDateOf(file), error);
}

bool XarExtractor::_extractSimple(File file, const std::string& relativePath, platform::Error* error) {
    if (file->type == "directory") return root_.makeDirectory(relativePath, modeOf(file, 0755), error);
    if (file->type == "symlink") {
        const Property* link = file->find("link");
        if (!link || !link->value) {
            setCorruptFileError(error, file->path);
            return false;
        }
        return root_.makeSymbolicLink(relativePath, *link->value, modificationDateOf(file), error);
    }
    platform::consoleLogf("warning: {} is a {} entry; left out", file->path, file->type);
    return true;
}

bool XarExtractor::extractEntry(File file, const std::string& relativePath, platform::Error* error) {
    if (isRegular(file)) {
        if (!fitsInMemory(file)) return _streamFile(file, relativePath, error);
        auto bytes = archive_.extractToBuffer(file, true);
        if (!bytes) {
            setCorruptFileError(error, file->path);
            return false;
        }
        return _writeFile(file, relativePath, *bytes, error);
    }
    if (!_extractSimple(file, relativePath, error)) return false;
    if (file->type == "directory")
        return root_.setDirectoryAttributes(relativePath, modeOf(file, 0755), modificationDateOf(file), error);
    return true;
}

bool XarExtractor::extractAll(std::string* failedPath, platform::Error* error) {
    std::vector<File> inMemory;
    for (File f = archive_.first(); f; f = archive_.next(f))
        if (isRegular(f) && fitsInMemory(f)) inMemory.push_back(f);
    DecodeAhead ahead(archive_, inMemory);
    size_t nextDecoded = 0;
    std::vector<File> directories;
    auto failed = [&](File f) {
        if (failedPath) *failedPath = f->path;
        return false;
    };
    for (File f = archive_.first(); f; f = archive_.next(f)) {
        bool ok;
        if (isRegular(f) && fitsInMemory(f)) {
            auto bytes = ahead.take(nextDecoded++);
            if (!bytes) setCorruptFileError(error, f->path);
            ok = bytes && _writeFile(f, f->path, *bytes, error);
        } else if (isRegular(f)) {
            ok = _streamFile(f, f->path, error);
        } else {
            ok = _extractSimple(f, f->path, error);
            if (ok && f->type == "directory") directories.push_back(f);
        }
        if (!ok) return failed(f);
    }
    // Deepest first, so that a read-only directory has received everything below it.
    std::stable_sort(directories.begin(), directories.end(), [](File a, File b) { return a->depth > b->depth; });
    for (File d : directories)
        if (!root_.setDirectoryAttributes(d->path, modeOf(d, 0755), modificationDateOf(d), error)) return failed(d);
    return true;
}

}  // namespace crateworks::xar
