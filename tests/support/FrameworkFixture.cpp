#include "support/FrameworkFixture.h"

#include <filesystem>
#include <sys/stat.h>

#include "Platform/Framework.h"
#include "Platform/PropertyList.h"

namespace testsupport {

FrameworkFixture::FrameworkFixture() : bundle_(dir_ / "Ferryhold.framework") {
    std::filesystem::create_directories(bundle_ + "/Resources/MigrationData/ConfMigrator");
    platform::framework::setBundlePathOverride(bundle_);
}

FrameworkFixture::~FrameworkFixture() { platform::framework::setBundlePathOverride(std::nullopt); }

std::string FrameworkFixture::resources(const std::string& relative) const {
    return relative.empty() ? bundle_ + "/Resources" : bundle_ + "/Resources/" + relative;
}

void FrameworkFixture::writePlist(const std::string& relative, const platform::Value& value) const {
    std::filesystem::create_directories(std::filesystem::path(resources(relative)).parent_path());
    if (!platform::plist::writeXMLFile(value, resources(relative)))
        throw std::runtime_error("cannot write " + resources(relative));
}

void FrameworkFixture::setVersion(const std::string& folder, const std::string& version) const {
    platform::Dictionary d;
    if (!version.empty()) d.set("version", version);
    writePlist(folder + "/datv.plist", platform::Value(std::move(d)));
}

void FrameworkFixture::addRuleFile(const std::string& name, const platform::Dictionary& groups,
                                   const std::string& folder) const {
    writePlist(folder + "/ConfMigrator/" + name, platform::Value(groups));
}

void FrameworkFixture::setExtraKeepPathsTool(const std::string& script, const std::string& folder) const {
    std::string tool = resources(folder + "/ConfMigrator/pdExtraKeepPaths");
    writeFile(tool, "#!/bin/sh\n" + script + "\n");
    chmod(tool.c_str(), 0755);
}

void FrameworkFixture::setExclusionList(const std::vector<std::string>& system, const std::vector<std::string>& preserve,
                                        const std::vector<std::string>& search,
                                        const std::vector<std::string>& searchChildrenOf,
                                        const std::string& folder) const {
    platform::Dictionary d{{"System", stringArray(system)},
                           {"Preserve", stringArray(preserve)},
                           {"Search", stringArray(search)},
                           {"SearchChildrenOf", stringArray(searchChildrenOf)}};
    writePlist(folder + "/SystemExclusion.plist", platform::Value(std::move(d)));
}

void FrameworkFixture::setSystemReceiptPatterns(const std::vector<std::string>& patterns) const {
    writePlist("SystemReceipts.plist", platform::Value(stringArray(patterns)));
}

void FrameworkFixture::setPrinterPackages(const std::vector<std::string>& identifiers) const {
    writePlist("installedPrintersPkgs.plist", platform::Value(stringArray(identifiers)));
}

void FrameworkFixture::setFallbackSystemPaths(const std::vector<std::string>& paths) const {
    writePlist("FallbackSystemFiles.plist", platform::Value(platform::Dictionary{{"systemPaths", stringArray(paths)}}));
}

void FrameworkFixture::setEmptyRuleData() const {
    setVersion("MigrationData", "10.7.0");
    setExclusionList({}, {}, {}, {});
    setSystemReceiptPatterns({});
    setPrinterPackages({});
}

void FrameworkFixture::copyShippedResources() const {
    std::filesystem::copy(std::string(FERRYHOLD_TEST_FRAMEWORK_DIR) + "/Resources", resources(),
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::overwrite_existing);
}

platform::Array stringArray(const std::vector<std::string>& strings) {
    platform::Array out;
    for (const auto& s : strings) out.emplace_back(s);
    return out;
}

platform::Value entry(std::initializer_list<std::pair<std::string, platform::Value>> keys) {
    platform::Dictionary d;
    for (const auto& [k, v] : keys) d.set(k, v);
    return platform::Value(std::move(d));
}

}  // namespace testsupport
