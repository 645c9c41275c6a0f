// crateworks xar create: what is at OUT is replaced only by a complete archive, and is
// left exactly as it was on every refusal, failure or interruption.
#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "XarTestSupport.h"
#include "support/SmallFileSystem.h"
#include "support/TempDir.h"

using testsupport::readFile;
using testsupport::runCommand;
using testsupport::TempDir;
using testsupport::writeFile;
using xartest::runTool;
using xartest::shellQuote;

extern char** environ;

namespace {

const std::string kTool = std::string(FERRYHOLD_BINARY_DIR) + "/crateworks";

using testsupport::lines;

// A refusal must not wait on what it refuses (a FIFO opened for writing would block).
std::string create(const std::string& out, const std::string& tree, int* status, const std::string& extra = "") {
    return runCommand("timeout -s KILL 60 " + kTool + " xar create " + shellQuote(out) + " " + shellQuote(tree) +
                          extra + " 2>&1",
                      status);
}

::testing::AssertionResult failedNaming(const std::string& output, int status, const std::string& path) {
    if (status != 1) return ::testing::AssertionFailure() << "exit status " << status << ": " << output;
    if (lines(output).size() != 1) return ::testing::AssertionFailure() << "not one line: " << output;
    if (output.find(path) == std::string::npos)
        return ::testing::AssertionFailure() << "does not name " << path << ": " << output;
    return ::testing::AssertionSuccess();
}

// Creates OUT from the tree, expecting the one-line failure that names `path`.
::testing::AssertionResult createFails(const std::string& out, const std::string& tree, const std::string& path) {
    int status = -1;
    std::string output = create(out, tree, &status);
    return failedNaming(output, status, path);
}

// The names directly in `dir`, sorted.
std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// Every item below `dir` with its type, size and inode, so that a replaced item shows.
std::string snapshot(const std::string& dir) {
    return runCommand("cd " + shellQuote(dir) + " && find . -mindepth 1 -printf '%P %y %s %i\\n' | LC_ALL=C sort");
}

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
}

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

std::string smallArchive(const TempDir& tmp, const std::string& out) {
    writeFile(tmp / "small/note.txt", "an earlier archive\n");
    int status = -1;
    std::string output = create(out, tmp / "small", &status);
    EXPECT_EQ(0, status) << output;
    std::string bytes = readFile(out);
    EXPECT_FALSE(bytes.empty());
    return bytes;
}

TEST(XarCreate, AnOutputThatIsNotARegularFileIsLeftAsItIs) {
    TempDir tmp;
    xartest::makeSampleTree(tmp / "src");
    std::string dir = tmp / "out";
    std::filesystem::create_directories(dir);
    std::string device = dir + "/device";
    ASSERT_EQ(0, mknod(device.c_str(), S_IFCHR | 0644, makedev(1, 3))) << strerror(errno);
    std::string fifo = dir + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    writeFile(dir + "/target.txt", "the link's target\n");
    std::string link = dir + "/link";
    ASSERT_EQ(0, symlink("target.txt", link.c_str()));
    std::string dangling = dir + "/dangling";
    ASSERT_EQ(0, symlink("absent.xar", dangling.c_str()));
    std::string directory = dir + "/directory";
    writeFile(directory + "/inside.txt", "inside\n");
    auto before = entries(dir);
    std::string directoryBefore = snapshot(directory);
    ino_t deviceInode = lstatOf(device).st_ino, fifoInode = lstatOf(fifo).st_ino,
          targetInode = lstatOf(dir + "/target.txt").st_ino;

    EXPECT_TRUE(createFails(device, tmp / "src", device));
    struct stat st = lstatOf(device);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(makedev(1, 3), st.st_rdev);
    EXPECT_EQ(deviceInode, st.st_ino);

    EXPECT_TRUE(createFails(fifo, tmp / "src", fifo));
    st = lstatOf(fifo);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(fifoInode, st.st_ino);

    EXPECT_TRUE(createFails(link, tmp / "src", link));
    EXPECT_TRUE(S_ISLNK(lstatOf(link).st_mode));
    EXPECT_EQ("target.txt", std::filesystem::read_symlink(link).string());
    EXPECT_EQ("the link's target\n", readFile(dir + "/target.txt"));
    EXPECT_EQ(targetInode, lstatOf(dir + "/target.txt").st_ino);

    EXPECT_TRUE(createFails(dangling, tmp / "src", dangling));
    EXPECT_TRUE(S_ISLNK(lstatOf(dangling).st_mode));
    EXPECT_EQ("absent.xar", std::filesystem::read_symlink(dangling).string());
    EXPECT_FALSE(exists(dir + "/absent.xar"));

    EXPECT_TRUE(createFails(directory, tmp / "src", directory));
    EXPECT_TRUE(S_ISDIR(lstatOf(directory).st_mode));
    EXPECT_EQ(directoryBefore, snapshot(directory));

    // No temporary is left beside any of them.
    EXPECT_EQ(before, entries(dir));
}

