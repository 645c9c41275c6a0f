#include "CrateworksCore/Package_API/Archive/CWFolderArchive.h"

#include "CrateworksCore/Package_API/Archive/CWFolderArchiveSignature.h"
#include "Platform/FileSystem.h"
#include "Platform/FileTree.h"
#include "Platform/FileTreeEnumerator.h"
#include "Platform/Path.h"

namespace crateworks {

namespace {
void makeParent(const std::string& path) {
    std::string parent = platform::path::deletingLastComponent(path);
    if (!platform::fs::exists(parent)) platform::fs::createDirectories(parent);
}
}  // namespace

std::shared_ptr<CWFolderArchive> CWFolderArchive::initForReadingFromPath(const std::string& path) {
    bool isDirectory = false;
    if (!platform::fs::exists(path, &isDirectory) || !isDirectory) return nullptr;
    std::shared_ptr<CWFolderArchive> archive(new CWFolderArchive());
    archive->_archivePath = path;
    return archive;
}

std::shared_ptr<CWFolderArchive> CWFolderArchive::initForWritingToPath(const std::string& path,
                                                                       platform::Error* error) {
    if (!platform::fs::exists(path) && !platform::fs::createDirectories(path, 0755, error)) return nullptr;
    std::shared_ptr<CWFolderArchive> archive(new CWFolderArchive());
    archive->_archivePath = path;
    return archive;
}

std::string CWFolderArchive::_joined(const std::string& path) const {
    return platform::path::appendComponent(_archivePath, path);
}

std::unique_ptr<platform::DirectoryEnumerator> CWFolderArchive::enumeratorAtPath(const std::string& path) {
    return std::make_unique<platform::FileTreeEnumerator>(_joined(path));
}

std::optional<platform::Data> CWFolderArchive::dataForPath(const std::string& path) {
    return platform::fs::readRegularFile(_joined(path));
}

std::optional<platform::Dictionary> CWFolderArchive::fileAttributesAtPath(const std::string& path) {
    return platform::fs::attributes(_joined(path));
}

bool CWFolderArchive::fileExistsAtPath(const std::string& path) { return platform::fs::exists(_joined(path)); }

bool CWFolderArchive::extractItemAtPath(const std::string& path, const std::string& toPath, platform::Error* error) {
    // Whatever is at D that is not a directory (a file, say) is the failure to create D.
    if (!platform::fs::createDirectories(toPath, 0755, error)) return false;
    std::string destination = platform::path::appendComponent(toPath, platform::path::lastComponent(path));
    if (platform::fs::existsNoFollow(destination)) platform::fs::removeTree(destination);
    return platform::fs::copyItem(_joined(path), destination, error);
}

bool CWFolderArchive::verifyReturningError(platform::Error* error) {
    auto signatures = archiveSignatures();
    // An unsigned folder is valid; a signed one must match its seal, resources included.
    if (!signatures || signatures->empty()) return true;
    auto* signature = dynamic_cast<CWFolderArchiveSignature*>(signatures->front().get());
    return signature && signature->verifyCodeSignatureIncludingSealedResources(true, error);
}

std::optional<CWArchiveSignatureList> CWFolderArchive::archiveSignatures() {
    auto signature = CWFolderArchiveSignature::initWithArchiveAtPath(_archivePath);
    if (!signature) return std::nullopt;
    return CWArchiveSignatureList{signature};
}

bool CWFolderArchive::setData(const platform::Data& data, const std::string& path, bool) {
    std::string target = _joined(path);
    makeParent(target);
    return platform::fs::writeFile(target, data);
}

bool CWFolderArchive::setFile(const std::string& file, const std::string& path, bool) {
    std::string target = _joined(path);
    makeParent(target);
    if (platform::fs::existsNoFollow(target)) platform::fs::removeTree(target);
    return platform::fs::copyItem(file, target);
}

bool CWFolderArchive::setContentsOfArchive(CWArchive& archive, const std::string& path) {
    auto* source = dynamic_cast<CWFolderArchive*>(&archive);
    if (!source) return false;
    auto enumerator = source->enumeratorAtPath("");
    while (auto entry = enumerator->nextObject()) {
        std::string from = platform::path::appendComponent(source->_archivePath, *entry);
        std::string target = platform::path::appendComponent(_joined(path), *entry);
        makeParent(target);
        if (platform::fs::existsNoFollow(target)) platform::fs::removeTree(target);
        if (!platform::fs::copyItem(from, target)) return false;
        // A copied directory arrived whole.
        enumerator->skipDescendents();
    }
    return true;
}

}  // namespace crateworks
