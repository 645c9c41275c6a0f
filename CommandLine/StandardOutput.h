// Standard output for a tool's results: buffered, every write checked. After the first
// failed write nothing more is written, and finish() turns the failure into the exit
// status, so that no command exits 0 having dropped part of its answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/File.h"

namespace commandline {

// The status of a command whose reader went away (a closed pipe), as if SIGPIPE had
// ended it: quiet, and never 0.
inline constexpr int kClosedPipeStatus = 141;

class StandardOutput {
public:
    // The process's one standard output.
    static StandardOutput& shared();

    // Writes to `file`, closed by finish().
    explicit StandardOutput(platform::fs::File file);

    void write(std::string_view text);
    void line(std::string_view text);
    // Each line handed to the descriptor at once, for results that appear while a long
    // command runs.
    void setFlushesEachLine(bool eachLine) { eachLine_ = eachLine; }
    // False when a write failed; a command may stop early then.
    bool flush();
    bool good() const { return !failure_; }
    // The errno of the first failed write.
    std::optional<int> failure() const { return failure_; }

    // Flushes and closes. Answers `status` when everything was written; 141 without a
    // word when the reader closed the pipe; 1 after "PROGRAM: write error: REASON" on
    // standard error for any other failure.
    int finish(int status, std::string_view program);

private:
    bool _writeBuffer();

    platform::fs::File file_;
    std::string buffer_;
    std::optional<int> failure_;
    bool eachLine_ = false;
};

// StandardOutput::shared().write(...), for brevity in the commands.
inline void out(std::string_view text) { StandardOutput::shared().write(text); }
inline void outLine(std::string_view text) { StandardOutput::shared().line(text); }

}  // namespace commandline
