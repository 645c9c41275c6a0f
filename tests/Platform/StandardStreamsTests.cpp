// Standard output diverted to standard error and given back, in a child process so that
// the test program's own descriptors stay as they are.
#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/File.h"
#include "Platform/StandardStreams.h"
#include "support/TempDir.h"

using platform::DivertedStandardOutput;
using platform::fs::File;
using platform::fs::OpenOptions;
using testsupport::readFile;
using testsupport::TempDir;

namespace {

// Runs `body` in a child whose standard output and error are the files `out` and `err`
// (standard error closed when `err` is empty); the child's exit status.
int runInChild(const std::string& out, const std::string& err, int (*body)()) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        OpenOptions writing{.access = OpenOptions::Access::Write, .create = true, .truncate = true};
        auto outFile = File::open(out, writing);
        if (!outFile || dup2(outFile->descriptor(), STDOUT_FILENO) < 0) _exit(90);
        if (err.empty()) {
            File::adopt(STDERR_FILENO, "standard error").close();
        } else {
            auto errFile = File::open(err, writing);
            if (!errFile || dup2(errFile->descriptor(), STDERR_FILENO) < 0) _exit(91);
        }
        _exit(body());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

}  // namespace

TEST(StandardStreams, DivertedOutputGoesToStandardErrorUntilRestored) {
    TempDir dir;
    int status = runInChild(dir / "out", dir / "err", [] {
        // Buffered output from before the diversion must still reach the real output.
        printf("before ");
        // The lowest free descriptor above the standard ones: where the saved output goes.
        int spare = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        File::adopt(spare, "spare").close();
        auto diversion = DivertedStandardOutput::begin();
        if (!diversion) return 10;
        printf("during ");
        if (!diversion->restore()) return 11;
        if (!diversion->restore()) return 12;  // a second restore changes nothing
        printf("after");
        fflush(stdout);
        // The saved descriptor is closed with the restore.
        return fcntl(spare, F_GETFD) == -1 ? 0 : 13;
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ("before after", readFile(dir / "out"));
    EXPECT_EQ("during ", readFile(dir / "err"));
}

TEST(StandardStreams, WithoutStandardErrorTheDiversionFailsAndOutputStays) {
    TempDir dir;
    int status = runInChild(dir / "out", "", [] {
        platform::Error error;
        auto diversion = DivertedStandardOutput::begin(&error);
        if (diversion) return 10;
        if (error.domain != platform::kPOSIXErrorDomain || error.code != EBADF) return 11;
        printf("still here");
        fflush(stdout);
        return 0;
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ("still here", readFile(dir / "out"));
}
