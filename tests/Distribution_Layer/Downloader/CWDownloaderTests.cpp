// The package downloader against nginx and the fault server: order, checks, retries,
// failures, resume files and progress; the checks by file kind; the copy of local files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "Distribution_Layer/Downloader/CWDownloader.h"
#include "Distribution_Layer/Downloader/CWURLDownload.h"
#include "Platform/DiskImageTool.h"
#include "Platform/FileSystem.h"
#include "Platform/FileTree.h"
#include "Platform/Log.h"
#include "Platform/ProcessInfo.h"
#include "Platform/PropertyList.h"
#include "Platform/RunLoop.h"
#include "Platform/URLErrors.h"
#include "Platform/UserDefaults.h"
#include "RecordingDelegate.h"
#include "TestServers.h"
#include "support/TempDir.h"

using namespace crateworks;
using downloadtests::FaultServer;
using downloadtests::NginxServer;
using platform::RunLoop;
using platform::URL;
using testsupport::readFile;
using testsupport::runCommand;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

using Reference = std::shared_ptr<CWPackageReference>;

// Runs the main loop until `done` holds or `seconds` pass; the machine may be slow.
bool runUntil(const std::function<bool()>& done, double seconds = 60) {
    auto loop = RunLoop::current();
    auto deadline = RunLoop::Clock::now() + std::chrono::duration_cast<RunLoop::Clock::duration>(
                                                std::chrono::duration<double>(seconds));
    while (!done() && RunLoop::Clock::now() < deadline) loop->runFor(0.05);
    return done();
}

std::string md5sum(const std::string& path) { return runCommand("md5sum '" + path + "'").substr(0, 32); }

std::string upper(std::string text) {
    for (char& c : text) c = char(toupper(c));
    return text;
}

bool exists(const std::string& path) { return platform::fs::exists(path); }

Reference reference(const std::string& url, const std::string& identifier, uint64_t size,
                    std::optional<std::string> md5) {
    return CWPackageReference::initWithURL(*URL::parse(url), identifier, "1.0", size, std::move(md5));
}

// Records what the downloader says, in order, and answers retries from a budget.
class Recorder : public CWDownloaderDelegate {
public:
    std::vector<std::string> events;
    std::vector<double> progress;
    std::map<std::string, Reference> locals;
    std::map<std::string, platform::Error> errors;
    std::vector<std::optional<platform::Error>> retryErrors;
    int retries = 0;
    // Called with each finished identifier, before the queue moves on.
    std::function<void(const std::string&)> onFinish;

    void packageDownloaderDidStart(CWDownloader&) override { events.push_back("start"); }
    void packageDownloaderDidStop(CWDownloader&) override { events.push_back("stop"); }
    void packageDownloaderDidChangeProgress(CWDownloader&, double percentage) override {
        progress.push_back(percentage);
    }
    void packageDownloaderDidFinishPackageReference(CWDownloader&, const Reference& ref,
                                                    const Reference& local) override {
        events.push_back("finish " + ref->identifier());
        locals[ref->identifier()] = local;
        if (onFinish) onFinish(ref->identifier());
    }
    bool packageDownloaderShouldRetryFailedPackageReference(CWDownloader&, const Reference& ref,
                                                            const std::optional<platform::Error>& error) override {
        events.push_back("retry? " + ref->identifier());
        retryErrors.push_back(error);
        if (retries == 0) return false;
        --retries;
        return true;
    }
    void packageDownloaderDidFailOnPackageReference(CWDownloader&, const Reference& ref,
                                                    const platform::Error& error) override {
        events.push_back("fail " + ref->identifier());
        errors[ref->identifier()] = error;
    }
    void packageDownloaderDidDownloadInvalidDataForPackageReference(CWDownloader&, const Reference& ref) override {
        events.push_back("invalid " + ref->identifier());
    }

    size_t count(const std::string& event) const { return size_t(std::count(events.begin(), events.end(), event)); }
    bool stopped() const { return count("stop") > 0; }
    // Percentages from the first real one on never go back, and the last is exactly 100.
    void expectProgressRoseTo100() const {
        ASSERT_FALSE(progress.empty());
        auto first = std::find_if(progress.begin(), progress.end(), [](double p) { return p >= 0; });
        EXPECT_TRUE(std::is_sorted(first, progress.end()));
        EXPECT_EQ(progress.back(), 100.0);
    }
};

