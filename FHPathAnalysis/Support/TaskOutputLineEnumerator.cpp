#include "FHPathAnalysis/Support/TaskOutputLineEnumerator.h"

#include <array>
#include <utility>

#include "Platform/Log.h"
#include "Platform/Strings.h"

namespace {
constexpr size_t kReadSize = 64 * 1024;
}

std::shared_ptr<TaskOutputLineEnumerator> TaskOutputLineEnumerator::initWithLaunchPath(
    const std::string& launchPath, const std::vector<std::string>& arguments) {
    platform::Error error;
    auto task = platform::Process::spawn(launchPath, arguments, &error);
    if (!task) {
        platform::consoleLog(error.description());
        return nullptr;
    }
    return std::shared_ptr<TaskOutputLineEnumerator>(new TaskOutputLineEnumerator(std::move(task)));
}

TaskOutputLineEnumerator::TaskOutputLineEnumerator(std::unique_ptr<platform::Process> task)
    : _task(std::move(task)) {}

TaskOutputLineEnumerator::~TaskOutputLineEnumerator() {
    _task->closeOutput();
    if (_task->isRunning()) _task->terminate();
}

void TaskOutputLineEnumerator::setPathTransformer(PathTransformer pathTransformer) {
    _pathTransformer = std::move(pathTransformer);
}

bool TaskOutputLineEnumerator::_hasBufferedLine() const {
    return _bufferData.find('\n', _bufferStart) != std::string::npos;
}

std::optional<std::string> TaskOutputLineEnumerator::_getBufferedLineIfAvailable() {
    size_t lineFeed = _bufferData.find('\n', _bufferStart);
    if (lineFeed == std::string::npos) return std::nullopt;
    std::string_view bytes(_bufferData.data() + _bufferStart, lineFeed - _bufferStart);
    std::optional<std::string> line;
    if (platform::str::isValidUTF8(bytes)) line = std::string(bytes);
    _bufferStart = lineFeed + 1;
    return line;
}

bool TaskOutputLineEnumerator::_readAvailableData() {
    // Drop what has been returned before growing the buffer, so it holds at most one
    // partial line and one read.
    _bufferData.erase(0, _bufferStart);
    _bufferStart = 0;
    std::array<char, kReadSize> chunk;
    ssize_t count = _task->readOutput(chunk);
    if (count <= 0) return false;
    _bufferData.append(chunk.data(), static_cast<size_t>(count));
    return true;
}

std::optional<std::string> TaskOutputLineEnumerator::_transformed(std::string line) {
    if (!_pathTransformer) return line;
    try {
        return _pathTransformer(line);
    } catch (...) {
        _atEnd = true;
        return std::nullopt;
    }
}

std::optional<std::string> TaskOutputLineEnumerator::nextObject() {
    while (!_atEnd) {
        // A line that is not valid UTF-8 is dropped here and the next one tried.
        while (_hasBufferedLine()) {
            if (auto line = _getBufferedLineIfAvailable()) return _transformed(std::move(*line));
        }
        if (!_readAvailableData()) _atEnd = true;
    }
    return std::nullopt;
}
