#include "CrateworksCore/Package_API/Archive/CWArchive.h"

#include <fmt/format.h>

#include "CrateworksCore/Package_API/Archive/CWFolderArchive.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/FileTree.h"
#include "Platform/Path.h"

namespace crateworks {

void CWArchive::_raiseAbstract(const char* method) {
    throw platform::Exception("CWArchiveException", fmt::format("Concrete subclasses must implement {}", method));
}

std::vector<CWArchive::ArchiveClass> CWArchive::_allArchiveClasses() {
    return {[](const std::string& p) -> std::shared_ptr<CWArchive> { return CWXARArchive::initForReadingFromPath(p); },
            [](const std::string& p) -> std::shared_ptr<CWArchive> {
                return CWFolderArchive::initForReadingFromPath(p);
            }};
}

std::shared_ptr<CWArchive> CWArchive::archiveWithPath(const std::string& path) {
    std::string standardized = platform::path::standardize(path);
    for (const auto& archiveClass : _allArchiveClasses())
        if (auto archive = archiveClass(standardized)) return archive;
    return nullptr;
}

std::shared_ptr<CWArchive> CWArchive::initForReadingFromPath(const std::string&) {
    _raiseAbstract("-[CWArchive(ForSubclassers) initForReadingFromPath:]");
}

std::string CWArchive::archivePath() const { _raiseAbstract("-[CWArchive archivePath]"); }

std::unique_ptr<platform::DirectoryEnumerator> CWArchive::enumeratorAtPath(const std::string&) {
    _raiseAbstract("-[CWArchive enumeratorAtPath:]");
}

std::optional<platform::Data> CWArchive::dataForPath(const std::string&) { _raiseAbstract("-[CWArchive dataForPath:]"); }

std::optional<platform::Dictionary> CWArchive::fileAttributesAtPath(const std::string&) {
    _raiseAbstract("-[CWArchive fileAttributesAtPath:]");
}

bool CWArchive::verifyReturningError(platform::Error*) { _raiseAbstract("-[CWArchive verifyReturningError:]"); }

bool CWArchive::closeArchive() {
    throw platform::Exception("CWArchiveException",
                              "Concrete subclasses must implement -[CWArchive closeArchive], even if it does nothing. "
                              "See CWArchive");
}

std::string CWArchive::description() const { return fmt::format("{} <{}>", className(), archivePath()); }

bool CWArchive::fileExistsAtPath(const std::string& path) { return fileAttributesAtPath(path).has_value(); }

bool CWArchive::extractItemAtPath(const std::string& path, const std::string& toPath, platform::Error* error) {
    auto attributes = fileAttributesAtPath(path);
    const std::string* type = attributes ? attributes->findString(platform::fs::kFileType) : nullptr;
    if (!type || *type != platform::fs::kFileTypeDirectory) return _extractFile(path, toPath, error);
    auto enumerator = enumeratorAtPath(path);
    if (!enumerator) return false;
    while (auto entry = enumerator->nextObject()) {
        std::string name = platform::path::lastComponent(*entry);
        std::string source = platform::path::appendComponent(path, name);
        std::string destination = platform::path::appendComponent(toPath, name);
        // A directory below is made first, then filled by the recursion (its own
        // descendants are visited there, not here), then given its mode and time, so
        // that a read-only directory still receives its entries.
        bool isDirectory = enumerator->isDirectory();
        if (isDirectory) {
            enumerator->skipDescendents();
            if (!_extractFile(source, destination, error)) return false;
        }
        if (!extractItemAtPath(source, destination, error)) return false;
        if (isDirectory && !_finishDirectory(source, destination, error)) return false;
    }
    return true;
}

bool CWArchive::_finishDirectory(const std::string&, const std::string&, platform::Error*) { return true; }

bool CWArchive::_extractFile(const std::string& path, const std::string& toPath, platform::Error* error) {
    auto data = dataForPath(path);
    if (!data) return false;
    return platform::fs::writeFile(toPath, *data, error);
}

std::optional<std::string> CWArchive::archiveDigest() { return std::nullopt; }
std::optional<CWArchiveSignatureList> CWArchive::archiveSignatures() { return std::nullopt; }
std::optional<platform::Date> CWArchive::archiveSignatureDate() { return std::nullopt; }

}  // namespace crateworks
