// The platform services the downloads stand on: run loop, user defaults, .netrc, URLs.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <cstdlib>
#include <thread>

#include "Platform/Netrc.h"
#include "Platform/PropertyList.h"
#include "Platform/ProcessInfo.h"
#include "Platform/RunLoop.h"
#include "Platform/URL.h"
#include "Platform/UserDefaults.h"
#include "support/TempDir.h"

using platform::RunLoop;

TEST(PlatformServicesTests, RunLoopRunsPostedCallsAndTimersOnItsThread) {
    auto loop = RunLoop::current();
    EXPECT_EQ(RunLoop::current(), loop);
    EXPECT_NE(RunLoop::main(), nullptr);
    std::vector<int> order;
    std::atomic<bool> waited{false};
    std::thread poster([&] {
        for (int i = 0; i < 5; ++i) loop->perform([&order, i] { order.push_back(i); });
        loop->performAndWait([&] { waited = order.size() == 5; });
    });
    int fired = 0;
    auto timer = loop->addTimer(0.02, true, [&] { ++fired; });
    auto start = RunLoop::Clock::now();
    loop->runFor(0.25);
    double elapsed = std::chrono::duration<double>(RunLoop::Clock::now() - start).count();
    poster.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_TRUE(waited);
    EXPECT_GE(elapsed, 0.25);
    EXPECT_GE(fired, 5);
    EXPECT_LE(fired, 13);
    timer->invalidate();
    int before = fired;
    loop->runFor(0.05);
    EXPECT_EQ(fired, before);
    bool once = false;
    loop->addTimer(0, false, [&] { once = true; });
    loop->runUntil([&] { return once; });
    EXPECT_TRUE(once);
}

TEST(PlatformServicesTests, UserDefaultsReadTheProgramDomainThenTheGlobalOne) {
    testsupport::TempDir dir;
    setenv("XDG_CONFIG_HOME", dir.path().c_str(), 1);
    namespace defaults = platform::defaults;
    EXPECT_EQ(defaults::pathForDomain("crateworks"), dir / "ferryhold/crateworks.plist");
    EXPECT_FALSE(defaults::objectForKey("CrateworksLogHTTP"));
    platform::Dictionary global{{"CrateworksLogHTTP", true}, {"QuarnLanguages", platform::Array{"de", "en"}}};
    platform::Dictionary own{{"CrateworksLogHTTP", false}};
    std::filesystem::create_directories(dir / "ferryhold");
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(global), defaults::pathForDomain(".GlobalPreferences")));
    EXPECT_TRUE(defaults::boolForKey("CrateworksLogHTTP"));
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(own),
                                              defaults::pathForDomain(platform::process::processName())));
    EXPECT_FALSE(defaults::boolForKey("CrateworksLogHTTP"));
    EXPECT_EQ(defaults::objectForKey("QuarnLanguages")->array()->size(), 2u);
    unsetenv("XDG_CONFIG_HOME");
}

TEST(PlatformServicesTests, NetrcPrefersTheHostsEntryOverTheDefault) {
    const char* text = "default login any password anything\n"
                       "machine a.example login alice password one\n"
                       "macdef init\ncd /\n\n"
                       "machine b.example login bob password two\n";
    EXPECT_EQ(platform::netrc::credentialForHost("b.example", text), (platform::URLCredential{"bob", "two"}));
    EXPECT_EQ(platform::netrc::credentialForHost("a.example", text), (platform::URLCredential{"alice", "one"}));
    EXPECT_EQ(platform::netrc::credentialForHost("c.example", text), (platform::URLCredential{"any", "anything"}));
    EXPECT_FALSE(platform::netrc::credentialForHost("c.example", "machine a login x password y\n"));
}

TEST(PlatformServicesTests, URLsResolveAndDecode) {
    auto base = platform::URL::parse("http://host:8080/a/b/index.product");
    ASSERT_TRUE(base);
    EXPECT_EQ(base->port(), 8080);
    EXPECT_EQ(platform::URL::parse("../c%20d.pkg", *base)->absoluteString(), "http://host:8080/a/c%20d.pkg");
    EXPECT_EQ(platform::URL::parse("../c%20d.pkg", *base)->path(), "/a/c d.pkg");
    EXPECT_EQ(platform::URL::parse("https://x/")->port(), 443);
    auto file = platform::URL::fileURL("/tmp/a b#c");
    EXPECT_EQ(platform::URL::parse(file.absoluteString())->path(), "/tmp/a b#c");
    EXPECT_FALSE(platform::URL::parse("no scheme here"));
    EXPECT_EQ(platform::percentDecode("100%25 %zz%4"), "100% %zz%4");
}
