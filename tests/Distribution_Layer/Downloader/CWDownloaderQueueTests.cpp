// The download queue's bookkeeping and the speed trackers, without any transfer.
#include <gtest/gtest.h>

#include <random>

#include "Distribution_Layer/Downloader/CWDownloaderQueue.h"
#include "Distribution_Layer/Downloader/CWDownloaderSpeedTracker.h"
#include "Platform/Log.h"

using namespace crateworks;
using platform::URL;

namespace {

using Element = std::shared_ptr<CWDownloaderQueueElement>;

Element element(const std::string& name, uint64_t size) {
    auto reference = CWPackageReference::initWithURL(*URL::parse("http://packages.invalid/" + name + ".pkg"),
                                                     "com.example." + name, "1.0", size, std::nullopt);
    return CWDownloaderQueueElement::initWithPackageReference(*reference, "/nowhere/" + name + ".pkg");
}

std::vector<std::string> names(const std::vector<Element>& elements) {
    std::vector<std::string> out;
    for (const auto& e : elements) out.push_back(e->packageReference()->identifier().substr(12));
    return out;
}

// Fetches and checks the whole element in the given chunk size, updating the queue
// after every chunk; returns every percentage seen.
std::vector<double> completeInChunks(CWDownloaderQueue& queue, const Element& e, uint64_t chunk) {
    std::vector<double> seen;
    uint64_t size = e->packageReference()->fileSize();
    for (uint64_t done = 0; done < size; done += chunk) {
        queue.gotDataOfLength(std::min(chunk, size - done), *e);
        queue.updateProgressInfo();
        seen.push_back(queue.progressPercentage());
    }
    for (uint64_t done = 0; done < size; done += chunk) {
        queue.checkedDataOfLength(std::min(chunk, size - done), *e);
        queue.updateProgressInfo();
        seen.push_back(queue.progressPercentage());
    }
    return seen;
}

}  // namespace

TEST(CWDownloaderQueueTests, ElementWeighsFetchedAndCheckedBytesInWholeParts) {
    auto e = element("a", 100);
    e->_addToDownloadedBytes(15);  // 13.5
    EXPECT_EQ(e->downloadedBytes(), 15u);
    EXPECT_EQ(e->_reportedProgress(), 0u);
    e->_addToChecksummedBytes(15);  // 1.5 + 13 -> 14
    EXPECT_EQ(e->checksummedBytes(), 15u);
    // 15 weighted bytes in all, 14 still to be folded in.
    EXPECT_EQ(e->_reportedProgress(), 1u);
    EXPECT_EQ(e->_getAndClearProgressIncrement(), 14u);
    EXPECT_EQ(e->_getAndClearProgressIncrement(), 0u);
    EXPECT_EQ(e->_reportedProgress(), 15u);
    // Single bytes never add up: each 0.9 is cut to 0 against an increment of 0.
    for (int i = 0; i < 10; ++i) e->_addToDownloadedBytes(1);
    EXPECT_EQ(e->_getAndClearProgressIncrement(), 0u);
    EXPECT_EQ(e->downloadedBytes(), 25u);
    e->_resetProgress();
    EXPECT_EQ(e->downloadedBytes(), 0u);
    EXPECT_EQ(e->checksummedBytes(), 0u);
    EXPECT_EQ(e->_reportedProgress(), 0u);
    EXPECT_EQ(e->partialPath(), "/nowhere/a.pkg.partial");
    EXPECT_EQ(e->resumeDataPath(), "/nowhere/a.pkg.partialState");
}