class DownloaderTests : public ::testing::Test {
protected:
    TempDir dir;
    NginxServer nginx{dir.path()};
    FaultServer faults;
    Recorder recorder;
    std::shared_ptr<CWDownloader> downloader;

    void SetUp() override {
        setenv("HOME", dir.path().c_str(), 1);
        setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        RunLoop::makeCurrentThreadMain();
        downloader = CWDownloader::initWithDelegate(&recorder);
    }

    // A file under nginx's root; its URL.
    std::string serve(const std::string& name, const std::string& contents) {
        writeFile(nginx.root() + "/files/" + name, contents);
        return nginx.url("/files/" + name);
    }

    std::vector<std::string> requestedPaths() {
        std::vector<std::string> paths;
        for (const auto& head : faults.requests()) paths.push_back(head.substr(4, head.find(' ', 4) - 4));
        return paths;
    }

    // The fault server's body as it would be written to disk, and its digest.
    std::string bodyDigest() {
        writeFile(dir / "body.ref", FaultServer::body(1));
        return md5sum(dir / "body.ref");
    }

    CWDownloaderQueueElement* element(const std::string& identifier) {
        for (const auto& e : downloader->queue().allElements())
            if (e->packageReference()->identifier() == identifier) return e.get();
        return nullptr;
    }

    void expectNoSideFiles(const std::string& destination) {
        EXPECT_FALSE(exists(destination + ".partial")) << destination;
        EXPECT_FALSE(exists(destination + ".partialState")) << destination;
    }
};

}  // namespace

TEST_F(DownloaderTests, PackagesRunOneAtATimeInQueueOrderAndLandInPlace) {
    std::string digest = bodyDigest();
    std::vector<std::string> ids{"a", "b", "c"};
    for (const auto& id : ids)
        downloader->queuePackageReference(*reference(faults.url("/pkg/" + id), id, FaultServer::kBodySize, digest),
                                          dir / (id + ".bin"));
    EXPECT_TRUE(downloader->queueContainsPackageReference(
        *reference(faults.url("/pkg/b"), "b", FaultServer::kBodySize, digest)));
    EXPECT_FALSE(downloader->queueContainsPackageReference(
        *reference(faults.url("/pkg/b"), "b-other", FaultServer::kBodySize, digest)));
    EXPECT_EQ(downloader->totalDownloadSize(), 3 * FaultServer::kBodySize);
    EXPECT_EQ(downloader->maxConcurrentDownloadCount(), 1u);

    // How many requests the server had seen when each package was reported: with one
    // transfer at a time, the next one starts only after the previous one is in place.
    std::vector<size_t> requestsAtFinish;
    recorder.onFinish = [&](const std::string& id) {
        requestsAtFinish.push_back(faults.requests().size());
        // Added while running: it goes to the back and raises the total mid-run.
        if (id == "a")
            downloader->queuePackageReference(
                *reference(faults.url("/pkg/d"), "d", FaultServer::kBodySize, digest), dir / "d.bin");
    };
    downloader->startQueue();
    EXPECT_TRUE(downloader->isQueueRunning());
    ASSERT_TRUE(runUntil([&] { return recorder.stopped(); }));

    EXPECT_EQ(recorder.events,
              (std::vector<std::string>{"start", "finish a", "finish b", "finish c", "finish d", "stop"}));
    EXPECT_EQ(requestsAtFinish, (std::vector<size_t>{1, 2, 3, 4}));
    EXPECT_EQ(requestedPaths(), (std::vector<std::string>{"/pkg/a", "/pkg/b", "/pkg/c", "/pkg/d"}));
    for (const auto& id : {"a", "b", "c", "d"}) {
        std::string destination = dir / (std::string(id) + ".bin");
        EXPECT_EQ(md5sum(destination), digest) << id;
        expectNoSideFiles(destination);
        const Reference& local = recorder.locals[id];
        ASSERT_TRUE(local);
        EXPECT_EQ(local->URL(), URL::fileURL(destination));
        EXPECT_EQ(local->identifier(), id);
        EXPECT_EQ(local->version(), "1.0");
        EXPECT_EQ(local->fileSize(), FaultServer::kBodySize);
        EXPECT_EQ(local->MD5(), digest);
    }
    recorder.expectProgressRoseTo100();
    EXPECT_EQ(downloader->progressValue(), 100.0);
    EXPECT_EQ(downloader->totalDownloadSize(), 4 * FaultServer::kBodySize);
    EXPECT_EQ(downloader->completedDownloadSize(), 4 * FaultServer::kBodySize);
    EXPECT_TRUE(downloader->isQueueEmpty());
    EXPECT_FALSE(downloader->isQueueRunning());
    EXPECT_FALSE(downloader->queueContainsPackageReference(
        *reference(faults.url("/pkg/b"), "b", FaultServer::kBodySize, digest)));
}

