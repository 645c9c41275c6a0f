// A small tmpfs mounted for one test, so that a write runs out of space on demand.
// Unmounted whichever way the test ends. The tests run as root; where mounting is
// refused (no privilege in a container), `mounted` is false and `reason` says why, for
// the test to skip with.
#pragma once

#include <string>

namespace testsupport {

class SmallFileSystem {
public:
    // Mounts a tmpfs of `size` ("1m", "64k", ...) at `directory`, made when missing.
    SmallFileSystem(std::string directory, const std::string& size);
    ~SmallFileSystem();
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    const std::string& path() const { return dir_; }
    bool mounted() const { return mounted_; }
    const std::string& reason() const { return reason_; }
    // Fills what is left with one file named `name`, so that the next write of any size
    // fails; true when the file system is full afterwards.
    bool fill(const std::string& name = ".filler");

private:
    std::string dir_;
    bool mounted_ = false;
    std::string reason_;
};

}  // namespace testsupport