TEST(CWDownloaderQueueTests, PercentageFollowsTheWeightsAndEndsAtExactly100) {
    CWDownloaderQueue queue;
    EXPECT_EQ(queue.progressPercentage(), -1.0);
    auto a = element("a", 1000), b = element("b", 3000);
    queue.addElement(a);
    queue.addElement(b);
    EXPECT_EQ(queue.totalSizeQueued(), 4000u);
    queue.updateProgressInfo();
    EXPECT_EQ(queue.progressPercentage(), 0.0);
    EXPECT_EQ(queue.sizeToDownload(), 4000u);
    EXPECT_EQ(queue.sizeToCheck(), 4000u);

    ASSERT_EQ(queue.activateNextElement(), a);
    queue.gotDataOfLength(1000, *a);  // 900 of 4000
    queue.updateProgressInfo();
    EXPECT_DOUBLE_EQ(queue.progressPercentage(), 22.5);
    EXPECT_EQ(queue.sizeDownloaded(), 1000u);
    EXPECT_EQ(queue.sizeToDownload(), 3000u);
    queue.checkedDataOfLength(1000, *a);  // +100
    queue.updateProgressInfo();
    EXPECT_DOUBLE_EQ(queue.progressPercentage(), 25.0);
    EXPECT_EQ(queue.sizeToCheck(), 3000u);
    queue.removeElement(a, true);
    EXPECT_EQ(queue.totalSizeQueued(), 4000u);
    EXPECT_EQ(queue.sizeDequeued(), 1000u);

    // The second package in 7-byte pieces: every piece loses its fraction, so the
    // percentage lags behind, and only the end of the queue makes it whole.
    ASSERT_EQ(queue.activateNextElement(), b);
    auto seen = completeInChunks(queue, b, 7);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_LT(queue.progressPercentage(), 100.0);
    queue.removeElement(b, true);
    EXPECT_TRUE(queue.isEmpty());
    queue.updateProgressInfo();
    EXPECT_EQ(queue.progressPercentage(), 100.0);
    EXPECT_EQ(queue.sizeDownloaded(), 4000u);
    EXPECT_EQ(queue.sizeToDownload(), 0u);

    queue.clearAll();
    EXPECT_EQ(queue.totalSizeQueued(), 0u);
    EXPECT_EQ(queue.progressPercentage(), -1.0);
    EXPECT_EQ(queue.progressDerating(), 1.0);
}

TEST(CWDownloaderQueueTests, TotalOfZeroNeverMovesThePercentage) {
    CWDownloaderQueue queue;
    queue.updateProgressInfo();
    EXPECT_EQ(queue.progressPercentage(), -1.0);
    auto empty = element("empty", 0);
    queue.addElement(empty);
    ASSERT_EQ(queue.activateNextElement(), empty);
    queue.gotDataOfLength(500, *empty);
    queue.checkedDataOfLength(500, *empty);
    queue.updateProgressInfo();
    EXPECT_EQ(queue.progressPercentage(), -1.0);
    EXPECT_EQ(queue.sizeDownloaded(), 0u);
    queue.removeElement(empty, true);
    queue.updateProgressInfo();
    EXPECT_EQ(queue.progressPercentage(), -1.0);
    EXPECT_EQ(queue.totalSizeQueued(), 0u);
}

TEST(CWDownloaderQueueTests, AddingWorkMidwayDeratesAndThePercentageNeverGoesBack) {
    CWDownloaderQueue queue;
    auto a = element("a", 1000);
    queue.addElement(a);
    queue.activateNextElement();
    queue.gotDataOfLength(500, *a);
    queue.updateProgressInfo();
    ASSERT_DOUBLE_EQ(queue.progressPercentage(), 45.0);

    queue.addElement(element("b", 1000));
    EXPECT_EQ(queue.totalSizeQueued(), 2000u);
    // 55 % left for 2000 - 450 weighted bytes of 2000.
    EXPECT_NEAR(queue.progressDerating(), 0.55 / 0.775, 1e-12);
    queue.updateProgressInfo();
    EXPECT_DOUBLE_EQ(queue.progressPercentage(), 45.0);

    // Random pieces of random work, with packages added, restarted and dropped midway.
    std::mt19937 random(20260517);
    queue.setMaxConcurrentDownloadCount(2);
    for (int i = 0; i < 6; ++i) queue.addElement(element("n" + std::to_string(i), 200 + random() % 5000));
    double last = queue.progressPercentage(), beforeLast = -1;
    int added = 0;
    for (int round = 0; !queue.isEmpty(); ++round) {
        while (queue.activateNextElement()) {
        }
        for (const auto& e : queue.activeElements()) {
            uint64_t size = e->packageReference()->fileSize();
            uint64_t step = 1 + random() % 900;
            if (e->downloadedBytes() < size) {
                queue.gotDataOfLength(std::min(step, size - e->downloadedBytes()), *e);
            } else if (e->checksummedBytes() < size) {
                queue.checkedDataOfLength(std::min(step, size - e->checksummedBytes()), *e);
            } else {
                if (queue.allElements().size() == 1) {
                    queue.updateProgressInfo();
                    beforeLast = queue.progressPercentage();
                }
                queue.removeElement(e, true);
            }
        }
        if (round % 7 == 3 && added < 5) queue.addElement(element("late" + std::to_string(added++), 100 + random() % 3000));
        if (round == 11 && !queue.activeElements().empty()) queue.revertElement(queue.activeElements().front(), true);
        if (round == 17 && !queue.activeElements().empty())
            queue.removeElement(queue.activeElements().front(), false);
        queue.updateProgressInfo();
        ASSERT_GE(queue.progressPercentage(), last) << "round " << round;
        ASSERT_LE(queue.progressPercentage(), 100.0);
        last = queue.progressPercentage();
        ASSERT_LT(round, 100000);
    }
    EXPECT_EQ(queue.progressPercentage(), 100.0);
    EXPECT_EQ(queue.sizeDownloaded(), queue.totalSizeQueued());
    // The derating spreads what was left over the work left: with everything fetched and
    // checked the bar is already near its end, not stuck far below and jumping at the end.
    EXPECT_GT(beforeLast, 99.0);
}

