// One user of a system on a volume: a name and the home folder relative to the
// system's root.
#pragma once

#include <optional>
#include <string>
#include <vector>

class FHSystemUser {
public:
    FHSystemUser(std::string name, std::optional<std::string> relativeHomeDir)
        : name_(std::move(name)), relativeHomeDir_(std::move(relativeHomeDir)) {}

    const std::string& name() const { return name_; }
    // The home folder relative to the system root, beginning with "/"; absent when unknown.
    const std::optional<std::string>& relativeHomeDir() const { return relativeHomeDir_; }

    // The users of the system whose root is `rootPath`: first every folder directly in
    // ROOT/Users except "Shared" and hidden names (home "/Users/NAME"), in name order;
    // then every ROOT/etc/passwd entry whose home is an absolute path not listed yet
    // and a folder under ROOT (symbolic links not followed), in file order.
    static std::vector<FHSystemUser> usersOfSystemAtPath(const std::string& rootPath);

    bool operator==(const FHSystemUser&) const = default;

private:
    std::string name_;
    std::optional<std::string> relativeHomeDir_;
};
