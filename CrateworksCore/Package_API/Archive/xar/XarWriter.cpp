#include "CrateworksCore/Package_API/Archive/xar/XarWriter.h"

#include <cerrno>
#include <fmt/format.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/xar/HeapWriter.h"
#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"
#include "CrateworksCore/Package_API/Archive/xar/XarHeader.h"
#include "CrateworksCore/Package_API/Archive/xar/XarLimits.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "Platform/Digest.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace crateworks::xar {

namespace {
constexpr uint64_t kWritebackPiece = 16ull << 20;

std::string octalMode(uint64_t mode) { return fmt::format("{:04o}", unsigned(mode & 07777)); }

std::string isoDate(const platform::Value* v) {
    auto d = v ? v->date() : std::nullopt;
    return d ? d->iso8601() : platform::Date{}.iso8601();
}

bool isStorableName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}
}  // namespace

XarWriter::XarWriter(std::string path, platform::fs::AtomicFile output, platform::fs::File heap)
    : path_(std::move(path)), output_(std::move(output)), heap_(std::move(heap)) {
    options_ = {{"toc-cksum", "sha1"}, {"file-chksum", "sha1"}, {"compression", "gzip"}};
}

XarWriter::~XarWriter() { discard(); }

std::unique_ptr<XarWriter> XarWriter::open(const std::string& path, platform::Error* error) {
    auto output = platform::fs::AtomicFile::create(path, error);
    if (!output) return nullptr;
    // The heap is gathered beside the archive (same file system, so that it can be
    // copied in inside the kernel) and appended once the TOC is known.
    std::string directory = platform::path::deletingLastComponent(path);
    // Its errors (a full disk, say) name the archive being written.
    auto heap = platform::fs::File::createTemporary(directory.empty() ? "." : directory, error, path);
    if (!heap) return nullptr;
    return std::unique_ptr<XarWriter>(new XarWriter(path, std::move(*output), std::move(*heap)));
}

bool XarWriter::setOption(std::string_view name, std::string_view value) {
    bool known = (name == "toc-cksum" || name == "file-chksum") ? platform::digest::fromName(value).has_value()
                 : name == "compression"                        ? (value == "gzip" || value == "none")
                                                                : false;
    if (!known) return false;
    for (auto& [key, v] : options_)
        if (key == name) v = value;
    return true;
}

std::optional<std::string> XarWriter::option(std::string_view name) const {
    for (const auto& [key, v] : options_)
        if (key == name) return v;
    return std::nullopt;
}

File XarWriter::_newEntry(File parent, std::string_view name, std::string type, platform::Error* error,
                          const std::string& displayPath) {
    std::string shown = !displayPath.empty() ? displayPath
                        : parent         ? parent->path + "/" + std::string(name)
                                         : std::string(name);
    if (!output_) {
        platform::setError(error, platform::fs::posixError(EBADF, path_, "the archive is closed"));
        return nullptr;
    }
    if (!isStorableName(name)) {
        platform::setError(error, platform::fs::posixError(EINVAL, shown,
                                                           "a name that is empty, \".\", \"..\" or holds \"/\" "
                                                           "cannot be stored"));
        return nullptr;
    }
    unsigned depth = parent ? parent->depth + 1 : 1;
    if (depth > kMaxDepth) {
        platform::setError(error, platform::fs::posixError(ELOOP, shown,
                                                           fmt::format("nests {} levels deep, past the {} levels "
                                                                       "(kMaxDepth) an archive may hold",
                                                                       depth, kMaxDepth)));
        return nullptr;
    }
    if (toc_.entries.size() >= kMaxEntryCount) {
        platform::setError(error, platform::fs::posixError(EFBIG, shown,
                                                           fmt::format("an archive holds at most {} entries "
                                                                       "(kMaxEntryCount)",
                                                                       kMaxEntryCount)));
        return nullptr;
    }
    return toc_.add(parent, name, std::move(type), nextID_++);
}

void XarWriter::_setProperty(File file, std::string name, std::string value) {
    file->properties.push_back(Property{std::move(name), std::move(value), {}});
}

HeapWriter& XarWriter::_heapWriter() {
    // The heap starts with the room for the TOC checksum and the signatures.
    if (!heapWriter_) heapWriter_ = std::make_unique<HeapWriter>(heap_, _heapStart(), *option("file-chksum"));
    return *heapWriter_;
}

File XarWriter::addFolder(File parent, std::string_view name, uint32_t mode, platform::Error* error) {
    File f = _newEntry(parent, name, "directory", error);
    if (!f) return nullptr;
    std::string epoch = platform::Date{0}.iso8601();
    _setProperty(f, "mode", octalMode(mode));
    _setProperty(f, "uid", "0");
    _setProperty(f, "gid", "0");
    _setProperty(f, "ctime", epoch);
    _setProperty(f, "mtime", epoch);
    return f;
}

