// Fetches a list of packages into local files, a fixed number at a time.
//
// Each package (a package reference and a destination path) is written to
// "DEST.partial"; a stopped transfer keeps its resume data in "DEST.partialState" and
// continues from it when started again. A finished file is checked (its MD5 when the
// reference gives one, else by what its kind allows), moved to DEST, and reported to
// the delegate. One percentage covers the whole run: fetching a byte counts 90 % of
// it and checking it 10 %. Two speed averages (fetching and checking) give an
// estimate of the time left.
//
// The downloader, its queue and every delegate callback belong to the main thread,
// whose run loop must run. Checks run on a thread of their own per package.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Distribution_Layer/Downloader/CWDownloaderDelegate.h"
#include "Distribution_Layer/Downloader/CWDownloaderQueue.h"
#include "Distribution_Layer/Downloader/CWDownloaderSpeedTracker.h"
#include "Platform/RunLoop.h"

namespace crateworks {

// User-defaults key: any value at all turns the check of downloaded disk images off.
inline constexpr const char* kCWDontVerifyDMGsKey = "CWDontVerifyDMGs";

class CWDownloader : public CWDownloadDelegate, public std::enable_shared_from_this<CWDownloader> {
public:
    // A null delegate is told nothing and retries nothing.
    static std::shared_ptr<CWDownloader> initWithDelegate(CWDownloaderDelegate* delegate);
    // Cancels the transfers still running.
    ~CWDownloader() override;
    CWDownloader(const CWDownloader&) = delete;
    CWDownloader& operator=(const CWDownloader&) = delete;

    // Sent as "User-Agent" with every later request of every downloader; none by default.
    static std::optional<std::string> userAgent();
    static void setUserAgent(std::optional<std::string> agent);

    uint64_t maxConcurrentDownloadCount() const { return _queue->maxConcurrentDownloadCount(); }
    void setMaxConcurrentDownloadCount(uint64_t count) { _queue->setMaxConcurrentDownloadCount(count); }

    // Queues the package; a running queue starts it at once when there is room.
    void queuePackageReference(const CWPackageReference& reference, const std::string& destination);
    // Whether an element, active or waiting, has a reference equal to this one.
    bool queueContainsPackageReference(const CWPackageReference& reference) const;
    void startQueue();
    // Cancels the active transfers, keeping resume data where the transfer gives some,
    // and puts their packages back at the front of the queue.
    void stopQueue();
    // Stops, then forgets every package and zeroes the counters.
    void clearQueue();
    bool isQueueRunning() const { return _isQueueRunning; }
    bool isQueueEmpty() const { return _queue->isEmpty(); }

    // Observable values.
    double progressValue() const { return _queue->progressPercentage(); }
    uint64_t completedDownloadSize() const { return _queue->sizeDownloaded(); }
    uint64_t totalDownloadSize() const { return _queue->totalSizeQueued(); }
    // Seconds; -1.0 until both the fetch and the check averages are known.
    double estimatedTimeRemaining() const;
    uint64_t downloadBytesPerSecond() const { return _downloadTracker->averageBytesPerSecond(); }
    uint64_t checksumBytesPerSecond() const { return _checksumTracker->averageBytesPerSecond(); }

    // Change notices of the observable values, before (`prior`) and after each change.
    // "totalDownloadSize", "completedDownloadSize" and "progressValue" are announced by
    // hand when the progress is recomputed; "estimatedTimeRemaining" with each of the
    // key paths it depends on.
    using Observer = std::function<void(std::string_view key, bool prior)>;
    void setObserver(Observer observer) { _observer = std::move(observer); }
    static bool automaticallyNotifiesObserversForKey(std::string_view key);
    static std::vector<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key);

    const CWDownloaderQueue& queue() const { return *_queue; }
    // The MD5 (32 lower-case hexadecimal digits) that the last failed check of the
    // package computed, so that a host can say which digests differed; absent when its
    // check did not fail on a digest.
    std::optional<std::string> computedMD5ForFailedPackageReference(const CWPackageReference& reference) const;
    // The indicator timer's work: the progress, then (while running) the speeds.
    void _updateIndicators();