// Packages that share a URL, several transfers at once, finishing in the reverse of the
// order they started: each finished one must leave the active set itself, or a sibling
// still running is dropped, its end goes unheard and the queue never empties.
TEST_F(DownloaderTests, PackagesSharingAURLAllFinishWithSeveralTransfersAtOnce) {
    std::string digest = bodyDigest();
    int round = 0;
    for (uint64_t concurrency : {2u, 2u, 8u}) {
        SCOPED_TRACE(concurrency);
        Recorder run;
        auto queue = CWDownloader::initWithDelegate(&run);
        queue->setMaxConcurrentDownloadCount(concurrency);
        std::string url = faults.url(fmt::format("/reverse/{}/{}", concurrency, ++round));
        std::vector<std::string> ids;
        for (uint64_t i = 0; i < concurrency; ++i) {
            std::string id = fmt::format("r{}-{}", round, i);
            ids.push_back(id);
            queue->queuePackageReference(*reference(url, id, FaultServer::kBodySize, digest), dir / (id + ".bin"));
        }
        queue->startQueue();
        ASSERT_TRUE(runUntil([&] { return run.stopped(); }, 30));
        for (const auto& id : ids) {
            EXPECT_EQ(run.count("finish " + id), 1u) << id;
            EXPECT_EQ(md5sum(dir / (id + ".bin")), digest) << id;
            expectNoSideFiles(dir / (id + ".bin"));
        }
        EXPECT_EQ(run.count("stop"), 1u);
        EXPECT_TRUE(queue->isQueueEmpty());
        EXPECT_FALSE(queue->isQueueRunning());
        EXPECT_EQ(queue->completedDownloadSize(), concurrency * FaultServer::kBodySize);
    }
}

