#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"

#include <cerrno>
#include <fmt/format.h>

#include "CrateworksCore/Package_API/Archive/CWXARDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "CrateworksCore/Package_API/Archive/xar/XarWriter.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/TreeWalk.h"

namespace crateworks {

CWMutableXARArchive::CWMutableXARArchive() = default;
CWMutableXARArchive::~CWMutableXARArchive() = default;

std::shared_ptr<CWMutableXARArchive> CWMutableXARArchive::initForWritingToPath(const std::string& path,
                                                                               platform::Error* error) {
    if (path.empty()) {
        platform::setError(error, platform::kPOSIXErrorDomain, ENOENT);
        return nullptr;
    }
    std::shared_ptr<CWMutableXARArchive> archive(new CWMutableXARArchive());
    archive->_archivePath = path;
    archive->_writer = xar::XarWriter::open(path, error);
    if (!archive->_writer) return nullptr;
    archive->_mutable = true;
    archive->_writer->setOption("toc-cksum", "sha1");
    archive->_writer->setOption("file-chksum", "sha1");
    return archive;
}

void CWMutableXARArchive::_raiseIfClosed(const char* method) const {
    if (!_mutable)
        throw platform::Exception("CWMutableXARArchiveException",
                                  fmt::format("{} cannot be used after archive has been closed", method));
}

xar::XarReader* CWMutableXARArchive::_xar(platform::Error* error) {
    if (_mutable) {
        platform::setError(error, platform::fs::posixError(EBUSY, _archivePath));
        return nullptr;
    }
    return CWXARArchive::_xar(error);
}

bool CWMutableXARArchive::closeArchive() { return closeArchiveReturningError(nullptr); }

bool CWMutableXARArchive::closeArchiveReturningError(platform::Error* error) {
    _mutable = false;
    bool written = !_writer || _writer->close(error);
    _writer.reset();
    return CWXARArchive::closeArchive() && written;
}

std::optional<xar::File> CWMutableXARArchive::_fileStructForParentOfSubpath(const std::string& subpath,
                                                                            platform::Error* error) {
    std::string parent = platform::path::deletingLastComponent(subpath);
    if (parent.empty() || parent == "/") return nullptr;
    if (xar::File existing = _writer ? _writer->find(parent) : nullptr) return existing;
    std::optional<xar::File> grandparent = _fileStructForParentOfSubpath(parent, nullptr);
    xar::File made =
        _writer ? _writer->addFolder(grandparent.value_or(nullptr), platform::path::lastComponent(parent), 0700)
                : nullptr;
    if (!made) {
        platform::setError(error, platform::fs::posixError(ENOTDIR, _archivePath));
        return std::nullopt;
    }
    return made;
}

bool CWMutableXARArchive::setData(const platform::Data& data, const std::string& path, bool compressed) {
    _raiseIfClosed("-[CWMutableXARArchive setData:forPath:compressed:]");
    auto parent = _fileStructForParentOfSubpath(path, nullptr);
    if (!parent) return false;
    _writer->setOption("compression", compressed ? "gzip" : "none");
    return _writer->addFromBuffer(*parent, platform::path::lastComponent(path), data) != nullptr;
}

bool CWMutableXARArchive::setFile(const std::string& file, const std::string& path, bool compressed) {
    return setFile(file, path, compressed, nullptr);
}

bool CWMutableXARArchive::setFile(const std::string& file, const std::string& path, bool compressed,
                                  platform::Error* error) {
    _raiseIfClosed("-[CWMutableXARArchive setFile:forPath:compressed:]");
    auto parent = _fileStructForParentOfSubpath(path, error);
    if (!parent) return false;
    _writer->setOption("compression", compressed ? "gzip" : "none");
    return _writer->addFromPath(*parent, platform::path::lastComponent(path), file, error) != nullptr;
}

bool CWMutableXARArchive::setContentsOfDirectory(const std::string& directory, const std::string& path,
                                                 bool compressed, platform::Error* error) {
    _raiseIfClosed("-[CWMutableXARArchive setContentsOfDirectory:forPath:compressed:error:]");
    auto walk = platform::fs::TreeWalk::open(directory, error);
    if (!walk) return false;
    if (platform::fs::liesWithin(_archivePath, walk->root())) {
        platform::setError(error, platform::fs::posixError(
                                      EINVAL, _archivePath,
                                      fmt::format("lies inside {}, the directory being archived", directory)));
        return false;
    }
    _writer->setOption("compression", compressed ? "gzip" : "none");
    std::optional<xar::File> top = path.empty() ? std::optional<xar::File>(nullptr)
                                                : _fileStructForParentOfSubpath(path + "/-", error);
    if (!top) return false;
    // The entry made for each directory, by depth, so that its children find it.
    std::vector<xar::File> parents{*top};
    while (auto item = walk->next(error)) {
        parents.resize(item->depth);
        xar::File entry = _writer->addFromItem(parents.back(), item->name, walk->directory(), item->name,
                                               walk->displayPath(*item), error);
        if (!entry) return false;
        // A directory's children come next in the walk, one level deeper.
        if (item->isDirectory) parents.push_back(entry);
    }
    return !walk->failed();
}

bool CWMutableXARArchive::setContentsOfArchive(CWArchive& archive, const std::string& path) {
    _raiseIfClosed("-[CWMutableXARArchive setContentsOfArchive:forPath:]");
    auto* source = dynamic_cast<CWXARArchive*>(&archive);
    if (!source) return false;
    auto* sourceXar = source->_xar();
    auto enumerator = CWXARDirectoryEnumerator::initWithXAR(sourceXar, "");
    if (!enumerator) return false;
    while (auto entry = enumerator->nextObject()) {
        std::string destination = platform::path::appendComponent(path, *entry);
        auto parent = _fileStructForParentOfSubpath(destination, nullptr);
        if (!parent) return false;
        if (!_writer->addFromArchive(*parent, platform::path::lastComponent(destination), *sourceXar,
                                     enumerator->xar_file()))
            return false;
    }
    return true;
}

bool CWMutableXARArchive::addSignatureBySigningWithIdentity(const CWSigningIdentity*, const std::string&, bool) {
    return false;
}

bool CWMutableXARArchive::addIntermediateCertificate(const platform::Data& certificate) {
    if (!_writer || _writer->signatures().empty()) return false;
    bool ok = true;
    for (size_t i = 0; i < _writer->signatures().size(); ++i)
        ok = _writer->signatureAddX509Certificate(i, certificate) && ok;
    return ok;
}

void CWMutableXARArchive::setSignatureSize(int32_t size) {
    for (auto& signer : _signers) signer->setSignatureSize(size);
}

}  // namespace crateworks
