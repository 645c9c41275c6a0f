// The support framework's resource bundle, Ferryhold.framework, whose Resources/
// folder holds the shipped data (rule data, exclusion and receipt lists).
#pragma once

#include <optional>
#include <string>

namespace platform::framework {

// The bundle directory, in this order: the process-wide override, the environment
// variable FERRYHOLD_FRAMEWORK_PATH, "Ferryhold.framework" beside the Platform library
// itself (the build tree's copy; the library is found with dladdr, never from the
// running executable), the installed bundle (share/ferryhold/Ferryhold.framework under
// the prefix) reached from the library's directory, then the installed bundle at the
// absolute path the build was configured with.
std::string bundlePath();
// Resources/ of the bundle (there is no Contents/ level).
std::string resourcesPath();

// Points the bundle at another directory (tests use a fixture); nullopt restores the default.
void setBundlePathOverride(std::optional<std::string> path);

// Resources/[subdirectory/]name[.type] when it exists; absent otherwise.
std::optional<std::string> pathForResource(const std::string& name, const std::string& type = {},
                                           const std::string& subdirectory = {});

}  // namespace platform::framework
