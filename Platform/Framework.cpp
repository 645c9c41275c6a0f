#include "Platform/Framework.h"

#include <cstdlib>
#include <dlfcn.h>
#include <mutex>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace platform::framework {

namespace {
std::mutex overrideMutex;
std::optional<std::string> overridePath;

std::string libraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&libraryDirectory), &info) == 0 || !info.dli_fname) return ".";
    return path::deletingLastComponent(info.dli_fname);
}

bool isDirectory(const std::string& path) {
    bool directory = false;
    return fs::exists(path, &directory) && directory;
}

// Where an installed library finds the bundle: the build names the bundle's installed
// directory relative to the installed libraries' (so an installed tree can move as a
// whole) and absolutely.
#ifndef FERRYHOLD_FRAMEWORK_FROM_LIBDIR
#define FERRYHOLD_FRAMEWORK_FROM_LIBDIR "../share/ferryhold/Ferryhold.framework"
#endif
#ifndef FERRYHOLD_FRAMEWORK_INSTALLED
#define FERRYHOLD_FRAMEWORK_INSTALLED "/usr/local/share/ferryhold/Ferryhold.framework"
#endif

std::string defaultBundlePath() {
    std::string directory = libraryDirectory();
    // The build tree keeps a copy beside the libraries.
    std::string beside = path::appendComponent(directory, "Ferryhold.framework");
    if (isDirectory(beside)) return beside;
    std::string installed = path::appendComponent(directory, FERRYHOLD_FRAMEWORK_FROM_LIBDIR);
    if (isDirectory(installed)) return installed;
    return FERRYHOLD_FRAMEWORK_INSTALLED;
}
}  // namespace

std::string bundlePath() {
    {
        std::lock_guard lock(overrideMutex);
        if (overridePath) return *overridePath;
    }
    if (const char* env = getenv("FERRYHOLD_FRAMEWORK_PATH"); env && *env) return env;
    static const std::string found = defaultBundlePath();
    return found;
}

std::string resourcesPath() { return path::appendComponent(bundlePath(), "Resources"); }

void setBundlePathOverride(std::optional<std::string> path) {
    std::lock_guard lock(overrideMutex);
    overridePath = std::move(path);
}

std::optional<std::string> pathForResource(const std::string& name, const std::string& type,
                                           const std::string& subdirectory) {
    if (name.empty()) return std::nullopt;
    std::string file = type.empty() ? name : name + "." + type;
    std::string path = path::appendComponent(path::appendComponent(resourcesPath(), subdirectory), file);
    if (!fs::existsNoFollow(path)) return std::nullopt;
    return path;
}

}  // namespace platform::framework
