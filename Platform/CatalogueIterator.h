// Bulk catalogue iteration over the immediate children of one directory: names and
// directory flags read with getdents64 from the directory's own descriptor, handed out
// in batches. The allocated sizes of the non-directory children are added up by a
// CatalogueSession, which an iterator hands its descriptor back to when it closes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Platform/Error.h"
#include "Platform/File.h"

namespace platform {

class CatalogueSession;

// One child of a directory.
struct CatalogueEntry {
    // Points into the iterator's listing buffer: valid until that iterator's next fetch.
    const char* name = nullptr;
    bool isDirectory = false;
    // Known already when the listing gave no type and statx had to tell (then also the
    // allocated size came with it); absent otherwise.
    std::optional<uint64_t> allocatedSize;
};

// The directory flag and logical size of one item.
struct CatalogueItem {
    bool isDirectory = false;
    uint64_t logicalSize = 0;
};

class CatalogueIterator {
public:
    // Children handed out by one fetch at most, in every walk of this system.
    static constexpr size_t kBatchSize = 25;
    // Bytes of the listing buffer each iterator owns.
    static constexpr size_t kBufferSize = 32 * 1024;

    enum class Status { ok, noMoreItems, error };

    // An iterator with its own listing buffer (kBufferSize bytes of anonymous memory),
    // reusable for one directory after another. Null when the buffer cannot be had;
    // errno then tells why. `session` (may be null) receives the descriptor on close.
    static std::shared_ptr<CatalogueIterator> create(CatalogueSession* session);
    ~CatalogueIterator();
    CatalogueIterator(const CatalogueIterator&) = delete;
    CatalogueIterator& operator=(const CatalogueIterator&) = delete;

    // Opens the directory at `path`, or the child `name` of the directory open in
    // `parent`, never following a final symbolic link. False (errno set) on failure.
    bool open(const std::string& path);
    bool open(const CatalogueIterator& parent, const char* name);
    // Opens the directory that `directory` holds open, taking its descriptor.
    bool open(fs::File directory);
    // The child directory `name` of the directory open here, opened as open() would,
    // for another walker to take over; absent (errno set) when it cannot be opened.
    std::optional<fs::File> openChild(const char* name) const;
    // Fills up to entries.size() children ("." and ".." left out) and stores their
    // number in *count. noMoreItems comes with the last children, if any; error means
    // the listing failed and the children of this fetch are lost.
    Status fetch(std::span<CatalogueEntry> entries, size_t* count);
    // Closes the directory; with a session, the descriptor stays open until the last
    // size request that refers to it has completed.
    void close();

    bool isOpen() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }

    // The item at `path` itself (a final symbolic link is not followed); absent, with
    // a POSIX error, when it cannot be read.
    static std::optional<CatalogueItem> itemAtPath(const std::string& path, Error* error = nullptr);

    // Seams for tests, process-wide. A directory whose own name is `name` fails to open
    // as if unreadable (EACCES); nullopt clears it.
    static void setFailingDirectoryNameForTesting(std::optional<std::string> name);
    // Treat every listed type as unknown, so that statx decides the directory flag.
    static void setIgnoreEntryTypesForTesting(bool ignore);
    // Make create() fail with ENOMEM.
    static void setBufferFailureForTesting(bool fail);

private:
    CatalogueIterator(CatalogueSession* session, char* buffer);
    static int _openDirectory(int parentDescriptor, const char* path, const char* name);
    bool _openAt(int parentDescriptor, const char* path, const char* name);
    void _reset(int descriptor);
    bool _refill(bool* endOfDirectory);
    void _describe(const char* name, unsigned char type, CatalogueEntry* entry) const;

    CatalogueSession* session_;
    char* buffer_;
    int descriptor_ = -1;
    size_t position_ = 0;
    size_t filled_ = 0;
    bool endOfDirectory_ = false;
};

}  // namespace platform
