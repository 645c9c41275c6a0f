// Anything that offers package references to the source manager.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Distribution_Layer/Product/CWPackageReference.h"

namespace crateworks {

class CWPackageSource {
public:
    virtual ~CWPackageSource() = default;
    virtual std::vector<std::shared_ptr<CWPackageReference>> allPackageReferences() const = 0;
    // A source that can search itself answers here; absent means "filter allPackageReferences for me".
    virtual std::optional<std::vector<std::shared_ptr<CWPackageReference>>> packageReferencesMatchingIdentifier(
        const std::string& /*identifier*/, const std::optional<std::string>& /*version*/) const {
        return std::nullopt;
    }
};

}  // namespace crateworks
