#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"

#include <algorithm>
#include <fmt/format.h>
#include <mutex>

#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/Receipts/CWReceiptsCache.h"
#include "Platform/Acl.h"
#include "Platform/Bundle.h"
#include "Platform/Digest.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"

using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::Value;
namespace fs = platform::fs;
namespace path = platform::path;

namespace crateworks {

namespace {

constexpr const char* kExceptionName = "CWReceipt";

bool isDirectory(const std::string& p) {
    bool directory = false;
    return fs::exists(p, &directory) && directory;
}

// Bundle lookups are serialised process-wide: reading bundles was never safe to run concurrently.
std::mutex& bundleLock() {
    static std::mutex lock;
    return lock;
}

}  // namespace

CWReceipt::CWReceipt() = default;
CWReceipt::~CWReceipt() = default;

// MARK: - Finding receipts

CWReceipt::ReceiptList CWReceipt::receiptsOnVolumeAtPath(const std::optional<std::string>& volumePath) {
    if (!volumePath) throw platform::Exception(kExceptionName, "Attempt to get receipts for nil volumePath");
    auto& cache = _sharedReceiptsCache();
    if (auto cached = cache.objectForKey(*volumePath)) return *cached;
    ReceiptList receipts = _findReceiptsOnVolumeAtPath(volumePath);
    cache.replaceAllObjects(*volumePath, receipts);
    return receipts;
}

std::shared_ptr<CWReceipt> CWReceipt::receiptWithIdentifier(const std::string& identifier,
                                                            const std::optional<std::string>& volume) {
    for (const auto& receipt : receiptsOnVolumeAtPath(volume))
        if (receipt->packageIdentifier() == identifier) return receipt;
    return nullptr;
}

std::shared_ptr<CWReceipt> CWReceipt::receiptWithPackageFileName(const std::string& fileName,
                                                                 const std::optional<std::string>& volume) {
    for (const auto& receipt : receiptsOnVolumeAtPath(volume))
        if (receipt->_packageName() == fileName) return receipt;
    return nullptr;
}

CWReceipt::ReceiptList CWReceipt::receiptsAtPath(const std::string& directory) {
    ReceiptList receipts = _findReceiptsFromBOMsDirectory(directory);
    ReceiptList bundles = _findBundleReceiptsFromDirectory(directory);
    receipts.insert(receipts.end(), bundles.begin(), bundles.end());
    return receipts;
}

CWReceipt::ReceiptList CWReceipt::_findReceiptsOnVolumeAtPath(const std::optional<std::string>& volumePath) {
    ReceiptList receipts;
    _forEachReceiptPathOnVolume(
        volumePath.value_or("/"),
        [&](const std::string& bomPath, bool secure) {
            if (auto receipt = initWithBOMPath(bomPath)) {
                if (secure) receipt->_setSecure(true);
                receipts.push_back(std::move(receipt));
            }
        },
        [&](const std::string& bundlePath) {
            if (auto receipt = initWithBundlePkgPath(bundlePath)) receipts.push_back(std::move(receipt));
        });
    return receipts;
}

std::vector<std::string> CWReceipt::_bomPathsOnVolumeAtPath(const std::string& volumePath) {
    std::vector<std::string> paths;
    _forEachReceiptPathOnVolume(
        volumePath,
        [&](const std::string& bomPath, bool) {
            if (fs::exists(bomPath)) paths.push_back(bomPath);
        },
        [&](const std::string& bundlePath) {
            if (auto receipt = initWithBundlePkgPath(bundlePath)) paths.push_back(receipt->bomPath());
        });
    return paths;
}

void CWReceipt::_forEachReceiptPathOnVolume(const std::string& destination,
                                            const std::function<void(const std::string&, bool)>& bom,
                                            const std::function<void(const std::string&)>& bundle) {
    std::vector<size_t> secureIndexes;
    auto bomDirectories = _searchDirectoriesForBOMReceiptsOnDestination(destination, &secureIndexes);
    for (size_t i = 0; i < bomDirectories.size(); ++i) {
        bool secure = std::find(secureIndexes.begin(), secureIndexes.end(), i) != secureIndexes.end();
        for (const auto& path : _filesWithExtensionInDirectory(bomDirectories[i], "bom")) bom(path, secure);
    }
    for (const auto& directory : _searchDirectoriesForBundleReceiptsOnDestination(destination))
        for (const auto& path : _filesWithExtensionInDirectory(directory, "pkg")) bundle(path);
}

std::vector<std::string> CWReceipt::_filesWithExtensionInDirectory(const std::string& directory,
                                                                  std::string_view extension) {
    std::vector<std::string> paths;
    auto names = fs::contentsOfDirectory(directory);
    if (!names) return paths;
    for (const auto& name : *names)
        if (path::extension(name) == extension) paths.push_back(path::appendComponent(directory, name));
    return paths;
}

CWReceipt::ReceiptList CWReceipt::_findReceiptsFromBOMsDirectory(const std::string& directory) {
    ReceiptList receipts;
    for (const auto& path : _filesWithExtensionInDirectory(directory, "bom"))
        if (auto receipt = initWithBOMPath(path)) receipts.push_back(receipt);
    return receipts;
}

CWReceipt::ReceiptList CWReceipt::_findBundleReceiptsFromDirectory(const std::string& directory) {
    ReceiptList receipts;
    for (const auto& path : _filesWithExtensionInDirectory(directory, "pkg"))
        if (auto receipt = initWithBundlePkgPath(path)) receipts.push_back(receipt);
    return receipts;
}

std::vector<std::string> CWReceipt::_searchDirectoriesForBOMReceiptsOnDestination(
    const std::string& destination, std::vector<size_t>* returningSecureIndexes) {
    std::vector<std::string> directories;
    if (returningSecureIndexes) returningSecureIndexes->clear();
    for (const char* relative : {kSecureReceiptsDirectory, kLibraryReceiptsDirectory, kLibraryReceiptsBOMsDirectory}) {
        std::string candidate = path::appendComponent(destination, relative);
        if (!isDirectory(candidate)) continue;
        // Only the protected directory, and only as the first one searched, is secure.
        if (relative == kSecureReceiptsDirectory && returningSecureIndexes) returningSecureIndexes->push_back(0);
        directories.push_back(std::move(candidate));
    }
    return directories;
}

std::vector<std::string> CWReceipt::_searchDirectoriesForBundleReceiptsOnDestination(const std::string& destination) {
    std::string candidate = path::appendComponent(destination, kLibraryReceiptsDirectory);
    if (!isDirectory(candidate)) return {};
    return {candidate};
}

std::string CWReceipt::_receiptsDirectoryPathForDestination(const std::string& destination) {
    if (isDirectory(path::appendComponent(destination, "private/var/db")))
        return path::appendComponent(destination, kSecureReceiptsDirectory);
    return path::appendComponent(destination, kLibraryReceiptsDirectory);
}

std::string CWReceipt::_receiptsDirectoryPathForSandboxRoot(const std::string& sandboxRoot,
                                                            const std::string& destination) {
    if (isDirectory(path::appendComponent(sandboxRoot, "private/var/db")) ||
        isDirectory(path::appendComponent(destination, "private/var/db")))
        return path::appendComponent(sandboxRoot, kSecureReceiptsDirectory);
    return path::appendComponent(sandboxRoot, kLibraryReceiptsDirectory);
}

std::string CWReceipt::_receiptDictionaryPathFromBOMPath(const std::string& bomPath) {
    std::string name = path::deletingExtension(path::lastComponent(bomPath)) + ".plist";
    return path::appendComponent(path::deletingLastComponent(bomPath), name);
}

CWReceiptsCache& CWReceipt::_sharedReceiptsCache() {
    static CWReceiptsCache cache;
    return cache;
}

void CWReceipt::_clearCache() { _sharedReceiptsCache().removeAllObjects(); }

// MARK: - Reading one receipt

Dictionary CWReceipt::minimalDictionaryForBOMPath(const std::string& bomPath) {
    Dictionary dictionary;
    dictionary.set(kPackageIdentifierKey, path::deletingExtension(path::lastComponent(bomPath)));
    if (auto attributes = fs::attributes(bomPath)) {
        const Value* date = attributes->find(fs::kFileCreationDate);
        if (!date || !date->date()) date = attributes->find(fs::kFileModificationDate);
        if (date && date->date()) dictionary.set(kInstallDateKey, *date);
    }
    return dictionary;
}

std::shared_ptr<CWReceipt> CWReceipt::initWithBOMPath(const std::string& path) {
    if (!fs::exists(path)) return nullptr;
    std::shared_ptr<CWReceipt> receipt(new CWReceipt());
    auto dictionary = platform::plist::readDictionaryFile(_receiptDictionaryPathFromBOMPath(path));
    receipt->_receiptDictionary = dictionary ? std::move(*dictionary) : minimalDictionaryForBOMPath(path);
    receipt->_bomPath = path;
    return receipt;
}

std::shared_ptr<CWReceipt> CWReceipt::initWithBundlePkgPath(const std::string& path) {
    std::string identifier, bomPath;
    std::optional<std::string> version;
    {
        std::lock_guard lock(bundleLock());
        auto bundle = platform::Bundle::openDirectoryAsBundle(path);
        if (!bundle) return nullptr;
        identifier = bundle->identifier().value_or(path::deletingExtension(path::lastComponent(path)));
        version = bundle->shortVersionString();
        bomPath = path::appendComponent(path::deletingLastComponent(bundle->resourcePath()), "Archive.bom");
    }
    if (!fs::exists(bomPath)) return nullptr;
    std::shared_ptr<CWReceipt> receipt(new CWReceipt());
    receipt->_receiptDictionary.set(kPackageIdentifierKey, identifier);
    if (version) receipt->_receiptDictionary.set(kPackageVersionKey, *version);
    if (auto attributes = fs::attributes(path))
        if (const Value* created = attributes->find(fs::kFileCreationDate))
            receipt->_receiptDictionary.set(kInstallDateKey, *created);
    receipt->_bomPath = bomPath;
    receipt->_bundlePath = path;
    return receipt;
}

// MARK: - Values

std::optional<std::string> CWReceipt::stringForKey(const char* key) const {
    const std::string* value = _receiptDictionary.findString(key);
    if (!value) return std::nullopt;
    return *value;
}

void CWReceipt::setOrRemove(const char* key, std::optional<Value> value) {
    if (value)
        _receiptDictionary.set(key, std::move(*value));
    else
        _receiptDictionary.remove(key);
}

std::optional<std::string> CWReceipt::packageIdentifier() const { return stringForKey(kPackageIdentifierKey); }
std::optional<std::string> CWReceipt::packageVersion() const { return stringForKey(kPackageVersionKey); }
std::optional<std::string> CWReceipt::installProcessName() const { return stringForKey(kInstallProcessNameKey); }
std::optional<std::string> CWReceipt::installPrefixPath() const { return stringForKey(kInstallPrefixPathKey); }
std::optional<std::string> CWReceipt::_packageName() const { return stringForKey(kPackageFileNameKey); }

std::optional<Date> CWReceipt::installDate() const {
    const Value* value = _receiptDictionary.find(kInstallDateKey);
    return value ? value->date() : std::nullopt;
}

std::optional<std::vector<std::string>> CWReceipt::packageGroups() const {
    const platform::Array* groups = _receiptDictionary.findArray(kPackageGroupsKey);
    if (!groups) return std::nullopt;
    std::vector<std::string> out;
    for (const auto& group : *groups)
        if (const std::string* text = group.string()) out.push_back(*text);
    return out;
}

void CWReceipt::_setPackageGroups(const std::vector<std::string>& groups) {
    if (groups.empty()) {
        _receiptDictionary.remove(kPackageGroupsKey);
        return;
    }
    platform::Array array(groups.begin(), groups.end());
    _receiptDictionary.set(kPackageGroupsKey, std::move(array));
}

void CWReceipt::_setPackageName(const std::optional<std::string>& name) {
    setOrRemove(kPackageFileNameKey, name ? std::optional<Value>(*name) : std::nullopt);
}

void CWReceipt::_setInstallProcessName(const std::optional<std::string>& name) {
    setOrRemove(kInstallProcessNameKey, name ? std::optional<Value>(*name) : std::nullopt);
}

void CWReceipt::_setInstallPrefixPath(const std::optional<std::string>& path) {
    setOrRemove(kInstallPrefixPathKey, path ? std::optional<Value>(*path) : std::nullopt);
}

void CWReceipt::_setInstallDate(const std::optional<Date>& date) {
    setOrRemove(kInstallDateKey, date ? std::optional<Value>(*date) : std::nullopt);
}

std::vector<std::string> CWReceipt::receiptStoragePaths() const {
    if (!_bundlePath.empty()) return {_bundlePath};
    return {_receiptDictionaryPathFromBOMPath(_bomPath), _bomPath};
}

// MARK: - The BOM

std::shared_ptr<CWBOM> CWReceipt::_BOM() {
    if (_cachedBOM) return _cachedBOM;
    _cachedBOM = CWBOM::initWithBOMPath(_bomPath);
    if (!_cachedBOM)
        platform::systemLog(platform::kInstallerFacility | platform::kLogWarning,
                            fmt::format("CWReceipt could not open BOM at path {}", _bomPath));
    return _cachedBOM;
}

void CWReceipt::_freeBOM() { _cachedBOM.reset(); }

std::shared_ptr<CWBOMDirectoryEnumerator> CWReceipt::_directoryEnumerator() {
    auto bom = _BOM();
    return bom ? bom->directoryEnumerator() : nullptr;
}

std::optional<Dictionary> CWReceipt::_attributesOfItemAtPath(const std::string& path) {
    auto bom = _BOM();
    if (!bom) return std::nullopt;
    return bom->attributesOfItemAtPath(path);
}

// MARK: - Checksums and ACLs

const Value* CWReceipt::innerValue(const char* key, const std::string& path) const {
    const Dictionary* inner = _receiptDictionary.findDictionary(key);
    return inner ? inner->find(path) : nullptr;
}

void CWReceipt::setInnerValue(const char* key, const std::string& path, std::optional<Value> value) {
    Value* inner = _receiptDictionary.find(key);
    if (!inner || !inner->dictionary()) {
        if (!value) return;
        _receiptDictionary.set(key, Dictionary{});
        inner = _receiptDictionary.find(key);
    }
    if (value)
        inner->dictionary()->set(path, std::move(*value));
    else
        inner->dictionary()->remove(path);
}

std::optional<Data> CWReceipt::_SHA1ChecksumDataOfItemAtPath(const std::string& path) const {
    const Value* value = innerValue(kPathSHA1ChecksumsKey, path);
    if (!value || !value->data()) return std::nullopt;
    return *value->data();
}

void CWReceipt::_setSHA1ChecksumData(const std::optional<Data>& data, const std::string& forItemAtPath) {
    setInnerValue(kPathSHA1ChecksumsKey, forItemAtPath, data ? std::optional<Value>(*data) : std::nullopt);
}

std::optional<std::string> CWReceipt::_ACLStringOfItemAtPath(const std::string& path) const {
    const Value* value = innerValue(kPathACLsKey, path);
    if (!value || !value->string()) return std::nullopt;
    return *value->string();
}

void CWReceipt::_setACLString(const std::optional<std::string>& aclString, const std::string& forItemAtPath) {
    setInnerValue(kPathACLsKey, forItemAtPath, aclString ? std::optional<Value>(*aclString) : std::nullopt);
}

bool CWReceipt::_updateSHA1ChecksumOfItemAtPath(const std::string& path, const std::string& withFile) {
    using platform::digest::Algorithm;
    // An unreadable file digests as no bytes at all, as it always has.
    auto digest = platform::digest::ofFile(Algorithm::SHA1, path::standardize(withFile));
    _setSHA1ChecksumData(digest ? *digest : platform::digest::compute(Algorithm::SHA1, {}), path);
    return true;
}

bool CWReceipt::_updateACLsOfItemAtPath(const std::string& path, const std::string& withFile) {
    if (auto text = platform::acl::extendedACLText(withFile)) _setACLString(*text, path);
    return true;
}

// MARK: - Removal and description

bool CWReceipt::_removeReceiptInDirectory(const std::optional<std::string>& directory, platform::Error* error) {
    if (!directory) throw platform::Exception(kExceptionName, "Attempt to use nil directory");
    std::string identifier = packageIdentifier().value_or("");
    std::string bom = path::appendComponent(*directory, identifier + ".bom");
    if (!fs::removeItem(bom, error)) return false;
    return fs::removeItem(path::appendComponent(*directory, identifier + ".plist"), error);
}

std::string CWReceipt::description() const {
    return fmt::format("{} <{}>", className(), packageIdentifier().value_or("(null)"));
}

}  // namespace crateworks
