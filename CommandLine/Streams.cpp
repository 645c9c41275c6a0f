#include "CommandLine/Streams.h"

#include <cstdlib>
#include <unistd.h>
#include <utility>
#include <vector>

#include "CommandLine/StandardOutput.h"
#include "Platform/FileTree.h"
#include "Platform/Path.h"

namespace commandline {

namespace {

constexpr size_t kChunk = 256 * 1024;

std::string temporaryDirectory() {
    const char* tmp = getenv("TMPDIR");
    return tmp && *tmp ? tmp : "/tmp";
}

}  // namespace

std::optional<SpooledInput> SpooledInput::fromStandardInput(platform::Error* error) {
    auto copy = platform::fs::File::createTemporary(temporaryDirectory(), error);
    if (!copy) return std::nullopt;
    // Owned for the rest of the process, so that reading it never closes it early.
    static platform::fs::File input = platform::fs::File::adopt(STDIN_FILENO, "standard input");
    std::vector<uint8_t> buffer(kChunk);
    for (;;) {
        auto n = input.read(buffer, error);
        if (!n) return std::nullopt;
        if (*n == 0) break;
        if (!copy->writeAll({buffer.data(), *n}, error)) return std::nullopt;
    }
    return SpooledInput(std::move(*copy));
}

std::string SpooledInput::path() const {
    // The unnamed copy is reached through the descriptor's entry in /proc.
    return "/proc/self/fd/" + std::to_string(file_.descriptor());
}

std::optional<ScratchOutput> ScratchOutput::create(platform::Error* error) {
    std::string pattern = platform::path::appendComponent(temporaryDirectory(), "crateworks.XXXXXX");
    if (!mkdtemp(pattern.data())) {
        platform::setError(error, platform::kPOSIXErrorDomain, errno,
                           {{platform::kFilePathErrorKey, temporaryDirectory()}});
        return std::nullopt;
    }
    return ScratchOutput(pattern);
}

ScratchOutput::ScratchOutput(std::string directory)
    : directory_(std::move(directory)), path_(platform::path::appendComponent(directory_, "output")) {}

ScratchOutput::ScratchOutput(ScratchOutput&& other) noexcept
    : directory_(std::exchange(other.directory_, {})), path_(std::move(other.path_)) {}

ScratchOutput& ScratchOutput::operator=(ScratchOutput&& other) noexcept {
    if (this != &other) {
        if (!directory_.empty()) platform::fs::removeTree(directory_);
        directory_ = std::exchange(other.directory_, {});
        path_ = std::move(other.path_);
    }
    return *this;
}

ScratchOutput::~ScratchOutput() {
    if (!directory_.empty()) platform::fs::removeTree(directory_);
}

bool ScratchOutput::sendToStandardOutput(platform::Error* error) {
    auto file = platform::fs::File::open(path_, {}, error);
    if (!file) return false;
    std::vector<uint8_t> buffer(kChunk);
    auto& out = StandardOutput::shared();
    for (;;) {
        auto n = file->read(buffer, error);
        if (!n) return false;
        if (*n == 0) return true;
        out.write({reinterpret_cast<const char*>(buffer.data()), *n});
        if (!out.good()) return true;  // finish() reports it
    }
}

}  // namespace commandline
