// Bundles, and directories read as bundles.
//
// A bundle is a directory with a bundle extension that holds an information dictionary
// at Contents/Info.plist, Resources/Info.plist or Info.plist (looked for in that order);
// isBundle, openIfBundle and the walks below ask that question. Reading a directory as a
// bundle (a receipt does) asks less: openDirectoryAsBundle takes any existing directory,
// with or without a dictionary, whatever its name.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Value.h"

namespace platform {

class Bundle {
public:
    // Keys of the information dictionary.
    static constexpr const char* kIdentifierKey = "CFBundleIdentifier";
    static constexpr const char* kShortVersionStringKey = "CFBundleShortVersionString";
    static constexpr const char* kVersionKey = "CFBundleVersion";

    // The bundle at the path; absent when the path is not a bundle. An information
    // dictionary that cannot be read counts as empty.
    static std::optional<Bundle> openIfBundle(const std::string& path);
    // Any existing directory (symbolic links followed), read as a bundle. Where one of the
    // information dictionaries is found, as openIfBundle; without one the dictionary is
    // empty and the layout follows the folders: Contents/, else Resources/, else flat.
    static std::optional<Bundle> openDirectoryAsBundle(const std::string& path);
    // Whether the path is a directory with a bundle extension holding an information dictionary.
    static bool isBundle(const std::string& path);
    // Whether the extension (without the dot) is one that bundles carry.
    static bool isBundleExtension(const std::string& extension);
    // The bundles found by walking the directory at `path` (symbolic links not followed,
    // a found bundle not descended into), each path to its information dictionary.
    static Dictionary bundleInformationAtPath(const std::string& path);
    // The keys of bundleInformationAtPath, in walk order.
    static std::vector<std::string> bundlePathsBelow(const std::string& path);

    const std::string& bundlePath() const { return bundlePath_; }
    const Dictionary& infoDictionary() const { return info_; }
    // Contents/Resources for the Contents/ layout, Resources for the Resources/ layout,
    // the bundle directory itself for the flat layout.
    const std::string& resourcePath() const { return resourcePath_; }

    // String values of the information dictionary; absent when missing or not strings.
    std::optional<std::string> identifier() const;
    std::optional<std::string> shortVersionString() const;
    std::optional<std::string> version() const;

private:
    Bundle(std::string bundlePath, std::string resourcePath, Dictionary info);
    // `infoPlist` null: no information dictionary to read.
    static Bundle read(const std::string& path, const char* infoPlist, const char* resourcesDir);
    std::optional<std::string> string(const char* key) const;

    std::string bundlePath_;
    std::string resourcePath_;
    Dictionary info_;
};

}  // namespace platform
