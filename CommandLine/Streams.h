// "-" for standard input or output where a command reads or writes a file whole.
#pragma once

#include <optional>
#include <string>

#include "Platform/Error.h"
#include "Platform/File.h"

namespace commandline {

// Whether an argument names standard input or output.
inline bool isStandardStream(const std::string& argument) { return argument == "-"; }

// Standard input copied into an unnamed scratch file, for readers that need to seek.
// path() names the copy while this object lives.
class SpooledInput {
public:
    // Absent, with the error, when standard input cannot be read or the copy written.
    static std::optional<SpooledInput> fromStandardInput(platform::Error* error);
    std::string path() const;

private:
    explicit SpooledInput(platform::fs::File file) : file_(std::move(file)) {}
    platform::fs::File file_;
};

// A scratch path for a command that must write a file before it can send it to
// standard output; the directory holding it is removed with it.
class ScratchOutput {
public:
    static std::optional<ScratchOutput> create(platform::Error* error);
    ~ScratchOutput();
    ScratchOutput(ScratchOutput&& other) noexcept;
    ScratchOutput& operator=(ScratchOutput&& other) noexcept;

    const std::string& path() const { return path_; }
    // Copies the file at path() to standard output.
    bool sendToStandardOutput(platform::Error* error);

private:
    explicit ScratchOutput(std::string directory);
    std::string directory_, path_;
};

}  // namespace commandline
