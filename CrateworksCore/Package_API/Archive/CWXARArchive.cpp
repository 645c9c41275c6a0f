#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>

#include "CrateworksCore/Package_API/Archive/CWXARDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "Platform/Digest.h"
#include "Platform/File.h"
#include "Platform/FileSystem.h"

namespace crateworks {

namespace {
constexpr const char* kRSAAlgorithm = "RSA";

CWXARArchive::SignatureWrapper& signatureWrapper() {
    static CWXARArchive::SignatureWrapper wrapper;
    return wrapper;
}

// Leading blanks, an optional sign and decimal digits; 0 when there are none.
int64_t integerValue(const std::string& text) { return strtoll(text.c_str(), nullptr, 10); }
}  // namespace

void CWXARArchive::setSignatureWrapper(SignatureWrapper wrapper) { signatureWrapper() = std::move(wrapper); }

std::shared_ptr<CWXARArchive> CWXARArchive::initForReadingFromPath(const std::string& path, platform::Error* error) {
    std::shared_ptr<CWXARArchive> archive(new CWXARArchive());
    archive->_archivePath = path;
    if (!archive->_xar(error)) return nullptr;
    return archive;
}

CWXARArchive::~CWXARArchive() = default;

xar::XarReader* CWXARArchive::_xar(platform::Error* error) {
    if (!_xarPtr) {
        _xarPtr = xar::XarReader::open(_archivePath, error);
        if (_xarPtr) _xarPtr->setOption("rsize", "2097152");
    }
    return _xarPtr.get();
}

bool CWXARArchive::closeArchive() {
    // A reader holds nothing that closing could lose.
    _xarPtr.reset();
    return true;
}

size_t CWXARArchive::_rsaSignatureCount() {
    size_t count = 0;
    if (auto* xar = _xar())
        for (const auto& s : xar->signatures()) count += s.type == kRSAAlgorithm;
    return count;
}

bool CWXARArchive::_xarFileIsValid(xar::File file) {
    if (_skipsVerify && _rsaSignatureCount() == 0) return true;
    auto* xar = _xar();
    return xar && xar->verify(file) == 0;
}

xar::File CWXARArchive::_fileStructForSubpath(const std::string& subpath, platform::Error* error) {
    auto* xar = _xar();
    if (!xar) {
        platform::setError(error, platform::fs::posixError(EIO, _archivePath));
        return nullptr;
    }
    auto enumerator = CWXARDirectoryEnumerator::initWithXAR(xar, subpath);
    xar::File file = enumerator ? enumerator->xar_file() : nullptr;
    if (!file) platform::setError(error, platform::fs::posixError(ENOENT, subpath));
    return file;
}

uint64_t CWXARArchive::_fileOffsetForPath(const std::string& path, platform::Error* error) {
    xar::File file = _fileStructForSubpath(path, error);
    if (!file) return 0;
    auto offset = xar::parseU64(_xar()->propertyGet(file, "data/offset").value_or(""));
    if (!offset) {
        platform::setError(error, platform::fs::posixError(ENOENT, path));
        return 0;
    }
    return _xar()->heapOffset() + *offset;
}

std::unique_ptr<platform::DirectoryEnumerator> CWXARArchive::enumeratorAtPath(const std::string& path) {
    return CWXARDirectoryEnumerator::initWithXAR(_xar(), path);
}

std::optional<platform::Data> CWXARArchive::dataForPath(const std::string& path) {
    xar::File file = _fileStructForSubpath(path, nullptr);
    if (!file || !_xarFileIsValid(file)) return std::nullopt;
    return _xar()->extractToBuffer(file);
}

bool CWXARArchive::_extractFile(const std::string& path, const std::string& toPath, platform::Error* error) {
    xar::File file = _fileStructForSubpath(path, error);
    if (!file) return false;
    if (!_xarFileIsValid(file)) {
        platform::setError(error, platform::kGeneralErrorDomain, platform::kFileReadCorruptFileError);
        return false;
    }
    return _xar()->extractToFile(file, toPath, error);
}

bool CWXARArchive::_finishDirectory(const std::string& path, const std::string& toPath, platform::Error* error) {
    xar::File file = _fileStructForSubpath(path, error);
    return file && _xar()->finishDirectory(file, toPath, error);
}

std::string CWXARArchive::_fileAttributeKeyForXARPropertyName(const std::string& name) {
    using namespace platform::fs;
    if (name == "type") return kFileType;
    if (name == "uid") return kFileOwnerAccountID;
    if (name == "gid") return kFileGroupOwnerAccountID;
    if (name == "mode") return kFilePosixPermissions;
    if (name == "user") return kFileOwnerAccountName;
    if (name == "group") return kFileGroupOwnerAccountName;
    if (name == "data/size") return kFileSize;
    if (name == "ctime") return kFileCreationDate;
    if (name == "mtime") return kFileModificationDate;
    return name;
}

std::string CWXARArchive::_fileAttributeKeyForXARFileType(const std::string& type) {
    using namespace platform::fs;
    if (type == "file") return kFileTypeRegular;
    if (type == "directory") return kFileTypeDirectory;
    if (type == "symlink") return kFileTypeSymbolicLink;
    if (type == "socket") return kFileTypeSocket;
    if (type == "character special") return kFileTypeCharacterSpecial;
    if (type == "block special") return kFileTypeBlockSpecial;
    return kFileTypeUnknown;
}

platform::Value CWXARArchive::_fileAttributeForXARProperty(const std::string& value, const std::string& key) {
    using namespace platform::fs;
    if (key == kFileType) return platform::Value(_fileAttributeKeyForXARFileType(value));
    // "mode" too is read in base 10, so a stored "0644" yields 644; callers rely on it.
    if (key == kFileOwnerAccountID || key == kFileGroupOwnerAccountID || key == kFilePosixPermissions)
        return platform::Value(integerValue(value));
    if (key == kFileSize) return platform::Value(uint64_t(strtoull(value.c_str(), nullptr, 10)));
    if (key == kFileCreationDate || key == kFileModificationDate) {
        auto date = platform::Date::fromISO8601(value);
        return date ? platform::Value(*date) : platform::Value();
    }
    return platform::Value(value);
}

std::optional<platform::Dictionary> CWXARArchive::fileAttributesAtPath(const std::string& path) {
    if (path.empty() || path == ".") return platform::Dictionary{{platform::fs::kFileType, platform::fs::kFileTypeDirectory}};
    xar::File file = _fileStructForSubpath(path, nullptr);
    if (!file) return std::nullopt;
    platform::Dictionary attributes;
    for (const auto& property : _xar()->properties(file)) {
        if (!property.value) continue;
        std::string key = _fileAttributeKeyForXARPropertyName(property.name);
        attributes.set(key, _fileAttributeForXARProperty(*property.value, key));
    }
    return attributes;
}

bool CWXARArchive::fileExistsAtPath(const std::string& path) { return fileAttributesAtPath(path).has_value(); }

bool CWXARArchive::verifyReturningError(platform::Error* error) {
    auto* xar = _xar();
    if (!xar) {
        platform::setError(error, platform::fs::posixError(EIO, _archivePath));
        return false;
    }
    for (xar::File f = xar->first(); f; f = xar->next(f)) {
        if (xar->verify(f) != 0) {
            platform::setError(error, xar::corruptEntryError(xar->path(f)));
            return false;
        }
    }
    return true;
}

std::optional<std::string> CWXARArchive::archiveDigest() {
    auto* xar = _xar();
    if (!xar) return std::nullopt;
    uint64_t offset = strtoull(xar->archivePropertyGet("checksum/offset").value_or("").c_str(), nullptr, 10);
    uint64_t size = strtoull(xar->archivePropertyGet("checksum/size").value_or("").c_str(), nullptr, 10);
    uint64_t heapOffset = xar->heapOffset();
    closeArchive();
    platform::Data bytes(size_t(std::min<uint64_t>(size, 4096)));
    auto file = platform::fs::File::open(_archivePath, {.regularFile = true});
    auto n = file ? file->readAt(heapOffset + offset, bytes) : std::nullopt;
    if (!n || *n != size) return std::nullopt;
    return platform::digest::hex(bytes);
}

std::optional<platform::Date> CWXARArchive::archiveSignatureDate() {
    auto* xar = _xar();
    auto text = xar ? xar->archivePropertyGet("creation-time") : std::nullopt;
    if (!text) return std::nullopt;
    std::tm tm{};
    const char* rest = strptime(text->c_str(), "%FT%T", &tm);
    if (!rest || (*rest != '\0' && std::string(rest) != "Z")) return std::nullopt;
    return platform::Date{double(timegm(&tm))};
}

std::optional<CWArchiveSignatureList> CWXARArchive::archiveSignatures() {
    auto* xar = _xar();
    if (!xar) return std::nullopt;
    CWArchiveSignatureList kept;
    const auto& wrap = signatureWrapper();
    for (size_t i = 0; i < xar->signatures().size(); ++i) {
        if (xar->signatures()[i].type != kRSAAlgorithm || !wrap) continue;
        if (auto signature = wrap(*xar, i)) kept.push_back(std::move(signature));
    }
    return kept;
}

}  // namespace crateworks
