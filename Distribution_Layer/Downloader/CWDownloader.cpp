#include "Distribution_Layer/Downloader/CWDownloader.h"

#include <cerrno>
#include <fmt/format.h>
#include <mutex>
#include <thread>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "Distribution_Layer/Downloader/CWURLDownload.h"
#include "Platform/Digest.h"
#include "Platform/AtomicFile.h"
#include "Platform/DiskImageTool.h"
#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/FileTree.h"
#include "Platform/Log.h"
#include "Platform/Path.h"
#include "Platform/Process.h"
#include "Platform/ThreadName.h"
#include "Platform/URLErrors.h"
#include "Platform/UserDefaults.h"

namespace crateworks {

namespace {

constexpr double kIndicatorInterval = 0.5;
constexpr size_t kChecksumChunkSize = 65536;
// Codes of the post-copy size check, in the platform's general error domain.
constexpr int64_t kCopySizeDiffersError = platform::kFileReadCorruptFileError;
constexpr int64_t kCopyNoAttributesError = platform::kFileReadNoSuchFileError;
constexpr const char* kCheckThreadName = "com.quarn.Crateworks.CWDownloader.check";
constexpr const char* kCopyThreadName = "com.quarn.Crateworks.CWDownloader.copy";

constexpr const char* kTotalDownloadSizeKey = "totalDownloadSize";
constexpr const char* kCompletedDownloadSizeKey = "completedDownloadSize";
constexpr const char* kProgressValueKey = "progressValue";
constexpr const char* kEstimatedTimeRemainingKey = "estimatedTimeRemaining";
constexpr const char* kDownloadSpeedKeyPath = "_downloadTracker.averageBytesPerSecond";
constexpr const char* kChecksumSpeedKeyPath = "_checksumTracker.averageBytesPerSecond";

std::mutex userAgentLock;
std::optional<std::string> sharedUserAgent;

void logCheck(const std::string& line) {
    platform::systemLog(platform::kInstallerFacility | platform::kLogWarning, line);
}

void logHTTP(const std::string& line) {
    platform::systemLog(platform::kInstallerFacility | platform::kLogDebug, line);
}

// Every entry's stored bytes checked against its archived checksum, in TOC order.
bool packageVerifies(const std::string& path) {
    auto archive = CWXARArchive::initForReadingFromPath(path);
    return archive && archive->verifyReturningError(nullptr);
}

bool diskImageVerifies(const std::string& path) {
    auto tool = platform::Process::spawn(platform::diskImageToolPath(), {"verify", "-quiet", path});
    if (!tool) return false;
    // Nothing it says is needed; a tool that keeps talking gets SIGPIPE rather than a hang.
    tool->closeOutput();
    return tool->waitUntilExit() == 0;
}

}  // namespace

namespace downloader_checks {

std::optional<std::string> md5OfFile(const std::string& path, const std::function<void(uint64_t)>& checked) {
    platform::digest::Hasher md5(platform::digest::Algorithm::MD5);
    bool read = platform::fs::readInChunks(path, kChecksumChunkSize, [&](std::span<const uint8_t> chunk) {
        md5.update(chunk);
        checked(chunk.size());
        return true;
    });
    if (!read) return std::nullopt;
    return platform::digest::hex(md5.finish());
}

bool checksumMatches(const std::string& path, const std::string& expected,
                     const std::function<void(uint64_t)>& checked) {
    return md5OfFile(path, checked) == expected;
}

bool nativeCheckPasses(const std::string& path, const std::string& destination) {
    std::string name = platform::path::lastComponent(destination);
    bool isDirectory = false;
    if (!platform::fs::exists(path, &isDirectory)) {
        logCheck(fmt::format("Failed to verify {}: {} does not exist", name, path));
        return false;
    }
    if (isDirectory) {
        logCheck(fmt::format("Failed to verify {}: {} is directory", name, path));
        return false;
    }
    std::string extension = platform::path::extension(name);
    if (extension == "pkg" || extension == "mpkg") {
        if (packageVerifies(path)) return true;
        logCheck(fmt::format("Failed to verify {}: xar_verify failed", name));
        return false;
    }
    if (extension == "dmg") {
        // Any value turns the check off, false included.
        if (platform::defaults::objectForKey(kCWDontVerifyDMGsKey)) return true;
        if (diskImageVerifies(path)) return true;
        logCheck(fmt::format("Failed to verify {}: vimgutil verify failed", name));
        return false;
    }
    logCheck(fmt::format("No native mechanism to verify {}", name));
    return true;
}

}  // namespace downloader_checks

// Stands in for a missing delegate: its defaults are what having none means (nothing is
// told, nothing is retried, a challenge goes on without a credential).
static CWDownloaderDelegate& noDelegate() {
    static CWDownloaderDelegate none;
    return none;
}

CWDownloader::CWDownloader(CWDownloaderDelegate* delegate)
    : _delegate(delegate ? delegate : &noDelegate()),
      _queue(std::make_unique<CWDownloaderQueue>()),
      _downloadTracker(std::make_shared<CWDownloaderSpeedTracker>()),
      _checksumTracker(std::make_shared<CWDownloaderSpeedTracker>()) {
    _mainLoop = platform::RunLoop::main();
    if (!_mainLoop) _mainLoop = platform::RunLoop::current();
}

std::shared_ptr<CWDownloader> CWDownloader::initWithDelegate(CWDownloaderDelegate* delegate) {
    return std::shared_ptr<CWDownloader>(new CWDownloader(delegate));
}

CWDownloader::~CWDownloader() {
    if (_progressTimer) _progressTimer->invalidate();
    for (const auto& element : _queue->activeElements()) {
        if (auto download = element->download()) {
            download->setDelegate(nullptr);
            download->cancel();
        }
    }
}

std::optional<std::string> CWDownloader::userAgent() {
    std::lock_guard guard(userAgentLock);
    return sharedUserAgent;
}

void CWDownloader::setUserAgent(std::optional<std::string> agent) {
    std::lock_guard guard(userAgentLock);
    sharedUserAgent = std::move(agent);
}

bool CWDownloader::automaticallyNotifiesObserversForKey(std::string_view key) {
    return key != kTotalDownloadSizeKey && key != kCompletedDownloadSizeKey && key != kProgressValueKey;
}

std::vector<std::string> CWDownloader::keyPathsForValuesAffectingValueForKey(std::string_view key) {
    if (key == kEstimatedTimeRemainingKey) return {kProgressValueKey, kDownloadSpeedKeyPath, kChecksumSpeedKeyPath};
    return {};
}

void CWDownloader::_announce(std::string_view key, bool prior) {
    if (!_observer) return;
    _observer(key, prior);
    for (const auto& affecting : keyPathsForValuesAffectingValueForKey(kEstimatedTimeRemainingKey))
        if (affecting == key) _observer(kEstimatedTimeRemainingKey, prior);
}

double CWDownloader::estimatedTimeRemaining() const {
    uint64_t downloadSpeed = _downloadTracker->averageBytesPerSecond();
    uint64_t checkSpeed = _checksumTracker->averageBytesPerSecond();
    if (downloadSpeed == 0 || checkSpeed == 0) return -1.0;
    return double(_queue->sizeToDownload() / downloadSpeed + _queue->sizeToCheck() / checkSpeed);
}

void CWDownloader::_performOnMainThread(std::function<void(CWDownloader&)> call) {
    _mainLoop->perform([weak = weak_from_this(), call = std::move(call)] {
        if (auto self = weak.lock()) call(*self);
    });
}

// Queue and run state

void CWDownloader::queuePackageReference(const CWPackageReference& reference, const std::string& destination) {
    _queue->addElement(CWDownloaderQueueElement::initWithPackageReference(reference, destination));
    if (_isQueueRunning) _startQueuedDownloads();
}

bool CWDownloader::queueContainsPackageReference(const CWPackageReference& reference) const {
    for (const auto& element : _queue->allElements())
        if (element->packageReference()->isEqual(reference)) return true;
    return false;
}

void CWDownloader::startQueue() {
    if (_isQueueRunning) return;
    _isQueueRunning = true;
    _delegate->packageDownloaderDidStart(*this);
    _downloadTracker = std::make_shared<CWDownloaderSpeedTracker>();
    _checksumTracker = std::make_shared<CWDownloaderSpeedTracker>();
    _updateProgressInfo();
    _performOnMainThread([](CWDownloader& self) {
        if (self._progressTimer) self._progressTimer->invalidate();
        self._progressTimer = self._mainLoop->addTimer(kIndicatorInterval, true, [weak = self.weak_from_this()] {
            if (auto downloader = weak.lock()) downloader->_updateIndicators();
        });
    });
    _startQueuedDownloads();
}

void CWDownloader::stopQueue() {
    // Cancelling a local copy runs the loop until its thread is done, so callbacks queued
    // before it may run in the middle of this: nothing may start meanwhile, and a transfer
    // that finished or failed in there is no longer this element's to stop.
    _isStopping = true;
    for (const auto& element : _queue->activeElements()) {
        std::shared_ptr<CWDownload> download = element->download();
        if (!download) continue;
        download->cancel();
        if (element->download() != download || !_queue->isActive(element)) continue;
        if (!_cancelDownloadCapturingResumeData(element)) _queue->revertElement(element, false);
        element->setDownload(nullptr);
        _queue->deactivateElement(element);
    }
    _isStopping = false;
    _performOnMainThread([](CWDownloader& self) {
        if (self._progressTimer) self._progressTimer->invalidate();
        self._progressTimer.reset();
    });
    _updateProgressInfo();
    _isQueueRunning = false;
    _performOnMainThread([](CWDownloader& self) { self._notifyDelegateIfQueueStopped(true); });
}

void CWDownloader::clearQueue() {
    stopQueue();
    _queue->clearAll();
}

void CWDownloader::_notifyDelegateIfQueueStopped(std::optional<bool> stopped) {
    if (stopped) _stopNotificationPending = *stopped;
    if (_stopNotificationPending && _queue->activeElements().empty()) {
        _stopNotificationPending = false;
        _delegate->packageDownloaderDidStop(*this);
    }
}

void CWDownloader::_startQueuedDownloads() {
    _performOnMainThread([](CWDownloader& self) { self._notifyDelegateIfQueueStopped(std::nullopt); });
    if (!_isQueueRunning || _isStopping) return;
    while (auto element = _queue->activateNextElement()) _startDownloadForQueueElement(element);
    if (_queue->isEmpty()) stopQueue();
}

void CWDownloader::_startDownloadForQueueElement(const Element& element) {
    const platform::URL& url = element->packageReference()->URL();
    if (url.isFileURL() && maxConcurrentDownloadCount() == 1) {
        _startFileCopyForQueueElement(element);
        return;
    }
    if (platform::fs::existsNoFollow(element->resumeDataPath())) {
        auto data = platform::fs::readFile(element->resumeDataPath());
        platform::fs::removeItem(element->resumeDataPath());
        auto resumed = data ? CWDownload::downloadWithResumeData(*data, element->partialPath(), this, url) : nullptr;
        if (resumed) {
            // Not every kind of download keeps the delegate it was made with.
            resumed->setDelegate(this);
            resumed->setDeletesFileUponFailure(false);
            element->setDownload(resumed);
            return;
        }
        _queue->revertElement(element, true);
    }
    auto download = CWDownload::downloadWithURL(url, this);
    if (!download) {
        // No class takes the URL: the package fails as a transfer would, once the
        // current round of starting is over.
        platform::Error error{platform::kURLErrorDomain, platform::kURLErrorUnsupportedURL,
                              platform::Dictionary{{platform::kURLErrorFailingURLStringKey, url.absoluteString()},
                                                   {platform::kErrorDescriptionKey, "unsupported URL"}}};
        _performOnMainThread([element, error](CWDownloader& self) {
            if (self._queue->isActive(element))
                self._elementDidFailWithError(element, error);
        });
        return;
    }
    download->setDestination(element->partialPath(), true);
    download->setDeletesFileUponFailure(false);
    element->setDownload(download);
}

bool CWDownloader::_cancelDownloadCapturingResumeData(const Element& element) {
    std::shared_ptr<CWDownload> download = element->download();
    std::optional<platform::Data> resumeData = download ? download->resumeData() : std::nullopt;
    if (resumeData) {
        platform::fs::removeItem(element->resumeDataPath());
        if (platform::fs::writeFile(element->resumeDataPath(), *resumeData)) return true;
        // Resume data that could not be kept is no resume data: the package starts over.
        platform::fs::removeItem(element->resumeDataPath());
    }
    platform::fs::removeItem(element->partialPath());
    return false;
}

// Indicators

void CWDownloader::_updateIndicators() {
    _updateProgressInfo();
    _updateDownloadSpeed();
}

void CWDownloader::_updateProgressInfo() {
    for (const char* key : {kTotalDownloadSizeKey, kCompletedDownloadSizeKey, kProgressValueKey}) _announce(key, true);
    _queue->updateProgressInfo();
    for (const char* key : {kTotalDownloadSizeKey, kCompletedDownloadSizeKey, kProgressValueKey}) _announce(key, false);
    _delegate->packageDownloaderDidChangeProgress(*this, _queue->progressPercentage());
}

void CWDownloader::_updateDownloadSpeed() {
    if (!_isQueueRunning) return;
    _announce(kDownloadSpeedKeyPath, true);
    _announce(kChecksumSpeedKeyPath, true);
    _downloadTracker->updateSpeed();
    _checksumTracker->updateSpeed();
    _announce(kDownloadSpeedKeyPath, false);
    _announce(kChecksumSpeedKeyPath, false);
}

// Transfer callbacks

// By the transfer itself rather than by its source URL: a file download rebuilds its URL
// from its path, which need not give the text the element is keyed by; and a late word
// from a transfer that was cancelled or replaced says nothing about the current one.
CWDownloader::Element CWDownloader::_elementForDownload(CWDownload& download) const {
    for (const auto& element : _queue->activeElements())
        if (element->download().get() == &download) return element;
    return nullptr;
}

std::optional<platform::URLRequest> CWDownloader::downloadWillSendRequestRedirectResponse(
    CWDownload&, platform::URLRequest request, const std::optional<platform::URLResponse>&) {
    if (auto agent = userAgent()) request.setValue(*agent, "User-Agent");
    if (CWURLDownload::_logHTTP()) {
        platform::Dictionary fields;
        for (const auto& [name, value] : request.headerFields) fields.set(name, value);
        logHTTP(fmt::format("Sending request {} {}", request.url.absoluteString(), describeHeaderFields(fields)));
    }
    return request;
}

void CWDownloader::downloadDidReceiveResponse(CWDownload&, const platform::URLResponse& response) {
    if (CWURLDownload::_logHTTP() && response.isHTTP)
        logHTTP(fmt::format("Received response {} code {}\n{}", response.url.absoluteString(), response.statusCode,
                            describeHeaderFields(response.headerFields)));
}

void CWDownloader::downloadWillResumeFromByte(CWDownload& download, int64_t offset) {
    Element element = _elementForDownload(download);
    if (!element) return;
    if (offset == 0) {
        download.setDestination(element->partialPath(), true);
        _queue->revertElement(element, true);
    }
    // Bytes already on disk count as fetched for the queue; they were not fetched now,
    // so the speed does not see them.
    if (element->downloadedBytes() == 0 && offset > 0) _queue->gotDataOfLength(uint64_t(offset), *element);
}

void CWDownloader::downloadDidReceiveDataOfLength(CWDownload& download, uint64_t length) {
    Element element = _elementForDownload(download);
    if (!element) return;
    _queue->gotDataOfLength(length, *element);
    _downloadTracker->didGetBytes(length);
    uint64_t size = element->packageReference()->fileSize();
    if (size > 0 && element->downloadedBytes() > size) _abandonOversizedDownload(element);
}

// A source that sends more than the package's size would otherwise fill the disk before
// any check could refuse it. The transfer is let go at once, so that nothing more of it
// counts, and stopped from the loop, outside its own callback.
void CWDownloader::_abandonOversizedDownload(const Element& element) {
    std::shared_ptr<CWDownload> download = element->download();
    element->setDownload(nullptr);
    download->setDelegate(nullptr);
    _performOnMainThread([element, download](CWDownloader& self) {
        download->cancel();
        platform::fs::removeItem(element->partialPath());
        platform::fs::removeItem(element->resumeDataPath());
        if (!self._queue->isActive(element)) return;
        platform::Error error{platform::kURLErrorDomain, platform::kURLErrorCannotWriteToFile,
                              platform::Dictionary{
                                  {platform::kURLErrorFailingURLStringKey, element->URLString()},
                                  {platform::kErrorDescriptionKey,
                                   fmt::format("more than the package's {} bytes arrived",
                                               element->packageReference()->fileSize())}}};
        self._elementDidFailWithError(element, error);
    });
}

void CWDownloader::downloadDidCheckDataOfLength(CWDownload& download, uint64_t length) {
    Element element = _elementForDownload(download);
    if (!element) return;
    _queue->checkedDataOfLength(length, *element);
    _checksumTracker->didGetBytes(length);
}

void CWDownloader::downloadDidFinish(CWDownload& download) {
    Element element = _elementForDownload(download);
    if (!element) return;
    // The element held the download; keep it alive until this call is over.
    std::shared_ptr<CWDownload> finished = element->download();
    element->setDownload(nullptr);
    _elementDidFinish(element, finished);
}

void CWDownloader::downloadDidFailWithError(CWDownload& download, const platform::Error& error) {
    Element element = _elementForDownload(download);
    if (!element) return;
    std::shared_ptr<CWDownload> failed = element->download();
    _cancelDownloadCapturingResumeData(element);
    element->setDownload(nullptr);
    _elementDidFailWithError(element, error);
}

void CWDownloader::downloadDidReceiveAuthenticationChallenge(
    CWDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) {
    _delegate->packageDownloaderDidReceiveAuthenticationChallenge(*this, challenge);
}

void CWDownloader::downloadDidCancelAuthenticationChallenge(
    CWDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) {
    _delegate->packageDownloaderDidCancelAuthenticationChallenge(*this, challenge);
}

// Checking, placing and failing

void CWDownloader::_elementDidFinish(const Element& element, const std::shared_ptr<CWDownload>& download) {
    if (download && download->validatesDuringDownload()) {
        _performOnMainThread([element](CWDownloader& self) { self._postProcessDownload(element, true); });
        return;
    }
    auto reference = element->packageReference();
    std::string expected = reference->MD5().value_or("");
    auto tracker = _checksumTracker;
    auto report = [weak = weak_from_this(), loop = _mainLoop, element](bool passed,
                                                                         std::optional<std::string> digest) {
        loop->perform([weak, element, passed, digest] {
            if (auto self = weak.lock()) self->_postProcessDownload(element, passed, digest);
        });
    };
    std::thread([element, tracker, expected, report] {
        platform::thread::setCurrentName(kCheckThreadName);
        bool passed;
        std::optional<std::string> digest;
        if (!expected.empty()) {
            digest = downloader_checks::md5OfFile(element->partialPath(), [&](uint64_t length) {
                element->_addToChecksummedBytes(length);
                tracker->didGetBytes(length);
            });
            passed = digest == expected;
        } else {
            passed = downloader_checks::nativeCheckPasses(element->partialPath(), element->destination());
            uint64_t size = element->packageReference()->fileSize();
            element->_addToChecksummedBytes(size);
            tracker->didGetBytes(size);
        }
        report(passed, digest);
    }).detach();
}

std::optional<std::string> CWDownloader::computedMD5ForFailedPackageReference(
    const CWPackageReference& reference) const {
    auto it = _failedDigests.find(&reference);
    if (it == _failedDigests.end()) return std::nullopt;
    return it->second;
}

void CWDownloader::_postProcessDownload(const Element& element, bool succeeded,
                                        std::optional<std::string> computedMD5) {
    // Kept for the host while it hears of the failure (and until the package's next check).
    if (!succeeded && computedMD5) _failedDigests[element->packageReference().get()] = *computedMD5;
    else _failedDigests.erase(element->packageReference().get());
    if (!succeeded) {
        platform::fs::removeItem(element->partialPath());
        _elementDidFailWithError(element, std::nullopt);
        return;
    }
    // The checked file takes the package's name in one rename, so that whatever was
    // there stays until then (and stays when the rename is refused). Only a regular file
    // is replaced.
    platform::Error placeError;
    auto refusal = platform::fs::AtomicFile::refusalFor(element->destination());
    if (refusal || !platform::fs::moveItem(element->partialPath(), element->destination(), &placeError)) {
        platform::fs::removeItem(element->partialPath());
        _elementDidFailWithError(element, refusal.value_or(placeError));
        return;
    }
    _queue->removeElement(element, true);
    auto reference = element->packageReference();
    auto local = CWPackageReference::initWithURL(platform::URL::fileURL(element->destination()),
                                                 reference->identifier(), reference->version(),
                                                 reference->fileSize(), reference->MD5());
    _delegate->packageDownloaderDidFinishPackageReference(*this, reference, local);
    _startQueuedDownloads();
}

void CWDownloader::_elementDidFailWithError(const Element& element, const std::optional<platform::Error>& error) {
    auto reference = element->packageReference();
    if (_delegate->packageDownloaderShouldRetryFailedPackageReference(*this, reference, error)) {
        _queue->revertElement(element, false);
        _startQueuedDownloads();
        return;
    }
    _queue->removeElement(element, false);
    if (error) _delegate->packageDownloaderDidFailOnPackageReference(*this, reference, *error);
    else _delegate->packageDownloaderDidDownloadInvalidDataForPackageReference(*this, reference);
    _startQueuedDownloads();
}

// Local files

void CWDownloader::_startFileCopyForQueueElement(const Element& element) {
    auto queue = _queue.get();
    auto finish = [weak = weak_from_this(), loop = _mainLoop, element](std::optional<platform::Error> error) {
        loop->performAndWait([&] {
            if (auto self = weak.lock()) self->_finishFileCopyWithResult(element, error);
        });
    };
    // The queue outlives the thread only while the downloader does; read its limit now.
    uint64_t concurrency = queue->maxConcurrentDownloadCount();
    std::thread([element, concurrency, finish] {
        platform::thread::setCurrentName(kCopyThreadName);
        FH_ASSERT_AT_LINE("-[CWDownloader _startFileCopyForQueueElement:]", 391, concurrency == 1,
                          "file: URL copying hack is not designed for concurrent downloads");
        std::string partial = element->partialPath(), source = element->packageReference()->URL().path();
        platform::fs::removeItem(partial);
        // A copy starts over; resume data left by a transfer has nothing to say to it.
        platform::fs::removeItem(element->resumeDataPath());
        platform::Error error;
        // Only a file's bytes: not a tree, a device or a pipe that never ends.
        if (!platform::fs::isRegularFile(source)) {
            finish(platform::fs::posixError(EINVAL, source));
            return;
        }
        if (!platform::fs::copyItem(source, partial, &error)) {
            finish(error);
            return;
        }
        std::optional<uint64_t> size = platform::fs::fileSize(partial);
        if (!size || *size != element->packageReference()->fileSize()) {
            finish(platform::Error{platform::kGeneralErrorDomain, size ? kCopySizeDiffersError : kCopyNoAttributesError,
                                   platform::Dictionary{{platform::kErrorDescriptionKey, "Post-copy size check failed."},
                                                        {platform::kFilePathErrorKey, partial}}});
            return;
        }
        finish(std::nullopt);
    }).detach();
}

void CWDownloader::_finishFileCopyWithResult(const Element& element, const std::optional<platform::Error>& error) {
    if (error) {
        _elementDidFailWithError(element, error);
        return;
    }
    uint64_t size = element->packageReference()->fileSize();
    _queue->gotDataOfLength(size, *element);
    _downloadTracker->didGetBytes(size);
    _elementDidFinish(element, nullptr);
}

}  // namespace crateworks
