#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "FHPathAnalysis/Support/FileSizer.h"
#include "Platform/CatalogueIterator.h"
#include "Platform/CatalogueSession.h"
#include "Platform/File.h"
#include "Platform/Log.h"
#include "Platform/WalkHook.h"
#include "support/TempDir.h"

using platform::CatalogueIterator;
using platform::CatalogueSession;
using testsupport::runCommand;
using testsupport::TempDir;
using testsupport::writeFile;
namespace stdfs = std::filesystem;

namespace {

constexpr CatalogueSession::Method kMethods[] = {CatalogueSession::Method::plainStatx,
                                                 CatalogueSession::Method::twoWalkers,
                                                 CatalogueSession::Method::ioUring};
// Where a cancel must stop the sizing at one exact item: with two walkers, the other may
// be anywhere in its part (TwoWalkers tests below).
constexpr CatalogueSession::Method kOneWalkerMethods[] = {CatalogueSession::Method::plainStatx,
                                                          CatalogueSession::Method::ioUring};

std::string quoted(const std::string& path) { return "'" + path + "'"; }

// Allocated bytes of every non-directory item below `path`, as find sees them.
uint64_t findAllocated(const std::string& path) {
    std::istringstream lines(runCommand("find " + quoted(path) + " ! -type d -printf '%b\\n'"));
    uint64_t blocks = 0;
    for (uint64_t n; lines >> n;) blocks += n;
    return blocks * 512;
}

// Allocated bytes below `path` per first component of the relative path, as find sees them.
std::map<std::string, uint64_t> findAllocatedByChild(const std::string& path) {
    std::istringstream lines(runCommand("find " + quoted(path) + " -mindepth 1 ! -type d -printf '%P %b\\n'"));
    std::map<std::string, uint64_t> sizes;
    std::string relative;
    for (uint64_t n; lines >> relative >> n;) sizes[relative.substr(0, relative.find('/'))] += n * 512;
    return sizes;
}

size_t openDescriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : stdfs::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

void writeSized(const std::string& path, size_t size) { writeFile(path, std::string(size, 'x')); }

void writeSparse(const std::string& path, std::streamoff holeBefore, const std::string& tail) {
    std::ofstream out(path, std::ios::binary);
    out << "head";
    out.seekp(holeBefore);
    out << tail;
}

// Files of assorted sizes, a sparse file, hard links, symbolic links (to files, to a
// directory, dangling, and one too long to live in the inode), a FIFO, and empty and
// nested directories.
void buildMixedTree(const std::string& root) {
    writeSized(root + "/empty", 0);
    writeSized(root + "/one", 1);
    writeSized(root + "/block", 4096);
    writeSized(root + "/big", 300000);
    writeSparse(root + "/sparse", 64 << 20, "tail");
    writeSized(root + "/a/b/c/deep", 12345);
    writeSized(root + "/a/b/mid", 777);
    stdfs::create_directories(root + "/empty-dir/also-empty");
    stdfs::create_hard_link(root + "/big", root + "/a/big-link");
    stdfs::create_hard_link(root + "/big", root + "/a/b/big-link-2");
    stdfs::create_symlink("one", root + "/short-link");
    stdfs::create_symlink("a/b", root + "/dir-link");
    stdfs::create_symlink("nowhere", root + "/dangling");
    stdfs::create_symlink(std::string(200, 'n') + "/target", root + "/long-link");
    runCommand("mkfifo " + quoted(root + "/fifo"));
    for (int i = 0; i < 60; ++i) writeSized(root + "/many/f" + std::to_string(i), size_t(i) * 1000);
}

class CapturedConsole {
public:
    CapturedConsole() {
        previous_ = platform::setConsoleSink([this](std::string_view message) {
            if (message.rfind("FileSizer: ", 0) == 0) return;  // the once-per-process method report
            {
                // Either walker may log.
                std::lock_guard lock(mutex_);
                messages.emplace_back(message);
            }
            if (onMessage) onMessage(message);
        });
        previousSystem_ = platform::setSystemLogSink([](int, std::string_view) {});
    }
    ~CapturedConsole() {
        platform::setConsoleSink(previous_);
        platform::setSystemLogSink(previousSystem_);
    }
    std::vector<std::string> messages;
    std::function<void(std::string_view)> onMessage;

private:
    std::mutex mutex_;
    platform::ConsoleSink previous_;
    platform::SystemLogSink previousSystem_;
};

class FileSizerTest : public ::testing::Test {
protected:
    void TearDown() override {
        unsetenv("FHDebugFileSizer");
        CatalogueIterator::setFailingDirectoryNameForTesting(std::nullopt);
        CatalogueIterator::setIgnoreEntryTypesForTesting(false);
        CatalogueIterator::setBufferFailureForTesting(false);
        CatalogueSession::setMethodForTesting(std::nullopt);
    }
    TempDir temp;
};

TEST_F(FileSizerTest, DirectoryTotalsMatchFindWithEitherStatxMethod) {
    std::string root = temp / "tree";
    buildMixedTree(root);
    uint64_t expected = findAllocated(root);
    ASSERT_GT(expected, 300000u);
    for (auto method : kMethods) {
        CatalogueSession::setMethodForTesting(method);
        EXPECT_EQ(expected, FileSizer::sizeForPath(root));
        EXPECT_EQ(findAllocated(root + "/a"), FileSizer::sizeForPath(root + "/a"));
        EXPECT_EQ(0u, FileSizer::sizeForPath(root + "/empty-dir"));
        // Types decided by statx, as on a file system whose listings carry none.
        CatalogueIterator::setIgnoreEntryTypesForTesting(true);
        EXPECT_EQ(expected, FileSizer::sizeForPath(root));
        CatalogueIterator::setIgnoreEntryTypesForTesting(false);
    }
}

TEST_F(FileSizerTest, HardLinksCountEachTimeTheyAreMet) {
    std::string root = temp / "links";
    writeSized(root + "/file", 10000);
    stdfs::create_hard_link(root + "/file", root + "/again");
    stdfs::create_directories(root + "/sub");
    stdfs::create_hard_link(root + "/file", root + "/sub/third");
    uint64_t once = findAllocated(root + "/file");
    ASSERT_GT(once, 0u);
    EXPECT_EQ(3 * once, FileSizer::sizeForPath(root));
}

TEST_F(FileSizerTest, LargeDirectorySpanningManyListingsMatchesFind) {
    // Long names fill the listing buffer several times over, so queued requests must
    // reach the kernel before the buffer is read into again.
    std::string root = temp / "large";
    std::string stem(120, 'L');
    for (int i = 0; i < 1500; ++i) writeSized(root + "/" + stem + std::to_string(i), size_t(i % 7) * 3000);
    for (int i = 0; i < 30; ++i) writeSized(root + "/d" + std::to_string(i) + "/x", 5000);
    uint64_t expected = findAllocated(root);
    for (auto method : kMethods) {
        CatalogueSession::setMethodForTesting(method);
        FileSizer::sizeForPath(temp.path());  // the thread's walk and its ring exist from here on
        size_t before = openDescriptors();
        EXPECT_EQ(expected, FileSizer::sizeForPath(root));
        // Descriptors kept open for requests in flight are all closed by the end.
        EXPECT_EQ(before, openDescriptors());
    }
}

TEST_F(FileSizerTest, TwoHundredLevelsOfNesting) {
    std::string root = temp / "nest";
    std::string path = root;
    for (int level = 0; level < 200; ++level) {
        path += "/n";
        writeSized(path + "/file", size_t(level) * 50 + 1);
    }
    uint64_t expected = findAllocated(root);
    ASSERT_GE(expected, 200u * 4096);
    for (auto method : kMethods) {
        CatalogueSession::setMethodForTesting(method);
        EXPECT_EQ(expected, FileSizer::sizeForPath(root));
    }
}

TEST_F(FileSizerTest, UnreadableSubdirectoryCountsZeroAndTheWalkGoesOn) {
    std::string root = temp / "tree";
    buildMixedTree(root);
    writeSized(root + "/a/locked/inside", 90000);
    writeSized(root + "/a/locked/more/inside", 90000);
    uint64_t expected = findAllocated(root) - findAllocated(root + "/a/locked");
    CatalogueIterator::setFailingDirectoryNameForTesting("locked");
    for (auto method : kMethods) {
        CatalogueSession::setMethodForTesting(method);
        CapturedConsole console;
        EXPECT_EQ(expected, FileSizer::sizeForPath(root));
        EXPECT_EQ(std::vector<std::string>{"FSOpenIterator failed."}, console.messages);
        // The unreadable directory asked for itself.
        EXPECT_EQ(0u, FileSizer::sizeForPath(root + "/a/locked"));
        EXPECT_EQ(2u, console.messages.size());
    }
}

TEST_F(FileSizerTest, UnreadableSubdirectoryForAnUnprivilegedProcess) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to drop privileges";
    std::string root = temp / "tree";
    buildMixedTree(root);
    writeSized(root + "/a/locked/inside", 90000);
    uint64_t expected = findAllocated(root) - findAllocated(root + "/a/locked");
    stdfs::permissions(temp.path(), stdfs::perms::owner_all | stdfs::perms::others_exec);
    stdfs::permissions(root + "/a/locked", stdfs::perms::none);

    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    auto reader = platform::fs::File::adopt(fds[0], "size pipe");
    auto writer = platform::fs::File::adopt(fds[1], "size pipe");
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        reader.close();
        platform::setConsoleSink([](std::string_view) {});
        platform::setSystemLogSink([](int, std::string_view) {});
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        uint64_t size = FileSizer::sizeForPath(root);
        _exit(writer.writeAll({reinterpret_cast<const uint8_t*>(&size), sizeof size}) ? 0 : 3);
    }
    writer.close();
    uint64_t size = 0;
    auto got = reader.read({reinterpret_cast<uint8_t*>(&size), sizeof size});
    reader.close();
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status));
    ASSERT_EQ(std::optional<size_t>(sizeof size), got);
    EXPECT_EQ(expected, size);
}

