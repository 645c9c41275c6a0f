// Constants of the BOM file layout and its big-endian integers, shared by the reader
// and the writer.
#pragma once

#include <bit>
#include <cstdint>
#include <optional>
#include <cstring>
#include <string_view>
#include <vector>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace crateworks::bom::format {

inline constexpr std::string_view kMagic = "BOMStore";
inline constexpr uint32_t kVersion = 1;
inline constexpr size_t kHeaderSize = 32;
inline constexpr size_t kHeaderPadding = 512;
inline constexpr std::string_view kTreeMagic = "tree";
inline constexpr size_t kTreeHeaderSize = 21;
inline constexpr size_t kNodeHeaderSize = 12;
inline constexpr size_t kInfoFixedSize = 31;
inline constexpr uint32_t kPathsNodeSize = 4096;
inline constexpr uint32_t kSmallNodeSize = 128;
inline constexpr size_t kPathsPairsPerNode = 256;
inline constexpr size_t kSmallPairsPerNode = 14;
// A longer stored path is damage. A file whose key blocks overlap can name every
// directory of a deep chain with most of the file's bytes, so that its paths would grow
// with the square of its size; no volume holds a path near this long.
inline constexpr size_t kMaxStoredPathLength = 64 * 1024;
// Deeper trees are rejected: the writer's own trees stay far below this.
inline constexpr int kMaxTreeDepth = 64;

inline constexpr std::string_view kBomInfo = "BomInfo";
inline constexpr std::string_view kPaths = "Paths";
inline constexpr std::string_view kHLIndex = "HLIndex";
inline constexpr std::string_view kVIndex = "VIndex";
inline constexpr std::string_view kSize64 = "Size64";

inline uint16_t readU16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint32_t readU32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}
inline uint64_t readU64(const uint8_t* p) { return uint64_t(readU32(p)) << 32 | readU32(p + 4); }

#if defined(__SSE2__)
// storedNameLength of a name of `size` bytes (at most 16) held in `bytes`.
[[gnu::always_inline]] inline size_t nameLengthIn(__m128i bytes, size_t size) {
    const unsigned inside = (1u << size) - 1;
    unsigned nul = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128()))) & inside;
    unsigned slash = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('/')))) & inside;
    if (!nul) return std::string_view::npos;
    // (nul - 1) & ~nul: the bytes before the first NUL.
    return slash & (nul - 1) & ~nul ? std::string_view::npos : size_t(__builtin_ctz(nul));
}
#endif

// The length of a name stored up to its NUL in the `size` bytes at `name`; npos when no
// NUL lies among them or a '/' comes before it. `readable` says how many bytes from
// `name` on may be read (at least `size`): a name whose block is followed by sixteen of
// them is tested in one step; others eight bytes at a time, the last eight bytes read
// as one word too, overlapping words already passed (in which there was neither byte).
inline size_t storedNameLength(const char* name, size_t size, size_t readable) {
#if defined(__SSE2__)
    if (size <= 16 && readable >= 16)
        return nameLengthIn(_mm_loadu_si128(reinterpret_cast<const __m128i*>(name)), size);
#else
    (void)readable;
#endif
    constexpr uint64_t kOnes = 0x0101010101010101, kHighs = 0x8080808080808080, kSlashes = 0x2f2f2f2f2f2f2f2f;
    // In the word at `at`, the first NUL's offset, or npos for a '/' before any NUL or
    // for neither. The lowest flag of each test is exact (a false one only follows a
    // true one), and bytes are in memory order from the low end on this machine.
    auto inWord = [&](size_t at) -> std::optional<size_t> {
        uint64_t word;
        std::memcpy(&word, name + at, 8);
        if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
        uint64_t slashes = word ^ kSlashes;
        uint64_t nul = (word - kOnes) & ~word & kHighs, slash = (slashes - kOnes) & ~slashes & kHighs;
        if (!(nul | slash)) return std::nullopt;
        if (slash && (!nul || __builtin_ctzll(slash) < __builtin_ctzll(nul))) return std::string_view::npos;
        return at + size_t(__builtin_ctzll(nul) >> 3);
    };
    if (size >= 8) {
        size_t at = 0;
        for (; at + 8 < size; at += 8)
            if (auto found = inWord(at)) return *found;
        if (auto found = inWord(size - 8)) return *found;
        return std::string_view::npos;
    }
    for (size_t at = 0; at < size; ++at) {
        if (name[at] == 0) return at;
        if (name[at] == '/') break;
    }
    return std::string_view::npos;
}

// A name of at most sixteen stored bytes whose block is followed by enough bytes that
// sixteen can be read from `name`: scanned as storedNameLength does, and sixteen bytes
// from `name` copied to `to` (which has room for them) in the same step.
[[gnu::always_inline]] inline size_t copyShortName(const char* name, size_t size, char* to) {
#if defined(__SSE2__)
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(name));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), bytes);
    return nameLengthIn(bytes, size);
#else
    std::memcpy(to, name, 16);
    return storedNameLength(name, size, 16);
#endif
}

// Whether a name may not stand for an entry below the root: empty, "." or "..".
[[gnu::always_inline]] inline bool isReservedName(std::string_view name) {
    return name.size() <= 2 && (name.empty() || name == "." || name == "..");
}

// The name a key block holds after its parent's id, checked: the root's must be ".",
// any other's must not be empty, "." or "..". Empty when it is not a sound name.
// `readable` says how many bytes from the block's start may be read (at least
// `keyLength`, which is at least 5).
[[gnu::always_inline]] inline std::string_view keyName(const uint8_t* key, size_t keyLength, size_t readable, bool root) {
    const char* name = reinterpret_cast<const char*>(key) + 4;
    const size_t length = storedNameLength(name, keyLength - 4, readable - 4);
    if (length == std::string_view::npos) return {};
    const std::string_view n(name, length);
    if (root) return n == "." ? n : std::string_view();
    if (isReservedName(n)) [[unlikely]]
        return {};
    return n;
}

inline void appendU8(std::vector<uint8_t>& out, uint8_t v) { out.push_back(v); }
inline void appendU16(std::vector<uint8_t>& out, uint16_t v) {
    out.push_back(uint8_t(v >> 8));
    out.push_back(uint8_t(v));
}
inline void appendU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}
inline void appendU64(std::vector<uint8_t>& out, uint64_t v) {
    appendU32(out, uint32_t(v >> 32));
    appendU32(out, uint32_t(v));
}
inline void appendBytes(std::vector<uint8_t>& out, std::string_view s) { out.insert(out.end(), s.begin(), s.end()); }
inline void storeU32(std::vector<uint8_t>& out, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) out[at + size_t(i)] = uint8_t(v >> (24 - 8 * i));
}

}  // namespace crateworks::bom::format
