// Byte counts as people read them in the picker: decimal units, three significant
// digits ("512 bytes", "1.5 KB", "12.3 GB", "250 GB").
#pragma once

#include <cstdint>
#include <string>

class TAVByteCountFormatter {
public:
    TAVByteCountFormatter() = delete;

    static std::string stringFromByteCount(uint64_t bytes);
};
