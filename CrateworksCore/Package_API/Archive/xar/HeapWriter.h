// Lays entry data into a XAR heap. Encoding and checksums run on worker threads while
// the caller goes on adding entries; the bytes land in the heap in the order the
// entries were added, so the archive comes out the same whatever the timing.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "CrateworksCore/Package_API/Archive/xar/XarEntry.h"
#include "Platform/Digest.h"
#include "Platform/Error.h"
#include "Platform/File.h"
#include "Platform/Value.h"

namespace crateworks::xar {

class HeapWriter {
public:
    // Data goes to `heap` from heap offset `start` on; `checksumStyle` names the
    // algorithm of the archived and extracted checksums ("sha1", ...).
    HeapWriter(platform::fs::File& heap, uint64_t start, std::string checksumStyle, unsigned workers = 2);
    ~HeapWriter();
    HeapWriter(const HeapWriter&) = delete;
    HeapWriter& operator=(const HeapWriter&) = delete;

    // Queues an entry's extracted bytes, zlib-encoded when `compress` is set. `target`
    // receives offset, length, size, encoding and checksums once the bytes are written.
    void add(DataInfo* target, platform::Data bytes, bool compress);
    // Queues bytes already encoded whose `target` is complete but for the offset.
    void addStored(DataInfo* target, platform::Data stored);
    // Writes a file too large to hold in memory straight into the heap, after every
    // entry queued before it, reading `source` to its end. False, with the error, on a
    // read or write failure.
    bool addStream(DataInfo* target, platform::fs::File& source, bool compress, platform::Error* error);
    // Waits for every queued entry. False, with the first write's error, when one failed.
    bool finish(platform::Error* error);
    // The heap's end so far.
    uint64_t end() const { return end_; }

private:
    struct Job {
        DataInfo* target = nullptr;
        platform::Data input;
        bool compress = false;
        bool encoded = false;  // input is already the stored form
        platform::Data output;
        DataInfo result;
        bool done = false;
        uint64_t windowBytes = 0;
    };
    void _work();
    void _encode(Job& job) const;
    void _submit(std::unique_ptr<Job> job);
    // Writes finished jobs from the front; with `wait`, until the window has room.
    void _drain(bool untilEmpty);

    platform::fs::File& heap_;
    uint64_t end_;
    std::string checksumStyle_;
    platform::digest::Algorithm algorithm_;
    std::optional<platform::Error> writeError_;

    std::mutex mutex_;
    std::condition_variable workAvailable_;
    std::condition_variable jobDone_;
    std::deque<std::unique_ptr<Job>> window_;  // in heap order
    std::deque<Job*> pending_;                 // not yet taken by a worker
    uint64_t bytesInWindow_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

}  // namespace crateworks::xar