    // Offered for packages at file URLs while one package runs at a time: a plain copy
    // on a worker thread instead of a transfer.
    void _startFileCopyForQueueElement(const std::shared_ptr<CWDownloaderQueueElement>& element);

    // As the delegate of its transfers.
    std::optional<platform::URLRequest> downloadWillSendRequestRedirectResponse(
        CWDownload& download, platform::URLRequest request,
        const std::optional<platform::URLResponse>& redirectResponse) override;
    void downloadWillResumeFromByte(CWDownload& download, int64_t offset) override;
    void downloadDidReceiveResponse(CWDownload& download, const platform::URLResponse& response) override;
    void downloadDidReceiveDataOfLength(CWDownload& download, uint64_t length) override;
    void downloadDidCheckDataOfLength(CWDownload& download, uint64_t length) override;
    void downloadDidFinish(CWDownload& download) override;
    void downloadDidFailWithError(CWDownload& download, const platform::Error& error) override;
    void downloadDidReceiveAuthenticationChallenge(
        CWDownload& download, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) override;
    void downloadDidCancelAuthenticationChallenge(
        CWDownload& download, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) override;

private:
    using Element = std::shared_ptr<CWDownloaderQueueElement>;

    explicit CWDownloader(CWDownloaderDelegate* delegate);

    void _announce(std::string_view key, bool prior);
    void _updateProgressInfo();
    void _updateDownloadSpeed();
    void _startQueuedDownloads();
    void _startDownloadForQueueElement(const Element& element);
    void _notifyDelegateIfQueueStopped(std::optional<bool> stopped);
    bool _cancelDownloadCapturingResumeData(const Element& element);
    Element _elementForDownload(CWDownload& download) const;
    void _elementDidFinish(const Element& element, const std::shared_ptr<CWDownload>& download);
    void _postProcessDownload(const Element& element, bool succeeded,
                              std::optional<std::string> computedMD5 = std::nullopt);
    void _elementDidFailWithError(const Element& element, const std::optional<platform::Error>& error);
    void _abandonOversizedDownload(const Element& element);
    void _finishFileCopyWithResult(const Element& element, const std::optional<platform::Error>& error);
    // Runs `call` on the main thread later, if the downloader is still there then.
    void _performOnMainThread(std::function<void(CWDownloader&)> call);

    CWDownloaderDelegate* _delegate;
    std::unique_ptr<CWDownloaderQueue> _queue;
    bool _isQueueRunning = false;
    bool _isStopping = false;
    bool _stopNotificationPending = false;
    std::shared_ptr<CWDownloaderSpeedTracker> _downloadTracker;
    std::shared_ptr<CWDownloaderSpeedTracker> _checksumTracker;
    std::shared_ptr<platform::RunLoopTimer> _progressTimer;
    std::shared_ptr<platform::RunLoop> _mainLoop;
    Observer _observer;
    std::map<const CWPackageReference*, std::string> _failedDigests;
};

// The checks a finished package gets, callable on their own. Each counts the bytes it
// checked through `checked`.
namespace downloader_checks {

// True when the file's MD5, as 32 lower-case hexadecimal digits, equals `expected`
// exactly (an upper-case text never matches). Reads 64 KiB at a time.
bool checksumMatches(const std::string& path, const std::string& expected,
                     const std::function<void(uint64_t)>& checked);
// The file's MD5 as 32 lower-case hexadecimal digits; absent when it cannot be read.
std::optional<std::string> md5OfFile(const std::string& path, const std::function<void(uint64_t)>& checked);
// The check by file kind, chosen by the extension of `destination`'s file name: "pkg"
// and "mpkg" archives entry by entry, "dmg" images through the disk-image tool, other
// kinds pass with a log line. `path` is the file to check.
bool nativeCheckPasses(const std::string& path, const std::string& destination);

}  // namespace downloader_checks

}  // namespace crateworks
