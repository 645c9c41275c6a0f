// The bounds a XAR archive must keep to be opened. An archive is untrusted input:
// anything past these is refused before memory is committed to it.
#pragma once

#include <cstdint>

namespace crateworks::xar {

// The header: 28 bytes known, more may follow; the TOC starts at the header size.
inline constexpr uint32_t kMinHeaderSize = 28;
inline constexpr uint32_t kMaxHeaderSize = 4096;
// The table of contents, as stored (zlib) and as XML.
inline constexpr uint64_t kMaxCompressedTOCSize = 64ull << 20;
inline constexpr uint64_t kMaxUncompressedTOCSize = 64ull << 20;
// Entries in the TOC, and how deeply file elements may nest.
inline constexpr uint64_t kMaxEntryCount = 1'000'000;
inline constexpr unsigned kMaxDepth = 256;
// A zlib stream cannot expand more than this; a larger declared size is a lie that
// would only cost memory.
inline constexpr uint64_t kMaxDeflateRatio = 1032;
// Entries up to this size are decoded in memory; larger ones are streamed.
inline constexpr uint64_t kMaxInMemoryEntrySize = 64ull << 20;

}  // namespace crateworks::xar
