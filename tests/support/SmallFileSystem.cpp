#include "support/SmallFileSystem.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace testsupport {

SmallFileSystem::SmallFileSystem(std::string directory, const std::string& size) : dir_(std::move(directory)) {
    std::error_code ignored;
    std::filesystem::create_directories(dir_, ignored);
    std::string options = "size=" + size;
    mounted_ = mount("tmpfs", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
    if (!mounted_) reason_ = std::string("cannot mount a tmpfs: ") + strerror(errno);
}

SmallFileSystem::~SmallFileSystem() {
    if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
}

bool SmallFileSystem::fill(const std::string& name) {
    int fd = open((dir_ + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    std::vector<char> block(65536, 'f');
    // Whole blocks first, then single bytes, until nothing more fits.
    for (size_t chunk : {block.size(), size_t(1)})
        while (write(fd, block.data(), chunk) == ssize_t(chunk)) {
        }
    close(fd);
    struct statvfs st {};
    return statvfs(dir_.c_str(), &st) == 0 && st.f_bavail == 0;
}

}  // namespace testsupport
