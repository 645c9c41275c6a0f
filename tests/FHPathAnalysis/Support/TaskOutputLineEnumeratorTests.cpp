#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "FHPathAnalysis/Support/TaskOutputLineEnumerator.h"
#include "Platform/Log.h"
#include "Platform/Process.h"
#include "support/TempDir.h"

using testsupport::TempDir;

namespace {

std::shared_ptr<TaskOutputLineEnumerator> shell(const std::string& script) {
    return TaskOutputLineEnumerator::initWithLaunchPath("/bin/sh", {"-c", script});
}

std::vector<std::string> drain(TaskOutputLineEnumerator& enumerator) {
    std::vector<std::string> lines;
    while (auto line = enumerator.nextObject()) lines.push_back(*line);
    return lines;
}

bool processExists(pid_t pid) { return kill(pid, 0) == 0 || errno != ESRCH; }

}  // namespace

TEST(TaskOutputLineEnumerator, LinesInOrderWithoutTrailingBytes) {
    auto enumerator = shell("printf 'a\\nb'");
    ASSERT_TRUE(enumerator);
    EXPECT_EQ("a", enumerator->nextObject());
    EXPECT_FALSE(enumerator->nextObject());
    EXPECT_FALSE(enumerator->nextObject());

    // Empty lines are lines; a carriage return stays part of its line.
    auto crlf = shell("printf 'one\\r\\n\\ntwo\\n'");
    ASSERT_TRUE(crlf);
    EXPECT_EQ((std::vector<std::string>{"one\r", "", "two"}), drain(*crlf));
}

TEST(TaskOutputLineEnumerator, InvalidUTF8LinesAreDropped) {
    // Written at once, so the dropped line and the good ones arrive in one read.
    auto enumerator = shell("printf '\\377\\376\\nok\\n\\303\\251t\\303\\251\\n\\300\\257\\nend\\ntail'");
    ASSERT_TRUE(enumerator);
    EXPECT_EQ((std::vector<std::string>{"ok", "\xc3\xa9t\xc3\xa9", "end"}), drain(*enumerator));

    // The same with the good line arriving only after the bad one was consumed.
    auto split = shell("printf '\\377\\n'; sleep 0.2; printf 'ok\\n'");
    ASSERT_TRUE(split);
    EXPECT_EQ(std::vector<std::string>{"ok"}, drain(*split));
}

TEST(TaskOutputLineEnumerator, ManyLinesAcrossReads) {
    // Far more than one read, with lines cut at arbitrary read boundaries.
    auto enumerator = TaskOutputLineEnumerator::initWithLaunchPath("/usr/bin/seq", {"1", "200000"});
    ASSERT_TRUE(enumerator);
    int expected = 1;
    while (auto line = enumerator->nextObject()) {
        if (*line != std::to_string(expected)) {
            ADD_FAILURE() << "line " << expected << " was " << *line;
            break;
        }
        ++expected;
    }
    EXPECT_EQ(200001, expected);
}

TEST(TaskOutputLineEnumerator, ArgumentsEnvironmentAndDirectoryReachTheChild) {
    TempDir dir;
    char saved[4096];
    ASSERT_TRUE(getcwd(saved, sizeof saved));
    ASSERT_EQ(0, chdir(dir.path().c_str()));
    setenv("TASK_OUTPUT_TEST_VALUE", "inherited value", 1);
    auto enumerator = TaskOutputLineEnumerator::initWithLaunchPath(
        "/bin/sh", {"-c", "printf '%s\\n' \"$1\" \"$2\" \"$TASK_OUTPUT_TEST_VALUE\"; pwd -P", "sh", "a b", "*"});
    ASSERT_TRUE(enumerator);
    auto lines = drain(*enumerator);
    ASSERT_EQ(0, chdir(saved));
    unsetenv("TASK_OUTPUT_TEST_VALUE");
    char* real = realpath(dir.path().c_str(), nullptr);
    ASSERT_TRUE(real);
    EXPECT_EQ((std::vector<std::string>{"a b", "*", "inherited value", real}), lines);
    free(real);
}