TEST_F(FileSizerTest, PlainFilesCountLogicalSizeAndUnreadablePathsCountZero) {
    writeSized(temp / "dir/one", 1);
    uint64_t allocated = findAllocated(temp / "dir");
    ASSERT_GT(allocated, 1u);
    EXPECT_EQ(1u, FileSizer::sizeForPath(temp / "dir/one"));
    EXPECT_EQ(allocated, FileSizer::sizeForPath(temp / "dir"));
    EXPECT_EQ(std::optional<uint64_t>(1), FileSizer::directorySizeAtPath(temp / "dir/one"));

    EXPECT_EQ(0u, FileSizer::sizeForPath(temp / "missing"));
    EXPECT_EQ(std::nullopt, FileSizer::directorySizeAtPath(temp / "missing"));
    EXPECT_EQ(std::nullopt, FileSizer::directorySizeAtPath(""));
    EXPECT_EQ(allocated + 1, FileSizer::sizeForPaths({temp / "dir", temp / "missing", temp / "dir/one"}));
    EXPECT_EQ(0u, FileSizer::sizeForPaths({}));
}

TEST_F(FileSizerTest, DirectorySizeWalksNothingWhileTheRunFlagIsClear) {
    writeSized(temp / "dir/file", 5000);
    writeSized(temp / "file", 5000);
    // Cleared, as in a process that has not sized anything yet.
    FileSizer::cancel();
    EXPECT_EQ(std::optional<uint64_t>(0), FileSizer::directorySizeAtPath(temp / "dir"));
    EXPECT_EQ(std::optional<uint64_t>(5000), FileSizer::directorySizeAtPath(temp / "file"));
    FileSizer::sizeForPath(temp / "file");
    EXPECT_EQ(std::optional<uint64_t>(findAllocated(temp / "dir")), FileSizer::directorySizeAtPath(temp / "dir"));
}

