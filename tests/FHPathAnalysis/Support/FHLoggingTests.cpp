#include <gtest/gtest.h>

#include <array>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FHPathAnalysis/Support/FHLogging.h"
#include "Platform/Log.h"

namespace {

struct SystemLogEntry {
    int priority;
    std::string message;
};

// Replaces the system-log sink for the life of a test and records what reaches it.
class SystemLogCapture {
public:
    SystemLogCapture() {
        previous_ = platform::setSystemLogSink([this](int priority, std::string_view message) {
            std::lock_guard guard(lock_);
            entries_.push_back({priority, std::string(message)});
        });
    }
    ~SystemLogCapture() { platform::setSystemLogSink(std::move(previous_)); }

    std::vector<SystemLogEntry> entries() {
        std::lock_guard guard(lock_);
        return entries_;
    }

private:
    platform::SystemLogSink previous_;
    std::mutex lock_;
    std::vector<SystemLogEntry> entries_;
};

constexpr uint32_t kEnd = FHLogging::kTypeListTerminator;

// Kept items are process-wide and never removed: tests look only at what they added.
std::vector<std::shared_ptr<FHLogItem>> itemsSince(size_t start, const FHLogging::ItemList& items) {
    std::vector<std::shared_ptr<FHLogItem>> added;
    for (const auto& item : items)
        if (item->rawString().rfind("test" + std::to_string(start) + ":", 0) == 0) added.push_back(item);
    return added;
}

}  // namespace

TEST(FHLogging, LowTypesReachTheSystemLogAtPriority115) {
    SystemLogCapture capture;
    size_t keptBefore = FHLogging::logItems().size();

    FHLog(10, " *****  ERROR: Missing ConfMigrator resource");
    FHLog(40, "boundary");
    FHLog(-1, "negative");
    FHLog(41, "above the boundary");
    FHLog(100, "detail");

    auto entries = capture.entries();
    ASSERT_EQ(3u, entries.size());
    EXPECT_EQ(" *****  ERROR: Missing ConfMigrator resource", entries[0].message);
    EXPECT_EQ("boundary", entries[1].message);
    EXPECT_EQ("negative", entries[2].message);
    for (const auto& entry : entries) EXPECT_EQ(115, entry.priority);
    // None of these types is kept.
    EXPECT_EQ(keptBefore, FHLogging::logItems().size());
}

TEST(FHLogging, TypesZeroAndFiveAreSentAndKept) {
    SystemLogCapture capture;
    size_t keptBefore = FHLogging::logItems().size();
    const std::string tag = "test" + std::to_string(keptBefore) + ":";

    FHLog(0, tag + "zero");
    int zeroLine = __LINE__ - 1;
    FHLogIn(5, "+[FHConfMigrator _confMigratorDirectory]", "{}five {}", tag, 5);
    int fiveLine = __LINE__ - 1;

    EXPECT_EQ(2u, capture.entries().size());
    auto kept = itemsSince(keptBefore, FHLogging::logItems());
    ASSERT_EQ(2u, kept.size());
    EXPECT_EQ(0, kept[0]->type());
    EXPECT_EQ(tag + "zero", kept[0]->rawString());
    EXPECT_EQ(zeroLine, kept[0]->line());
    ASSERT_TRUE(kept[0]->function());
    EXPECT_NE(std::string::npos, kept[0]->function()->find("TypesZeroAndFiveAreSentAndKept"));

    EXPECT_EQ(5, kept[1]->type());
    EXPECT_EQ(tag + "five 5", kept[1]->rawString());
    EXPECT_EQ(fiveLine, kept[1]->line());
    EXPECT_EQ("+[FHConfMigrator _confMigratorDirectory]", kept[1]->function());
}

