#include "CrateworksCore/Package_API/Archive/xar/HeapWriter.h"

#include <zlib.h>

#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"

namespace crateworks::xar {

namespace {
// Bounds the memory held by entries read ahead of the heap.
constexpr size_t kMaxJobsInWindow = 256;
constexpr uint64_t kMaxBytesInWindow = 64ull << 20;
}  // namespace

HeapWriter::HeapWriter(platform::fs::File& heap, uint64_t start, std::string checksumStyle, unsigned workers)
    : heap_(heap), end_(start), checksumStyle_(std::move(checksumStyle)),
      algorithm_(platform::digest::fromName(checksumStyle_).value_or(platform::digest::Algorithm::SHA1)) {
    for (unsigned i = 0; i < workers; ++i) workers_.emplace_back([this] { _work(); });
}

HeapWriter::~HeapWriter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    workAvailable_.notify_all();
    for (auto& t : workers_) t.join();
}

void HeapWriter::_encode(Job& job) const {
    if (job.encoded) {
        job.output = std::move(job.input);
        return;
    }
    DataInfo& r = job.result;
    r.size = job.input.size();
    r.extractedChecksumStyle = checksumStyle_;
    r.extractedChecksum = platform::digest::hex(platform::digest::compute(algorithm_, job.input));
    if (job.compress) {
        job.output = deflate(job.input);
        r.encoding = Encoding::Gzip;
        r.archivedChecksumStyle = checksumStyle_;
        r.archivedChecksum = platform::digest::hex(platform::digest::compute(algorithm_, job.output));
    } else {
        job.output = std::move(job.input);
        r.encoding = Encoding::None;
        r.archivedChecksumStyle = checksumStyle_;
        r.archivedChecksum = r.extractedChecksum;
    }
    r.length = job.output.size();
    job.input = {};
}

void HeapWriter::_work() {
    for (;;) {
        Job* job = nullptr;
        {
            std::unique_lock lock(mutex_);
            workAvailable_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
            if (pending_.empty()) return;
            job = pending_.front();
            pending_.pop_front();
        }
        _encode(*job);
        {
            std::lock_guard lock(mutex_);
            job->done = true;
        }
        jobDone_.notify_all();
    }
}

void HeapWriter::_submit(std::unique_ptr<Job> job) {
    {
        std::lock_guard lock(mutex_);
        job->windowBytes = job->input.size();
        bytesInWindow_ += job->windowBytes;
        pending_.push_back(job.get());
        window_.push_back(std::move(job));
    }
    workAvailable_.notify_one();
    _drain(false);
}

void HeapWriter::add(DataInfo* target, platform::Data bytes, bool compress) {
    auto job = std::make_unique<Job>();
    job->target = target;
    job->input = std::move(bytes);
    job->compress = compress;
    _submit(std::move(job));
}

void HeapWriter::addStored(DataInfo* target, platform::Data stored) {
    auto job = std::make_unique<Job>();
    job->target = target;
    job->result = *target;
    job->input = std::move(stored);
    job->encoded = true;
    _submit(std::move(job));
}

void HeapWriter::_drain(bool untilEmpty) {
    for (;;) {
        std::unique_ptr<Job> job;
        {
            std::unique_lock lock(mutex_);
            auto full = [&] {
                return untilEmpty ? !window_.empty()
                                  : (window_.size() > kMaxJobsInWindow || bytesInWindow_ > kMaxBytesInWindow);
            };
            if (window_.empty()) return;
            if (!window_.front()->done) {
                if (!full()) return;
                jobDone_.wait(lock, [&] { return window_.front()->done; });
            }
            job = std::move(window_.front());
            window_.pop_front();
        }
        DataInfo result = job->result;
        result.offset = end_;
        platform::Error error;
        if (!writeError_ && !heap_.writeAt(end_, job->output, &error)) writeError_ = std::move(error);
        end_ += job->output.size();
        *job->target = std::move(result);
        std::lock_guard lock(mutex_);
        bytesInWindow_ -= job->windowBytes;
    }
}

bool HeapWriter::addStream(DataInfo* target, platform::fs::File& source, bool compress, platform::Error* error) {
    _drain(true);
    platform::digest::Hasher extracted(algorithm_), archived(algorithm_);
    DataInfo r;
    r.offset = end_;
    r.encoding = compress ? Encoding::Gzip : Encoding::None;
    z_stream z{};
    if (compress && deflateInit(&z, 6) != Z_OK) return false;
    std::vector<uint8_t> in(1 << 20), out(deflateBound(&z, uLong(in.size())) + 64);
    bool ok = true, done = false;
    auto emit = [&](const uint8_t* bytes, size_t n) {
        archived.update({bytes, n});
        ok = ok && heap_.writeAt(end_, {bytes, n}, error);
        end_ += n;
        r.length += n;
    };
    while (ok && !done) {
        auto read = source.read(in, error);
        if (!read) {
            ok = false;
            break;
        }
        size_t n = *read;
        done = n == 0;
        extracted.update({in.data(), size_t(n)});
        r.size += uint64_t(n);
        if (!compress) {
            emit(in.data(), size_t(n));
            continue;
        }
        z.next_in = in.data();
        z.avail_in = uInt(n);
        do {
            z.next_out = out.data();
            z.avail_out = uInt(out.size());
            deflate(&z, done ? Z_FINISH : Z_NO_FLUSH);
            emit(out.data(), out.size() - z.avail_out);
        } while (z.avail_out == 0 || (done && z.avail_in > 0));
    }
    if (compress) deflateEnd(&z);
    if (!ok) return false;
    r.extractedChecksumStyle = r.archivedChecksumStyle = checksumStyle_;
    r.extractedChecksum = platform::digest::hex(extracted.finish());
    r.archivedChecksum = platform::digest::hex(archived.finish());
    *target = std::move(r);
    return true;
}

bool HeapWriter::finish(platform::Error* error) {
    _drain(true);
    if (writeError_) platform::setError(error, *writeError_);
    return !writeError_;
}

}  // namespace crateworks::xar