// Three paths to size in turn, the second with plain files listed before a directory
// that is made to fail: its failure message is where a test cancels the sizing.
struct ThreePaths {
    explicit ThreePaths(const TempDir& temp) : first(temp / "first"), second(temp / "second"), third(temp / "third") {
        buildMixedTree(first);
        for (int i = 0; i < 20; ++i) writeSized(second + "/f" + std::to_string(i), size_t(i + 1) * 1000);
        for (int i = 0; i < 5; ++i) writeSized(second + "/d" + std::to_string(i) + "/inside", 5000);
        writeSized(third + "/file", 50000);
        // The walk meets the children in listing order; the first directory listed after
        // something else becomes unreadable.
        std::vector<std::string> order;
        for (const auto& entry : stdfs::directory_iterator(second)) order.push_back(entry.path().filename());
        size_t stop = 1;
        while (order[stop][0] != 'd') ++stop;
        failing = order[stop];
        auto bySize = findAllocatedByChild(second);
        uint64_t partial = 0;
        for (size_t i = 0; i < stop; ++i) partial += bySize[order[i]];
        EXPECT_GT(partial, 0u);
        EXPECT_LT(partial, findAllocated(second));
        cancelled = findAllocated(first) + partial;
        full = findAllocated(first) + findAllocated(second) + findAllocated(third);
    }
    std::vector<std::string> paths() const { return {first, second, third}; }
    std::string first, second, third, failing;
    uint64_t cancelled = 0, full = 0;  // the sum when cancelled at `failing`, and in full
};

