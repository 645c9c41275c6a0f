// A fresh temporary directory for one test, removed with everything in it.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() joined with a relative path.
    std::string operator/(const std::string& relative) const;

private:
    std::string path_;
};

// Writes `contents` to `path`, creating parent directories.
void writeFile(const std::string& path, const std::string& contents);
std::string readFile(const std::string& path);
// One shell word: `s` in single quotes, a quote inside it written '\''.
std::string shellQuote(const std::string& s);
// The lines of `text`, without their newlines; a last line without one counts too.
std::vector<std::string> lines(const std::string& text);
// Runs a shell command and returns its standard output; `status` receives the exit status.
std::string runCommand(const std::string& command, int* status = nullptr);

}  // namespace testsupport
