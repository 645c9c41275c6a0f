#include "Platform/UserDefaults.h"

#include <cstdlib>

#include "Platform/Path.h"
#include "Platform/ProcessInfo.h"
#include "Platform/PropertyList.h"

namespace platform::defaults {

namespace {

std::string configHome() {
    const char* xdg = getenv("XDG_CONFIG_HOME");
    // A relative value is invalid by the XDG rules and is ignored like an empty one.
    if (xdg && xdg[0] == '/') return xdg;
    return path::standardize("~/.config");
}

std::optional<Value> valueInDomain(std::string_view domain, std::string_view key) {
    auto dictionary = plist::readDictionaryFile(pathForDomain(domain));
    if (!dictionary) return std::nullopt;
    const Value* value = dictionary->find(key);
    if (!value) return std::nullopt;
    return *value;
}

}  // namespace

std::string pathForDomain(std::string_view domain) {
    return path::appendComponent(path::appendComponent(configHome(), "ferryhold"), std::string(domain) + ".plist");
}

std::optional<Value> objectForKey(std::string_view key) {
    if (auto value = valueInDomain(process::processName(), key)) return value;
    return valueInDomain(kGlobalDomain, key);
}

bool boolForKey(std::string_view key) {
    auto value = objectForKey(key);
    return value && value->boolean().value_or(false);
}

}  // namespace platform::defaults