TEST(XarCreate, AnOutputInsideTheTreeIsRefusedHoweverItIsSpelled) {
    TempDir tmp;
    xartest::makeSampleTree(tmp / "src");
    writeFile(tmp / "src/a.txt", "part of the tree\n");
    int status = -1;

    // A regular file outside the tree is replaced by an archive of the tree.
    writeFile(tmp / "out.xar", "not yet an archive");
    std::string output = create(tmp / "out.xar", tmp / "src", &status);
    ASSERT_EQ(0, status) << output;
    std::string listed = runTool("xar list " + shellQuote(tmp / "out.xar") + " | cut -f1 | LC_ALL=C sort", &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ(runCommand("cd " + shellQuote(tmp / "src") + " && find . -mindepth 1 -printf '%P\\n' | LC_ALL=C sort"),
              listed);

    std::string tree = snapshot(tmp / "src");
    std::string aBefore = readFile(tmp / "src/a.txt");

    EXPECT_TRUE(createFails(tmp / "src/a.txt", tmp / "src", tmp / "src/a.txt"));
    EXPECT_EQ(aBefore, readFile(tmp / "src/a.txt"));

    EXPECT_TRUE(createFails(tmp / "src/dir/new.xar", tmp / "src", tmp / "src/dir/new.xar"));
    EXPECT_FALSE(exists(tmp / "src/dir/new.xar"));

    ASSERT_EQ(0, symlink("src/dir", (tmp / "into").c_str()));
    EXPECT_TRUE(createFails(tmp / "into/new.xar", tmp / "src", tmp / "into/new.xar"));
    EXPECT_FALSE(exists(tmp / "src/dir/new.xar"));

    // The tree named through a link, OUT named directly.
    ASSERT_EQ(0, symlink("src", (tmp / "srclink").c_str()));
    EXPECT_TRUE(createFails(tmp / "src/new.xar", tmp / "srclink", tmp / "src/new.xar"));

    for (std::string spelling : {"src/dir/../new.xar", "elsewhere/../src/dir/nested/../new.xar", "src/./new.xar"}) {
        std::filesystem::create_directories(tmp / "elsewhere");
        EXPECT_TRUE(createFails(tmp / spelling, tmp / "src", tmp / spelling)) << spelling;
    }
    EXPECT_FALSE(exists(tmp / "src/new.xar"));
    EXPECT_FALSE(exists(tmp / "src/dir/new.xar"));

    // Relative names, with the tree as ".".
    output = runCommand("cd " + shellQuote(tmp / "src") + " && " + kTool + " xar create here.xar . 2>&1", &status);
    EXPECT_TRUE(failedNaming(output, status, "here.xar"));
    EXPECT_FALSE(exists(tmp / "src/here.xar"));

    EXPECT_EQ(tree, snapshot(tmp / "src"));

    // ".." that leads out of the tree is not inside it.
    output = create(tmp / "src/dir/../../escaped.xar", tmp / "src", &status);
    EXPECT_EQ(0, status) << output;
    EXPECT_TRUE(exists(tmp / "escaped.xar"));
    EXPECT_EQ(tree, snapshot(tmp / "src"));
}

// Names, types, modes, link targets and file digests of everything below a directory,
// read relative to directory descriptors since the paths pass PATH_MAX.
const char* kDescribeTree = R"(
import hashlib, os, stat, sys
top = sys.argv[1]
out = []
for root, dirs, files, fd in os.fwalk(top):
    rel = root[len(top):].lstrip('/')
    for name in dirs + files:
        st = os.stat(name, dir_fd=fd, follow_symlinks=False)
        p = rel + '/' + name if rel else name
        if stat.S_ISLNK(st.st_mode):
            out.append(p + ' link ' + os.readlink(name, dir_fd=fd))
            continue
        kind = 'dir' if stat.S_ISDIR(st.st_mode) else 'file' if stat.S_ISREG(st.st_mode) else 'other'
        line = '%s %s %o' % (p, kind, st.st_mode & 0o7777)
        if kind == 'file':
            f = os.open(name, os.O_RDONLY, dir_fd=fd)
            h = hashlib.sha256()
            while True:
                b = os.read(f, 1 << 16)
                if not b:
                    break
                h.update(b)
            os.close(f)
            line += ' ' + h.hexdigest()
        out.append(line)
print('\n'.join(sorted(out)))
)";

