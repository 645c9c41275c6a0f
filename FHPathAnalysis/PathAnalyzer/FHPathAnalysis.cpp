#include "FHPathAnalysis/PathAnalyzer/FHPathAnalysis.h"

#include <fmt/format.h>

#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "FHPathAnalysis/Support/FileSizer.h"
#include "Platform/Bundle.h"
#include "Platform/Checksum.h"
#include "Platform/FileSystem.h"
#include "Platform/FileTreeEnumerator.h"
#include "Platform/Path.h"

namespace path = platform::path;

namespace {

std::optional<std::string> checksumText(const std::string& absolutePath) {
    auto crc = platform::checksum::ofFile(absolutePath);
    if (!crc) return std::nullopt;
    return fmt::format("{}", *crc);
}

bool isPropertyListValue(const platform::Value& value) {
    using Type = platform::Value::Type;
    switch (value.type()) {
    case Type::Null:
    case Type::Foreign:
        return false;
    default:
        return true;
    }
}

}  // namespace

std::shared_ptr<FHPathAnalysis> FHPathAnalysis::initWithRootPath(const std::optional<std::string>& rootPath,
                                                                 bool excludingSystem) {
    if (!rootPath || rootPath->empty()) return nullptr;
    std::shared_ptr<FHPathAnalysis> analysis(new FHPathAnalysis());
    analysis->_rootPath = *rootPath;
    if (excludingSystem) {
        analysis->_pathAnalyzer = FHPathAnalyzer::initWithRootPath(*rootPath);
        if (!analysis->_pathAnalyzer) return nullptr;
    }
    return analysis;
}

std::string FHPathAnalysis::_onVolume(const std::string& p) const {
    return _rootPath.empty() ? p : path::appendComponent(_rootPath, p);
}

// ---- Space ----

uint64_t FHPathAnalysis::usedSize() const {
    auto size = platform::fs::fileSystemSize(_rootPath);
    return size ? size->totalBytes - size->freeBytes : 0;
}

uint64_t FHPathAnalysis::freeSize() const {
    auto size = platform::fs::fileSystemSize(_rootPath);
    return size ? size->freeBytes : 0;
}

uint64_t FHPathAnalysis::sizeForAbsolutePath(const std::string& p) {
    std::string key = _onVolume(p);
    {
        std::lock_guard lock(_sizeCacheLock);
        if (auto it = _pathToFileSizeCache.find(key); it != _pathToFileSizeCache.end()) return it->second;
    }
    // The sizer always answers, 0 for an item it cannot read, and that answer is kept too.
    uint64_t size = FileSizer::sizeForPath(key);
    std::lock_guard lock(_sizeCacheLock);
    _pathToFileSizeCache[key] = size;
    return size;
}

uint64_t FHPathAnalysis::sizeForPaths(const PathList& paths) {
    uint64_t total = 0;
    for (const auto& p : paths) total += sizeForAbsolutePath(p);
    return total;
}

// ---- The analyzer's lists ----

std::optional<FHPathAnalysis::PathList> FHPathAnalysis::systemPaths() {
    if (!_pathAnalyzer) return std::nullopt;
    return _pathAnalyzer->prunedSystemPaths();
}

std::optional<FHPathAnalysis::PathList> FHPathAnalysis::childrenAtPath(const std::string& p,
                                                                       const std::optional<PathList>& omittingSubpaths,
                                                                       bool excludingSystemPaths,
                                                                       bool expandingBundles) {
    std::lock_guard monitor(_subpathsMonitor);
    // Keyed by the folder alone: the first answer stands for every later omit list and flag.
    if (auto it = _pathToSubpathsCache.find(p); it != _pathToSubpathsCache.end()) return it->second;
    std::optional<PathList> children;
    if (_pathAnalyzer && excludingSystemPaths)
        children = _pathAnalyzer->prunedUserPathsWithParentDirectory(p, omittingSubpaths, expandingBundles);
    else
        children = FHPathAnalyzer::_findPathsWithParentDirectory(p, _rootPath, omittingSubpaths.value_or(PathList{}),
                                                                 false);
    if (children) _pathToSubpathsCache.emplace(p, *children);
    return children;
}

std::optional<FHPathAnalysis::PathList> FHPathAnalysis::childrenAtPath(const std::string& p,
                                                                       const std::optional<PathList>& omittingSubpaths) {
    return childrenAtPath(p, omittingSubpaths, true, false);
}

std::optional<FHPathAnalysis::PathList> FHPathAnalysis::_extraPrinterPathsForUpgradeFromTamarindOrBetter() {
    if (!_pathAnalyzer) return std::nullopt;
    return _pathAnalyzer->_extraPrinterPathsForUpgradeFromTamarindOrBetter();
}

std::optional<FHPathAnalysis::PathList> FHPathAnalysis::_nonSystemReceiptStoragePaths() {
    if (!_pathAnalyzer) return std::nullopt;
    return _pathAnalyzer->_nonSystemReceiptStoragePaths();
}

// ---- Items ----

std::vector<std::string> FHPathAnalysis::directoriesAtPath(const std::string& p) const {
    std::string folder = _onVolume(p);
    std::vector<std::string> names;
    platform::FileTreeEnumerator walk(folder);
    while (auto entry = walk.nextObject()) {
        std::string item = path::appendComponent(folder, *entry);
        bool isDirectory = false;
        if (!platform::fs::exists(item, &isDirectory) || !isDirectory) continue;
        walk.skipDescendents();
        if (!platform::Bundle::isBundle(item)) names.push_back(*entry);
    }
    return names;
}

platform::Dictionary FHPathAnalysis::bundleInformationAtPaths(const PathList& paths) const {
    platform::Dictionary merged;
    for (const auto& p : paths)
        for (auto& [bundlePath, info] : platform::Bundle::bundleInformationAtPath(_onVolume(p)))
            merged.set(bundlePath, std::move(info));
    return merged;
}

platform::Dictionary FHPathAnalysis::incompatibleAppsInfoForPaths(const PathList& paths) const {
    platform::Dictionary records;
    for (const auto& p : paths) {
        std::string item = _onVolume(p);
        if (!platform::fs::exists(item)) continue;
        platform::Dictionary record;
        if (auto bundle = platform::Bundle::openIfBundle(item))
            record.set(kInfoKey, _plistSafeDictionaryWithDictionary(bundle->infoDictionary()));
        if (auto crc = checksumText(item)) record.set(kCRCKey, *crc);
        records.set(p, std::move(record));
    }
    return records;
}

platform::Dictionary FHPathAnalysis::itemAttributesAtPaths(const PathList& paths) const {
    platform::Dictionary attributes;
    for (const auto& p : paths)
        if (auto item = platform::fs::attributes(_onVolume(p))) attributes.set(p, std::move(*item));
    return attributes;
}

platform::Dictionary FHPathAnalysis::itemCRCsAtPaths(const PathList& paths) const {
    platform::Dictionary checksums;
    for (const auto& p : paths)
        if (auto crc = checksumText(_onVolume(p))) checksums.set(p, *crc);
    return checksums;
}

platform::Dictionary FHPathAnalysis::_plistSafeDictionaryWithDictionary(const platform::Dictionary& dictionary) const {
    platform::Dictionary safe;
    for (const auto& [key, value] : dictionary)
        if (isPropertyListValue(value)) safe.set(key, value);
    return safe;
}

// ---- Cancelling ----

void FHPathAnalysis::cancel() {
    if (_pathAnalyzer) _pathAnalyzer->cancel();
    FileSizer::cancel();
    _isCancelled = true;
}
