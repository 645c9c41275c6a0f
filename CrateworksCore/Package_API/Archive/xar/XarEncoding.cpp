#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"

#include <bzlib.h>
#include <cstring>
#include <libdeflate.h>
#include <lzma.h>
#include <memory>
#include <vector>
#include <zlib.h>

#include "CrateworksCore/Package_API/Archive/xar/XarLimits.h"

namespace crateworks::xar {

namespace {
constexpr size_t kChunk = 256 * 1024;

struct CompressorDeleter {
    void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};
struct DecompressorDeleter {
    void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

libdeflate_compressor* compressorFor(int level) {
    thread_local std::unique_ptr<libdeflate_compressor, CompressorDeleter> compressor;
    thread_local int compressorLevel = -1;
    if (!compressor || compressorLevel != level) {
        compressor.reset(libdeflate_alloc_compressor(level));
        compressorLevel = level;
    }
    return compressor.get();
}

libdeflate_decompressor* decompressor() {
    thread_local std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> d(libdeflate_alloc_decompressor());
    return d.get();
}

// Feeds `read` through `step` until the codec reports its end; `step` answers 1 at the
// stream's end, 0 to go on, -1 on error, and sets `produced` to the bytes it wrote.
class Pump {
public:
    Pump(uint64_t size, const ReadFunction& read, const WriteFunction& write)
        : size_(size), read_(read), write_(write), in_(kChunk), out_(kChunk) {}