TEST(XarCreate, PathsLongerThanPathMaxListAsAnotherReaderSeesThemAndExtractIntact) {
    TempDir tmp;
    std::filesystem::create_directories(tmp / "src");
    // 61 levels of 70-character names: the deepest paths run past 4,096 bytes.
    const char* build = R"(
import os, sys
fd = os.open(sys.argv[1], os.O_RDONLY)
for i in range(61):
    name = 'level%02d-' % i + 'n' * 62
    os.mkdir(name, dir_fd=fd)
    child = os.open(name, os.O_RDONLY, dir_fd=fd)
    os.close(fd)
    fd = child
    if i in (0, 19, 57, 60):
        f = os.open('file%02d.bin' % i, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o640 if i == 57 else 0o644, dir_fd=fd)
        os.write(f, os.urandom(3000 + 1000 * i))
        os.close(f)
os.mkdir('empty', 0o750, dir_fd=fd)
os.symlink('file60.bin', 'deepest-link', dir_fd=fd)
)";
    int status = -1;
    std::string output = runCommand("python3 -c " + shellQuote(build) + " " + shellQuote(tmp / "src") + " 2>&1", &status);
    ASSERT_EQ(0, status) << output;

    output = create(tmp / "deep.xar", tmp / "src", &status);
    ASSERT_EQ(0, status) << output;

    auto ours = lines(runTool("xar list " + shellQuote(tmp / "deep.xar") + " | cut -f1", &status));
    EXPECT_EQ(0, status);
    std::sort(ours.begin(), ours.end());
    auto theirs = lines(runCommand("bsdtar -tf " + shellQuote(tmp / "deep.xar"), &status));
    EXPECT_EQ(0, status);
    for (auto& name : theirs) {
        if (name.rfind("./", 0) == 0) name.erase(0, 2);
        if (name.size() > 1 && name.back() == '/') name.pop_back();
    }
    std::sort(theirs.begin(), theirs.end());
    EXPECT_EQ(61u + 4 + 2, ours.size());
    EXPECT_EQ(ours, theirs);
    size_t longest = 0;
    for (const auto& name : ours) longest = std::max(longest, name.size());
    EXPECT_GT(longest, size_t(PATH_MAX));

    output = runTool("xar extract " + shellQuote(tmp / "deep.xar") + " " + shellQuote(tmp / "back"), &status);
    ASSERT_EQ(0, status) << output;
    std::string original = runCommand("python3 -c " + shellQuote(kDescribeTree) + " " + shellQuote(tmp / "src"), &status);
    ASSERT_EQ(0, status);
    EXPECT_EQ(ours.size(), lines(original).size()) << original;
    EXPECT_EQ(original, runCommand("python3 -c " + shellQuote(kDescribeTree) + " " + shellQuote(tmp / "back")));
}

