// A resource bundle of the test's own: rule data, exclusion and receipt lists written
// into a temporary Ferryhold.framework that the platform layer is pointed at for the
// fixture's lifetime.
#pragma once

#include <string>
#include <vector>

#include "Platform/Value.h"
#include "support/TempDir.h"

namespace testsupport {

class FrameworkFixture {
public:
    FrameworkFixture();
    ~FrameworkFixture();

    const std::string& path() const { return bundle_; }
    std::string resources(const std::string& relative = {}) const;

    // Writes a property list below Resources/ (parent folders made as needed).
    void writePlist(const std::string& relative, const platform::Value& value) const;
    // MigrationData[U]/datv.plist with the version, or without the key when empty.
    void setVersion(const std::string& folder, const std::string& version) const;
    // A rule file in {folder}/ConfMigrator.
    void addRuleFile(const std::string& name, const platform::Dictionary& groups,
                     const std::string& folder = "MigrationData") const;
    // {folder}/ConfMigrator/pdExtraKeepPaths as a shell script with the given body.
    void setExtraKeepPathsTool(const std::string& script, const std::string& folder = "MigrationData") const;
    // {folder}/SystemExclusion.plist with the four arrays.
    void setExclusionList(const std::vector<std::string>& system, const std::vector<std::string>& preserve,
                          const std::vector<std::string>& search, const std::vector<std::string>& searchChildrenOf,
                          const std::string& folder = "MigrationData") const;
    void setSystemReceiptPatterns(const std::vector<std::string>& patterns) const;
    void setPrinterPackages(const std::vector<std::string>& identifiers) const;
    void setFallbackSystemPaths(const std::vector<std::string>& paths) const;

    // Rule data of version 10.7.0 and empty exclusion, receipt and printer lists: a
    // bundle under which an analysis sees only what a test's volume holds.
    void setEmptyRuleData() const;

    // Copies the shipped resources of the build tree into this bundle.
    void copyShippedResources() const;

private:
    TempDir dir_;
    std::string bundle_;
};

platform::Array stringArray(const std::vector<std::string>& strings);
// One rule entry: {"KeepPath": "/etc/x"} etc.
platform::Value entry(std::initializer_list<std::pair<std::string, platform::Value>> keys);

}  // namespace testsupport
