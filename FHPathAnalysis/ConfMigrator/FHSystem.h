// A system on a volume, as a host program describes it: its root path.
#pragma once

#include <memory>
#include <string>

class FHSystem {
public:
    explicit FHSystem(std::string path) : path_(std::move(path)) {}
    virtual ~FHSystem() = default;

    // The system's root path, e.g. "/" or "/Volumes/Old".
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A file-system service object of the host's; this library only carries it.
class FHSlingShotFS {
public:
    virtual ~FHSlingShotFS() = default;
};
