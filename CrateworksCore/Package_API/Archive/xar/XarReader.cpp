#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"
#include "CrateworksCore/Package_API/Archive/xar/XarExtractor.h"
#include "CrateworksCore/Package_API/Archive/xar/XarHeader.h"
#include "CrateworksCore/Package_API/Archive/xar/XarLimits.h"
#include "Platform/Digest.h"
#include "Platform/ExtractionRoot.h"
#include "Platform/Path.h"

namespace crateworks::xar {

namespace {
// Whether [offset, offset + length) lies inside [0, limit), without wrapping.
bool inBounds(uint64_t offset, uint64_t length, uint64_t limit) { return offset <= limit && length <= limit - offset; }

bool checksumMatches(const std::string& style, const std::string& expected, std::span<const uint8_t> bytes) {
    if (expected.empty()) return true;
    auto algorithm = platform::digest::fromName(style);
    return algorithm && platform::digest::hex(platform::digest::compute(*algorithm, bytes)) == expected;
}

std::string pastTheEnd(const std::string& what, uint64_t offset, uint64_t length, uint64_t heapSize) {
    return fmt::format("truncated or damaged: {} (heap offset {}, {} bytes) runs past the end of the heap, "
                       "which holds {} bytes",
                       what, offset, length, heapSize);
}
}  // namespace

platform::Error corruptEntryError(const std::string& entryPath) {
    return platform::corruptFileError(entryPath, "the archive entry is corrupt");
}

XarReader::XarReader(std::string path, platform::fs::File file) : path_(std::move(path)), file_(std::move(file)) {}

std::unique_ptr<XarReader> XarReader::open(const std::string& path, platform::Error* error) {
    auto file = platform::fs::File::open(path, {.regularFile = true}, error);
    if (!file) return nullptr;
    std::unique_ptr<XarReader> reader(new XarReader(path, std::move(*file)));
    if (auto why = reader->_read()) {
        if (error) *error = platform::corruptFileError(path, *why);
        return nullptr;
    }
    return reader;
}

std::optional<std::string> XarReader::_read() {
    platform::Error error;
    auto size = file_.size(&error);
    if (!size) return error.description();
    fileSize_ = *size;
    uint8_t headerBytes[kMinHeaderSize];
    if (fileSize_ < kMinHeaderSize || !file_.readExactlyAt(0, headerBytes)) return "too short for a header";
    std::string diagnostic;
    auto header = parseHeader(headerBytes, &diagnostic);
    if (!header) return diagnostic;
    if (header->headerSize < kMinHeaderSize || header->headerSize > kMaxHeaderSize || header->headerSize > fileSize_)
        return fmt::format("header size {} outside kMinHeaderSize..kMaxHeaderSize and the file", header->headerSize);
    if (header->compressedTOCLength > kMaxCompressedTOCSize)
        return fmt::format("compressed TOC of {} bytes exceeds kMaxCompressedTOCSize", header->compressedTOCLength);
    if (header->uncompressedTOCLength > kMaxUncompressedTOCSize)
        return fmt::format("TOC of {} bytes exceeds kMaxUncompressedTOCSize", header->uncompressedTOCLength);
    if (!inBounds(header->headerSize, header->compressedTOCLength, fileSize_))
        return "truncated: the TOC runs past the end of the file";

    std::optional<platform::digest::Algorithm> algorithm;
    switch (header->algorithmCode) {
    case kAlgorithmNone: break;
    case kAlgorithmSHA1: algorithm = platform::digest::Algorithm::SHA1; break;
    case kAlgorithmMD5: algorithm = platform::digest::Algorithm::MD5; break;
    case kAlgorithmSHA512: algorithm = platform::digest::Algorithm::SHA512; break;
    case kAlgorithmNamed: {
        std::string name(size_t(header->headerSize - kMinHeaderSize), '\0');
        if (!file_.readExactlyAt(kMinHeaderSize, {reinterpret_cast<uint8_t*>(name.data()), name.size()}))
            return "cannot read the header";
        name.resize(strnlen(name.c_str(), name.size()));
        algorithm = platform::digest::fromName(name);
        if (!algorithm) return fmt::format("unknown TOC checksum algorithm \"{}\"", name);
        break;
    }
    default: return fmt::format("unknown TOC checksum algorithm {}", header->algorithmCode);
    }

    platform::Data compressed(header->compressedTOCLength);
    if (!file_.readExactlyAt(header->headerSize, compressed)) return "cannot read the TOC";
    auto xml = inflateTOC(compressed, header->uncompressedTOCLength, kMaxUncompressedTOCSize);
    if (!xml) return "the TOC is not a zlib stream within kMaxUncompressedTOCSize";
    auto toc = parseToc(*xml, &diagnostic);
    if (!toc) return diagnostic;
    toc_ = std::move(*toc);
    heapOffset_ = header->headerSize + header->compressedTOCLength;
    heapSize_ = fileSize_ - heapOffset_;

    if (algorithm) {
        size_t digestLength = platform::digest::length(*algorithm);
        if (!toc_.checksumOffset || !toc_.checksumSize) return "the TOC names no checksum";
        if (*toc_.checksumSize != digestLength)
            return fmt::format("TOC checksum size {} is not the digest length {}", *toc_.checksumSize, digestLength);
        platform::Data stored(digestLength);
        if (!readHeap(*toc_.checksumOffset, digestLength, stored.data()))
            return pastTheEnd("the TOC checksum", *toc_.checksumOffset, digestLength, heapSize_);
        if (platform::digest::compute(*algorithm, compressed) != stored) return "the TOC does not match its checksum";
    }
    return _checkHeapRanges();
}

std::optional<std::string> XarReader::_checkHeapRanges() const {
    // A signature's range is left to its judging: one past the end is an invalid
    // signature of an archive whose entries may still be whole.
    for (const auto& entry : toc_.entries)
        if (entry->data && !inBounds(entry->data->offset, entry->data->length, heapSize_))
            return pastTheEnd("the data of entry " + entry->path, entry->data->offset, entry->data->length,
                              heapSize_);
    return std::nullopt;
}

bool XarReader::readHeap(uint64_t offset, uint64_t length, uint8_t* out) const {
    if (!inBounds(offset, length, heapSize_)) return false;
    return file_.readExactlyAt(heapOffset_ + offset, {out, size_t(length)});
}

bool XarReader::setOption(std::string_view name, std::string_view value) {
    auto size = parseU64(value);
    if (name != "rsize" || !size) return false;
    readBufferSize_ = std::clamp<uint64_t>(*size, 4096, 1 << 24);
    return true;
}

std::optional<std::string> XarReader::propertyGet(File file, std::string_view name) const {
    if (const Property* p = file->find(name)) return p->value;
    return std::nullopt;
}

std::optional<platform::Data> XarReader::storedBytes(File file) const {
    if (!file->data) return platform::Data{};
    platform::Data stored(file->data->length);
    if (!readHeap(file->data->offset, file->data->length, stored.data())) return std::nullopt;
    return stored;
}

int XarReader::verify(File file) const {
    if (!file->data) return 0;
    const DataInfo& d = *file->data;
    if (!inBounds(d.offset, d.length, heapSize_)) return -1;
    if (d.archivedChecksum.empty()) return 0;
    auto algorithm = platform::digest::fromName(d.archivedChecksumStyle);
    if (!algorithm) return -1;
    platform::digest::Hasher hasher(*algorithm);
    platform::Data buffer(size_t(std::min(readBufferSize_, d.length)));
    for (uint64_t done = 0; done < d.length;) {
        uint64_t n = std::min<uint64_t>(buffer.size(), d.length - done);
        if (!readHeap(d.offset + done, n, buffer.data())) return -1;
        hasher.update({buffer.data(), size_t(n)});
        done += n;
    }
    return platform::digest::hex(hasher.finish()) == d.archivedChecksum ? 0 : -1;
}

std::optional<platform::Data> XarReader::extractToBuffer(File file, bool checkArchivedChecksum) const {
    platform::Data stored, out;
    if (!extractInto(file, stored, out, checkArchivedChecksum)) return std::nullopt;
    return out;
}

bool XarReader::extractInto(File file, platform::Data& stored, platform::Data& out, bool checkArchivedChecksum) const {
    out.clear();
    if (!file->data) return true;
    const DataInfo& d = *file->data;
    if (!inBounds(d.offset, d.length, heapSize_)) return false;
    stored.resize(d.length);
    if (!readHeap(d.offset, d.length, stored.data())) return false;
    if (checkArchivedChecksum && !checksumMatches(d.archivedChecksumStyle, d.archivedChecksum, stored)) return false;
    return decodeInto(d.encoding, stored, d.size, out) &&
           checksumMatches(d.extractedChecksumStyle, d.extractedChecksum, out);
}

namespace {
// Runs `step` with an extractor rooted at the destination's directory and the
// destination's last component.
template <typename Step>
bool atDestination(const XarReader& reader, const std::string& destination, platform::Error* error, Step step) {
    std::string standardized = platform::path::standardize(destination);
    auto root = platform::ExtractionRoot::open(platform::path::deletingLastComponent(standardized), false, error);
    if (!root) return false;
    XarExtractor extractor(reader, *root);
    return step(extractor, platform::path::lastComponent(standardized));
}
}  // namespace

bool XarReader::extractToFile(File file, const std::string& destination, platform::Error* error) const {
    return atDestination(*this, destination, error, [&](XarExtractor& extractor, const std::string& name) {
        return extractor.extractEntry(file, name, error);
    });
}

bool XarReader::finishDirectory(File file, const std::string& destination, platform::Error* error) const {
    return atDestination(*this, destination, error, [&](XarExtractor& extractor, const std::string& name) {
        return extractor.finishDirectory(file, name, error);
    });
}

std::optional<platform::Data> XarReader::signatureBytes(const Signature& signature) const {
    // Bounds first: a size from the TOC is only allocated once the heap is known to hold it.
    if (!inBounds(signature.offset, signature.size, heapSize_)) return std::nullopt;
    platform::Data bytes(signature.size);
    if (!readHeap(signature.offset, signature.size, bytes.data())) return std::nullopt;
    return bytes;
}

std::optional<platform::Data> XarReader::signedData() const {
    if (!toc_.checksumOffset || !toc_.checksumSize || !inBounds(*toc_.checksumOffset, *toc_.checksumSize, heapSize_))
        return std::nullopt;
    platform::Data bytes(*toc_.checksumSize);
    if (!readHeap(*toc_.checksumOffset, *toc_.checksumSize, bytes.data())) return std::nullopt;
    return bytes;
}

}  // namespace crateworks::xar
