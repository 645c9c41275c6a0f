#include "Platform/Bundle.h"

#include <array>
#include <string_view>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"

namespace platform {

namespace {

struct Layout {
    const char* folder;        // the folder that gives the layout away; "" for the flat one
    const char* infoPlist;     // relative to the bundle directory
    const char* resourcesDir;  // relative to the bundle directory; "" is the bundle itself
};
constexpr std::array<Layout, 3> kLayouts{{
    {"Contents", "Contents/Info.plist", "Contents/Resources"},
    {"Resources", "Resources/Info.plist", "Resources"},
    {"", "Info.plist", ""},
}};
constexpr const Layout& kFlatLayout = kLayouts[2];

bool isExistingDirectory(const std::string& path) {
    bool isDirectory = false;
    return fs::exists(path, &isDirectory) && isDirectory;
}

// The layout whose information dictionary the directory holds, if any.
const Layout* layoutWithInfo(const std::string& directory) {
    for (const auto& layout : kLayouts)
        if (fs::exists(path::appendComponent(directory, layout.infoPlist))) return &layout;
    return nullptr;
}

const Layout& layoutByFolders(const std::string& directory) {
    for (const auto& layout : kLayouts)
        if (*layout.folder && isExistingDirectory(path::appendComponent(directory, layout.folder))) return layout;
    return kFlatLayout;
}

}  // namespace

Bundle::Bundle(std::string bundlePath, std::string resourcePath, Dictionary info)
    : bundlePath_(std::move(bundlePath)), resourcePath_(std::move(resourcePath)), info_(std::move(info)) {}

bool Bundle::isBundleExtension(const std::string& extension) {
    static constexpr std::array<std::string_view, 10> kExtensions{"app",  "bundle", "framework", "plugin",
                                                                  "kext", "pkg",    "mpkg",      "prefPane",
                                                                  "appex", "xpc"};
    for (auto known : kExtensions)
        if (extension == known) return true;
    return false;
}

bool Bundle::isBundle(const std::string& path) {
    return isExistingDirectory(path) && isBundleExtension(path::extension(path)) && layoutWithInfo(path);
}

Bundle Bundle::read(const std::string& path, const char* infoPlist, const char* resourcesDir) {
    std::optional<Dictionary> info;
    if (infoPlist) info = plist::readDictionaryFile(path::appendComponent(path, infoPlist));
    std::string resources = *resourcesDir ? path::appendComponent(path, resourcesDir) : path;
    return Bundle(path, std::move(resources), info ? std::move(*info) : Dictionary{});
}

std::optional<Bundle> Bundle::openIfBundle(const std::string& path) {
    if (!isBundle(path)) return std::nullopt;
    const Layout* layout = layoutWithInfo(path);
    return read(path, layout->infoPlist, layout->resourcesDir);
}

std::optional<Bundle> Bundle::openDirectoryAsBundle(const std::string& path) {
    if (!isExistingDirectory(path)) return std::nullopt;
    if (const Layout* layout = layoutWithInfo(path)) return read(path, layout->infoPlist, layout->resourcesDir);
    return read(path, nullptr, layoutByFolders(path).resourcesDir);
}

std::vector<std::string> Bundle::bundlePathsBelow(const std::string& directory) {
    std::vector<std::string> found;
    std::vector<std::string> pending{directory};
    while (!pending.empty()) {
        std::string current = std::move(pending.back());
        pending.pop_back();
        auto names = fs::contentsOfDirectory(current);
        if (!names) continue;
        for (const auto& name : *names) {
            std::string child = path::appendComponent(current, name);
            if (!fs::isDirectoryNoFollow(child)) continue;
            if (isBundle(child))
                found.push_back(std::move(child));
            else
                pending.push_back(std::move(child));
        }
    }
    return found;
}

Dictionary Bundle::bundleInformationAtPath(const std::string& directory) {
    Dictionary information;
    for (const auto& bundlePath : bundlePathsBelow(directory))
        if (auto bundle = openIfBundle(bundlePath)) information.set(bundlePath, bundle->infoDictionary());
    return information;
}

std::optional<std::string> Bundle::string(const char* key) const {
    const std::string* value = info_.findString(key);
    if (!value) return std::nullopt;
    return *value;
}

std::optional<std::string> Bundle::identifier() const { return string(kIdentifierKey); }
std::optional<std::string> Bundle::shortVersionString() const { return string(kShortVersionStringKey); }
std::optional<std::string> Bundle::version() const { return string(kVersionKey); }

}  // namespace platform