TEST_F(FileSizerTest, CancelDuringTheSecondOfThreePathsKeepsWhatWasSized) {
    ThreePaths three(temp);
    for (auto method : kOneWalkerMethods) {
        CatalogueSession::setMethodForTesting(method);
        CatalogueIterator::setFailingDirectoryNameForTesting(three.failing);
        {
            CapturedConsole console;
            console.onMessage = [](std::string_view message) {
                if (message == "FSOpenIterator failed.") FileSizer::cancel();
            };
            EXPECT_EQ(three.cancelled, FileSizer::sizeForPaths(three.paths()));
            EXPECT_EQ(1u, console.messages.size());
        }
        CatalogueIterator::setFailingDirectoryNameForTesting(std::nullopt);
        EXPECT_EQ(three.full, FileSizer::sizeForPaths(three.paths()));
    }
}

TEST_F(FileSizerTest, CancelFromAnotherThreadStopsTheWalkThereAndSizingsOnTwoThreadsTakeTurns) {
    ThreePaths three(temp);
    for (auto method : kOneWalkerMethods) {
        CatalogueSession::setMethodForTesting(method);
        CatalogueIterator::setFailingDirectoryNameForTesting(three.failing);
        std::mutex mutex;
        std::condition_variable changed;
        bool reached = false, cancelled = false;
        uint64_t sized = 0;
        {
            // The walking thread holds at the failing directory until this thread has
            // cancelled; the walk then stops at its next item.
            CapturedConsole console;
            console.onMessage = [&](std::string_view message) {
                if (message != "FSOpenIterator failed.") return;
                std::unique_lock lock(mutex);
                reached = true;
                changed.notify_all();
                changed.wait(lock, [&] { return cancelled; });
            };
            std::thread walker([&] { sized = FileSizer::sizeForPaths(three.paths()); });
            {
                std::unique_lock lock(mutex);
                changed.wait(lock, [&] { return reached; });
            }
            FileSizer::cancel();
            {
                std::lock_guard lock(mutex);
                cancelled = true;
            }
            changed.notify_all();
            walker.join();
        }
        EXPECT_EQ(three.cancelled, sized);

        // Two sizings at once: the sizer lock makes them take turns, and each counts all.
        CatalogueIterator::setFailingDirectoryNameForTesting(std::nullopt);
        uint64_t a = 0, b = 0;
        std::thread one([&] { a = FileSizer::sizeForPaths(three.paths()); });
        std::thread two([&] { b = FileSizer::sizeForPaths(three.paths()); });
        one.join();
        two.join();
        EXPECT_EQ(three.full, a);
        EXPECT_EQ(three.full, b);
    }
}

