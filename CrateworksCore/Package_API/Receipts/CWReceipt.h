// CWReceipt: one installed package on a volume, read from the volume's receipts.
//
// A BOM receipt is {identifier}.bom with its property list {identifier}.plist beside it;
// an old-style bundle receipt is a {name}.pkg directory read as a bundle (an information
// dictionary is not required) whose BOM is Archive.bom in the parent of its resources
// directory. Receipts live, relative to the volume root, in
// "private/var/db/receipts" (the protected directory: its receipts are secure),
// "Library/Receipts" (BOM and bundle receipts) and "Library/Receipts/boms".
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Error.h"
#include "Platform/Value.h"

namespace crateworks {

class CWBOM;
class CWBOMDirectoryEnumerator;
class CWReceiptsCache;

class CWReceipt {
public:
    using ReceiptList = std::vector<std::shared_ptr<CWReceipt>>;

    // Keys of the receipt property list.
    static constexpr const char* kPackageIdentifierKey = "PackageIdentifier";
    static constexpr const char* kPackageVersionKey = "PackageVersion";
    static constexpr const char* kInstallDateKey = "InstallDate";
    static constexpr const char* kInstallProcessNameKey = "InstallProcessName";
    static constexpr const char* kInstallPrefixPathKey = "InstallPrefixPath";
    static constexpr const char* kPackageGroupsKey = "PackageGroups";
    static constexpr const char* kPackageFileNameKey = "PackageFileName";
    static constexpr const char* kPathSHA1ChecksumsKey = "PathSHA1Checksums";
    static constexpr const char* kPathACLsKey = "PathACLs";
    static constexpr const char* kPathExtendedAttributesKey = "PathExtendedAttributes";

    // Receipt directories relative to a volume root, in search order.
    static constexpr const char* kSecureReceiptsDirectory = "private/var/db/receipts";
    static constexpr const char* kLibraryReceiptsDirectory = "Library/Receipts";
    static constexpr const char* kLibraryReceiptsBOMsDirectory = "Library/Receipts/boms";

    virtual ~CWReceipt();
    CWReceipt(const CWReceipt&) = delete;
    CWReceipt& operator=(const CWReceipt&) = delete;

    // All receipts of the volume, from the one-volume receipts cache (scanned on a miss).
    // Throws platform::Exception "CWReceipt" for a nil volume path.
    static ReceiptList receiptsOnVolumeAtPath(const std::optional<std::string>& volumePath);
    // The first receipt of the volume whose package identifier is `identifier`; null if none.
    static std::shared_ptr<CWReceipt> receiptWithIdentifier(const std::string& identifier,
                                                            const std::optional<std::string>& volume);
    // The first receipt of the volume whose "PackageFileName" is `fileName`; null if none.
    static std::shared_ptr<CWReceipt> receiptWithPackageFileName(const std::string& fileName,
                                                                 const std::optional<std::string>& volume);
    // The BOM receipts of one directory, then its bundle receipts; not cached.
    static ReceiptList receiptsAtPath(const std::string& directory);

    // The uncached scan of a volume (nil means "/").
    static ReceiptList _findReceiptsOnVolumeAtPath(const std::optional<std::string>& volumePath);
    static ReceiptList _findReceiptsFromBOMsDirectory(const std::string& directory);
    // The BOM file of every receipt that _findReceiptsOnVolumeAtPath would find, in the
    // same order, without reading the receipts' property lists.
    static std::vector<std::string> _bomPathsOnVolumeAtPath(const std::string& volumePath);
    static ReceiptList _findBundleReceiptsFromDirectory(const std::string& directory);
    // The existing BOM receipt directories of the destination, in search order; the
    // secure indexes receive 0 exactly when the protected directory is among them.
    static std::vector<std::string> _searchDirectoriesForBOMReceiptsOnDestination(
        const std::string& destination, std::vector<size_t>* returningSecureIndexes);
    // "Library/Receipts" of the destination when it is a directory, else nothing.
    static std::vector<std::string> _searchDirectoriesForBundleReceiptsOnDestination(const std::string& destination);
    // Where new receipts go: the protected directory when private/var/db exists, else Library/Receipts.
    static std::string _receiptsDirectoryPathForDestination(const std::string& destination);
    static std::string _receiptsDirectoryPathForSandboxRoot(const std::string& sandboxRoot,
                                                            const std::string& destination);
    // The ".plist" beside a BOM: same directory and base name.
    static std::string _receiptDictionaryPathFromBOMPath(const std::string& bomPath);
    // Each BOM receipt's path on the volume with whether its folder is the secure one,
    // then each bundle receipt's path, in the order the receipt folders are searched.
    static void _forEachReceiptPathOnVolume(const std::string& destination,
                                            const std::function<void(const std::string&, bool secure)>& bom,
                                            const std::function<void(const std::string&)>& bundle);
    // The entries of `directory` whose extension is `extension`, joined to it.
    static std::vector<std::string> _filesWithExtensionInDirectory(const std::string& directory,
                                                                   std::string_view extension);
    static CWReceiptsCache& _sharedReceiptsCache();
    static void _clearCache();

