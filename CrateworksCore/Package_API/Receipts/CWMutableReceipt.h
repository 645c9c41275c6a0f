// CWMutableReceipt: a new receipt, made from a package identifier, version and BOM
// bytes, and written into a receipts directory.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"

namespace crateworks {

class CWMutableReceipt : public CWReceipt {
public:
    // Sets the identifier, the version (only when given), the install date (now), the
    // install process name (this process) and the install prefix "/", and keeps the BOM bytes.
    static std::shared_ptr<CWMutableReceipt> initWithPackageIdentifier(const std::string& identifier,
                                                                       const std::optional<std::string>& packageVersion,
                                                                       std::optional<platform::Data> bomData);

    // The BOM opened from the kept bytes in memory.
    std::shared_ptr<CWBOM> _BOM() override;

    // Writes {directory}/{identifier}.bom and, only when the receipt has a version,
    // {directory}/{identifier}.plist (XML); creates the directory as needed and empties
    // the receipts cache. True without writing anything when there are no BOM bytes.
    // False (with the error set) on the first failure; nothing written is rolled back.
    // Throws platform::Exception "CWReceipt" for a nil directory.
    bool writeToDirectory(const std::optional<std::string>& directory, platform::Error* error = nullptr);

protected:
    const char* className() const override { return "CWMutableReceipt"; }

private:
    CWMutableReceipt() = default;

    std::optional<platform::Data> _bomData;
};

}  // namespace crateworks