    template <typename Step>
    bool run(Step step) {
        size_t available = 0;
        const uint8_t* next = in_.data();
        bool inputDone = false;
        for (;;) {
            if (available == 0 && !inputDone) {
                int64_t n = read_(in_.data(), in_.size());
                if (n < 0) return false;
                inputDone = n == 0;
                available = size_t(n);
                next = in_.data();
            }
            size_t produced = 0, consumed = 0;
            int status = step(next, available, inputDone, out_.data(), out_.size(), consumed, produced);
            next += consumed;
            available -= consumed;
            if (status < 0) return false;
            if (produced > 0) {
                total_ += produced;
                if (total_ > size_ || !write_({out_.data(), produced})) return false;
            }
            if (status == 1) return total_ == size_;
            // No progress with the input exhausted: the stream was cut short.
            if (inputDone && available == 0 && produced == 0 && consumed == 0) return false;
        }
    }

private:
    uint64_t size_;
    uint64_t total_ = 0;
    const ReadFunction& read_;
    const WriteFunction& write_;
    std::vector<uint8_t> in_;
    std::vector<uint8_t> out_;
};

bool inflateStream(Pump& pump) {
    z_stream z{};
    if (inflateInit(&z) != Z_OK) return false;
    bool ok = pump.run([&](const uint8_t* in, size_t inSize, bool, uint8_t* out, size_t outSize, size_t& consumed,
                           size_t& produced) {
        z.next_in = const_cast<Bytef*>(in);
        z.avail_in = uInt(inSize);
        z.next_out = out;
        z.avail_out = uInt(outSize);
        int rc = inflate(&z, Z_NO_FLUSH);
        consumed = inSize - z.avail_in;
        produced = outSize - z.avail_out;
        if (rc == Z_STREAM_END) return 1;
        return (rc == Z_OK || rc == Z_BUF_ERROR) ? 0 : -1;
    });
    inflateEnd(&z);
    return ok;
}

bool bunzipStream(Pump& pump) {
    bz_stream b{};
    if (BZ2_bzDecompressInit(&b, 0, 0) != BZ_OK) return false;
    bool ok = pump.run([&](const uint8_t* in, size_t inSize, bool, uint8_t* out, size_t outSize, size_t& consumed,
                           size_t& produced) {
        b.next_in = reinterpret_cast<char*>(const_cast<uint8_t*>(in));
        b.avail_in = unsigned(inSize);
        b.next_out = reinterpret_cast<char*>(out);
        b.avail_out = unsigned(outSize);
        int rc = BZ2_bzDecompress(&b);
        consumed = inSize - b.avail_in;
        produced = outSize - b.avail_out;
        if (rc == BZ_STREAM_END) return 1;
        return rc == BZ_OK ? 0 : -1;
    });
    BZ2_bzDecompressEnd(&b);
    return ok;
}

bool unxzStream(Pump& pump) {
    lzma_stream l = LZMA_STREAM_INIT;
    if (lzma_auto_decoder(&l, 256ull << 20, 0) != LZMA_OK) return false;
    bool ok = pump.run([&](const uint8_t* in, size_t inSize, bool inputDone, uint8_t* out, size_t outSize,
                           size_t& consumed, size_t& produced) {
        l.next_in = in;
        l.avail_in = inSize;
        l.next_out = out;
        l.avail_out = outSize;
        lzma_ret rc = lzma_code(&l, inputDone ? LZMA_FINISH : LZMA_RUN);
        consumed = inSize - l.avail_in;
        produced = outSize - l.avail_out;
        if (rc == LZMA_STREAM_END) return 1;
        return (rc == LZMA_OK || rc == LZMA_BUF_ERROR) ? 0 : -1;
    });
    lzma_end(&l);
    return ok;
}

bool passThrough(uint64_t size, const ReadFunction& fill, const WriteFunction& emit) {
    std::vector<uint8_t> buffer(kChunk);
    uint64_t total = 0;
    for (;;) {
        int64_t n = fill(buffer.data(), buffer.size());
        if (n < 0) return false;
        if (n == 0) return total == size;
        total += uint64_t(n);
        if (total > size || !emit({buffer.data(), size_t(n)})) return false;
    }
}
}  // namespace

std::string_view styleForEncoding(Encoding encoding) {
    switch (encoding) {
    case Encoding::None: return "application/octet-stream";
    case Encoding::Gzip: return "application/x-gzip";
    case Encoding::Bzip2: return "application/x-bzip2";
    case Encoding::Lzma: return "application/x-lzma";
    case Encoding::Xz: return "application/x-xz";
    case Encoding::Unknown: break;
    }
    return "application/octet-stream";
}

Encoding encodingForStyle(std::string_view style) {
    if (style == "application/octet-stream") return Encoding::None;
    if (style == "application/x-gzip") return Encoding::Gzip;
    if (style == "application/x-bzip2") return Encoding::Bzip2;
    if (style == "application/x-lzma") return Encoding::Lzma;
    if (style == "application/x-xz") return Encoding::Xz;
    return Encoding::Unknown;
}

platform::Data deflate(std::span<const uint8_t> bytes, int level) {
    libdeflate_compressor* c = compressorFor(level);
    platform::Data out(libdeflate_zlib_compress_bound(c, bytes.size()));
    size_t n = libdeflate_zlib_compress(c, bytes.data(), bytes.size(), out.data(), out.size());
    out.resize(n);
    return out;
}

bool decodeStream(Encoding encoding, uint64_t size, const ReadFunction& fill, const WriteFunction& emit) {
    Pump pump(size, fill, emit);
    switch (encoding) {
    case Encoding::None: return passThrough(size, fill, emit);
    case Encoding::Gzip: return inflateStream(pump);
    case Encoding::Bzip2: return bunzipStream(pump);
    case Encoding::Lzma:
    case Encoding::Xz: return unxzStream(pump);
    case Encoding::Unknown: break;
    }
    return false;
}

std::optional<platform::Data> decode(Encoding encoding, std::span<const uint8_t> stored, uint64_t size) {
    platform::Data out;
    if (!decodeInto(encoding, stored, size, out)) return std::nullopt;
    return out;
}

bool decodeInto(Encoding encoding, std::span<const uint8_t> stored, uint64_t size, platform::Data& out) {
    out.clear();
    if (encoding == Encoding::None) {
        if (stored.size() != size) return false;
        out.assign(stored.begin(), stored.end());
        return true;
    }
    if (encoding == Encoding::Gzip) {
        if (size > uint64_t(stored.size()) * kMaxDeflateRatio + 64) return false;
        out.resize(size);
        size_t produced = 0;
        auto rc = libdeflate_zlib_decompress(decompressor(), stored.data(), stored.size(), out.data(), out.size(),
                                             &produced);
        return rc == LIBDEFLATE_SUCCESS && produced == size;
    }
    size_t position = 0;
    auto fill = [&](uint8_t* buffer, size_t capacity) -> int64_t {
        size_t n = std::min(capacity, stored.size() - position);
        memcpy(buffer, stored.data() + position, n);
        position += n;
        return int64_t(n);
    };
    auto emit = [&](std::span<const uint8_t> bytes) {
        out.insert(out.end(), bytes.begin(), bytes.end());
        return true;
    };
    return decodeStream(encoding, size, fill, emit);
}

platform::Data compressTOC(std::string_view xml) {
    return deflate({reinterpret_cast<const uint8_t*>(xml.data()), xml.size()}, 6);
}

std::optional<std::string> inflateTOC(std::span<const uint8_t> stored, uint64_t declaredSize, uint64_t maximum) {
    std::string xml;
    xml.reserve(size_t(std::min(declaredSize, maximum)));
    z_stream z{};
    if (inflateInit(&z) != Z_OK) return std::nullopt;
    z.next_in = const_cast<Bytef*>(stored.data());
    z.avail_in = uInt(stored.size());
    std::vector<char> out(kChunk);
    int rc = Z_OK;
    while (rc == Z_OK) {
        z.next_out = reinterpret_cast<Bytef*>(out.data());
        z.avail_out = uInt(out.size());
        rc = inflate(&z, Z_NO_FLUSH);
        size_t produced = out.size() - z.avail_out;
        if (xml.size() + produced > maximum) rc = Z_MEM_ERROR;
        else xml.append(out.data(), produced);
        if (rc == Z_BUF_ERROR || (rc == Z_OK && produced == 0 && z.avail_in == 0)) rc = Z_DATA_ERROR;
    }
    inflateEnd(&z);
    if (rc != Z_STREAM_END) return std::nullopt;
    return xml;
}

}  // namespace crateworks::xar
