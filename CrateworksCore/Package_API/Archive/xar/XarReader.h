// Reads a XAR archive: the header, TOC and TOC checksum are checked when it is opened,
// and so is the heap range of the checksum and of every entry's data, so that an
// archive that opens has all the bytes its entries speak of. Then entries in TOC order,
// their properties, verification, extraction, and the signatures.
//
// A reader is used from one thread at a time, except that extraction may read the heap
// from two (reads are positioned and share no state).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CrateworksCore/Package_API/Archive/xar/XarToc.h"
#include "Platform/Error.h"
#include "Platform/File.h"
#include "Platform/Value.h"

namespace crateworks::xar {

// The corrupt-file error (259) of an entry whose bytes do not match their checksums,
// naming the entry's path in the archive.
platform::Error corruptEntryError(const std::string& entryPath);

class XarReader {
public:
    // Null on failure, with a POSIX error when the file cannot be opened, or the
    // general domain's 259 (file is corrupt) whose description says what is wrong and
    // where ("path: the TOC does not match its checksum"); both carry the path.
    static std::unique_ptr<XarReader> open(const std::string& path, platform::Error* error = nullptr);
    XarReader(const XarReader&) = delete;
    XarReader& operator=(const XarReader&) = delete;

    // "rsize": the read buffer of verification (bytes). False for anything else.
    bool setOption(std::string_view name, std::string_view value);

    const Toc& toc() const { return toc_; }
    File first() const { return toc_.first(); }
    File next(File file) const { return toc_.next(file); }
    File find(const std::string& path) const { return toc_.find(path); }
    std::string path(File file) const { return file->path; }
    std::string type(File file) const { return file->type; }
    // The property iterator: every leaf property of the entry in TOC order.
    const std::vector<Property>& properties(File file) const { return file->properties; }
    std::optional<std::string> propertyGet(File file, std::string_view name) const;
    // Archive-level (TOC) properties: "creation-time", "checksum/offset", ...
    std::optional<std::string> archivePropertyGet(std::string_view name) const { return toc_.archiveProperty(name); }

    // 0 when the entry's stored bytes match its archived checksum (or it has no data);
    // -1 otherwise.
    int verify(File file) const;
    // The extracted bytes with their extracted checksum checked (and the archived one
    // too when asked); absent on any fault. Decoding stops at the declared size.
    std::optional<platform::Data> extractToBuffer(File file, bool checkArchivedChecksum = false) const;
    // The same into `out`, with `stored` as scratch space; both keep their memory for
    // the next entry.
    bool extractInto(File file, platform::Data& stored, platform::Data& out, bool checkArchivedChecksum) const;
    // Writes the entry at `destination` without following a link there: a file, a
    // symbolic link, or a directory (open to its owner until finishDirectory). False
    // with a POSIX or corrupt-file error.
    bool extractToFile(File file, const std::string& destination, platform::Error* error = nullptr) const;
    // Gives a directory written by extractToFile its stored mode and modification time;
    // called once everything below it is written.
    bool finishDirectory(File file, const std::string& destination, platform::Error* error = nullptr) const;
    // Reads `length` stored bytes at heap `offset` into `out`; false past the heap's end.
    bool readHeap(uint64_t offset, uint64_t length, uint8_t* out) const;
    uint64_t heapOffset() const { return heapOffset_; }
    uint64_t heapSize() const { return heapSize_; }

    // Signatures in TOC order, their bytes in the heap, and the bytes they sign (the TOC
    // checksum as stored).
    const std::vector<Signature>& signatures() const { return toc_.signatures; }
    std::optional<platform::Data> signatureBytes(const Signature& signature) const;
    std::optional<platform::Data> signedData() const;
    // The stored bytes of an entry's data, as they are in the heap.
    std::optional<platform::Data> storedBytes(File file) const;

    // Entries refused with their subtrees for an unsafe name when the TOC was read.
    uint64_t refusedEntryCount() const { return toc_.refusedEntries; }
    const std::string& archivePath() const { return path_; }

private:
    XarReader(std::string path, platform::fs::File file);
    // The reason the archive must not open; absent when it may.
    std::optional<std::string> _read();
    std::optional<std::string> _checkHeapRanges() const;

    std::string path_;
    platform::fs::File file_;
    uint64_t fileSize_ = 0;
    uint64_t heapOffset_ = 0;
    uint64_t heapSize_ = 0;
    uint64_t readBufferSize_ = 2097152;
    Toc toc_;
};

}  // namespace crateworks::xar
