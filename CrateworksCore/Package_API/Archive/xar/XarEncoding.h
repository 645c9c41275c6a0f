// The encodings of entry data: stored, zlib ("application/x-gzip" by its historic
// name), bzip2, lzma and xz. Writing knows stored and zlib; reading knows all.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Value.h"

namespace crateworks::xar {

enum class Encoding { None, Gzip, Bzip2, Lzma, Xz, Unknown };

// "application/octet-stream", "application/x-gzip", ...
std::string_view styleForEncoding(Encoding encoding);
Encoding encodingForStyle(std::string_view style);

// A zlib stream of `bytes` (libdeflate, level 6). `compressor` state is per thread.
platform::Data deflate(std::span<const uint8_t> bytes, int level = 6);

// Decodes `stored` to exactly `size` bytes; absent when the stream is damaged, ends
// early, or would grow past `size` (decoding stops there).
std::optional<platform::Data> decode(Encoding encoding, std::span<const uint8_t> stored, uint64_t size);
// The same into `out`, whose memory is reused.
bool decodeInto(Encoding encoding, std::span<const uint8_t> stored, uint64_t size, platform::Data& out);

// Streaming decoder for entries too large to hold: `fill` fills the buffer with the
// next stored bytes and answers how many (0 at the end, -1 on error); `emit` takes the
// decoded bytes. False when the stream is damaged or decodes to other than `size`.
using ReadFunction = std::function<int64_t(uint8_t* buffer, size_t capacity)>;
using WriteFunction = std::function<bool(std::span<const uint8_t> bytes)>;
bool decodeStream(Encoding encoding, uint64_t size, const ReadFunction& fill, const WriteFunction& emit);

// zlib for the table of contents; inflateTOC stops at `maximum` bytes.
platform::Data compressTOC(std::string_view xml);
std::optional<std::string> inflateTOC(std::span<const uint8_t> stored, uint64_t declaredSize, uint64_t maximum);

}  // namespace crateworks::xar
