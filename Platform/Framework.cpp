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
}  // namespace

std::string bundlePath() {
    {
        std::lock_guard lock(overrideMutex);
        if (overridePath) return *overridePath;
    }
    if (const char* env = getenv("FERRYHOLD_FRAMEWORK_PATH"); env && *env) return env;
    static const std::string beside = path::appendComponent(libraryDirectory(), "Ferryhold.framework");
    return beside;
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