// A child that is killed, whichever way the test leaves.
struct Child {
    pid_t pid = -1;
    int status = 0;
    ~Child() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    }
    bool running() {
        if (pid <= 0) return false;
        if (waitpid(pid, &status, WNOHANG) == 0) return true;
        pid = -1;
        return false;
    }
    void stop(int signal) {
        kill(pid, signal);
        waitpid(pid, &status, 0);
        pid = -1;
    }
};

// Whether the process has `path` open, which it does only while it writes that file.
bool hasOpen(pid_t pid, const std::string& path) {
    std::error_code ec;
    std::filesystem::path wanted = std::filesystem::canonical(path, ec);
    for (const auto& fd : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
        std::error_code readError;
        if (std::filesystem::read_symlink(fd.path(), readError) == wanted) return true;
    }
    return false;
}

TEST(XarCreate, AnInterruptedCreateLeavesTheEarlierArchive) {
    TempDir tmp;
    std::string dir = tmp / "out";
    std::filesystem::create_directories(dir);
    std::string out = dir + "/pkg.xar";
    std::string earlier = smallArchive(tmp, out);
    auto before = entries(dir);
    std::filesystem::create_directories(tmp / "big");
    // Sparse: it costs nothing on disk, but reading and compressing it takes seconds.
    writeFile(tmp / "big/huge", "");
    std::filesystem::resize_file(tmp / "big/huge", uint64_t(2) << 30);
    writeFile(tmp / "big/after.txt", "comes after the big file\n");

    for (int signal : {SIGTERM, SIGKILL}) {
        SCOPED_TRACE(strsignal(signal));
        Child child;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        std::string bigTree = tmp / "big";
        std::vector<char*> argv{const_cast<char*>(kTool.c_str()), const_cast<char*>("xar"),
                                const_cast<char*>("create"), out.data(), bigTree.data(), nullptr};
        int spawned = posix_spawn(&child.pid, kTool.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ASSERT_EQ(0, spawned) << strerror(spawned);

        // Wait until it is reading the big file, so the archive is half written.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        while (!hasOpen(child.pid, tmp / "big/huge") && child.running() &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_TRUE(child.running()) << "finished before it could be interrupted";
        ASSERT_TRUE(hasOpen(child.pid, tmp / "big/huge")) << "never read the big file";
        child.stop(signal);
        if (signal == SIGKILL) {
            EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGKILL);
        } else {
            EXPECT_FALSE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0);
        }

        EXPECT_EQ(earlier, readFile(out));
        EXPECT_EQ(before, entries(dir));
    }
}

TEST(XarCreate, AFullFileSystemLeavesTheEarlierArchiveAndNothingElse) {
    TempDir tmp;
    testsupport::SmallFileSystem fs(tmp / "small-fs", "1m");
    if (!fs.mounted()) GTEST_SKIP() << fs.reason();
    std::string out = fs.path() + "/pkg.xar";
    std::string earlier = smallArchive(tmp, out);

    std::string random(4 << 20, '\0');
    std::mt19937_64 generator(20240611);
    for (size_t i = 0; i < random.size(); i += 8) {
        uint64_t word = generator();
        std::memcpy(&random[i], &word, 8);
    }
    writeFile(tmp / "src/random.bin", random);

    int status = -1;
    std::string output = create(out, tmp / "src", &status, " --store");
    EXPECT_EQ(1, status) << output;
    EXPECT_EQ(1u, lines(output).size()) << output;
    EXPECT_NE(std::string::npos, output.find("No space left on device")) << output;
    // The archive that could not be written is what the reader needs to hear of.
    EXPECT_NE(std::string::npos, output.find(out)) << output;
    EXPECT_EQ(earlier, readFile(out));
    EXPECT_EQ(std::vector<std::string>{"pkg.xar"}, entries(fs.path()));
}

