// A system on a volume, as a host program describes it: its root path and its users.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "FHPathAnalysis/IncompatibleApplications/FHSystemUser.h"

class FHSystem {
public:
    explicit FHSystem(std::string path) : path_(std::move(path)) {}
    virtual ~FHSystem() = default;

    // The system's root path, e.g. "/" or "/Volumes/Old".
    const std::string& path() const { return path_; }
    // The users found on the system's volume (FHSystemUser::usersOfSystemAtPath); a
    // host that knows its users better may answer them itself.
    virtual std::vector<FHSystemUser> getSystemUsers() const { return FHSystemUser::usersOfSystemAtPath(path_); }

private:
    std::string path_;
};

// A file-system service object of the host's; this library only carries it.
class FHSlingShotFS {
public:
    virtual ~FHSlingShotFS() = default;
};
