// Message digests (SHA-1, MD5, SHA-256, SHA-512) over bytes, incrementally, and over files.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Value.h"

namespace platform::digest {

enum class Algorithm { SHA1, MD5, SHA256, SHA512 };

// Digest length in bytes: 20, 16, 32, 64.
size_t length(Algorithm algorithm);
// The algorithm for a name such as "sha1", "md5", "sha256", "sha512" (lower case); absent otherwise.
std::optional<Algorithm> fromName(std::string_view name);

class Hasher {
public:
    explicit Hasher(Algorithm algorithm);
    ~Hasher();
    Hasher(const Hasher&) = delete;
    Hasher& operator=(const Hasher&) = delete;

    void update(std::span<const uint8_t> bytes);
    // The digest; the hasher cannot be updated afterwards. Empty when no digest can be
    // computed (the library that computes them cannot be loaded).
    Data finish();

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Empty when no digest can be computed, as Hasher::finish.
Data compute(Algorithm algorithm, std::span<const uint8_t> bytes);
// Absent when the file cannot be read or no digest can be computed.
std::optional<Data> ofFile(Algorithm algorithm, const std::string& path);
// Lower-case hexadecimal.
std::string hex(std::span<const uint8_t> bytes);

}  // namespace platform::digest
