// Runs a program and yields the lines of its standard output, one per call.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/DirectoryEnumerator.h"
#include "Platform/Process.h"

class TaskOutputLineEnumerator : public platform::Enumerator {
public:
    // Maps each line before it is returned; what it answers is what nextObject answers.
    using PathTransformer = std::function<std::optional<std::string>(const std::string& line)>;

    // Starts the program at once, its standard output on a pipe; environment, working
    // directory, standard input and standard error are inherited. A program that cannot
    // be started gives one console-log line and null.
    static std::shared_ptr<TaskOutputLineEnumerator> initWithLaunchPath(const std::string& launchPath,
                                                                        const std::vector<std::string>& arguments);
    // A child still running is terminated.
    ~TaskOutputLineEnumerator() override;

    // Null for none.
    void setPathTransformer(PathTransformer pathTransformer);

    // The next line without its line feed (a carriage return before it stays), blocking
    // until one is complete. Lines that are not valid UTF-8 are dropped; bytes after the
    // last line feed are never returned. Absent at the end of the output, after a read
    // error or when the transformer throws, and for ever after.
    std::optional<std::string> nextObject() override;

    // The next complete line already read; absent when there is none, or when it was not
    // valid UTF-8 (it is consumed all the same).
    std::optional<std::string> _getBufferedLineIfAvailable();

private:
    explicit TaskOutputLineEnumerator(std::unique_ptr<platform::Process> task);
    bool _hasBufferedLine() const;
    bool _readAvailableData();
    std::optional<std::string> _transformed(std::string line);

    std::unique_ptr<platform::Process> _task;
    std::string _bufferData;
    size_t _bufferStart = 0;  // bytes before it have been returned already
    PathTransformer _pathTransformer;
    bool _atEnd = false;
};
