#include "CrateworksCore/Package_API/Archive/CWMutableArchive.h"

#include "CrateworksCore/Package_API/Archive/CWFolderArchive.h"
#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"
#include "Platform/FileSystem.h"

namespace crateworks {

std::shared_ptr<CWMutableArchive> CWMutableArchive::initForWritingToPath(const std::string& path,
                                                                         const std::string& type,
                                                                         platform::Error* error) {
    if (type == "xar") return CWMutableXARArchive::initForWritingToPath(path, error);
    if (type == "folder") return CWFolderArchive::initForWritingToPath(path, error);
    return nullptr;
}

std::shared_ptr<CWMutableArchive> CWMutableArchive::initForWritingToPath(const std::string&, platform::Error*) {
    _raiseAbstract("-[CWMutableArchive(ForSubclassers) initForWritingToPath:error:]");
}

bool CWMutableArchive::setData(const platform::Data&, const std::string&, bool) {
    _raiseAbstract("-[CWMutableArchive setData:forPath:compressed:]");
}

bool CWMutableArchive::setFile(const std::string& file, const std::string& path, bool compressed) {
    auto data = platform::fs::readFile(file);
    return data && setData(*data, path, compressed);
}

bool CWMutableArchive::setContentsOfArchive(CWArchive&, const std::string&) {
    _raiseAbstract("-[CWMutableArchive setContentsOfArchive:forPath:]");
}

bool CWMutableArchive::addSignatureBySigningWithIdentity(const CWSigningIdentity* identity,
                                                         const std::string& algorithm) {
    return addSignatureBySigningWithIdentity(identity, algorithm, false);
}

bool CWMutableArchive::addSignatureBySigningWithIdentity(const CWSigningIdentity*, const std::string&, bool) {
    return false;
}

bool CWMutableArchive::addIntermediateCertificate(const platform::Data&) { return false; }

void CWMutableArchive::setSignatureSize(int32_t) {}

}  // namespace crateworks
