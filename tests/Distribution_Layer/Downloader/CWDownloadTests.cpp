// The download factory, the abstract operations and the file copy.
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

#include "Distribution_Layer/Downloader/CWFileDownload.h"
#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "Distribution_Layer/Downloader/CWURLDownload.h"
#include "Platform/Exception.h"
#include "Platform/File.h"
#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "RecordingDelegate.h"
#include "support/TempDir.h"

using namespace crateworks;
using downloadtests::RecordingDelegate;
using platform::URL;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

std::string pattern(size_t size) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i) s[i] = char(i * 7 + i / 251);
    return s;
}

int64_t soFar(const platform::Data& resume) {
    return *platform::plist::readBytes(resume)->dictionary()->find("Downloaded So Far")->integer();
}

// The errno a copy failure carries, absent for the codes that have none.
std::optional<int64_t> errnoOf(const platform::Error& error) {
    const platform::Value* value = error.userInfo.find("errno");
    return value ? value->integer() : std::nullopt;
}

}  // namespace

TEST(CWDownloadTests, ChoosesTheLastClassThatTakesTheURL) {
    auto original = CWDownload::_downloadClasses();
    RecordingDelegate delegate;
    EXPECT_EQ(CWDownload::downloadWithURL(*URL::parse("https://localhost/x"), &delegate), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<CWURLDownload>(CWDownload::downloadWithURL(*URL::parse("http://localhost/x"),
                                                                                   &delegate)),
              nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<CWFileDownload>(CWDownload::downloadWithURL(URL::fileURL("/tmp/x"), &delegate)),
              nullptr);
    EXPECT_EQ(CWDownload::downloadWithURL(*URL::parse("ftp://localhost/x"), &delegate), nullptr);

    CWDownload::addDownloadClass(CWSecureURLDownload::downloadClass());
    auto secure = CWDownload::downloadWithURL(*URL::parse("https://localhost/x"), &delegate);
    EXPECT_NE(std::dynamic_pointer_cast<CWSecureURLDownload>(secure), nullptr);
    // A later class that also takes http wins over the first ones.
    CWDownload::addDownloadClass(CWFileDownload::downloadClass());
    CWDownloadClass greedy = CWSecureURLDownload::downloadClass();
    greedy.canDownloadURL = [](const URL&) { return true; };
    CWDownload::addDownloadClass(greedy);
    EXPECT_NE(std::dynamic_pointer_cast<CWSecureURLDownload>(
                  CWDownload::downloadWithURL(*URL::parse("http://localhost/x"), &delegate)),
              nullptr);
    secure->cancel();
    CWDownload::_downloadClasses() = original;
}

TEST(CWDownloadTests, AbstractOperationsRaiseNamedExceptions) {
    struct Bare : CWDownload {
        Bare() : CWDownload(nullptr) {}
    } bare;
    auto expectRaise = [](auto call, const std::string& operation) {
        try {
            call();
            ADD_FAILURE() << operation << " did not raise";
        } catch (const platform::Exception& e) {
            EXPECT_EQ(e.name(), "Method Not Implemented In Subclass");
            EXPECT_EQ(e.reason(), "This CWDownload Type does not implement: " + operation);
        }
    };
    expectRaise([&] { bare.cancel(); }, "cancel");
    expectRaise([&] { bare.sourcePath(); }, "sourcePath");
    expectRaise([&] { bare.sourceURL(); }, "sourceURL");
    expectRaise([&] { bare.resumeData(); }, "resumeData");
    EXPECT_FALSE(bare.validatesDuringDownload());
    EXPECT_FALSE(CWDownload::canDownloadURL(URL::fileURL("/x")));
}

