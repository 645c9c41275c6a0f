#include "Platform/MappedFile.h"

#include <cerrno>
#include <sys/mman.h>
#include <sys/stat.h>

#include "Platform/File.h"
#include "Platform/ReadFault.h"

namespace platform {

std::shared_ptr<MappedFile> MappedFile::open(const std::string& path, Pages pages) {
    // Opened without blocking, so that a FIFO planted where the file should be cannot
    // stall the open, and judged by fstat on the open descriptor, which also gives the
    // size. The descriptor is only mapped, so it is left non-blocking.
    auto file = fs::File::open(path, {.nonBlocking = true});
    if (!file) return nullptr;
    struct stat st {};
    if (fstat(file->descriptor(), &st) != 0) return nullptr;
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    size_t size = size_t(st.st_size);
    if (auto fault = fs::detail::readFaultFor(path); fault && size > fault->offset) {
        if (fault->errorCode != 0) {
            errno = fault->errorCode;
            return nullptr;
        }
        size = size_t(fault->offset);
    }
    void* data = nullptr;
    if (size > 0) {
        // For a reader that looks at nearly every page, mapping them all at once is cheaper
        // than taking the faults one by one.
        int populate = pages == Pages::populated ? MAP_POPULATE : 0;
        data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | populate, file->descriptor(), 0);
        if (data == MAP_FAILED) return nullptr;
    }
    // The mapping stays valid once the file is closed.
    return std::shared_ptr<MappedFile>(new MappedFile(static_cast<const uint8_t*>(data), size));
}

MappedFile::~MappedFile() {
    if (size_ > 0) munmap(const_cast<uint8_t*>(data_), size_);
}

}  // namespace platform
