// The archive handle under the XAR classes: open for reading or writing, options, the
// entry iterator, paths, types and properties of entries, verification, extraction,
// adding entries, signatures, and the close that writes a new archive out.
//
// A handle is used from one thread at a time; a writing handle compresses entry data
// on worker threads of its own and lays it into the heap in the order it was added.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>
#include <vector>

#include "CrateworksCore/Package_API/Archive/XarToc.h"
#include "Platform/Error.h"
#include "Platform/Value.h"

namespace crateworks::xar {

class HeapWriter;

// An entry of an open archive; owned by the handle and valid until it is closed.
using File = Entry*;

class XarHandle {
public:
    enum class Mode { Read, Write };

    // Reading: the header, TOC and TOC checksum are checked, and the archive opens only
    // when they hold and every limit of XarLimits.h is kept. Writing: the file is
    // created (replacing one that is there). Null on failure, with a one-line
    // `diagnostic` and errno kept from the failing call where there was one.
    static std::unique_ptr<XarHandle> open(const std::string& path, Mode mode, std::string* diagnostic = nullptr);
    ~XarHandle();
    XarHandle(const XarHandle&) = delete;
    XarHandle& operator=(const XarHandle&) = delete;

    // "rsize" (read buffer), "toc-cksum" and "file-chksum" ("sha1", "md5", "sha256",
    // "sha512", "none"), "compression" ("gzip" or "none") for entries added afterwards.
    // False for an unknown option or value.
    bool setOption(std::string_view name, std::string_view value);
    std::optional<std::string> option(std::string_view name) const;

    // Entries in TOC order: parents before children, siblings in order. Null at the end.
    File first() const;
    File next(File file) const;
    std::string path(File file) const { return file->path; }
    // The first entry in TOC order whose path is `path`; null when there is none.
    File find(const std::string& path) const;
    std::string type(File file) const { return file->type; }

    // The property iterator: every leaf property of the entry in TOC order.
    const std::vector<Property>& properties(File file) const { return file->properties; }
    std::optional<std::string> propertyGet(File file, std::string_view name) const;
    // Archive-level (TOC) properties: "creation-time", "checksum/offset", ...
    std::optional<std::string> archivePropertyGet(std::string_view name) const;

    // 0 when the entry's stored bytes match its archived checksum (or it has no data);
    // -1 otherwise, or when its heap range lies outside the file.
    int verify(File file) const;
    // The extracted bytes with their extracted checksum checked (and the archived one
    // too when asked); absent on any fault. Decoding stops at the declared size.
    std::optional<platform::Data> extractToBuffer(File file, bool checkArchivedChecksum = false) const;
    // The same into `out`, with `stored` as scratch space; both keep their memory for
    // the next entry.
    bool extractInto(File file, platform::Data& stored, platform::Data& out, bool checkArchivedChecksum) const;
    // Writes the entry (a file, a directory, or a symbolic link) at `destination`
    // without following a link there; false with a POSIX or corrupt-file error.
    bool extractToFile(File file, const std::string& destination, platform::Error* error = nullptr) const;
    // Reads `length` stored bytes at heap `offset` into `out`; false past the file's end.
    bool readHeap(uint64_t offset, uint64_t length, uint8_t* out) const;
    uint64_t heapOffset() const { return heapOffset_; }
    uint64_t heapSize() const { return heapSize_; }

    // Writing. `parent` null means the top level. Null when the handle is not writing.
    File addFolder(File parent, std::string_view name, const struct stat& st);
    File addFromBuffer(File parent, std::string_view name, std::span<const uint8_t> bytes);
    // Records what the file system says of the item (type, mode, owner and group ids and
    // names, creation and modification dates, a link's target, a file's data);
    // directories, regular files and symbolic links only.
    File addFromPath(File parent, std::string_view name, const std::string& sourcePath);
    // Copies an entry of another archive with its properties and its stored bytes as
    // they are (no recompression).
    File addFromArchive(File parent, std::string_view name, const XarHandle& source, File sourceFile);

    // Signatures in TOC order, their bytes in the heap, and the bytes they sign (the TOC
    // checksum as stored).
    const std::vector<Signature>& signatures() const { return toc_.signatures; }
    std::optional<platform::Data> signatureBytes(const Signature& signature) const;
    std::optional<platform::Data> signedData() const;
    bool signatureAddX509Certificate(size_t signatureIndex, platform::Data der);
    // Writing: reserves `size` heap bytes for a signature of `type` after the TOC
    // checksum and the signatures before it. When the archive is written, `sign`
    // receives the TOC checksum and must answer exactly `size` bytes, or the write
    // fails. The new signature's index; absent when the handle is not writing or entry
    // data was added already.
    using SignatureMaker = std::function<std::optional<platform::Data>(std::span<const uint8_t> checksum)>;
    std::optional<size_t> signatureAdd(std::string type, uint64_t size, SignatureMaker sign);
    // Writing: the TOC's "creation-time" text ("YYYY-MM-DDTHH:MM:SS", UTC); now when unset.
    void setCreationTime(std::string text) { creationTime_ = std::move(text); }

    // Entries refused with their subtrees for an unsafe name when the TOC was read.
    uint64_t refusedEntryCount() const { return toc_.refusedEntries; }
    const std::string& archivePath() const { return path_; }
    bool isWriting() const { return mode_ == Mode::Write; }

    // Reading: releases the file. Writing: waits for the data, writes header, TOC and
    // heap. 0 on success, -1 on failure (errno kept).
    int close();

private:
    XarHandle(std::string path, Mode mode, int fd);
    bool _read(std::string* diagnostic);
    File _newEntry(File parent, std::string_view name, std::string type);
    void _setProperty(File file, std::string name, std::string value);
    std::optional<platform::Data> _storedBytes(const DataInfo& data) const;
    HeapWriter& _heapWriter();
    int _write();
    // Where entry data starts: after the TOC checksum and the reserved signatures.
    uint64_t _heapStart() const;

    std::string path_;
    Mode mode_;
    int fd_ = -1;
    int heapFd_ = -1;
    uint64_t fileSize_ = 0;
    uint64_t heapOffset_ = 0;
    uint64_t heapSize_ = 0;
    Toc toc_;
    std::vector<std::pair<std::string, std::string>> options_;
    std::unique_ptr<HeapWriter> heapWriter_;
    uint64_t nextID_ = 1;
    mutable std::unordered_map<std::string, File> index_;
    mutable bool indexed_ = false;
    std::vector<SignatureMaker> signatureMakers_;
    std::optional<std::string> creationTime_;
};

}  // namespace crateworks::xar