File XarWriter::addFromBuffer(File parent, std::string_view name, std::span<const uint8_t> bytes,
                              platform::Error* error) {
    File f = _newEntry(parent, name, "file", error);
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

File XarWriter::addFromPath(File parent, std::string_view name, const std::string& sourcePath, platform::Error* error) {
    std::string directoryPath = platform::path::deletingLastComponent(sourcePath);
    auto directory = platform::fs::File::open(directoryPath.empty() ? "." : directoryPath, {.directory = true}, error);
    if (!directory) return nullptr;
    return addFromItem(parent, name, *directory, platform::path::lastComponent(sourcePath), sourcePath, error);
}

File XarWriter::addFromItem(File parent, std::string_view name, const platform::fs::File& directory,
                            const std::string& itemName, const std::string& displayPath, platform::Error* error) {
    using namespace platform::fs;
    auto attributes = attributesAt(directory, itemName, error, displayPath);
    if (!attributes) return nullptr;
    const std::string* fsType = attributes->findString(kFileType);
    std::optional<platform::fs::File> content;
    std::optional<std::string> target;
    std::string type;
    if (fsType && *fsType == kFileTypeRegular) {
        // The bytes and the attributes recorded are those of the very file opened.
        content = platform::fs::File::openAt(directory, itemName, {.followFinalLink = false, .nonBlocking = true},
                                             error, displayPath);
        if (!content) return nullptr;
        attributes = content->attributes(error);
        if (!attributes) return nullptr;
        const std::string* openedType = attributes->findString(kFileType);
        if (!openedType || *openedType != kFileTypeRegular) {
            platform::setError(error,
                               platform::fs::posixError(EAGAIN, displayPath, "changed while it was archived"));
            return nullptr;
        }
        type = "file";
    } else if (fsType && *fsType == kFileTypeDirectory) {
        type = "directory";
    } else if (fsType && *fsType == kFileTypeSymbolicLink) {
        target = readSymbolicLinkAt(directory, itemName, error, displayPath);
        if (!target) return nullptr;
        type = "symlink";
    } else {
        const char* kind = !fsType                                   ? "of an unknown type"
                           : *fsType == kFileTypeSocket             ? "a socket"
                           : *fsType == kFileTypeCharacterSpecial   ? "a character device"
                           : *fsType == kFileTypeBlockSpecial       ? "a block device"
                                                                    : "a FIFO or of another type";
        platform::setError(error, platform::fs::posixError(ENOTSUP, displayPath,
                                          fmt::format("is {}; only files, directories and symbolic links can be "
                                                      "archived",
                                                      kind)));
        return nullptr;
    }

    std::optional<platform::Data> bytes;
    const platform::Value* size = attributes->find(kFileSize);
    uint64_t byteCount = size ? size->unsignedInteger().value_or(0) : 0;
    bool streamed = content && byteCount > kMaxInMemoryEntrySize;
    if (content && !streamed && !(bytes = content->readToEnd(error, byteCount))) return nullptr;

    File f = _newEntry(parent, name, type, error, displayPath);
    if (!f) return nullptr;
    if (target) {
        const char* followed = fileTypeAt(directory, itemName, true);
        const char* linkType = !followed                                ? "broken"
                               : std::string(followed) == kFileTypeDirectory ? "directory"
                                                                         : "file";
        f->properties.push_back(Property{"link", *target, {{"type", linkType}}});
    }
    auto number = [&](const char* key) {
        const platform::Value* v = attributes->find(key);
        return std::to_string(v ? v->unsignedInteger().value_or(0) : 0);
    };
    const platform::Value* permissions = attributes->find(kFilePosixPermissions);
    _setProperty(f, "mode", octalMode(permissions ? permissions->unsignedInteger().value_or(0) : 0));
    _setProperty(f, "uid", number(kFileOwnerAccountID));
    if (const std::string* user = attributes->findString(kFileOwnerAccountName)) _setProperty(f, "user", *user);
    _setProperty(f, "gid", number(kFileGroupOwnerAccountID));
    if (const std::string* group = attributes->findString(kFileGroupOwnerAccountName)) _setProperty(f, "group", *group);
    _setProperty(f, "ctime", isoDate(attributes->find(kFileCreationDate)));
    _setProperty(f, "mtime", isoDate(attributes->find(kFileModificationDate)));
    if (bytes && !bytes->empty()) {
        f->data.emplace();
        _heapWriter().add(&*f->data, std::move(*bytes), option("compression") == "gzip");
    }
    if (streamed) {
        f->data.emplace();
        if (!_heapWriter().addStream(&*f->data, *content, option("compression") == "gzip", error)) {
            // The entry stays in the TOC without data; the caller learns of the failure.
            f->data.reset();
            return nullptr;
        }
    }
    return f;
}

File XarWriter::addFromArchive(File parent, std::string_view name, const XarReader& source, File sourceFile,
                               platform::Error* error) {
    if (!sourceFile) return nullptr;
    std::optional<platform::Data> stored;
    if (sourceFile->data && !(stored = source.storedBytes(sourceFile))) {
        platform::setError(error, corruptEntryError(sourceFile->path));
        return nullptr;
    }
    File f = _newEntry(parent, name, sourceFile->type, error);
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

bool XarWriter::signatureAddX509Certificate(size_t signatureIndex, platform::Data der) {
    if (!output_ || signatureIndex >= toc_.signatures.size()) return false;
    toc_.signatures[signatureIndex].certificates.push_back(std::move(der));
    return true;
}

std::optional<size_t> XarWriter::signatureAdd(std::string type, uint64_t size, SignatureMaker sign) {
    if (!output_ || heapWriter_ || size == 0) return std::nullopt;
    toc_.signatures.push_back(Signature{std::move(type), 0, size, {}});
    signatureMakers_.push_back(std::move(sign));
    return toc_.signatures.size() - 1;
}

uint64_t XarWriter::_heapStart() const {
    uint64_t start = platform::digest::length(*platform::digest::fromName(*option("toc-cksum")));
    for (const auto& s : toc_.signatures) start += s.size;
    return start;
}

bool XarWriter::close(platform::Error* error) {
    if (!output_) {
        platform::setError(error, platform::fs::posixError(EBADF, path_, "the archive is closed"));
        return false;
    }
    bool ok = _write(error) && output_->commit(error);
    discard();
    return ok;
}

void XarWriter::discard() {
    heapWriter_.reset();
    if (output_) output_->discard();
    output_.reset();
    heap_.close();
}

bool XarWriter::_write(platform::Error* error) {
    std::string tocStyle = *option("toc-cksum");
    auto algorithm = *platform::digest::fromName(tocStyle);
    uint64_t checksumLength = platform::digest::length(algorithm);
    uint64_t heapEnd = _heapStart();
    if (heapWriter_) {
        bool ok = heapWriter_->finish(error);
        heapEnd = heapWriter_->end();
        heapWriter_.reset();
        if (!ok) return false;
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
    if (xml.size() > kMaxUncompressedTOCSize) {
        platform::setError(error, platform::fs::posixError(EFBIG, path_,
                                                           fmt::format("the TOC would take {} bytes, past the {} "
                                                                       "(kMaxUncompressedTOCSize) an archive may hold",
                                                                       xml.size(), kMaxUncompressedTOCSize)));
        return false;
    }
    platform::Data compressed = compressTOC(xml);
    platform::Data checksum = platform::digest::compute(algorithm, compressed);
    // No digest at all (the library that computes them is missing) would leave every
    // checksum of the archive empty: nothing could ever read it back.
    if (checksum.size() != checksumLength) {
        platform::setError(error, platform::fs::posixError(ENOTSUP, path_, "no checksum can be computed"));
        return false;
    }
    if (!heap_.writeAt(0, checksum, error)) return false;
    for (size_t i = 0; i < signatureMakers_.size(); ++i) {
        const Signature& s = toc_.signatures[i];
        auto bytes = signatureMakers_[i] ? signatureMakers_[i](checksum) : std::nullopt;
        if (!bytes || bytes->size() != s.size) {
            platform::setError(error, platform::fs::posixError(EINVAL, path_, "the signature could not be made"));
            return false;
        }
        if (!heap_.writeAt(s.offset, *bytes, error)) return false;
    }
    std::string header = serializeHeader(tocStyle, compressed.size(), xml.size());
    platform::fs::File& out = output_->file();
    if (!out.writeAll({reinterpret_cast<const uint8_t*>(header.data()), header.size()}, error) ||
        !out.writeAll(compressed, error))
        return false;
    // The heap goes in by pieces, each sent on to the disk while the next is copied, so
    // that the sync before the archive takes OUT's place finds little left to write.
    uint64_t written = header.size() + compressed.size();
    for (uint64_t done = 0; done < heapEnd;) {
        uint64_t piece = std::min<uint64_t>(kWritebackPiece, heapEnd - done);
        if (!out.appendRangeOf(heap_, done, piece, error)) return false;
        out.startWriteback(written, piece);
        written += piece;
        done += piece;
    }
    return true;
}

}  // namespace crateworks::xar