TEST_F(DownloaderTests, ChecksDecideWhatIsKeptAndWhatIsReportedInvalid) {
    std::string good = "package body that the digest belongs to\n";
    writeFile(dir / "good.ref", good);
    std::string digest = md5sum(dir / "good.ref");
    // A .pkg without a digest gets the archive check; one damaged in its heap fails it.
    writeFile(dir / "payload.ref", std::string(5000, 'P'));
    auto archive = CWMutableXARArchive::initForWritingToPath(dir / "source.pkg", nullptr);
    ASSERT_TRUE(archive);
    ASSERT_TRUE(archive->setData(platform::Data(5000, 'P'), "Payload", false));
    ASSERT_TRUE(archive->closeArchive());
    std::string pkg = readFile(dir / "source.pkg");
    std::string damaged = pkg;
    damaged[damaged.rfind("PPPP") - 100] = 'Q';

    struct Case {
        std::string id, url, md5, destination;
        uint64_t size;
    };
    std::vector<Case> cases{
        {"right", serve("right.bin", good), digest, dir / "right.bin", good.size()},
        {"wrong", serve("wrong.bin", good), md5sum(dir / "payload.ref"), dir / "wrong.bin", good.size()},
        {"upper", serve("upper.bin", good), upper(digest), dir / "upper.bin", good.size()},
        {"pkg", serve("ok.pkg", pkg), "", dir / "ok.pkg", pkg.size()},
        {"damaged", serve("damaged.pkg", damaged), "", dir / "damaged.pkg", damaged.size()},
    };
    for (const auto& c : cases)
        downloader->queuePackageReference(
            *reference(c.url, c.id, c.size, c.md5.empty() ? std::nullopt : std::optional(c.md5)), c.destination);

    std::vector<std::pair<int, std::string>> logged;
    auto previous = platform::setSystemLogSink(
        [&](int priority, std::string_view message) { logged.emplace_back(priority, std::string(message)); });
    downloader->startQueue();
    bool stopped = runUntil([&] { return recorder.stopped(); });
    platform::setSystemLogSink(previous);
    ASSERT_TRUE(stopped);

    EXPECT_EQ(recorder.events,
              (std::vector<std::string>{"start", "finish right", "retry? wrong", "invalid wrong", "retry? upper",
                                        "invalid upper", "finish pkg", "retry? damaged", "invalid damaged", "stop"}));
    // A failed check comes without an error.
    ASSERT_EQ(recorder.retryErrors.size(), 3u);
    for (const auto& error : recorder.retryErrors) EXPECT_FALSE(error);
    EXPECT_EQ(readFile(dir / "right.bin"), good);
    EXPECT_EQ(readFile(dir / "ok.pkg"), pkg);
    EXPECT_EQ(recorder.locals["pkg"]->MD5(), std::nullopt);
    for (const auto& c : cases) expectNoSideFiles(c.destination);
    for (const char* rejected : {"wrong.bin", "upper.bin", "damaged.pkg"}) EXPECT_FALSE(exists(dir / rejected));
    bool damagedLogged = false;
    for (const auto& [priority, line] : logged)
        if (line == "Failed to verify damaged.pkg: xar_verify failed") damagedLogged = true;
    EXPECT_TRUE(damagedLogged);
    // Dropped packages leave the total: it ends as what was kept, and the bar at 100.
    recorder.expectProgressRoseTo100();
    EXPECT_EQ(downloader->totalDownloadSize(), downloader->completedDownloadSize());
}

TEST_F(DownloaderTests, RetriedPackageGoesFirstAndAServerErrorFailsOtherwise) {
    std::string digest = bodyDigest();
    recorder.retries = 1;
    downloader->queuePackageReference(*reference(faults.url("/flaky/one"), "flaky", FaultServer::kBodySize, digest),
                                      dir / "flaky.bin");
    downloader->queuePackageReference(*reference(faults.url("/pkg/next"), "next", FaultServer::kBodySize, digest),
                                      dir / "next.bin");
    downloader->queuePackageReference(*reference(nginx.url("/broken"), "broken", 100, std::nullopt),
                                      dir / "broken.bin");
    downloader->startQueue();
    ASSERT_TRUE(runUntil([&] { return recorder.stopped(); }));

    EXPECT_EQ(recorder.events, (std::vector<std::string>{"start", "retry? flaky", "finish flaky", "finish next",
                                                         "retry? broken", "fail broken", "stop"}));
    // The retry ran before the package behind it.
    EXPECT_EQ(requestedPaths(), (std::vector<std::string>{"/flaky/one", "/flaky/one", "/pkg/next"}));
    ASSERT_EQ(recorder.retryErrors.size(), 2u);
    ASSERT_TRUE(recorder.retryErrors[0]);
    EXPECT_EQ(recorder.retryErrors[0]->userInfo.find(platform::kURLErrorHTTPStatusKey)->integer(), 500);
    EXPECT_EQ(md5sum(dir / "flaky.bin"), digest);
    EXPECT_EQ(md5sum(dir / "next.bin"), digest);

    const platform::Error& error = recorder.errors.at("broken");
    EXPECT_EQ(error.domain, platform::kURLErrorDomain);
    EXPECT_EQ(error.userInfo.find(platform::kURLErrorHTTPStatusKey)->integer(), 500);
    EXPECT_FALSE(exists(dir / "broken.bin"));
    for (const char* name : {"flaky.bin", "next.bin", "broken.bin"}) expectNoSideFiles(dir / name);
    recorder.expectProgressRoseTo100();
    EXPECT_EQ(downloader->totalDownloadSize(), 2 * FaultServer::kBodySize);
}

