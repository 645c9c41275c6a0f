#include "CrateworksCore/Package_API/Receipts/CWMutableReceipt.h"

#include <fmt/format.h>

#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/ProcessInfo.h"
#include "Platform/PropertyList.h"

namespace fs = platform::fs;
namespace path = platform::path;

namespace crateworks {

std::shared_ptr<CWMutableReceipt> CWMutableReceipt::initWithPackageIdentifier(
    const std::string& identifier, const std::optional<std::string>& packageVersion,
    std::optional<platform::Data> bomData) {
    std::shared_ptr<CWMutableReceipt> receipt(new CWMutableReceipt());
    auto& dictionary = receipt->_receiptDictionary;
    dictionary.set(kPackageIdentifierKey, identifier);
    if (packageVersion) dictionary.set(kPackageVersionKey, *packageVersion);
    dictionary.set(kInstallDateKey, platform::Date::now());
    dictionary.set(kInstallProcessNameKey, platform::process::processName());
    dictionary.set(kInstallPrefixPathKey, "/");
    receipt->_bomData = std::move(bomData);
    return receipt;
}

std::shared_ptr<CWBOM> CWMutableReceipt::_BOM() {
    if (_cachedBOM) return _cachedBOM;
    if (_bomData) _cachedBOM = CWBOM::initWithBOMData(*_bomData);
    if (!_cachedBOM)
        platform::systemLog(platform::kInstallerFacility | platform::kLogWarning,
                            fmt::format("CWReceipt could not open BOM at path {}", _bomPath));
    return _cachedBOM;
}

bool CWMutableReceipt::writeToDirectory(const std::optional<std::string>& directory, platform::Error* error) {
    if (!directory) throw platform::Exception("CWReceipt", "Attempt to use nil directory");
    std::string dir = path::standardize(*directory);
    if (!_bomData || _bomData->empty()) return true;
    if (!fs::createDirectories(dir, 0755, error)) return false;
    std::string identifier = packageIdentifier().value_or("");
    if (!fs::writeFileAtomically(path::appendComponent(dir, identifier + ".bom"), *_bomData, error)) return false;
    if (packageVersion() &&
        !platform::plist::writeXMLFile(platform::Value(_receiptDictionary), path::appendComponent(dir, identifier + ".plist"),
                                       error))
        return false;
    _clearCache();
    return true;
}

}  // namespace crateworks