TEST_F(FileSizerTest, DebugMessagesOnlyWithTheSwitch) {
    writeSized(temp / "dir/file", 3000);
    std::string dir = temp / "dir";
    std::string missing = temp / "missing";
    uint64_t size = findAllocated(dir);
    {
        CapturedConsole console;
        FileSizer::sizeForPaths({dir, missing, dir + "/file"});
        EXPECT_TRUE(console.messages.empty());
    }
    setenv("FHDebugFileSizer", "", 1);  // presence is enough
    CapturedConsole console;
    FileSizer::sizeForPaths({dir, missing, dir + "/file"});
    std::vector<std::string> expected = {
        "FileSizerGetHFSFolderSize2 returned " + std::to_string(size) + " for " + dir,
        "sizeForPath returned " + std::to_string(size) + " for " + dir,
        "*** FSF Error on " + missing + " : " + missing + ": No such file or directory",
        "sizeForPath returned 0 for " + missing,
        "sizeForPath returned 3000 for " + dir + "/file",
    };
    EXPECT_EQ(expected, console.messages);
}

TEST_F(FileSizerTest, PrivateDirectoryDataCountsZeroWithoutBeingOpened) {
    std::string hidden = temp / ".HFS+ Private Directory Data\r";
    writeSized(hidden + "/target/file", 80000);
    // Opening it would fail loudly.
    CatalogueIterator::setFailingDirectoryNameForTesting(".HFS+ Private Directory Data\r");
    CapturedConsole console;
    EXPECT_EQ(std::optional<uint64_t>(0), FileSizer::directorySizeAtPath(hidden));
    EXPECT_EQ(0u, FileSizer::sizeForPath(hidden));
    EXPECT_EQ(std::optional<uint64_t>(0),
              FileSizer::directorySizeAtPath(temp / "absent/.HFS+ Private Directory Data\r"));
    EXPECT_TRUE(console.messages.empty());
    // Met inside a walk, it is a folder like any other.
    CatalogueIterator::setFailingDirectoryNameForTesting(std::nullopt);
    EXPECT_EQ(findAllocated(temp.path()), FileSizer::sizeForPath(temp.path()));
}

TEST_F(FileSizerTest, SizeForPathsJoinsTheVolumeInFrontOfEachPath) {
    std::string volume = temp / "T";
    writeSized(volume + "/Library/a", 7000);
    writeSized(volume + "/Library/sub/b", 9000);
    writeSized(volume + "/file", 10);
    uint64_t library = findAllocated(volume + "/Library");
    EXPECT_EQ(library + 10, FileSizer::sizeForPaths({"/Library", "/file", "/missing"}, volume));
    EXPECT_EQ(library, FileSizer::sizeForPaths({"/Library"}, volume + "/"));
    EXPECT_EQ(library, FileSizer::sizeForPaths({volume + "/Library"}, std::nullopt));

    setenv("FHDebugFileSizer", "1", 1);
    CapturedConsole console;
    FileSizer::sizeForPaths({"/Library"}, volume);
    ASSERT_FALSE(console.messages.empty());
    EXPECT_EQ("sizeForPath returned " + std::to_string(library) + " for " + volume + "/Library",
              console.messages.back());
}