TEST_F(DownloaderTests, ResumeDataOfAnotherURLIsDroppedAndThePackageStartsFromZero) {
    // Real resume data, for /drop/100000, with its 100000 bytes in the partial file.
    std::string destination = dir / "pkg.bin";
    downloadtests::RecordingDelegate cut;
    auto first = CWDownload::downloadWithURL(*URL::parse(faults.url("/drop/100000")), &cut);
    first->setDeletesFileUponFailure(false);
    first->setDestination(destination + ".partial", true);
    cut.wait();
    ASSERT_TRUE(cut.error);
    auto resume = first->resumeData();
    ASSERT_TRUE(resume);
    ASSERT_TRUE(platform::fs::writeFile(destination + ".partialState", *resume));
    ASSERT_EQ(*platform::fs::fileSize(destination + ".partial"), 100'000u);

    // The package itself is /changing, whose body differs from request to request.
    writeFile(dir / "v1.ref", FaultServer::body(1));
    downloader->queuePackageReference(
        *reference(faults.url("/changing"), "changing", FaultServer::kBodySize, md5sum(dir / "v1.ref")), destination);
    downloader->startQueue();
    ASSERT_TRUE(runUntil([&] { return recorder.stopped(); }));

    EXPECT_EQ(recorder.events, (std::vector<std::string>{"start", "finish changing", "stop"}));
    auto heads = faults.requests();
    ASSERT_EQ(requestedPaths(), (std::vector<std::string>{"/drop/100000", "/changing"}));
    EXPECT_EQ(heads[1].find("Range:"), std::string::npos) << heads[1];
    EXPECT_EQ(readFile(destination), FaultServer::body(1));
    expectNoSideFiles(destination);
    recorder.expectProgressRoseTo100();
}

TEST_F(DownloaderTests, StoppingKeepsResumeFilesAndStartingAgainResumes) {
    std::string digest = bodyDigest();
    std::string destination = dir / "stall.bin";
    downloader->queuePackageReference(*reference(faults.url("/stall"), "stall", FaultServer::kBodySize, digest),
                                      destination);
    downloader->queuePackageReference(*reference(faults.url("/pkg/after"), "after", FaultServer::kBodySize, digest),
                                      dir / "after.bin");
    downloader->startQueue();
    ASSERT_TRUE(runUntil([&] {
        auto e = element("stall");
        return e && e->downloadedBytes() >= 1000;
    }));
    EXPECT_EQ(downloader->estimatedTimeRemaining(), -1.0);
    // Bytes fetched but none checked yet: one average is still 0, so no estimate.
    downloader->_updateIndicators();
    EXPECT_GT(downloader->downloadBytesPerSecond(), 0u);
    EXPECT_EQ(downloader->checksumBytesPerSecond(), 0u);
    EXPECT_EQ(downloader->estimatedTimeRemaining(), -1.0);

    downloader->stopQueue();
    EXPECT_FALSE(downloader->isQueueRunning());
    ASSERT_TRUE(runUntil([&] { return recorder.stopped(); }));
    EXPECT_EQ(recorder.events, (std::vector<std::string>{"start", "stop"}));
    EXPECT_EQ(*platform::fs::fileSize(destination + ".partial"), 1000u);
    EXPECT_TRUE(exists(destination + ".partialState"));
    EXPECT_FALSE(exists(destination));
    EXPECT_FALSE(downloader->isQueueEmpty());
    EXPECT_EQ(downloader->queue().allElements().front()->packageReference()->identifier(), "stall");
    double progressAtStop = recorder.progress.back();
    EXPECT_GT(progressAtStop, 0.0);

    downloader->startQueue();
    ASSERT_TRUE(runUntil([&] { return recorder.count("stop") == 2; }));
    EXPECT_EQ(recorder.events,
              (std::vector<std::string>{"start", "stop", "start", "finish stall", "finish after", "stop"}));
    auto heads = faults.requests();
    ASSERT_EQ(requestedPaths(), (std::vector<std::string>{"/stall", "/stall", "/pkg/after"}));
    EXPECT_EQ(heads[0].find("Range:"), std::string::npos);
    EXPECT_NE(heads[1].find("Range: bytes=1000-"), std::string::npos) << heads[1];
    EXPECT_EQ(readFile(destination), FaultServer::body(1));
    expectNoSideFiles(destination);
    recorder.expectProgressRoseTo100();
    EXPECT_EQ(downloader->completedDownloadSize(), downloader->totalDownloadSize());
}

TEST_F(DownloaderTests, TimeRemainingComesFromBothAveragesOnceBothAreKnown) {
    std::string digest = bodyDigest();
    downloader->queuePackageReference(*reference(faults.url("/pkg/first"), "first", FaultServer::kBodySize, digest),
                                      dir / "first.bin");
    downloader->queuePackageReference(*reference(faults.url("/stall"), "stall", FaultServer::kBodySize, digest),
                                      dir / "stall.bin");
    downloader->startQueue();
    downloader->_updateIndicators();
    EXPECT_EQ(downloader->estimatedTimeRemaining(), -1.0);
    ASSERT_TRUE(runUntil([&] {
        auto e = element("stall");
        return recorder.count("finish first") && e && e->downloadedBytes() >= 1000;
    }));
    downloader->_updateIndicators();
    uint64_t fetchSpeed = downloader->downloadBytesPerSecond(), checkSpeed = downloader->checksumBytesPerSecond();
    ASSERT_GT(fetchSpeed, 0u);
    ASSERT_GT(checkSpeed, 0u);
    const auto& queue = downloader->queue();
    EXPECT_EQ(queue.sizeToDownload(), FaultServer::kBodySize - 1000);
    EXPECT_EQ(queue.sizeToCheck(), FaultServer::kBodySize);
    // Whole seconds for each part, added.
    EXPECT_EQ(downloader->estimatedTimeRemaining(),
              double((FaultServer::kBodySize - 1000) / fetchSpeed + FaultServer::kBodySize / checkSpeed));

    downloader->clearQueue();
    ASSERT_TRUE(runUntil([&] { return recorder.stopped(); }));
    EXPECT_TRUE(downloader->isQueueEmpty());
    EXPECT_EQ(downloader->totalDownloadSize(), 0u);
    EXPECT_EQ(downloader->progressValue(), -1.0);
}

TEST_F(DownloaderTests, LocalFilesAreCopiedAndTheirSizeChecked) {
    std::string contents(200'000, 'L');
    writeFile(dir / "source/local.bin", contents);
    std::string digest = md5sum(dir / "source/local.bin");
    std::string url = URL::fileURL(dir / "source/local.bin").absoluteString();
    downloader->queuePackageReference(*reference(url, "copied", contents.size(), digest), dir / "copied.bin");
    downloader->queuePackageReference(*reference(url, "short", contents.size() - 1, std::nullopt),
                                      dir / "short.bin");
    downloader->startQueue();
    ASSERT_TRUE(runUntil([&] { return recorder.stopped(); }));

    EXPECT_EQ(recorder.events,
              (std::vector<std::string>{"start", "finish copied", "retry? short", "fail short", "stop"}));
    EXPECT_EQ(readFile(dir / "copied.bin"), contents);
    const platform::Error& error = recorder.errors.at("short");
    // The same domain and path key as a damaged archive or product index.
    EXPECT_EQ(error.domain, platform::kGeneralErrorDomain);
    EXPECT_EQ(error.code, platform::kFileReadCorruptFileError);
    EXPECT_EQ(error.description(), "Post-copy size check failed.");
    EXPECT_EQ(*error.userInfo.findString(platform::kFilePathErrorKey), dir / "short.bin.partial");
    EXPECT_FALSE(exists(dir / "short.bin"));
    expectNoSideFiles(dir / "copied.bin");
    recorder.expectProgressRoseTo100();
}

// The checks by file kind, on their own.

namespace {

class NativeCheckTests : public ::testing::Test {
protected:
    TempDir dir;
    std::vector<std::string> logged;
    platform::SystemLogSink previous;

    void SetUp() override {
        setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        previous = platform::setSystemLogSink([this](int priority, std::string_view message) {
            EXPECT_EQ(priority, platform::kInstallerFacility | platform::kLogWarning);
            logged.emplace_back(message);
        });
    }
    void TearDown() override {
        platform::setSystemLogSink(previous);
        unsetenv(platform::kDiskImageToolEnvironmentVariable);
        unsetenv("XDG_CONFIG_HOME");
    }

    // A disk-image tool that writes its arguments to `args` and exits with `status`.
    void useTool(int status) {
        writeFile(dir / "tool", fmt::format("#!/bin/sh\necho \"$@\" > '{}'\nexit {}\n", dir / "args", status));
        chmod((dir / "tool").c_str(), 0755);
        setenv(platform::kDiskImageToolEnvironmentVariable, (dir / "tool").c_str(), 1);
    }

    bool check(const std::string& path, const std::string& destination) {
        logged.clear();
        std::filesystem::remove(dir / "args");
        return downloader_checks::nativeCheckPasses(path, destination);
    }

    void setDefault(const std::string& domain, std::optional<platform::Value> value) {
        std::filesystem::create_directories(dir / "config/ferryhold");
        platform::Dictionary defaults;
        if (value) defaults.set(kCWDontVerifyDMGsKey, *value);
        ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(defaults), platform::defaults::pathForDomain(domain)));
    }
};

}  // namespace

