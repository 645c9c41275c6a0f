#include "Platform/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

std::shared_ptr<MappedFile> MappedFile::open(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return nullptr;
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return nullptr;
    }
    size_t size = size_t(st.st_size);
    void* data = nullptr;
    if (size > 0) {
        // Readers of mapped files look at nearly every page; mapping them all at once is
        // cheaper than taking the faults one by one.
        data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
        if (data == MAP_FAILED) {
            close(fd);
            return nullptr;
        }
    }
    close(fd);  // the mapping stays valid without the descriptor
    return std::shared_ptr<MappedFile>(new MappedFile(static_cast<const uint8_t*>(data), size));
}

MappedFile::~MappedFile() {
    if (size_ > 0) munmap(const_cast<uint8_t*>(data_), size_);
}

}  // namespace platform