TEST(CWDownloadTests, FileCopyReportsOnTheCreatingThreadIn2048ByteSteps) {
    TempDir dir;
    std::string source = pattern(10'000);
    writeFile(dir / "src bin", source);
    RecordingDelegate delegate;
    auto download = CWDownload::downloadWithURL(URL::fileURL(dir / "src bin"), &delegate);
    ASSERT_NE(download, nullptr);
    EXPECT_EQ(download->sourcePath(), dir / "src bin");
    download->setDestination(dir / "dst", false);
    delegate.wait();
    EXPECT_EQ(delegate.events, (std::vector<std::string>{"begin", "finish"}));
    EXPECT_EQ(delegate.bytes, 10'000u);
    EXPECT_EQ(delegate.threads.size(), 2u + 5u);  // two events and ceil(10000 / 2048) data callbacks
    for (auto id : delegate.threads) EXPECT_EQ(id, std::this_thread::get_id());
    EXPECT_EQ(readFile(dir / "dst"), source);
    auto resume = download->resumeData();
    ASSERT_TRUE(resume);
    EXPECT_EQ(soFar(*resume), 10'000);
}

TEST(CWDownloadTests, FreshCopyOntoAnExistingDestinationFailsWithCode1) {
    TempDir dir;
    writeFile(dir / "src", "new contents");
    writeFile(dir / "dst", "old contents");
    RecordingDelegate delegate;
    auto download = CWDownload::downloadWithURL(URL::fileURL(dir / "src"), &delegate);
    download->setDeletesFileUponFailure(true);
    download->setDestination(dir / "dst", false);
    delegate.wait();
    ASSERT_TRUE(delegate.error);
    EXPECT_EQ(delegate.error->domain, "com.quarn.Crateworks.CWFileDownload");
    EXPECT_EQ(delegate.error->code, 1);
    EXPECT_EQ(errnoOf(*delegate.error), std::nullopt);
    EXPECT_EQ(readFile(dir / "dst"), "old contents");

    RecordingDelegate missing;
    auto noSource = CWDownload::downloadWithURL(URL::fileURL(dir / "absent"), &missing);
    noSource->setDestination(dir / "out", true);
    missing.wait();
    ASSERT_TRUE(missing.error);
    EXPECT_EQ(missing.error->code, 2);
    EXPECT_EQ(errnoOf(*missing.error), ENOENT);
}

// A FIFO as the source ends at once as if empty when nothing writes to it, and waits
// (EAGAIN) when something holds it open without writing; a device may never end. Only a
// regular file is opened as a source: anything else fails with code 2 and says what it is.
TEST(CWDownloadTests, ASourceThatIsNotARegularFileFailsWithCode2) {
    TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    auto writer = platform::fs::File::open(dir / "fifo", {.access = platform::fs::OpenOptions::Access::ReadWrite});
    ASSERT_TRUE(writer);
    for (const std::string& source : {dir / "fifo", std::string("/dev/zero"), dir.path()}) {
        SCOPED_TRACE(source);
        RecordingDelegate delegate;
        auto download = CWDownload::downloadWithURL(URL::fileURL(source), &delegate);
        download->setDestination(dir / "dst", true);
        delegate.wait();
        ASSERT_TRUE(delegate.error);
        EXPECT_EQ(delegate.error->code, 2);
        EXPECT_NE(delegate.error->description().find("not a regular file"), std::string::npos)
            << delegate.error->description();
        EXPECT_EQ(0u, delegate.bytes);
        EXPECT_EQ(std::count(delegate.events.begin(), delegate.events.end(), "finish"), 0);
    }
    writer->close();
}

TEST(CWDownloadTests, FileResumeDataIsCheckedAgainstTheDestination) {
    TempDir dir;
    writeFile(dir / "src", "0123456789");
    writeFile(dir / "dst", "01234");
    platform::Dictionary d{{"Resume Data Type", "CWFileDownload"}, {"Source Path", dir / "src"},
                           {"Downloaded So Far", int64_t(4)}};
    auto wrongSize = platform::plist::toBinary(platform::Value(d));
    RecordingDelegate delegate;
    EXPECT_EQ(CWDownload::downloadWithResumeData(wrongSize, dir / "dst", &delegate), nullptr);
    EXPECT_EQ(CWFileDownload::initWithResumeData(wrongSize, "", &delegate), nullptr);

    d.set("Downloaded So Far", int64_t(5));
    auto right = platform::plist::toBinary(platform::Value(d));
    EXPECT_FALSE(CWURLDownload::canDownloadWithResumeData(right));
    auto download = CWDownload::downloadWithResumeData(right, dir / "dst", &delegate);
    ASSERT_NE(std::dynamic_pointer_cast<CWFileDownload>(download), nullptr);
    delegate.wait();
    EXPECT_EQ(delegate.events, (std::vector<std::string>{"begin", "resume 5", "finish"}));
    // The copy appends from the source's first byte: a kept quirk of this class.
    EXPECT_EQ(readFile(dir / "dst"), "012340123456789");
    EXPECT_EQ(soFar(*download->resumeData()), 15);
}

// Resume data lies beside the partial file, where whoever can write that folder can plant
// it. Naming another source than the one being fetched, it starts nothing: not one byte
// of that source reaches the partial file. And the copy never writes through a link.
TEST(CWDownloadTests, ResumeDataNamingAnotherSourceStartsNothing) {
    TempDir dir;
    writeFile(dir / "package", "the package");
    writeFile(dir / "secret", "not for the partial file");
    writeFile(dir / "partial", "");
    auto naming = [&](const std::string& source) {
        return platform::plist::toBinary(platform::Value(platform::Dictionary{
            {"Resume Data Type", "CWFileDownload"}, {"Source Path", source}, {"Downloaded So Far", int64_t(0)}}));
    };
    EXPECT_EQ(CWFileDownload::sourceURLOfResumeData(naming(dir / "secret")), URL::fileURL(dir / "secret"));
    RecordingDelegate delegate;
    EXPECT_EQ(CWDownload::downloadWithResumeData(naming(dir / "secret"), dir / "partial", &delegate,
                                                 URL::fileURL(dir / "package")),
              nullptr);
    platform::RunLoop::current()->runFor(0.2);
    EXPECT_EQ(readFile(dir / "partial"), "");
    EXPECT_TRUE(delegate.events.empty());

    // The right source continues (from its first byte, as every file resume does).
    auto download = CWDownload::downloadWithResumeData(naming(dir / "package"), dir / "partial", &delegate,
                                                       URL::fileURL(dir / "package"));
    ASSERT_NE(download, nullptr);
    delegate.wait();
    EXPECT_EQ(readFile(dir / "partial"), "the package");

    // A partial file that is a link to another file of the same size is not written through.
    writeFile(dir / "victim", "");
    ASSERT_EQ(symlink((dir / "victim").c_str(), (dir / "linked").c_str()), 0);
    RecordingDelegate linked;
    auto throughLink = CWDownload::downloadWithResumeData(naming(dir / "package"), dir / "linked", &linked,
                                                          URL::fileURL(dir / "package"));
    ASSERT_NE(throughLink, nullptr);
    linked.wait();
    EXPECT_EQ(readFile(dir / "victim"), "");
    ASSERT_TRUE(linked.error);
    EXPECT_EQ(linked.error->code, kCWFileDownloadCannotOpenDestination);
}

TEST(CWDownloadTests, EachClassRefusesTheOthersResumeData) {
    platform::Dictionary url{{"Resume Data Type", "CWURLDownload"}, {"HostURL Resume Data", platform::Data{1, 2}}};
    auto urlResume = platform::plist::toBinary(platform::Value(url));
    EXPECT_TRUE(CWURLDownload::canDownloadWithResumeData(urlResume));
    EXPECT_FALSE(CWFileDownload::canDownloadWithResumeData(urlResume));
    EXPECT_FALSE(CWSecureURLDownload::canDownloadWithResumeData(urlResume));
    EXPECT_EQ(CWFileDownload::initWithResumeData(urlResume, "/tmp/x", nullptr), nullptr);
    // The blob inside is not the service's resume data, so even the right class says no.
    EXPECT_EQ(CWURLDownload::initWithResumeData(urlResume, "/tmp/x", nullptr), nullptr);
    EXPECT_FALSE(CWDownload::canDownloadWithResumeData(urlResume));
    EXPECT_EQ(CWDownload::downloadWithResumeData(platform::Data{'x'}, "/tmp/x", nullptr), nullptr);
}

TEST(CWDownloadTests, CancelWaitsForTheCopyThreadAndKeepsTheCount) {
    TempDir dir;
    // A sparse source far larger than can be copied in the time the test lets it run.
    writeFile(dir / "huge", "");
    ASSERT_EQ(truncate((dir / "huge").c_str(), off_t(64) << 30), 0);
    RecordingDelegate delegate;
    auto download = CWDownload::downloadWithURL(URL::fileURL(dir / "huge"), &delegate);
    download->setDestination(dir / "dst", true);
    platform::RunLoop::current()->runFor(0.05);
    download->cancel();
    EXPECT_FALSE(delegate.done);
    struct stat st {};
    ASSERT_EQ(stat((dir / "dst").c_str(), &st), 0);
    EXPECT_GT(st.st_size, 0);
    EXPECT_EQ(soFar(*download->resumeData()), st.st_size);
    // Every data callback sent before the cancel has arrived.
    EXPECT_EQ(int64_t(delegate.bytes), st.st_size);
}

TEST(CWDownloadTests, UnknownRemotedCallbacksAreLogged) {
    std::vector<std::pair<int, std::string>> logged;
    auto previous = platform::setSystemLogSink([&](int p, std::string_view m) { logged.emplace_back(p, m); });
    RecordingDelegate delegate;
    auto download = CWFileDownload::initWithURL(URL::fileURL("/dev/null"), &delegate);
    download->_currentThreadCallback({std::string("download:didCheckDataOfLength:"), download, int64_t(5)});
    download->_currentThreadCallback({std::string("downloadDidFinish:"), download, int64_t(5)});
    download->_currentThreadCallback({std::string("download:notACallback:"), download});
    platform::setSystemLogSink(previous);
    ASSERT_EQ(logged.size(), 2u);
    EXPECT_EQ(logged[0].first, (14 << 3) | 4);
    EXPECT_EQ(logged[0].second, "Unknown remoted callback gotten in CWFileDownload: download:didCheckDataOfLength:");
    EXPECT_EQ(logged[1].second, "Unknown remoted callback gotten in CWFileDownload: downloadDidFinish:");
    EXPECT_TRUE(delegate.events.empty());
}