TEST_F(NativeCheckTests, ArchivesAreVerifiedEntryByEntry) {
    auto archive = CWMutableXARArchive::initForWritingToPath(dir / "good.pkg", nullptr);
    ASSERT_TRUE(archive);
    ASSERT_TRUE(archive->setData(platform::Data(3000, 'a'), "first", true));
    ASSERT_TRUE(archive->setData(platform::Data(4000, 'z'), "dir/second", false));
    ASSERT_TRUE(archive->closeArchive());
    EXPECT_TRUE(check(dir / "good.pkg", dir / "dest/Good.pkg"));
    EXPECT_TRUE(check(dir / "good.pkg", dir / "dest/Good.mpkg"));
    EXPECT_TRUE(logged.empty());

    // One byte of the second entry's stored data changed: the archive still opens, the
    // entry no longer matches its checksum.
    std::string bytes = readFile(dir / "good.pkg");
    bytes[bytes.find(std::string(4000, 'z')) + 1234] = 'y';
    writeFile(dir / "bad.pkg", bytes);
    ASSERT_TRUE(xar::XarReader::open(dir / "bad.pkg"));
    EXPECT_FALSE(check(dir / "bad.pkg", dir / "dest/Bad.pkg"));
    EXPECT_EQ(logged, (std::vector<std::string>{"Failed to verify Bad.pkg: xar_verify failed"}));
    // Not an archive at all.
    writeFile(dir / "text.pkg", "no archive here");
    EXPECT_FALSE(check(dir / "text.pkg", dir / "dest/Text.mpkg"));
    EXPECT_EQ(logged, (std::vector<std::string>{"Failed to verify Text.mpkg: xar_verify failed"}));
    // The kind comes from the destination's name, not from the file checked.
    EXPECT_TRUE(check(dir / "text.pkg", dir / "dest/notes.txt"));
    EXPECT_EQ(logged, (std::vector<std::string>{"No native mechanism to verify notes.txt"}));
}

