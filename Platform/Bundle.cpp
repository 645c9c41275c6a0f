#include "Platform/Bundle.h"

#include <array>
#include <string_view>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"

namespace platform {

namespace {

struct Layout {
    const char* infoPlist;     // relative to the bundle directory
    const char* resourcesDir;  // relative to the bundle directory; "" is the bundle itself
};
constexpr std::array<Layout, 3> kLayouts{{
    {"Contents/Info.plist", "Contents/Resources"},
    {"Resources/Info.plist", "Resources"},
    {"Info.plist", ""},
}};

const Layout* layoutOf(const std::string& path) {
    bool isDirectory = false;
    if (!fs::exists(path, &isDirectory) || !isDirectory) return nullptr;
    if (!Bundle::isBundleExtension(path::extension(path))) return nullptr;
    for (const auto& layout : kLayouts)
        if (fs::exists(path::appendComponent(path, layout.infoPlist))) return &layout;
    return nullptr;
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

bool Bundle::isBundle(const std::string& path) { return layoutOf(path) != nullptr; }

std::optional<Bundle> Bundle::open(const std::string& path) {
    const Layout* layout = layoutOf(path);
    if (!layout) return std::nullopt;
    auto info = plist::readDictionaryFile(path::appendComponent(path, layout->infoPlist));
    std::string resources = *layout->resourcesDir ? path::appendComponent(path, layout->resourcesDir) : path;
    return Bundle(path, std::move(resources), info ? std::move(*info) : Dictionary{});
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
        if (auto bundle = open(bundlePath)) information.set(bundlePath, bundle->infoDictionary());
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
