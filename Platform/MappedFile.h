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
    // Maps the whole file, its pages populated at once; null when it cannot be opened,
    // is not a regular file or cannot be mapped. An empty file maps to no bytes.
    static std::shared_ptr<MappedFile> open(const std::string& path);
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