TEST_F(NativeCheckTests, DiskImagesGoThroughTheToolUnlessAnyDefaultSaysNot) {
    writeFile(dir / "image.partial", "image bytes");
    useTool(0);
    EXPECT_TRUE(check(dir / "image.partial", dir / "Image.dmg"));
    EXPECT_EQ(readFile(dir / "args"), "verify -quiet " + dir / "image.partial" + "\n");
    EXPECT_TRUE(logged.empty());

    useTool(1);
    EXPECT_FALSE(check(dir / "image.partial", dir / "Image.dmg"));
    EXPECT_TRUE(exists(dir / "args"));
    EXPECT_EQ(logged, (std::vector<std::string>{"Failed to verify Image.dmg: vimgutil verify failed"}));

    // Any value turns the check off, false included, in the program's domain or the global one.
    setDefault(platform::process::processName(), platform::Value(false));
    EXPECT_TRUE(check(dir / "image.partial", dir / "Image.dmg"));
    EXPECT_FALSE(exists(dir / "args"));
    EXPECT_TRUE(logged.empty());
    setDefault(platform::process::processName(), std::nullopt);
    setDefault(platform::defaults::kGlobalDomain, platform::Value(false));
    EXPECT_TRUE(check(dir / "image.partial", dir / "Image.dmg"));
    EXPECT_FALSE(exists(dir / "args"));
    setDefault(platform::defaults::kGlobalDomain, std::nullopt);
    EXPECT_FALSE(check(dir / "image.partial", dir / "Image.dmg"));
    EXPECT_TRUE(exists(dir / "args"));

    // A tool that cannot be started fails the check.
    setenv(platform::kDiskImageToolEnvironmentVariable, (dir / "no-such-tool").c_str(), 1);
    EXPECT_FALSE(check(dir / "image.partial", dir / "Image.dmg"));
    EXPECT_EQ(logged, (std::vector<std::string>{"Failed to verify Image.dmg: vimgutil verify failed"}));
}

