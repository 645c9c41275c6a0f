// How the catalogue session chooses between one walker and two: by the processors free
// at this moment, read from the kernel's count of runnable tasks.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Platform/CatalogueSession.h"

namespace {

using platform::CatalogueSession;
using Method = CatalogueSession::Method;

TEST(CatalogueSessionChoice, TwoWalkersOnlyWithAProcessorFreeForTheSecond) {
    EXPECT_EQ(Method::twoWalkers, CatalogueSession::methodForMachine(2, 0));
    EXPECT_EQ(Method::twoWalkers, CatalogueSession::methodForMachine(2, 0.4));
    EXPECT_EQ(Method::plainStatx, CatalogueSession::methodForMachine(2, 0.6));  // mostly one busy
    EXPECT_EQ(Method::plainStatx, CatalogueSession::methodForMachine(2, 1));
    EXPECT_EQ(Method::plainStatx, CatalogueSession::methodForMachine(2, 7));
    EXPECT_EQ(Method::plainStatx, CatalogueSession::methodForMachine(1, 0));  // nothing to share
    EXPECT_EQ(Method::twoWalkers, CatalogueSession::methodForMachine(4, 2));
    EXPECT_EQ(Method::plainStatx, CatalogueSession::methodForMachine(4, 2.6));
    // An unknown count is taken as a busy machine.
    EXPECT_EQ(Method::plainStatx, CatalogueSession::methodForMachine(64, 1e9));
}

// Threads that never block are runnable all the time, scheduled or waiting, so the count
// sees them whatever else the machine runs.
TEST(CatalogueSessionChoice, SpinningThreadsCountAsRunnableNow) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> spinners;
    for (int i = 0; i < 3; ++i)
        spinners.emplace_back([&stop] {
            while (!stop.load(std::memory_order_relaxed)) {
            }
        });
    double others = CatalogueSession::otherRunnableTasksNow();
    stop = true;
    for (auto& spinner : spinners) spinner.join();
    EXPECT_GE(others, 2.5);
    EXPECT_LT(others, 1e6);  // the kernel's count could be read
    EXPECT_EQ(Method::plainStatx, CatalogueSession::methodForMachine(2, others));
}

}  // namespace