TEST_F(FileSizerTest, BufferThatCannotBeHadIsLoggedAndCountsZero) {
    writeSized(temp / "dir/file", 5000);
    writeSized(temp / "dir/sub/file", 5000);
    for (auto method : kMethods) {
        CatalogueSession::setMethodForTesting(method);
        CatalogueIterator::setBufferFailureForTesting(true);
        uint64_t size = 1;
        std::vector<std::string> messages;
        // A fresh thread has no walk buffers kept from earlier sizings (a second walker,
        // kept for the process, may have; it gets nothing to walk).
        std::thread([&] {
            CapturedConsole console;
            size = FileSizer::sizeForPath(temp / "dir");
            messages = console.messages;
        }).join();
        EXPECT_EQ(0u, size);
        // Once per walker that had to make its buffer then.
        ASSERT_FALSE(messages.empty());
        EXPECT_LE(messages.size(), method == CatalogueSession::Method::twoWalkers ? 2u : 1u);
        for (const auto& message : messages)
            EXPECT_EQ("Error allocating buffer for size 32768 (12:Cannot allocate memory)", message);
        CatalogueIterator::setBufferFailureForTesting(false);
        EXPECT_EQ(findAllocated(temp / "dir"), FileSizer::sizeForPath(temp / "dir"));
    }
}

// Directories of uneven size at several depths, some with more children than one
// listing holds, so that the walkers hand each other work from every level.
void buildUnevenTree(const std::string& root) {
    for (int top = 0; top < 12; ++top) {
        std::string dir = root + "/t" + std::to_string(top);
        for (int sub = 0; sub < top * 3; ++sub)
            for (int leaf = 0; leaf < sub % 4; ++leaf)
                writeSized(dir + "/s" + std::to_string(sub) + "/l" + std::to_string(leaf) + "/f", size_t(leaf) * 700 + 1);
        for (int file = 0; file < top * 5; ++file) writeSized(dir + "/f" + std::to_string(file), size_t(file) * 300);
    }
    writeSized(root + "/top-file", 10000);
}

TEST_F(FileSizerTest, TwoWalkersShareTheWorkAndCountEveryItemOnce) {
    std::string root = temp / "uneven";
    buildUnevenTree(root);
    writeSized(root + "/t7/s5/locked/inside", 90000);
    uint64_t expected = findAllocated(root) - findAllocated(root + "/t7/s5/locked");
    CatalogueSession::setMethodForTesting(CatalogueSession::Method::twoWalkers);
    CatalogueIterator::setFailingDirectoryNameForTesting("locked");
    FileSizer::sizeForPath(temp.path());  // the second walker exists from here on
    size_t descriptors = openDescriptors();
    std::mutex mutex;
    std::set<std::thread::id> walkers;
    platform::fs::ScopedWalkHook hook([&](std::string_view) {
        std::lock_guard lock(mutex);
        walkers.insert(std::this_thread::get_id());
    });
    for (int run = 0; run < 20; ++run) {
        CapturedConsole console;
        ASSERT_EQ(expected, FileSizer::sizeForPath(root)) << "run " << run;
        // The unreadable directory is reported once, by whichever walker met it.
        ASSERT_EQ(std::vector<std::string>{"FSOpenIterator failed."}, console.messages);
    }
    EXPECT_EQ(2u, walkers.size());
    EXPECT_EQ(descriptors, openDescriptors());
}

TEST_F(FileSizerTest, TwoWalkersStopAtACancelAndSizeInFullAfterwards) {
    ThreePaths three(temp);
    CatalogueSession::setMethodForTesting(CatalogueSession::Method::twoWalkers);
    CatalogueIterator::setFailingDirectoryNameForTesting(three.failing);
    uint64_t sized = 0;
    {
        CapturedConsole console;
        console.onMessage = [](std::string_view message) {
            if (message == "FSOpenIterator failed.") FileSizer::cancel();
        };
        sized = FileSizer::sizeForPaths(three.paths());
    }
    // The first path in full; of the second, less than all (the failing directory is
    // unreadable and the walk stopped); nothing of the third.
    uint64_t first = findAllocated(three.first);
    EXPECT_GE(sized, first);
    EXPECT_LT(sized, first + findAllocated(three.second) - findAllocated(three.second + "/" + three.failing));
    CatalogueIterator::setFailingDirectoryNameForTesting(std::nullopt);
    EXPECT_EQ(three.full, FileSizer::sizeForPaths(three.paths()));
}