TEST_F(NativeCheckTests, MissingFilesAndDirectoriesFail) {
    EXPECT_FALSE(check(dir / "gone.partial", dir / "Gone.pkg"));
    EXPECT_EQ(logged, (std::vector<std::string>{"Failed to verify Gone.pkg: " + dir / "gone.partial" +
                                                " does not exist"}));
    std::filesystem::create_directories(dir / "folder.partial");
    EXPECT_FALSE(check(dir / "folder.partial", dir / "Folder.txt"));
    EXPECT_EQ(logged, (std::vector<std::string>{"Failed to verify Folder.txt: " + dir / "folder.partial" +
                                                " is directory"}));
}

TEST(ChecksumTests, DigestIsComparedInLowerCaseAndReadIn64KiBPieces) {
    TempDir dir;
    std::string contents(200'000, '\0');
    for (size_t i = 0; i < contents.size(); ++i) contents[i] = char(i * 13 + i / 511);
    writeFile(dir / "file", contents);
    std::string digest = md5sum(dir / "file");
    std::vector<uint64_t> pieces;
    EXPECT_TRUE(downloader_checks::checksumMatches(dir / "file", digest, [&](uint64_t n) { pieces.push_back(n); }));
    EXPECT_EQ(pieces, (std::vector<uint64_t>{65536, 65536, 65536, 200'000 - 3 * 65536}));
    EXPECT_FALSE(downloader_checks::checksumMatches(dir / "file", upper(digest), [](uint64_t) {}));
    EXPECT_FALSE(downloader_checks::checksumMatches(dir / "file", digest.substr(0, 31), [](uint64_t) {}));
    EXPECT_FALSE(downloader_checks::checksumMatches(dir / "missing", digest, [](uint64_t) {}));
}

TEST(DownloaderWithoutDelegateTests, RunsItsQueueWithNobodyToTell) {
    TempDir dir;
    RunLoop::makeCurrentThreadMain();
    writeFile(dir / "source.bin", "local package\n");
    std::string url = URL::fileURL(dir / "source.bin").absoluteString();
    auto downloader = CWDownloader::initWithDelegate(nullptr);
    downloader->queuePackageReference(*reference(url, "kept", 14, md5sum(dir / "source.bin")), dir / "kept.bin");
    downloader->queuePackageReference(*reference(url, "bad", 14, std::string(32, '0')), dir / "bad.bin");
    downloader->queuePackageReference(*reference(url, "short", 15, std::nullopt), dir / "short.bin");
    downloader->startQueue();
    ASSERT_TRUE(runUntil([&] { return downloader->isQueueEmpty() && !downloader->isQueueRunning(); }));
    EXPECT_EQ(readFile(dir / "kept.bin"), "local package\n");
    EXPECT_FALSE(exists(dir / "bad.bin"));
    EXPECT_FALSE(exists(dir / "bad.bin.partial"));
    EXPECT_FALSE(exists(dir / "short.bin"));
    EXPECT_EQ(downloader->progressValue(), 100.0);
}
