#include "CrateworksCore/Package_API/Archive/XarHandle.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/ArchiveErrors.h"
#include "CrateworksCore/Package_API/Archive/HeapWriter.h"
#include "CrateworksCore/Package_API/Archive/XarExtractor.h"
#include "CrateworksCore/Package_API/Archive/XarLimits.h"
#include "Platform/Digest.h"
#include "Platform/ExtractionRoot.h"
#include "Platform/FileSystem.h"
#include "Platform/FileTree.h"
#include "Platform/Log.h"
#include "Platform/Path.h"

namespace crateworks::xar {

namespace {
constexpr uint32_t kMagic = 0x78617221;  // "xar!"
constexpr size_t kNamedAlgorithmLength = 36;

enum HeaderAlgorithm : uint32_t { kNone = 0, kSHA1 = 1, kMD5 = 2, kNamed = 3, kSHA512 = 4 };

uint64_t bigEndian(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

void putBigEndian(std::string& out, uint64_t v, size_t n) {
    for (size_t i = n; i > 0; --i) out += char((v >> ((i - 1) * 8)) & 0xff);
}

bool readAt(int fd, uint8_t* out, uint64_t length, uint64_t offset) {
    while (length > 0) {
        ssize_t n = pread(fd, out, size_t(std::min<uint64_t>(length, 1u << 30)), off_t(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        out += n;
        length -= uint64_t(n);
        offset += uint64_t(n);
    }
    return true;
}

// Whether [offset, offset + length) lies inside [0, limit), without wrapping.
bool inBounds(uint64_t offset, uint64_t length, uint64_t limit) { return offset <= limit && length <= limit - offset; }

bool checksumMatches(const std::string& style, const std::string& expected, std::span<const uint8_t> bytes) {
    if (expected.empty()) return true;
    auto algorithm = platform::digest::fromName(style);
    return algorithm && platform::digest::hex(platform::digest::compute(*algorithm, bytes)) == expected;
}

std::string octalMode(mode_t mode) { return fmt::format("{:04o}", unsigned(mode & 07777)); }

std::string isoDate(const platform::Value* v) {
    auto d = v ? v->date() : std::nullopt;
    return d ? d->iso8601() : platform::Date{}.iso8601();
}
}  // namespace

XarHandle::XarHandle(std::string path, Mode mode, int fd) : path_(std::move(path)), mode_(mode), fd_(fd) {
    options_ = {{"rsize", "2097152"}, {"toc-cksum", "sha1"}, {"file-chksum", "sha1"}, {"compression", "gzip"}};
}

XarHandle::~XarHandle() {
    if (fd_ >= 0) close();
}

std::unique_ptr<XarHandle> XarHandle::open(const std::string& path, Mode mode, std::string* diagnostic) {
    auto fail = [&](std::string message) -> std::unique_ptr<XarHandle> {
        int saved = errno;
        if (diagnostic) *diagnostic = std::move(message);
        errno = saved;
        return nullptr;
    };
    if (mode == Mode::Read) {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return fail(fmt::format("cannot open: {}", strerror(errno)));
        std::unique_ptr<XarHandle> handle(new XarHandle(path, mode, fd));
        if (!handle->_read(diagnostic)) {
            errno = EINVAL;
            return nullptr;
        }
        return handle;
    }
    unlink(path.c_str());
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return fail(fmt::format("cannot create: {}", strerror(errno)));
    // The heap is written beside the archive and appended once the TOC is known.
    std::string heapName = path + ".heap.XXXXXX";
    int heapFd = mkostemp(heapName.data(), O_CLOEXEC);
    if (heapFd < 0) {
        int saved = errno;
        ::close(fd);
        unlink(path.c_str());
        errno = saved;
        return fail(fmt::format("cannot create the heap file: {}", strerror(saved)));
    }
    unlink(heapName.c_str());
    std::unique_ptr<XarHandle> handle(new XarHandle(path, mode, fd));
    handle->heapFd_ = heapFd;
    return handle;
}

bool XarHandle::_read(std::string* diagnostic) {
    auto fail = [&](std::string message) {
        if (diagnostic) *diagnostic = std::move(message);
        return false;
    };
    struct stat st {};
    if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) return fail("not a regular file");
    fileSize_ = uint64_t(st.st_size);
    uint8_t header[kMinHeaderSize];
    if (fileSize_ < kMinHeaderSize || !readAt(fd_, header, kMinHeaderSize, 0)) return fail("too short for a header");
    if (bigEndian(header, 4) != kMagic) return fail("no XAR magic");
    uint64_t headerSize = bigEndian(header + 4, 2);
    uint64_t compressedLength = bigEndian(header + 8, 8);
    uint64_t uncompressedLength = bigEndian(header + 16, 8);
    uint32_t algorithmCode = uint32_t(bigEndian(header + 24, 4));
    if (headerSize < kMinHeaderSize || headerSize > kMaxHeaderSize || headerSize > fileSize_)
        return fail(fmt::format("header size {} outside kMinHeaderSize..kMaxHeaderSize and the file", headerSize));
    if (compressedLength > kMaxCompressedTOCSize)
        return fail(fmt::format("compressed TOC of {} bytes exceeds kMaxCompressedTOCSize", compressedLength));
    if (uncompressedLength > kMaxUncompressedTOCSize)
        return fail(fmt::format("TOC of {} bytes exceeds kMaxUncompressedTOCSize", uncompressedLength));
    if (!inBounds(headerSize, compressedLength, fileSize_)) return fail("the TOC runs past the end of the file");

    std::optional<platform::digest::Algorithm> algorithm;
    if (algorithmCode == kSHA1) algorithm = platform::digest::Algorithm::SHA1;
    else if (algorithmCode == kMD5) algorithm = platform::digest::Algorithm::MD5;
    else if (algorithmCode == kSHA512) algorithm = platform::digest::Algorithm::SHA512;
    else if (algorithmCode == kNamed) {
        std::string name(size_t(headerSize - kMinHeaderSize), '\0');
        if (!readAt(fd_, reinterpret_cast<uint8_t*>(name.data()), name.size(), kMinHeaderSize))
            return fail("cannot read the header");
        name.resize(strnlen(name.c_str(), name.size()));
        algorithm = platform::digest::fromName(name);
        if (!algorithm) return fail(fmt::format("unknown TOC checksum algorithm \"{}\"", name));
    } else if (algorithmCode != kNone) {
        return fail(fmt::format("unknown TOC checksum algorithm {}", algorithmCode));
    }

    platform::Data compressed(compressedLength);
    if (!readAt(fd_, compressed.data(), compressedLength, headerSize)) return fail("cannot read the TOC");
    auto xml = inflateTOC(compressed, uncompressedLength, kMaxUncompressedTOCSize);
    if (!xml) return fail("the TOC is not a zlib stream within kMaxUncompressedTOCSize");
    auto toc = parseToc(*xml, diagnostic);
    if (!toc) return false;
    toc_ = std::move(*toc);
    heapOffset_ = headerSize + compressedLength;
    heapSize_ = fileSize_ - heapOffset_;

    if (algorithm) {
        size_t digestLength = platform::digest::length(*algorithm);
        if (!toc_.checksumOffset || !toc_.checksumSize) return fail("the TOC names no checksum");
        if (*toc_.checksumSize != digestLength)
            return fail(fmt::format("TOC checksum size {} is not the digest length {}", *toc_.checksumSize,
                                    digestLength));
        platform::Data stored(digestLength);
        if (!readHeap(*toc_.checksumOffset, digestLength, stored.data()))
            return fail("the TOC checksum lies outside the heap");
        if (platform::digest::compute(*algorithm, compressed) != stored)
            return fail("the TOC does not match its checksum");
    }
    return true;
}

bool XarHandle::readHeap(uint64_t offset, uint64_t length, uint8_t* out) const {
    if (mode_ != Mode::Read || fd_ < 0 || !inBounds(offset, length, heapSize_)) return false;
    return readAt(fd_, out, length, heapOffset_ + offset);
}

bool XarHandle::setOption(std::string_view name, std::string_view value) {
    bool known = name == "rsize" ? parseU64(value).has_value()
                 : (name == "toc-cksum" || name == "file-chksum") ? platform::digest::fromName(value).has_value()
                 : name == "compression"                          ? (value == "gzip" || value == "none")
                                                                  : false;
    if (!known) return false;
    for (auto& [key, v] : options_)
        if (key == name) v = value;
    return true;
}

std::optional<std::string> XarHandle::option(std::string_view name) const {
    for (const auto& [key, v] : options_)
        if (key == name) return v;
    return std::nullopt;
}

File XarHandle::first() const { return toc_.topLevel.empty() ? nullptr : toc_.topLevel.front(); }

File XarHandle::next(File file) const {
    if (!file) return nullptr;
    if (!file->children.empty()) return file->children.front();
    for (File f = file; f; f = f->parent) {
        const auto& siblings = f->parent ? f->parent->children : toc_.topLevel;
        if (f->indexInParent + 1 < siblings.size()) return siblings[f->indexInParent + 1];
    }
    return nullptr;
}

File XarHandle::find(const std::string& path) const {
    if (!indexed_) {
        for (File f = first(); f; f = next(f)) index_.emplace(f->path, f);
        indexed_ = true;
    }
    auto it = index_.find(path);
    return it == index_.end() ? nullptr : it->second;
}

std::optional<std::string> XarHandle::propertyGet(File file, std::string_view name) const {
    if (const Property* p = file->find(name)) return p->value;
    return std::nullopt;
}

std::optional<std::string> XarHandle::archivePropertyGet(std::string_view name) const {
    for (const auto& p : toc_.properties)
        if (p.name == name) return p.value;
    return std::nullopt;
}

std::optional<platform::Data> XarHandle::_storedBytes(const DataInfo& data) const {
    if (!inBounds(data.offset, data.length, heapSize_)) return std::nullopt;
    platform::Data stored(data.length);
    if (!readHeap(data.offset, data.length, stored.data())) return std::nullopt;
    return stored;
}

int XarHandle::verify(File file) const {
    if (!file->data) return 0;
    const DataInfo& d = *file->data;
    if (!inBounds(d.offset, d.length, heapSize_)) return -1;
    if (d.archivedChecksum.empty()) return 0;
    auto algorithm = platform::digest::fromName(d.archivedChecksumStyle);
    if (!algorithm) return -1;
    platform::digest::Hasher hasher(*algorithm);
    uint64_t chunk = std::clamp<uint64_t>(parseU64(option("rsize").value_or("")).value_or(1 << 21), 4096, 1 << 24);
    platform::Data buffer(size_t(std::min(chunk, d.length)));
    for (uint64_t done = 0; done < d.length;) {
        uint64_t n = std::min<uint64_t>(buffer.size(), d.length - done);
        if (!readHeap(d.offset + done, n, buffer.data())) return -1;
        hasher.update({buffer.data(), size_t(n)});
        done += n;
    }
    return platform::digest::hex(hasher.finish()) == d.archivedChecksum ? 0 : -1;
}

std::optional<platform::Data> XarHandle::extractToBuffer(File file, bool checkArchivedChecksum) const {
    platform::Data stored, out;
    if (!extractInto(file, stored, out, checkArchivedChecksum)) return std::nullopt;
    return out;
}

bool XarHandle::extractInto(File file, platform::Data& stored, platform::Data& out, bool checkArchivedChecksum) const {
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

bool XarHandle::extractToFile(File file, const std::string& destination, platform::Error* error) const {
    std::string standardized = platform::path::standardize(destination);
    auto root = platform::ExtractionRoot::open(platform::path::deletingLastComponent(standardized), false, error);
    if (!root) return false;
    XarExtractor extractor(*this, *root);
    return extractor.extractEntry(file, platform::path::lastComponent(standardized), error);
}

File XarHandle::_newEntry(File parent, std::string_view name, std::string type) {
    if (mode_ != Mode::Write || name.empty()) return nullptr;
    auto entry = std::make_unique<Entry>();
    entry->id = nextID_++;
    entry->name = name;
    entry->type = type;
    entry->parent = parent;
    entry->depth = parent ? parent->depth + 1 : 1;
    entry->path = parent ? parent->path + "/" + entry->name : entry->name;
    auto& siblings = parent ? parent->children : toc_.topLevel;
    entry->indexInParent = siblings.size();
    siblings.push_back(entry.get());
    entry->properties.push_back(Property{"name", entry->name, {}});
    entry->properties.push_back(Property{"type", std::move(type), {}});
    if (indexed_) index_.emplace(entry->path, entry.get());
    toc_.entries.push_back(std::move(entry));
    return toc_.entries.back().get();
}

void XarHandle::_setProperty(File file, std::string name, std::string value) {
    file->properties.push_back(Property{std::move(name), std::move(value), {}});
}

HeapWriter& XarHandle::_heapWriter() {
    if (!heapWriter_) {
        // The heap starts with the room for the TOC checksum and the signatures.
        heapWriter_ = std::make_unique<HeapWriter>(heapFd_, _heapStart(), *option("file-chksum"));
    }
    return *heapWriter_;
}

File XarHandle::addFolder(File parent, std::string_view name, const struct stat& st) {
    File f = _newEntry(parent, name, "directory");
    if (!f) return nullptr;
    _setProperty(f, "mode", octalMode(st.st_mode));
    _setProperty(f, "uid", std::to_string(st.st_uid));
    _setProperty(f, "gid", std::to_string(st.st_gid));
    _setProperty(f, "ctime", platform::Date{double(st.st_ctime)}.iso8601());
    _setProperty(f, "mtime", platform::Date{double(st.st_mtime)}.iso8601());
    return f;
}

File XarHandle::addFromBuffer(File parent, std::string_view name, std::span<const uint8_t> bytes) {
    File f = _newEntry(parent, name, "file");
    if (!f) return nullptr;
    std::string now = platform::Date::now().iso8601();
    _setProperty(f, "mode", "0644");
    _setProperty(f, "uid", std::to_string(getuid()));
    _setProperty(f, "gid", std::to_string(getgid()));
    _setProperty(f, "ctime", now);
    _setProperty(f, "mtime", now);
    if (!bytes.empty()) {
        f->data.emplace();
        _heapWriter().add(&*f->data, platform::Data(bytes.begin(), bytes.end()), option("compression") == "gzip");
    }
    return f;
}

File XarHandle::addFromPath(File parent, std::string_view name, const std::string& sourcePath) {
    if (mode_ != Mode::Write) return nullptr;
    auto attributes = platform::fs::attributes(sourcePath);
    if (!attributes) return nullptr;
    const std::string* fsType = attributes->findString(platform::fs::kFileType);
    std::string type = !fsType                                           ? ""
                       : *fsType == platform::fs::kFileTypeRegular      ? "file"
                       : *fsType == platform::fs::kFileTypeDirectory    ? "directory"
                       : *fsType == platform::fs::kFileTypeSymbolicLink ? "symlink"
                                                                        : "";
    if (type.empty()) {
        platform::consoleLogf("warning: {} is neither a file, a directory nor a symbolic link; left out", sourcePath);
        return nullptr;
    }
    std::optional<platform::Data> bytes;
    std::optional<std::string> target;
    const platform::Value* size = attributes->find(platform::fs::kFileSize);
    bool streamed = type == "file" && size && size->unsignedInteger().value_or(0) > kMaxInMemoryEntrySize;
    int streamFd = streamed ? ::open(sourcePath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW) : -1;
    if (streamed && streamFd < 0) return nullptr;
    if (type == "file" && !streamed && !(bytes = platform::fs::readFile(sourcePath))) return nullptr;
    if (type == "symlink" && !(target = platform::fs::readSymbolicLink(sourcePath))) return nullptr;

    File f = _newEntry(parent, name, type);
    if (!f) {
        if (streamFd >= 0) ::close(streamFd);
        return nullptr;
    }
    if (target) {
        bool isDirectory = false;
        bool exists = platform::fs::exists(sourcePath, &isDirectory);
        f->properties.push_back(Property{"link", *target, {{"type", !exists ? "broken" : isDirectory ? "directory"
                                                                                                    : "file"}}});
    }
    auto number = [&](const char* key) {
        const platform::Value* v = attributes->find(key);
        return std::to_string(v ? v->unsignedInteger().value_or(0) : 0);
    };
    auto text = [&](const char* key) -> std::optional<std::string> {
        const std::string* s = attributes->findString(key);
        return s ? std::optional<std::string>(*s) : std::nullopt;
    };
    const platform::Value* permissions = attributes->find(platform::fs::kFilePosixPermissions);
    _setProperty(f, "mode", octalMode(mode_t(permissions ? permissions->unsignedInteger().value_or(0) : 0)));
    _setProperty(f, "uid", number(platform::fs::kFileOwnerAccountID));
    if (auto user = text(platform::fs::kFileOwnerAccountName)) _setProperty(f, "user", *user);
    _setProperty(f, "gid", number(platform::fs::kFileGroupOwnerAccountID));
    if (auto group = text(platform::fs::kFileGroupOwnerAccountName)) _setProperty(f, "group", *group);
    _setProperty(f, "ctime", isoDate(attributes->find(platform::fs::kFileCreationDate)));
    _setProperty(f, "mtime", isoDate(attributes->find(platform::fs::kFileModificationDate)));
    if (bytes && !bytes->empty()) {
        f->data.emplace();
        _heapWriter().add(&*f->data, std::move(*bytes), option("compression") == "gzip");
    }
    if (streamFd >= 0) {
        f->data.emplace();
        bool ok = _heapWriter().addStream(&*f->data, streamFd, option("compression") == "gzip");
        ::close(streamFd);
        if (!ok) {
            // The entry stays in the TOC without data; the caller learns of the failure.
            f->data.reset();
            return nullptr;
        }
    }
    return f;
}

File XarHandle::addFromArchive(File parent, std::string_view name, const XarHandle& source, File sourceFile) {
    if (mode_ != Mode::Write || !sourceFile) return nullptr;
    std::optional<platform::Data> stored;
    if (sourceFile->data && !(stored = source._storedBytes(*sourceFile->data))) return nullptr;
    File f = _newEntry(parent, name, sourceFile->type);
    if (!f) return nullptr;
    f->properties.resize(1);  // the new name; everything else comes from the source
    for (const auto& p : sourceFile->properties)
        if (p.name != "name") f->properties.push_back(p);
    if (stored) {
        f->data = sourceFile->data;
        _heapWriter().addStored(&*f->data, std::move(*stored));
    }
    return f;
}

std::optional<platform::Data> XarHandle::signatureBytes(const Signature& signature) const {
    // Bounds first: a size from the TOC is only allocated once the heap is known to hold it.
    if (!inBounds(signature.offset, signature.size, heapSize_)) return std::nullopt;
    platform::Data bytes(signature.size);
    if (!readHeap(signature.offset, signature.size, bytes.data())) return std::nullopt;
    return bytes;
}

std::optional<platform::Data> XarHandle::signedData() const {
    if (!toc_.checksumOffset || !toc_.checksumSize) return std::nullopt;
    platform::Data bytes(*toc_.checksumSize);
    if (!readHeap(*toc_.checksumOffset, *toc_.checksumSize, bytes.data())) return std::nullopt;
    return bytes;
}

bool XarHandle::signatureAddX509Certificate(size_t signatureIndex, platform::Data der) {
    if (mode_ != Mode::Write || signatureIndex >= toc_.signatures.size()) return false;
    toc_.signatures[signatureIndex].certificates.push_back(std::move(der));
    return true;
}

std::optional<size_t> XarHandle::signatureAdd(std::string type, uint64_t size, SignatureMaker sign) {
    if (mode_ != Mode::Write || heapWriter_ || size == 0) return std::nullopt;
    toc_.signatures.push_back(Signature{std::move(type), 0, size, {}});
    signatureMakers_.push_back(std::move(sign));
    return toc_.signatures.size() - 1;
}

uint64_t XarHandle::_heapStart() const {
    uint64_t start = platform::digest::length(*platform::digest::fromName(*option("toc-cksum")));
    for (const auto& s : toc_.signatures) start += s.size;
    return start;
}

int XarHandle::close() {
    if (fd_ < 0) return 0;
    int result = mode_ == Mode::Write ? _write() : 0;
    int saved = errno;
    ::close(fd_);
    fd_ = -1;
    if (heapFd_ >= 0) ::close(heapFd_);
    heapFd_ = -1;
    errno = saved;
    return result;
}

int XarHandle::_write() {
    std::string tocStyle = *option("toc-cksum");
    auto algorithm = *platform::digest::fromName(tocStyle);
    uint64_t checksumLength = platform::digest::length(algorithm);
    uint64_t heapEnd = _heapStart();
    if (heapWriter_) {
        bool ok = heapWriter_->finish();
        heapEnd = heapWriter_->end();
        heapWriter_.reset();
        if (!ok) return -1;
    }
    toc_.checksumStyle = tocStyle;
    toc_.checksumOffset = 0;
    toc_.checksumSize = checksumLength;
    uint64_t signatureOffset = checksumLength;
    for (auto& s : toc_.signatures) {
        s.offset = signatureOffset;
        signatureOffset += s.size;
    }
    std::string now = platform::Date::now().iso8601();
    std::string xml = serializeToc(toc_, creationTime_.value_or(now.substr(0, now.size() - 1)));
    platform::Data compressed = compressTOC(xml);
    platform::Data checksum = platform::digest::compute(algorithm, compressed);
    if (pwrite(heapFd_, checksum.data(), checksum.size(), 0) != ssize_t(checksum.size())) return -1;
    for (size_t i = 0; i < signatureMakers_.size(); ++i) {
        const Signature& s = toc_.signatures[i];
        auto bytes = signatureMakers_[i] ? signatureMakers_[i](checksum) : std::nullopt;
        if (!bytes || bytes->size() != s.size) {
            errno = EINVAL;
            return -1;
        }
        if (pwrite(heapFd_, bytes->data(), bytes->size(), off_t(s.offset)) != ssize_t(s.size)) return -1;
    }

    uint32_t code = tocStyle == "sha1" ? kSHA1 : tocStyle == "md5" ? kMD5 : kNamed;
    std::string header;
    putBigEndian(header, kMagic, 4);
    putBigEndian(header, code == kNamed ? kMinHeaderSize + kNamedAlgorithmLength : kMinHeaderSize, 2);
    putBigEndian(header, 1, 2);
    putBigEndian(header, compressed.size(), 8);
    putBigEndian(header, xml.size(), 8);
    putBigEndian(header, code, 4);
    if (code == kNamed) {
        std::string name = tocStyle;
        name.resize(kNamedAlgorithmLength, '\0');
        header += name;
    }
    if (!platform::fs::writeAll(fd_, std::span(reinterpret_cast<const uint8_t*>(header.data()), header.size())) ||
        !platform::fs::writeAll(fd_, compressed))
        return -1;
    return platform::fs::appendRange(heapFd_, 0, heapEnd, fd_) ? 0 : -1;
}

}  // namespace crateworks::xar