TEST(CWDownloaderQueueTests, RevertRemoveAndRetryMoveSizesAndPlaces) {
    CWDownloaderQueue queue;
    queue.setMaxConcurrentDownloadCount(2);
    auto a = element("a", 1000), b = element("b", 500), c = element("c", 700);
    for (const auto& e : {a, b, c}) queue.addElement(e);
    EXPECT_EQ(queue.totalSizeQueued(), 2200u);
    ASSERT_EQ(queue.activateNextElement(), a);
    ASSERT_EQ(queue.activateNextElement(), b);
    EXPECT_EQ(queue.activateNextElement(), nullptr);
    EXPECT_EQ(names(queue.allElements()), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(queue.activeElementForURL("http://packages.invalid/b.pkg"), b);
    EXPECT_EQ(queue.activeElementForURL("http://packages.invalid/c.pkg"), nullptr);

    // A transfer that starts over: its bytes must be fetched again.
    queue.gotDataOfLength(300, *a);
    queue.revertElement(a, true);
    EXPECT_EQ(queue.totalSizeQueued(), 2500u);
    EXPECT_EQ(queue.sizeDequeued(), 300u);
    EXPECT_EQ(a->downloadedBytes(), 0u);
    EXPECT_EQ(queue.activeElementForURL("http://packages.invalid/a.pkg"), a);

    // A retry: back to the front of the waiting list, ahead of c.
    queue.gotDataOfLength(100, *a);
    queue.revertElement(a, false);
    EXPECT_EQ(queue.totalSizeQueued(), 2600u);
    EXPECT_EQ(names(queue.activeElements()), (std::vector<std::string>{"b"}));
    EXPECT_EQ(names(queue.allElements()), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(queue.activateNextElement(), a);

    // Dropping an unfinished package gives up the part never fetched.
    queue.gotDataOfLength(200, *b);
    queue.removeElement(b, false);
    EXPECT_EQ(queue.totalSizeQueued(), 2300u);
    EXPECT_EQ(queue.sizeDequeued(), 600u);
    EXPECT_EQ(b->downloadedBytes(), 0u);
    EXPECT_EQ(queue.activateNextElement(), c);

    // A waiting element leaves by identity; its whole size goes.
    auto d = element("d", 400);
    queue.addElement(d);
    queue.removeElement(d, false);
    EXPECT_EQ(queue.totalSizeQueued(), 2300u);
    EXPECT_EQ(names(queue.allElements()), (std::vector<std::string>{"a", "c"}));

    // Deactivating puts an active element back in front; a waiting one is left alone.
    queue.deactivateElement(c);
    queue.deactivateElement(c);
    EXPECT_EQ(names(queue.allElements()), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(names(queue.activeElements()), (std::vector<std::string>{"a"}));
}

TEST(CWDownloaderQueueTests, RemovingAnElementNotInTheQueueOnlyLogs) {
    std::vector<std::pair<int, std::string>> logged;
    auto previous = platform::setSystemLogSink(
        [&](int priority, std::string_view message) { logged.emplace_back(priority, std::string(message)); });
    CWDownloaderQueue queue;
    auto a = element("a", 1000), stranger = element("stranger", 800);
    queue.addElement(a);
    queue.activateNextElement();
    queue.gotDataOfLength(400, *a);
    queue.updateProgressInfo();
    stranger->_addToDownloadedBytes(100);
    queue.removeElement(stranger, true);
    platform::setSystemLogSink(previous);

    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].second, "Element " + stranger->description() + " not in queue!");
    EXPECT_EQ(logged[0].second,
              "Element <CWDownloaderQueueElement http://packages.invalid/stranger.pkg -> /nowhere/stranger.pkg> not "
              "in queue!");
    EXPECT_EQ(logged[0].first, platform::kInstallerFacility | platform::kLogWarning);
    EXPECT_EQ(queue.totalSizeQueued(), 1000u);
    EXPECT_EQ(queue.sizeDequeued(), 0u);
    EXPECT_EQ(stranger->downloadedBytes(), 100u);
    EXPECT_EQ(names(queue.allElements()), (std::vector<std::string>{"a"}));
    queue.updateProgressInfo();
    EXPECT_DOUBLE_EQ(queue.progressPercentage(), 36.0);
}

TEST(CWDownloaderQueueTests, ActivationHonoursTheConcurrencyLimit) {
    CWDownloaderQueue queue;
    EXPECT_EQ(queue.maxConcurrentDownloadCount(), 1u);
    EXPECT_EQ(queue.activateNextElement(), nullptr);
    std::vector<Element> all;
    for (const char* name : {"a", "b", "c", "d"}) {
        all.push_back(element(name, 10));
        queue.addElement(all.back());
    }
    EXPECT_EQ(queue.activateNextElement(), all[0]);
    EXPECT_EQ(queue.activateNextElement(), nullptr);
    queue.setMaxConcurrentDownloadCount(3);
    EXPECT_EQ(queue.activateNextElement(), all[1]);
    EXPECT_EQ(queue.activateNextElement(), all[2]);
    EXPECT_EQ(queue.activateNextElement(), nullptr);
    EXPECT_EQ(queue.activeElements().size(), 3u);
    queue.removeElement(all[1], true);
    EXPECT_EQ(queue.activateNextElement(), all[3]);
    EXPECT_EQ(names(queue.activeElements()), (std::vector<std::string>{"a", "c", "d"}));
    // Lowering the limit stops new activations without touching the running ones.
    queue.setMaxConcurrentDownloadCount(1);
    queue.deactivateElement(all[3]);
    EXPECT_EQ(queue.activateNextElement(), nullptr);
    EXPECT_EQ(queue.activeElements().size(), 2u);
    EXPECT_FALSE(queue.isEmpty());
}

TEST(CWDownloaderQueueTests, SpeedTrackerAveragesAndKeepsItsAverageWhileStalled) {
    using Clock = CWDownloaderSpeedTracker::Clock;
    using std::chrono::milliseconds;
    auto start = Clock::now();
    CWDownloaderSpeedTracker tracker(start);
    tracker.updateSpeedAt(start + milliseconds(1000));
    EXPECT_EQ(tracker.averageBytesPerSecond(), 0u);

    tracker.didGetBytes(1000);
    // No time has passed: no speed can be told.
    tracker.updateSpeedAt(start);
    EXPECT_EQ(tracker.averageBytesPerSecond(), 0u);
    tracker.updateSpeedAt(start + milliseconds(2000));
    EXPECT_EQ(tracker.averageBytesPerSecond(), 500u);
    // Stalled: nothing new, the average stands however long it takes.
    tracker.updateSpeedAt(start + milliseconds(60000));
    EXPECT_EQ(tracker.averageBytesPerSecond(), 500u);
    // 4003 bytes in 4 s: 1000 per second whole, averaged with 500 in integers.
    tracker.didGetBytes(3003);
    tracker.updateSpeedAt(start + milliseconds(4000));
    EXPECT_EQ(tracker.averageBytesPerSecond(), 750u);
    tracker.didGetBytes(1997);  // 6000 in 3 s: 2000
    tracker.updateSpeedAt(start + milliseconds(3000));
    EXPECT_EQ(tracker.averageBytesPerSecond(), 1375u);
    tracker.didGetBytes(1);  // 6001 in 6 s: 1000, (1375 + 1000) / 2 cut to 1187
    tracker.updateSpeedAt(start + milliseconds(6000));
    EXPECT_EQ(tracker.averageBytesPerSecond(), 1187u);
    EXPECT_EQ(tracker.bytesSinceQueueStart(), 6001u);
}
