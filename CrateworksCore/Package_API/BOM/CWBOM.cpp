#include "CrateworksCore/Package_API/BOM/CWBOM.h"

#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"

namespace crateworks {

using namespace platform;

namespace {
constexpr const char* kNilReason = "Attempt to initialize with nil";

std::optional<uint64_t> number(const Value& value) { return value.unsignedInteger(); }
}  // namespace

std::string CWBOM::_stringByInsertingBomPathPrefix(std::string_view path) {
    if (path == "." || path.substr(0, 2) == "./") return std::string(path);
    return "./" + std::string(path);
}

// A stored path must read "./..." (the root "." aside): anything
// else means the BOM is corrupt, and going on would report paths
// outside the volume. A std::string reads '\0' at its end, so both
// tests stay in bounds for short paths.
std::string CWBOM::_stringByRemovingBomPathPrefix(const std::string& path_str) {
    if (path_str == ".") return ".";
    const char* operation = "+[CWBOM _stringByRemovingBomPathPrefix:]";
    const char* reason = "the stored BOM path is not of the \"./\" form";
    FH_ASSERT(operation, path_str[0] == '.', reason);
    FH_ASSERT(operation, path_str[1] == '/', reason);
    return path_str.substr(2);
}

std::shared_ptr<CWBOM> CWBOM::initWithBOMPath(const std::optional<std::string>& path) {
    if (!path) throw Exception("CWBOM", kNilReason);
    auto handle = bom::BOMStore::openFile(*path);
    if (!handle) return nullptr;
    std::shared_ptr<CWBOM> bom(new CWBOM());
    bom->_bomHandle = std::move(handle);
    return bom;
}

std::shared_ptr<CWBOM> CWBOM::initWithBOMData(std::optional<Data> data) {
    if (!data) throw Exception("CWBOM", kNilReason);
    std::shared_ptr<CWBOM> bom(new CWBOM());
    bom->_bomData = std::move(data);
    bom->_bomHandle = bom::BOMStore::openBytes(*bom->_bomData);
    if (!bom->_bomHandle) return nullptr;
    return bom;
}

std::optional<Dictionary> CWBOM::attributesOfItemAtPath(const std::string& path) const {
    if (!_bomHandle) return std::nullopt;
    auto entry = _bomHandle->entryAtPath(_stringByInsertingBomPathPrefix(path));
    if (!entry) return std::nullopt;
    return _attributesOfBOMEntry(*entry);
}

std::shared_ptr<CWBOMDirectoryEnumerator> CWBOM::directoryEnumerator() {
    return CWBOMDirectoryEnumerator::initWithBOM(shared_from_this());
}

std::optional<std::vector<std::string>> CWBOM::subpathsOfDirectoryAtPath(const std::string& path) const {
    if (!_bomHandle) return std::nullopt;
    auto walk = _bomHandle->enumeratorAtPath(_stringByInsertingBomPathPrefix(path));
    if (!walk) return std::nullopt;
    std::vector<std::string> paths;
    auto status = walk->forEachRemaining([&paths](const bom::BOMEntryView& entry) {
        paths.emplace_back(entry.path() == "." ? std::string_view(".") : entry.relativePath());
        return bom::BOMVisit::kContinue;
    });
    // A list cut short by damage is not the directory's.
    if (status == bom::BOMWalkStatus::kDamaged) return std::nullopt;
    return paths;
}

uint32_t CWBOM::fileCount() const { return _bomHandle ? _bomHandle->entryCount() : 0; }

uint64_t CWBOM::totalSize() const { return _bomHandle ? _bomHandle->bytesRepresented() : 0; }

const char* CWBOM::_fileTypeFromBOMEntryType(uint8_t type) {
    switch (type) {
    case bom::kEntryFile: return fs::kFileTypeRegular;
    case bom::kEntryDirectory: return fs::kFileTypeDirectory;
    case bom::kEntrySymbolicLink: return fs::kFileTypeSymbolicLink;
    case bom::kEntryDevice: return fs::kFileTypeBlockSpecial;
    default: return fs::kFileTypeUnknown;
    }
}

Dictionary CWBOM::_attributesOfBOMEntry(const bom::BOMEntry& entry) {
    Dictionary attributes;
    attributes.set(fs::kFileType, _fileTypeFromBOMEntryType(entry.type));
    attributes.set(kCWStMode, uint64_t(entry.mode));
    attributes.set(fs::kFilePosixPermissions, uint64_t(entry.mode & 0xfff));
    attributes.set(fs::kFileOwnerAccountID, uint64_t(entry.uid));
    attributes.set(fs::kFileGroupOwnerAccountID, uint64_t(entry.gid));
    attributes.set(fs::kFileSize, entry.size);
    if (entry.type == bom::kEntrySymbolicLink && entry.linkTarget)
        attributes.set(kCWFileSymbolicLinkDestination, *entry.linkTarget);
    return attributes;
}

bool CWBOM::_setAttributes(const Dictionary& attributes, bom::BOMEntry& ofBOMEntry) {
    for (const auto& [key, value] : attributes) {
        auto n = number(value);
        if (!n) continue;
        if (key == fs::kFileOwnerAccountID)
            ofBOMEntry.uid = uint32_t(*n);
        else if (key == fs::kFileGroupOwnerAccountID)
            ofBOMEntry.gid = uint32_t(*n);
        else if (key == fs::kFilePosixPermissions)
            ofBOMEntry.mode = uint16_t((ofBOMEntry.mode & 0xf000) | (*n & 0xffff));
    }
    return true;
}

}  // namespace crateworks