TEST(FHLogging, LogItemsForTypesFollowsLogOrderAndRepeats) {
    SystemLogCapture capture;
    size_t keptBefore = FHLogging::logItems().size();
    const std::string tag = "test" + std::to_string(keptBefore) + ":";
    FHLog(0, tag + "first");
    FHLog(5, tag + "second");
    FHLog(0, tag + "third");

    auto messages = [&](const FHLogging::ItemList& items) {
        std::vector<std::string> out;
        for (const auto& item : itemsSince(keptBefore, items)) out.push_back(item->rawString());
        return out;
    };
    std::array<uint32_t, 2> fiveOnly{5, kEnd};
    EXPECT_EQ(std::vector<std::string>{tag + "second"}, messages(FHLogging::logItemsForTypes(fiveOnly)));

    // Item order, not type order; a type listed twice lists its items twice.
    std::array<uint32_t, 4> fiveZeroZero{5, 0, 0, kEnd};
    EXPECT_EQ((std::vector<std::string>{tag + "first", tag + "first", tag + "second", tag + "third", tag + "third"}),
              messages(FHLogging::logItemsForTypes(fiveZeroZero)));

    // The same through a terminated sequence, and nothing past the terminator counts.
    const uint32_t terminated[] = {0, kEnd, 5};
    EXPECT_EQ((std::vector<std::string>{tag + "first", tag + "third"}),
              messages(FHLogging::logItemsForTypes(terminated)));

    std::array<uint32_t, 1> terminatorOnly{kEnd};
    EXPECT_TRUE(FHLogging::logItemsForTypes(terminatorOnly).empty());
    EXPECT_TRUE(FHLogging::logItemsForTypes(nullptr).empty());
    EXPECT_TRUE(FHLogging::logItemsForTypes(std::span<const uint32_t>()).empty());
    // Types that are never kept find nothing.
    std::array<uint32_t, 3> unkept{10, 100, kEnd};
    EXPECT_TRUE(messages(FHLogging::logItemsForTypes(unkept)).empty());
}

TEST(FHLogging, ConcurrentAppendsAreAllKept) {
    SystemLogCapture capture;
    size_t keptBefore = FHLogging::logItems().size();
    const std::string tag = "test" + std::to_string(keptBefore) + ":";
    constexpr int kThreads = 4;
    constexpr int kEach = 250;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) FHLog(5, "{}{}-{}", tag, t, i);
        });
    for (auto& thread : threads) thread.join();

    std::array<uint32_t, 2> fiveOnly{5, kEnd};
    auto kept = itemsSince(keptBefore, FHLogging::logItemsForTypes(fiveOnly));
    ASSERT_EQ(size_t(kThreads * kEach), kept.size());
    EXPECT_EQ(size_t(kThreads * kEach), capture.entries().size());
    // Each thread's items stay in the order that thread logged them.
    std::array<int, kThreads> nextExpected{};
    for (const auto& item : kept) {
        std::string rest = item->rawString().substr(tag.size());
        int thread = std::stoi(rest);
        int index = std::stoi(rest.substr(rest.find('-') + 1));
        EXPECT_EQ(nextExpected[thread]++, index);
    }
}

TEST(FHLogItem, DescriptionForms) {
    platform::Date epoch{0};
    FHLogItem withFunction(5, epoch, std::string("-[FHFileSizer sizeOfPath:]"), 42, std::string("message text"));
    EXPECT_EQ("1970-01-01 00:00:00 +0000 -[FHFileSizer sizeOfPath:]:42 message text", withFunction.description());
    EXPECT_EQ("1970-01-01 00:00:00 +0000 message text", withFunction.string());
    EXPECT_EQ("message text", withFunction.rawString());

    FHLogItem withoutFunction(0, platform::Date{86400 + 3661}, std::nullopt, 7, std::string("plain"));
    EXPECT_EQ("1970-01-02 01:01:01 +0000 plain", withoutFunction.description());
    EXPECT_EQ(withoutFunction.string(), withoutFunction.description());
}

TEST(FHLogItem, DefaultsAndFormatting) {
    auto before = platform::Date::now();
    FHLogItem empty(3, std::nullopt, std::nullopt, 0, std::nullopt);
    FHLogItem plain(4, "just text {}");
    auto after = platform::Date::now();

    EXPECT_EQ("", empty.rawString());
    EXPECT_LE(before, empty.date());
    EXPECT_GE(after, empty.date());
    EXPECT_FALSE(empty.function());
    // A plain message is taken as it stands, braces and all.
    EXPECT_EQ("just text {}", plain.rawString());
    EXPECT_EQ(0, plain.line());
    EXPECT_EQ(4, plain.type());
    EXPECT_LE(before, plain.date());

    auto formatted = FHLogItem::withFormat(9, "{} of {} ({:.1f})", 3, "four", 2.5);
    EXPECT_EQ("3 of four (2.5)", formatted.rawString());
    EXPECT_EQ(9, formatted.type());
    int count = 12;
    FHLogItem viaArguments(1, "{} items", fmt::make_format_args(count));
    EXPECT_EQ("12 items", viaArguments.rawString());
}
