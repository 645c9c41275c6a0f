#include "Platform/Digest.h"

#include "Platform/CryptoLibrary.h"
#include "Platform/FileSystem.h"

namespace platform::digest {

namespace {
const EVP_MD* evpFor(const CryptoLibrary& crypto, Algorithm a) {
    switch (a) {
    case Algorithm::SHA1: return crypto.EVP_sha1();
    case Algorithm::MD5: return crypto.EVP_md5();
    case Algorithm::SHA256: return crypto.EVP_sha256();
    case Algorithm::SHA512: return crypto.EVP_sha512();
    }
    return crypto.EVP_sha1();
}
}  // namespace

size_t length(Algorithm a) {
    switch (a) {
    case Algorithm::SHA1: return 20;
    case Algorithm::MD5: return 16;
    case Algorithm::SHA256: return 32;
    case Algorithm::SHA512: return 64;
    }
    return 0;
}

std::optional<Algorithm> fromName(std::string_view name) {
    if (name == "sha1") return Algorithm::SHA1;
    if (name == "md5") return Algorithm::MD5;
    if (name == "sha256") return Algorithm::SHA256;
    if (name == "sha512") return Algorithm::SHA512;
    return std::nullopt;
}

struct Hasher::State {
    const CryptoLibrary* crypto = CryptoLibrary::get();
    EVP_MD_CTX* ctx = nullptr;  // null when no digest can be computed
    ~State() {
        if (ctx) crypto->EVP_MD_CTX_free(ctx);
    }
};

Hasher::Hasher(Algorithm algorithm) : state_(std::make_unique<State>()) {
    const CryptoLibrary* crypto = state_->crypto;
    if (!crypto || !(state_->ctx = crypto->EVP_MD_CTX_new())) return;
    if (crypto->EVP_DigestInit_ex(state_->ctx, evpFor(*crypto, algorithm), nullptr) != 1) {
        crypto->EVP_MD_CTX_free(state_->ctx);
        state_->ctx = nullptr;
    }
}

Hasher::~Hasher() = default;

void Hasher::update(std::span<const uint8_t> bytes) {
    if (state_->ctx && !bytes.empty()) state_->crypto->EVP_DigestUpdate(state_->ctx, bytes.data(), bytes.size());
}

Data Hasher::finish() {
    if (!state_->ctx) return {};
    Data out(EVP_MAX_MD_SIZE);
    unsigned int n = 0;
    if (state_->crypto->EVP_DigestFinal_ex(state_->ctx, out.data(), &n) != 1) return {};
    out.resize(n);
    return out;
}

Data compute(Algorithm algorithm, std::span<const uint8_t> bytes) {
    Hasher h(algorithm);
    h.update(bytes);
    return h.finish();
}

std::optional<Data> ofFile(Algorithm algorithm, const std::string& path) {
    if (!CryptoLibrary::get()) return std::nullopt;
    Hasher h(algorithm);
    bool read = fs::readInChunks(path, size_t(1) << 16, [&](std::span<const uint8_t> chunk) {
        h.update(chunk);
        return true;
    });
    if (!read) return std::nullopt;
    return h.finish();
}

std::string hex(std::span<const uint8_t> bytes) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 15];
    }
    return out;
}

}  // namespace platform::digest
