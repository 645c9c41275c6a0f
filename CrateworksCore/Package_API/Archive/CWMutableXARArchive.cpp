#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"

#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/Archive/ArchiveErrors.h"
#include "CrateworksCore/Package_API/Archive/CWXARDirectoryEnumerator.h"
#include "Platform/Exception.h"
#include "Platform/Path.h"

namespace crateworks {

std::shared_ptr<CWMutableXARArchive> CWMutableXARArchive::initForWritingToPath(const std::string& path,
                                                                               platform::Error* error) {
    if (path.empty()) {
        platform::setError(error, platform::kPOSIXErrorDomain, ENOENT);
        return nullptr;
    }
    std::shared_ptr<CWMutableXARArchive> archive(new CWMutableXARArchive());
    archive->_archivePath = path;
    archive->_xarPtr = xar::XarHandle::open(path, xar::XarHandle::Mode::Write, &archive->lastOpenDiagnostic_);
    if (!archive->_xarPtr) {
        setPOSIXError(error, errno, path);
        return nullptr;
    }
    archive->_mutable = true;
    archive->_xarPtr->setOption("toc-cksum", "sha1");
    archive->_xarPtr->setOption("file-chksum", "sha1");
    return archive;
}

void CWMutableXARArchive::_raiseIfClosed(const char* method) const {
    if (!_mutable)
        throw platform::Exception("CWMutableXARArchiveException",
                                  fmt::format("{} cannot be used after archive has been closed", method));
}

bool CWMutableXARArchive::closeArchive() {
    _mutable = false;
    return CWXARArchive::closeArchive();
}

std::optional<xar::File> CWMutableXARArchive::_fileStructForParentOfSubpath(const std::string& subpath,
                                                                            platform::Error* error) {
    std::string parent = platform::path::deletingLastComponent(subpath);
    if (parent.empty() || parent == "/") return nullptr;
    auto* xar = _xar();
    if (xar::File existing = xar ? xar->find(parent) : nullptr) return existing;
    std::optional<xar::File> grandparent = _fileStructForParentOfSubpath(parent, nullptr);
    struct stat st {};
    st.st_mode = S_IFDIR | 0700;
    xar::File made = xar ? xar->addFolder(grandparent.value_or(nullptr), platform::path::lastComponent(parent), st)
                         : nullptr;
    if (!made) {
        setPOSIXError(error, ENOTDIR, _archivePath);
        return std::nullopt;
    }
    return made;
}

bool CWMutableXARArchive::setData(const platform::Data& data, const std::string& path, bool compressed) {
    _raiseIfClosed("-[CWMutableXARArchive setData:forPath:compressed:]");
    auto parent = _fileStructForParentOfSubpath(path, nullptr);
    if (!parent) return false;
    _xar()->setOption("compression", compressed ? "gzip" : "none");
    return _xar()->addFromBuffer(*parent, platform::path::lastComponent(path), data) != nullptr;
}

bool CWMutableXARArchive::setFile(const std::string& file, const std::string& path, bool compressed) {
    _raiseIfClosed("-[CWMutableXARArchive setFile:forPath:compressed:]");
    auto parent = _fileStructForParentOfSubpath(path, nullptr);
    if (!parent) return false;
    _xar()->setOption("compression", compressed ? "gzip" : "none");
    return _xar()->addFromPath(*parent, platform::path::lastComponent(path), file) != nullptr;
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
        if (!_xar()->addFromArchive(*parent, platform::path::lastComponent(destination), *sourceXar,
                                    enumerator->xar_file()))
            return false;
    }
    return true;
}

bool CWMutableXARArchive::addSignatureBySigningWithIdentity(const CWSigningIdentity*, const std::string&, bool) {
    return false;
}

bool CWMutableXARArchive::addIntermediateCertificate(const platform::Data& certificate) {
    auto* xar = _xar();
    if (!xar || xar->signatures().empty()) return false;
    bool ok = true;
    for (size_t i = 0; i < xar->signatures().size(); ++i) ok = xar->signatureAddX509Certificate(i, certificate) && ok;
    return ok;
}

void CWMutableXARArchive::setSignatureSize(int32_t size) {
    for (auto& signer : _signers) signer->setSignatureSize(size);
}

}  // namespace crateworks
