#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"

#include <sys/stat.h>

#include "Platform/FileSystem.h"
#include "Platform/ItemStatus.h"
#include "Platform/Path.h"

namespace crateworks {

using namespace platform;

namespace {
uint8_t typeCodeForFileType(const std::string& fileType) {
    if (fileType == fs::kFileTypeRegular) return bom::kEntryFile;
    if (fileType == fs::kFileTypeDirectory) return bom::kEntryDirectory;
    return bom::kEntryUnknown;
}
}  // namespace

std::shared_ptr<CWMutableBOM> CWMutableBOM::initForWritingToPath(const std::string& path) {
    auto handle = bom::BOMStore::newBOM(path);
    if (!handle) return nullptr;
    bom::BOMEntry root = bom::newEntry(bom::kEntryDirectory);
    root.pathName = root.shortName = ".";
    if (!handle->insertEntry(root)) return nullptr;
    std::shared_ptr<CWMutableBOM> bom(new CWMutableBOM());
    bom->_bomHandle = std::move(handle);
    return bom;
}

std::shared_ptr<CWMutableBOM> CWMutableBOM::initWithDirectory(
    const std::string& directory, const std::string& writingToPath, bool includeACLs,
    const std::optional<std::vector<std::string>>& maskPatterns) {
    auto handle = bom::BOMStore::newFromDirectory(writingToPath, directory, true);
    if (!handle) return nullptr;
    if (maskPatterns && !maskPatterns->empty()) {
        auto patterns = _newBOMPatternList(*maskPatterns);
        if (!patterns || !handle->mask(*patterns)) return nullptr;
    }
    std::shared_ptr<CWMutableBOM> bom(new CWMutableBOM());
    bom->_bomHandle = std::move(handle);
    if (!bom->_addQuarnDoubleAsNeededForForDirectory(directory, includeACLs)) return nullptr;
    return bom;
}

bool CWMutableBOM::_ensureParentOf(const std::string& bomPath) {
    std::string parent = path::deletingLastComponent(bomPath);
    if (parent.empty() || parent == "." || parent == "/") return true;
    if (_bomHandle->entryExists(_stringByInsertingBomPathPrefix(parent))) return true;
    return addBomPath(parent, fs::kFileTypeDirectory);
}

bool CWMutableBOM::addBomPath(const std::string& bomPath, const std::string& fileType) {
    if (bomPath.empty()) return false;
    if (bomPath == ".") return true;
    if (!_ensureParentOf(bomPath)) return false;
    bom::BOMEntry entry = bom::newEntry(typeCodeForFileType(fileType));
    entry.pathName = _stringByInsertingBomPathPrefix(bomPath);
    entry.shortName = path::lastComponent(bomPath);
    return _bomHandle->insertEntry(entry);
}

bool CWMutableBOM::addFile(const std::string& file, const std::string& forBomPath, bool includeACLs) {
    if (forBomPath.empty()) return false;
    if (forBomPath == ".") return true;
    if (!_ensureParentOf(forBomPath)) return false;
    auto entry = bom::entryFromFile(file, true);
    if (!entry) return false;
    entry->pathName = _stringByInsertingBomPathPrefix(forBomPath);
    entry->shortName = path::lastComponent(forBomPath);
    if (!_bomHandle->insertEntry(*entry)) return false;
    if (fs::hasCopyableMetadata(file, includeACLs)) return _addQuarnDoubleForFile(file, forBomPath);
    return true;
}

bool CWMutableBOM::setAttributes(const Dictionary& attributes, const std::string& ofItemAtPath) {
    auto entry = _bomHandle->entryAtPath(_stringByInsertingBomPathPrefix(ofItemAtPath));
    if (!entry) return false;
    _setAttributes(attributes, *entry);
    return _bomHandle->insertEntry(*entry);
}

bool CWMutableBOM::commitData(platform::Error* error) { return _bomHandle->commit(error); }

std::optional<bom::BOMPatternList> CWMutableBOM::_newBOMPatternList(const std::vector<std::string>& patterns) {
    if (patterns.empty()) return std::nullopt;
    return bom::BOMPatternList(patterns.begin(), patterns.end());
}

std::string CWMutableBOM::_quarnDoublePath(std::string_view path) {
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return "._" + std::string(path);
    return std::string(path.substr(0, slash + 1)) + "._" + std::string(path.substr(slash + 1));
}

bool CWMutableBOM::_addQuarnDoubleForFile([[maybe_unused]] const std::string& file, const std::string& forBOMPath) {
    std::string mainPath = _stringByInsertingBomPathPrefix(forBOMPath);
    bom::BOMEntry side = bom::newEntry(bom::kEntryFile);
    side.pathName = _quarnDoublePath(mainPath);
    side.shortName = path::lastComponent(side.pathName);
    if (auto main = _bomHandle->entryAtPath(mainPath)) {
        // The side file is a regular file whatever the item is: only permissions and owner carry over.
        side.mode = uint16_t(S_IFREG | (main->mode & 07777));
        side.uid = main->uid;
        side.gid = main->gid;
    }
    return _bomHandle->insertEntry(side);
}

bool CWMutableBOM::_addQuarnDoubleAsNeededForForDirectory(const std::string& directory, bool includeACLs) {
    auto root = _bomHandle->rootEntry();
    auto walk = root ? _bomHandle->newEnumerator(*root) : nullptr;
    if (!walk) return false;
    std::vector<std::string> needing;
    walk->next();  // the root itself
    while (const bom::BOMEntry* entry = walk->next()) {
        std::string relative = _stringByRemovingBomPathPrefix(entry->pathName);
        if (fs::hasCopyableMetadata(path::appendComponent(directory, relative), includeACLs))
            needing.push_back(std::move(relative));
    }
    for (const std::string& relative : needing) {
        std::string file = path::appendComponent(directory, relative);
        if (!_addQuarnDoubleForFile(file, _stringByInsertingBomPathPrefix(relative))) return false;
    }
    return true;
}

}  // namespace crateworks
