#include "DiskPicker/Model/TAVReapableSizer.h"

#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "Platform/ThreadName.h"

TAVReapableSizer::TAVReapableSizer(std::string rootPath, std::string targetVersion, std::shared_ptr<std::mutex> turn,
                                   Completion completion)
    : _rootPath(std::move(rootPath)),
      _targetVersion(std::move(targetVersion)),
      _turn(std::move(turn)),
      _completion(std::move(completion)) {}

TAVReapableSizer::~TAVReapableSizer() {
    cancel();
    join();
}

void TAVReapableSizer::start() { _thread = std::thread([this] { _run(); }); }

void TAVReapableSizer::join() {
    if (_thread.joinable()) _thread.join();
}

void TAVReapableSizer::cancel() {
    std::lock_guard lock(_lock);
    _cancelled = true;
    if (_analyzer) _analyzer->cancel();
}

void TAVReapableSizer::_run() {
    platform::thread::setCurrentName("reapable size");
    std::optional<uint64_t> size;
    // The turn is held until the completion is made, so that a cancel it makes reaches
    // the analyses after it before any starts.
    std::lock_guard turn(*_turn);
    {
        if (!_cancelled) {
            // An analyzer of our own, outside the process's table: cancelling it leaves
            // the table's analyzer of the same root untouched.
            auto analyzer = FHPathAnalyzer::_initWithRootPath(_rootPath, std::nullopt);
            bool go = false;
            {
                std::lock_guard lock(_lock);
                _analyzer = analyzer;
                go = analyzer && !_cancelled;
            }
            if (go) {
                std::optional<uint64_t> found;
                if (analyzer->prunedReaperPathsReturningSize(&found, _targetVersion)) size = found;
            }
            std::lock_guard lock(_lock);
            _analyzer.reset();
        }
    }
    bool cancelled = _cancelled;
    _completion(cancelled ? std::nullopt : size, cancelled);
}
