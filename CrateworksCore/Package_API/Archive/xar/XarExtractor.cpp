#include "CrateworksCore/Package_API/Archive/xar/XarExtractor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_set>
#include <unistd.h>
#include <vector>

#include "CrateworksCore/Package_API/Archive/xar/XarLimits.h"
#include "Platform/Digest.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"

namespace crateworks::xar {

namespace {
// Files are handed to the two writing threads in runs of this many entries.
constexpr size_t kFilesPerRun = 8;

bool isRegular(File file) { return file->type == "file" || (file->type == "hardlink" && file->data); }

bool fitsInMemory(File file) { return !file->data || file->data->size <= kMaxInMemoryEntrySize; }

}  // namespace

XarExtractor::XarExtractor(const XarReader& archive, platform::ExtractionRoot& root)
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
    // The bytes have passed their checksum already: nothing unchecked reaches the name.
    return root_.writeFile(relativePath, bytes, modeOf(file, 0644), modificationDateOf(file), error);
}

bool XarExtractor::_streamFile(File file, const std::string& relativePath, platform::Error* error) {
    const DataInfo& d = *file->data;
    auto archivedAlgorithm = platform::digest::fromName(d.archivedChecksumStyle);
    auto extractedAlgorithm = platform::digest::fromName(d.extractedChecksumStyle);
    if ((!d.archivedChecksum.empty() && !archivedAlgorithm) || (!d.extractedChecksum.empty() && !extractedAlgorithm)) {
        platform::setError(error, corruptEntryError(file->path));
        return false;
    }
    auto pending = root_.createFile(relativePath, modeOf(file, 0644), error);
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
        writeFailed = !pending->file.writeAll(bytes);
        return !writeFailed;
    };
    bool ok = decodeStream(d.encoding, d.size, read, write);
    int saved = errno;
    ok = ok && (d.archivedChecksum.empty() || platform::digest::hex(archived.finish()) == d.archivedChecksum) &&
         (d.extractedChecksum.empty() || platform::digest::hex(extracted.finish()) == d.extractedChecksum);
    if (!ok) {
        root_.discard(*pending);
        if (writeFailed) platform::setError(error, platform::fs::posixError(saved, relativePath));
        else platform::setError(error, corruptEntryError(file->path));
        return false;
    }
    return root_.commit(*pending, modeOf(file, 0644), modificationDateOf(file), error);
}

bool XarExtractor::_extractSimple(File file, const std::string& relativePath, platform::Error* error) {
    if (file->type == "directory") return root_.makeDirectory(relativePath, modeOf(file, 0755), error);
    if (file->type == "symlink") {
        const Property* link = file->find("link");
        if (!link || !link->value) {
            platform::setError(error, corruptEntryError(file->path));
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
        if (!archive_.extractInto(file, stored_, bytes_, false)) {
            platform::setError(error, corruptEntryError(file->path));
            return false;
        }
        return _writeFile(file, relativePath, bytes_, error);
    }
    return _extractSimple(file, relativePath, error);
}

bool XarExtractor::finishDirectory(File file, const std::string& relativePath, platform::Error* error) {
    return root_.setDirectoryAttributes(relativePath, modeOf(file, 0755), modificationDateOf(file), error);
}

bool XarExtractor::extractAll(std::string* failedPath, platform::Error* error) {
    std::vector<File> entries;
    std::unordered_set<std::string_view> seen;
    bool repeatedPaths = false;
    for (File f = archive_.first(); f; f = archive_.next(f)) {
        entries.push_back(f);
        repeatedPaths = !seen.insert(f->path).second || repeatedPaths;
    }
    auto failed = [&](File f) {
        if (failedPath) *failedPath = f->path;
        return false;
    };
    std::vector<File> directories, files, others;
    for (File f : entries) (f->type == "directory" ? directories : isRegular(f) ? files : others).push_back(f);

    if (repeatedPaths) {
        // A later entry replaces an earlier one of the same path, so order matters: one thread.
        for (File f : entries)
            if (!(isRegular(f) ? extractEntry(f, f->path, error) : _extractSimple(f, f->path, error))) return failed(f);
    } else {
        // Directories first (parents come before children in TOC order), then the files
        // on two threads, then links and the rest.
        for (File d : directories)
            if (!root_.makeDirectory(d->path, modeOf(d, 0755), error)) return failed(d);
        if (!_extractFilesInParallel(files, failedPath, error)) return false;
        for (File f : others)
            if (!_extractSimple(f, f->path, error)) return failed(f);
    }
    // Deepest first, so that a read-only directory has received everything below it.
    std::stable_sort(directories.begin(), directories.end(), [](File a, File b) { return a->depth > b->depth; });
    for (File d : directories)
        if (!finishDirectory(d, d->path, error)) return failed(d);
    return true;
}

bool XarExtractor::_extractFilesInParallel(const std::vector<File>& files, std::string* failedPath,
                                           platform::Error* error) {
    std::atomic<size_t> next{0};
    std::atomic<bool> stop{false};
    std::mutex mutex;
    size_t failedIndex = files.size();
    auto work = [&](platform::ExtractionRoot& root) {
        XarExtractor extractor(archive_, root);
        while (!stop) {
            size_t begin = next.fetch_add(kFilesPerRun);
            for (size_t i = begin; i < std::min(begin + kFilesPerRun, files.size()); ++i) {
                platform::Error entryError;
                if (extractor.extractEntry(files[i], files[i]->path, &entryError)) continue;
                std::lock_guard lock(mutex);
                // The first failing entry in TOC order is the one reported.
                if (i < failedIndex) {
                    failedIndex = i;
                    if (error) *error = std::move(entryError);
                }
                stop = true;
                return;
            }
            if (begin >= files.size()) return;
        }
    };
    std::unique_ptr<platform::ExtractionRoot> second = files.size() > kFilesPerRun ? root_.duplicate() : nullptr;
    std::thread helper;
    if (second) helper = std::thread(work, std::ref(*second));
    work(root_);
    if (helper.joinable()) helper.join();
    if (failedIndex == files.size()) return true;
    if (failedPath) *failedPath = files[failedIndex]->path;
    return false;
}

}  // namespace crateworks::xar