    // A BOM receipt; null when no file exists at the path. A missing or unreadable
    // property list gives the minimal dictionary (identifier and date from the BOM file).
    static std::shared_ptr<CWReceipt> initWithBOMPath(const std::string& path);
    // An old-style bundle receipt; null when the path is not a directory or has no Archive.bom.
    // Without a bundle identifier the identifier is the directory name without extension.
    static std::shared_ptr<CWReceipt> initWithBundlePkgPath(const std::string& path);

    // Values of the property list; absent when missing or of another type.
    std::optional<std::string> packageIdentifier() const;
    std::optional<std::string> packageVersion() const;
    std::optional<platform::Date> installDate() const;
    std::optional<std::string> installProcessName() const;
    std::optional<std::string> installPrefixPath() const;
    // The string elements of "PackageGroups".
    std::optional<std::vector<std::string>> packageGroups() const;
    std::optional<std::string> _packageName() const;

    // Stores the groups when there is at least one, else removes the key.
    void _setPackageGroups(const std::vector<std::string>& groups);
    // Nil removes the key.
    void _setPackageName(const std::optional<std::string>& name);
    void _setInstallProcessName(const std::optional<std::string>& name);
    void _setInstallPrefixPath(const std::optional<std::string>& path);
    void _setInstallDate(const std::optional<platform::Date>& date);

    // Absolute paths of the BOM and, for an old-style receipt, of the bundle ("" for a BOM receipt).
    const std::string& bomPath() const { return _bomPath; }
    const std::string& bundlePath() const { return _bundlePath; }

    // A bundle receipt: its bundle path. A BOM receipt: its property-list path, then its BOM path.
    std::vector<std::string> receiptStoragePaths() const;

    // The BOM, opened on first use and kept until _freeBOM; null (after a system-log
    // warning) when it cannot be opened, and then tried again on the next call.
    virtual std::shared_ptr<CWBOM> _BOM();
    void _freeBOM();
    // Null when the BOM cannot be opened.
    std::shared_ptr<CWBOMDirectoryEnumerator> _directoryEnumerator();
    std::optional<platform::Dictionary> _attributesOfItemAtPath(const std::string& path);

    // One entry of "PathSHA1Checksums" / "PathACLs", keyed by BOM path; nil removes it.
    std::optional<platform::Data> _SHA1ChecksumDataOfItemAtPath(const std::string& path) const;
    void _setSHA1ChecksumData(const std::optional<platform::Data>& data, const std::string& forItemAtPath);
    std::optional<std::string> _ACLStringOfItemAtPath(const std::string& path) const;
    void _setACLString(const std::optional<std::string>& aclString, const std::string& forItemAtPath);
    // Record the file's SHA-1 digest / extended ACL text under the BOM path. Always true.
    bool _updateSHA1ChecksumOfItemAtPath(const std::string& path, const std::string& withFile);
    bool _updateACLsOfItemAtPath(const std::string& path, const std::string& withFile);

    bool _isSecure() const { return _secure; }
    void _setSecure(bool secure) { _secure = secure; }

    // Deletes {directory}/{identifier}.bom and, only when that worked, its ".plist".
    // The result is that of the second deletion. Throws "CWReceipt" for a nil directory.
    bool _removeReceiptInDirectory(const std::optional<std::string>& directory, platform::Error* error = nullptr);

    // "CWReceipt <identifier>" (the class name of the object, then the identifier).
    std::string description() const;

protected:
    CWReceipt();
    virtual const char* className() const { return "CWReceipt"; }

    platform::Dictionary _receiptDictionary;
    std::string _bomPath;
    std::shared_ptr<CWBOM> _cachedBOM;
    std::string _bundlePath;  // empty for a BOM receipt
    bool _secure = false;

private:
    static platform::Dictionary minimalDictionaryForBOMPath(const std::string& bomPath);
    std::optional<std::string> stringForKey(const char* key) const;
    void setOrRemove(const char* key, std::optional<platform::Value> value);
    void setInnerValue(const char* key, const std::string& path, std::optional<platform::Value> value);
    const platform::Value* innerValue(const char* key, const std::string& path) const;
};

}  // namespace crateworks