TEST(TaskOutputLineEnumerator, TransformerMapsEachLine) {
    auto enumerator = shell("printf 'ab\\nc\\n'");
    ASSERT_TRUE(enumerator);
    enumerator->setPathTransformer([](const std::string& line) { return std::to_string(line.size()); });
    EXPECT_EQ((std::vector<std::string>{"2", "1"}), drain(*enumerator));

    // Replacing it takes effect from the next line; null removes it.
    auto replaced = shell("printf 'x\\ny\\nz\\n'");
    ASSERT_TRUE(replaced);
    replaced->setPathTransformer([](const std::string& line) { return "/root/" + line; });
    EXPECT_EQ("/root/x", replaced->nextObject());
    replaced->setPathTransformer(nullptr);
    EXPECT_EQ("y", replaced->nextObject());

    // A transformer that throws ends the enumeration.
    auto throwing = shell("printf 'fine\\nbad\\nlater\\n'");
    ASSERT_TRUE(throwing);
    throwing->setPathTransformer([](const std::string& line) -> std::optional<std::string> {
        if (line == "bad") throw std::runtime_error("cannot map");
        return line;
    });
    EXPECT_EQ("fine", throwing->nextObject());
    EXPECT_FALSE(throwing->nextObject());
    EXPECT_FALSE(throwing->nextObject());
}

TEST(TaskOutputLineEnumerator, ProgramThatCannotBeStarted) {
    TempDir dir;
    std::vector<std::string> console;
    auto previous = platform::setConsoleSink([&](std::string_view message) { console.emplace_back(message); });
    auto previousSystem = platform::setSystemLogSink([](int, std::string_view) {});

    auto missing = TaskOutputLineEnumerator::initWithLaunchPath(dir / "no-such-tool", {});
    testsupport::writeFile(dir / "not-executable", "#!/bin/sh\necho hi\n");
    chmod((dir / "not-executable").c_str(), 0644);
    auto notExecutable = TaskOutputLineEnumerator::initWithLaunchPath(dir / "not-executable", {});

    platform::setConsoleSink(std::move(previous));
    platform::setSystemLogSink(std::move(previousSystem));
    EXPECT_FALSE(missing);
    EXPECT_FALSE(notExecutable);
    // The failure's description and nothing else.
    EXPECT_EQ((std::vector<std::string>{dir / "no-such-tool" + ": No such file or directory",
                                        dir / "not-executable" + ": Permission denied"}),
              console);
}

TEST(TaskOutputLineEnumerator, RunningChildIsTerminatedOnDestruction) {
    // exec keeps the shell's process id for the sleeping program.
    auto enumerator = shell("echo $$; exec sleep 60");
    ASSERT_TRUE(enumerator);
    auto line = enumerator->nextObject();
    ASSERT_TRUE(line);
    pid_t pid = std::stoi(*line);
    EXPECT_TRUE(processExists(pid));

    auto start = std::chrono::steady_clock::now();
    enumerator.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    // Gone and reaped: not even a zombie is left.
    EXPECT_FALSE(processExists(pid));
}

TEST(Process, ExitStatusAndSignals) {
    auto exited = platform::Process::spawn("/bin/sh", {"-c", "exit 3"});
    ASSERT_TRUE(exited);
    EXPECT_EQ(3, exited->waitUntilExit());
    EXPECT_FALSE(exited->isRunning());
    EXPECT_EQ(3, exited->waitUntilExit());

    auto sleeping = platform::Process::spawn("/bin/sleep", {"60"});
    ASSERT_TRUE(sleeping);
    EXPECT_TRUE(sleeping->isRunning());
    sleeping->terminate();
    EXPECT_EQ(128 + SIGTERM, sleeping->waitUntilExit());
    sleeping->terminate();  // after reaping: nothing is sent

    // A child that ignores SIGTERM is still ended when its owner goes away.
    auto stubborn = platform::Process::spawn("/bin/sh", {"-c", "trap '' TERM; echo ready; exec sleep 60"});
    ASSERT_TRUE(stubborn);
    char buffer[16];
    ASSERT_GT(stubborn->readOutput(buffer), 0);
    pid_t pid = stubborn->processIdentifier();
    stubborn.reset();
    EXPECT_FALSE(processExists(pid));

    platform::Error error;
    EXPECT_FALSE(platform::Process::spawn("/nonexistent/tool", {}, &error));
    EXPECT_EQ(ENOENT, error.code);
}
