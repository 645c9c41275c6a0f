// A file mapped read-only into memory, for readers that look at a file's bytes in
// place instead of copying them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace platform {

class MappedFile {
public:
    // How the pages of the mapping are read: all at once when it is made (for readers that
    // look at nearly every page), or each when it is first touched (for readers that look
    // at only the parts they are asked about).
    enum class Pages { populated, onDemand };

    // Maps the whole file; null when it cannot be opened, is not a regular file or cannot
    // be mapped. An empty file maps to no bytes.
    static std::shared_ptr<MappedFile> open(const std::string& path, Pages pages = Pages::populated);
    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    std::span<const uint8_t> bytes() const { return {data_, size_}; }

private:
    MappedFile(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    const uint8_t* data_;
    size_t size_;
};

}  // namespace platform