TEST(XarCreate, AnItemThatCannotBeArchivedStopsTheCreateAndNamesIt) {
    TempDir tmp;
    int status = -1;
    const std::string drop = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    runCommand(drop + "true", &status);
    if (status != 0) GTEST_SKIP() << "cannot run a child without privileges";
    ASSERT_EQ(0, chmod(tmp.path().c_str(), 0755));
    std::string outDir = tmp / "out";
    std::filesystem::create_directories(outDir);
    ASSERT_EQ(0, chmod(outDir.c_str(), 0777));

    writeFile(tmp / "src/open/readable.txt", "anyone may read this\n");
    writeFile(tmp / "src/open/secret.txt", "root only\n");
    ASSERT_EQ(0, chmod((tmp / "src/open/secret.txt").c_str(), 0600));
    std::string output = runCommand(drop + kTool + " xar create " + shellQuote(outDir + "/a.xar") + " " +
                                        shellQuote(tmp / "src") + " 2>&1",
                                    &status);
    EXPECT_TRUE(failedNaming(output, status, tmp / "src/open/secret.txt"));
    EXPECT_NE(std::string::npos, output.find("Permission denied")) << output;
    EXPECT_TRUE(entries(outDir).empty());

    writeFile(tmp / "locked/inside/file.txt", "behind a closed directory\n");
    writeFile(tmp / "locked/visible.txt", "visible\n");
    ASSERT_EQ(0, chmod((tmp / "locked/inside").c_str(), 0700));
    output = runCommand(drop + kTool + " xar create " + shellQuote(outDir + "/b.xar") + " " +
                            shellQuote(tmp / "locked") + " 2>&1",
                        &status);
    EXPECT_TRUE(failedNaming(output, status, tmp / "locked/inside"));
    EXPECT_TRUE(entries(outDir).empty());

    writeFile(tmp / "sockets/a.txt", "a\n");
    std::filesystem::create_directories(tmp / "sockets/run");
    // Bound from inside the directory: a socket's path is limited to 108 bytes.
    output = runCommand("cd " + shellQuote(tmp / "sockets/run") +
                            " && python3 -c 'import socket; socket.socket(socket.AF_UNIX).bind(\"control.sock\")' 2>&1",
                        &status);
    ASSERT_EQ(0, status) << output;
    output = create(tmp / "c.xar", tmp / "sockets", &status);
    EXPECT_TRUE(failedNaming(output, status, tmp / "sockets/run/control.sock"));
    EXPECT_NE(std::string::npos, output.find("socket")) << output;
    EXPECT_FALSE(exists(tmp / "c.xar"));
}

// `depth` nested directories named "d" below `root`.
void makeNested(const std::string& root, int depth) {
    const char* build = R"(
import os, sys
fd = os.open(sys.argv[1], os.O_RDONLY)
for i in range(int(sys.argv[2])):
    os.mkdir('d', dir_fd=fd)
    child = os.open('d', os.O_RDONLY, dir_fd=fd)
    os.close(fd)
    fd = child
)";
    std::filesystem::create_directories(root);
    int status = -1;
    std::string output = runCommand("python3 -c " + shellQuote(build) + " " + shellQuote(root) + " " +
                                        std::to_string(depth) + " 2>&1",
                                    &status);
    ASSERT_EQ(0, status) << output;
}

TEST(XarCreate, NestingPastTheReadersLimitIsRefusedAndTheLimitItselfWorks) {
    TempDir tmp;
    int status = -1;
    makeNested(tmp / "limit", 256);
    std::string output = create(tmp / "limit.xar", tmp / "limit", &status);
    ASSERT_EQ(0, status) << output;
    auto listed = lines(runTool("xar list " + shellQuote(tmp / "limit.xar") + " | cut -f1", &status));
    EXPECT_EQ(0, status);
    ASSERT_EQ(256u, listed.size());
    std::string deepest;
    for (int i = 0; i < 256; ++i) deepest += i ? "/d" : "d";
    EXPECT_NE(listed.end(), std::find(listed.begin(), listed.end(), deepest));

    makeNested(tmp / "past", 257);
    output = create(tmp / "past.xar", tmp / "past", &status);
    EXPECT_TRUE(failedNaming(output, status, deepest + "/d"));
    EXPECT_NE(std::string::npos, output.find("kMaxDepth")) << output;
    EXPECT_FALSE(exists(tmp / "past.xar"));
}

}  // namespace