// A log sink that throws, on whichever walker's thread it runs, ends the sizing with
// that exception on the thread that asked; the next sizing has both walkers again.
TEST_F(FileSizerTest, AnExceptionInEitherWalkerReachesTheCallerAndLeavesBothFree) {
    std::string root = temp / "uneven";
    buildUnevenTree(root);
    for (int top = 0; top < 12; ++top) writeSized(root + "/t" + std::to_string(top) + "/locked/inside", 5000);
    CatalogueSession::setMethodForTesting(CatalogueSession::Method::twoWalkers);
    CatalogueIterator::setFailingDirectoryNameForTesting("locked");
    for (int run = 0; run < 10; ++run) {
        CapturedConsole console;
        console.onMessage = [](std::string_view message) {
            if (message == "FSOpenIterator failed.") throw std::runtime_error("sink");
        };
        EXPECT_THROW(FileSizer::sizeForPath(root), std::runtime_error) << "run " << run;
    }
    CatalogueIterator::setFailingDirectoryNameForTesting(std::nullopt);
    std::mutex mutex;
    std::set<std::thread::id> walkers;
    platform::fs::ScopedWalkHook hook([&](std::string_view) {
        std::lock_guard lock(mutex);
        walkers.insert(std::this_thread::get_id());
    });
    uint64_t expected = findAllocated(root);
    // Over several sizings, so that a slow wake-up of the second walker cannot hide it.
    for (int run = 0; run < 10; ++run) ASSERT_EQ(expected, FileSizer::sizeForPath(root)) << "run " << run;
    EXPECT_EQ(2u, walkers.size());
}

TEST_F(FileSizerTest, AForkedChildSizesWithTwoWalkersOfItsOwn) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer cannot start threads in a child forked from a process with threads";
#endif
    std::string root = temp / "uneven";
    buildUnevenTree(root);
    uint64_t expected = findAllocated(root);
    CatalogueSession::setMethodForTesting(CatalogueSession::Method::twoWalkers);
    ASSERT_EQ(expected, FileSizer::sizeForPath(root));  // the parent's second walker exists
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(FileSizer::sizeForPath(root) == expected ? 0 : 1);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(expected, FileSizer::sizeForPath(root));
}

TEST(CatalogueSession, ForcedMethodAndProcessChoice) {
    CatalogueSession::setMethodForTesting(CatalogueSession::Method::plainStatx);
    EXPECT_EQ(CatalogueSession::Method::plainStatx, CatalogueSession().method());
    CatalogueSession::setMethodForTesting(std::nullopt);
    CatalogueSession session;
    EXPECT_EQ(CatalogueSession::processMethod(), session.method());
    std::string description = CatalogueSession::processMethodDescription();
    EXPECT_NE(std::string::npos, description.find(session.method() == CatalogueSession::Method::twoWalkers
                                                      ? "plain statx in two walker threads"
                                                      : "plain statx in one walker"));
    // Asked for, io_uring is refused where the environment says so.
    CatalogueSession::setMethodForTesting(CatalogueSession::Method::ioUring);
    setenv("FERRYHOLD_NO_IO_URING", "1", 1);
    EXPECT_EQ(CatalogueSession::Method::plainStatx, CatalogueSession().method());
    unsetenv("FERRYHOLD_NO_IO_URING");
    CatalogueSession::setMethodForTesting(std::nullopt);
}

}  // namespace
