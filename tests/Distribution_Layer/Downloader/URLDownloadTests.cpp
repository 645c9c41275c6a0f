// URL downloads and synchronous loads against nginx and the fault server.
#include <gtest/gtest.h>

#include <cstdlib>

#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "Distribution_Layer/Downloader/CWURLConnection.h"
#include "Distribution_Layer/Downloader/CWURLDownload.h"
#include "Platform/FileSystem.h"
#include "Platform/URLConnection.h"
#include "Platform/URLErrors.h"
#include "RecordingDelegate.h"
#include "TestServers.h"
#include "support/TempDir.h"

using namespace crateworks;
using downloadtests::FaultServer;
using downloadtests::NginxServer;
using downloadtests::RecordingDelegate;
using platform::URL;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

class URLDownloadTests : public ::testing::Test {
protected:
    TempDir dir;
    NginxServer nginx{dir.path()};
    FaultServer faults;

    void SetUp() override {
        // No ~/.netrc of the machine's may answer a challenge.
        setenv("HOME", dir.path().c_str(), 1);
    }

    std::shared_ptr<CWDownload> fetch(const std::string& url, const std::string& dst, RecordingDelegate& delegate) {
        auto download = CWDownload::downloadWithURL(*URL::parse(url), &delegate);
        download->setDeletesFileUponFailure(false);
        download->setDestination(dst, true);
        delegate.wait();
        return download;
    }

    std::optional<platform::Data> load(const std::string& url, std::optional<platform::URLResponse>* response,
                                       platform::Error* error) {
        return CWURLConnection::sendSynchronousRequest(platform::URLRequest(*URL::parse(url)), response, error);
    }
};

std::string text(const platform::Data& d) { return std::string(d.begin(), d.end()); }

}  // namespace

TEST_F(URLDownloadTests, ResumeAfterADroppedConnectionSendsRangeAndEndsIdentical) {
    RecordingDelegate first;
    auto cut = fetch(faults.url("/drop/100000"), dir / "out", first);
    ASSERT_TRUE(first.error);
    EXPECT_EQ(first.error->code, platform::kURLErrorNetworkConnectionLost);
    EXPECT_EQ(readFile(dir / "out").size(), 100'000u);
    auto resume = cut->resumeData();
    ASSERT_TRUE(resume);

    RecordingDelegate second;
    auto resumed = CWDownload::downloadWithResumeData(*resume, dir / "out", &second);
    ASSERT_NE(std::dynamic_pointer_cast<CWURLDownload>(resumed), nullptr);
    EXPECT_EQ(resumed->sourceURL().absoluteString(), faults.url("/drop/100000"));
    resumed->setDelegate(&second);
    second.wait();
    EXPECT_EQ(second.events, (std::vector<std::string>{"begin", "resume 100000", "finish"}));
    EXPECT_EQ(readFile(dir / "out"), FaultServer::body(1));
    auto heads = faults.requests();
    ASSERT_EQ(heads.size(), 2u);
    EXPECT_NE(heads[1].find("Range: bytes=100000-"), std::string::npos);
    EXPECT_NE(heads[1].find("If-Range: \"v1\""), std::string::npos);

    // A delegate answering only to the correct spelling is not told of URL resumes.
    RecordingDelegate third;
    third.hearsURLResumes = false;
    ::truncate((dir / "out").c_str(), 5000);
    auto again = CWDownload::downloadWithResumeData(*resume, dir / "out", nullptr);
    again->setDelegate(&third);
    third.wait();
    EXPECT_EQ(third.events, (std::vector<std::string>{"begin", "finish"}));
    EXPECT_EQ(readFile(dir / "out"), FaultServer::body(1));
}

TEST_F(URLDownloadTests, ChangedValidatorRestartsFromZero) {
    RecordingDelegate first;
    auto download = fetch(faults.url("/changing"), dir / "out", first);
    ASSERT_EQ(first.events.back(), "finish");
    auto resume = download->resumeData();
    ASSERT_TRUE(resume);
    ::truncate((dir / "out").c_str(), 1000);
    RecordingDelegate second;
    auto resumed = CWDownload::downloadWithResumeData(*resume, dir / "out", nullptr);
    resumed->setDelegate(&second);
    second.wait();
    EXPECT_EQ(second.events, (std::vector<std::string>{"begin", "resume 0", "finish"}));
    EXPECT_EQ(readFile(dir / "out"), FaultServer::body(2));
}

TEST_F(URLDownloadTests, ShortBodyFailsAndStaysResumable) {
    RecordingDelegate delegate;
    auto download = fetch(faults.url("/short"), dir / "out", delegate);
    ASSERT_TRUE(delegate.error);
    EXPECT_EQ(delegate.error->code, platform::kURLErrorNetworkConnectionLost);
    EXPECT_EQ(readFile(dir / "out").size(), FaultServer::kBodySize / 2);
    EXPECT_TRUE(download->resumeData());
}

TEST_F(URLDownloadTests, RedirectsAreFollowedAndTheHookCanRefuseOne) {
    RecordingDelegate delegate;
    fetch(nginx.url("/redirect2"), dir / "out", delegate);
    EXPECT_EQ(delegate.events.back(), "finish");
    EXPECT_EQ(readFile(dir / "out"), "small file body\n");
    EXPECT_EQ(delegate.requestedURLs, (std::vector<std::string>{nginx.url("/redirect2"), nginx.url("/redirect"),
                                                                nginx.url("/files/small.bin")}));

    RecordingDelegate refusing;
    refusing.allowRedirects = false;
    auto refused = fetch(nginx.url("/redirect"), dir / "refused", refusing);
    ASSERT_TRUE(refusing.error);
    EXPECT_EQ(refusing.error->code, platform::kURLErrorCancelled);
    EXPECT_FALSE(platform::fs::exists(dir / "refused"));
}

// A server chooses where a redirect goes; it must not reach a local file, step down from
// https to http, or go round for ever.
TEST_F(URLDownloadTests, RedirectsGoOnlyToHTTPNeverDownFromHTTPSAndNotForEver) {
    writeFile(dir / "local.txt", "local secret\n");
    faults.redirect("/to-file", URL::fileURL(dir / "local.txt").absoluteString());
    RecordingDelegate toFile;
    fetch(faults.url("/to-file"), dir / "out", toFile);
    ASSERT_TRUE(toFile.error);
    EXPECT_EQ(toFile.error->code, platform::kURLErrorUnsupportedURL);
    EXPECT_FALSE(platform::fs::exists(dir / "out"));
    platform::Error error;
    EXPECT_FALSE(load(faults.url("/to-file"), nullptr, &error));
    EXPECT_EQ(error.code, platform::kURLErrorUnsupportedURL);

    // nginx's https port sends /to-http to its plain port.
    CWSecureURLDownload::setCertificateAuthorityFile(nginx.caFile());
    RecordingDelegate down;
    auto secure = CWSecureURLDownload::initWithURL(*URL::parse(nginx.httpsURL("/to-http")), &down);
    secure->setDestination(dir / "downgraded", true);
    down.wait();
    CWSecureURLDownload::setCertificateAuthorityFile(std::nullopt);
    ASSERT_TRUE(down.error);
    EXPECT_EQ(down.error->code, platform::kURLErrorSecureConnectionFailed);
    EXPECT_FALSE(platform::fs::exists(dir / "downgraded"));

    // The limit itself is followed; one more is not.
    constexpr int limit = platform::URLConnection::kMaximumRedirects;
    for (int hop = 1; hop <= limit; ++hop)
        faults.redirect("/hop/" + std::to_string(hop), hop == limit ? "/landed" : "/hop/" + std::to_string(hop + 1));
    auto body = load(faults.url("/hop/1"), nullptr, &error);
    ASSERT_TRUE(body);
    EXPECT_EQ(body->size(), FaultServer::kBodySize);
    size_t before = faults.requests().size();
    faults.redirect("/loop", "/loop");
    EXPECT_FALSE(load(faults.url("/loop"), nullptr, &error));
    EXPECT_EQ(error.code, platform::kURLErrorHTTPTooManyRedirects);
    EXPECT_EQ(faults.requests().size() - before, size_t(limit + 1));

    auto allowed = [](const char* from, const char* to) {
        return platform::URLConnection::redirectAllowed(*URL::parse(from), *URL::parse(to));
    };
    EXPECT_TRUE(allowed("http://a/x", "https://b/y"));
    EXPECT_TRUE(allowed("https://a/x", "https://b/y"));
    EXPECT_TRUE(allowed("http://a/x", "http://b/y"));
    EXPECT_FALSE(allowed("https://a/x", "http://a/x"));
    EXPECT_FALSE(allowed("http://a/x", "file:///etc/passwd"));
    EXPECT_FALSE(allowed("http://a/x", "ftp://a/x"));
}

// A credential answers the origin that asked for it: after a redirect to another port
// (another origin, though the host is the same) no Authorization header goes out.
TEST_F(URLDownloadTests, CredentialsAreNotSentToAnotherOriginAfterARedirect) {
    FaultServer other;
    writeFile(dir / ".netrc", "machine 127.0.0.1 login crate password works\n");
    faults.redirect("/auth/away", other.url("/landed"));
    faults.redirect("/auth/near", "/auth/kept");
    auto hasAuthorization = [](const std::string& head) { return head.find("\r\nAuthorization:") != std::string::npos; };

    platform::Error error;
    auto body = load(faults.url("/auth/away"), nullptr, &error);
    ASSERT_TRUE(body) << error.description();
    EXPECT_EQ(body->size(), FaultServer::kBodySize);
    RecordingDelegate download;
    fetch(faults.url("/auth/away"), dir / "out", download);
    EXPECT_EQ(download.events.back(), "finish");
    auto landed = other.requests();
    ASSERT_EQ(landed.size(), 2u);
    for (const auto& head : landed) EXPECT_FALSE(hasAuthorization(head)) << head;
    // It was sent where it belonged, and still goes along within that origin.
    auto asked = faults.requests();
    ASSERT_FALSE(asked.empty());
    EXPECT_TRUE(hasAuthorization(asked.back()));
    EXPECT_TRUE(load(faults.url("/auth/near"), nullptr, &error)) << error.description();
    EXPECT_TRUE(hasAuthorization(faults.requests().back()));
}

TEST_F(URLDownloadTests, HTTPErrorsWriteNothingAndLeaveNoResumeData) {
    RecordingDelegate delegate;
    auto download = fetch(nginx.url("/missing"), dir / "out", delegate);
    ASSERT_TRUE(delegate.error);
    EXPECT_EQ(delegate.response->statusCode, 404);
    EXPECT_EQ(delegate.error->userInfo.find(platform::kURLErrorHTTPStatusKey)->integer(), 404);
    EXPECT_FALSE(platform::fs::exists(dir / "out"));
    EXPECT_FALSE(download->resumeData());
}

TEST_F(URLDownloadTests, AuthenticationChallengesUseTheNetrcCredentialOnce) {
    RecordingDelegate without;
    fetch(nginx.url("/auth/secret.txt"), dir / "none", without);
    EXPECT_EQ(without.events, (std::vector<std::string>{"begin", "challenge 0", "response 401", "fail"}));
    EXPECT_FALSE(platform::fs::exists(dir / "none"));

    writeFile(dir / ".netrc", "machine elsewhere login x password y\nmachine 127.0.0.1 login crate password works\n");
    RecordingDelegate with;
    fetch(nginx.url("/auth/secret.txt"), dir / "with", with);
    EXPECT_EQ(with.events, (std::vector<std::string>{"begin", "challenge 0", "response 200", "finish"}));
    EXPECT_EQ(readFile(dir / "with"), "secret body\n");

    writeFile(dir / ".netrc", "default login crate password wrong\n");
    RecordingDelegate wrong;
    fetch(nginx.url("/auth/secret.txt"), dir / "wrong", wrong);
    EXPECT_EQ(wrong.events,
              (std::vector<std::string>{"begin", "challenge 0", "challenge 1", "response 401", "fail"}));
}

TEST_F(URLDownloadTests, HTTPSNeedsTheRightAuthority) {
    CWSecureURLDownload::setCertificateAuthorityFile(nginx.caFile());
    RecordingDelegate trusted;
    auto ok = CWSecureURLDownload::initWithURL(*URL::parse(nginx.httpsURL("/files/small.bin")), &trusted);
    ok->setDestination(dir / "ok", true);
    trusted.wait();
    EXPECT_EQ(trusted.events.back(), "finish");
    EXPECT_EQ(readFile(dir / "ok"), "small file body\n");

    CWSecureURLDownload::setCertificateAuthorityFile(nginx.otherCAFile());
    RecordingDelegate untrusted;
    auto refused = CWSecureURLDownload::initWithURL(*URL::parse(nginx.httpsURL("/files/small.bin")), &untrusted);
    refused->setDestination(dir / "refused", true);
    untrusted.wait();
    ASSERT_TRUE(untrusted.error);
    EXPECT_EQ(untrusted.error->code, platform::kURLErrorServerCertificateUntrusted);
    EXPECT_FALSE(platform::fs::exists(dir / "refused"));
    CWSecureURLDownload::setCertificateAuthorityFile(std::nullopt);
}

TEST_F(URLDownloadTests, SynchronousLoadsTurnHTTPErrorsIntoErrors) {
    for (auto [path, status, code] : {std::tuple{"/forbidden", 403, -1102}, {"/missing", 404, -1100},
                                      {"/broken", 500, -1100}}) {
        // Set to no response at all, whatever it held before.
        std::optional<platform::URLResponse> response = platform::URLResponse(*URL::parse(nginx.url("/")));
        platform::Error error;
        EXPECT_FALSE(load(nginx.url(path), &response, &error)) << path;
        EXPECT_FALSE(response) << path;
        EXPECT_EQ(error.domain, platform::kURLErrorDomain);
        EXPECT_EQ(error.code, code) << path;
        EXPECT_EQ(error.userInfo.find("CWURLErrorStatusCode")->integer(), status);
        const platform::Dictionary* headers = error.userInfo.findDictionary("CWURLErrorResponseHeaders");
        ASSERT_NE(headers, nullptr);
        EXPECT_TRUE(headers->contains("Server"));
        EXPECT_EQ(*error.userInfo.findString(platform::kURLErrorFailingURLStringKey), nginx.url(path));
    }
    std::optional<platform::URLResponse> response;
    platform::Error error;
    auto body = load(nginx.url("/redirect"), &response, &error);
    ASSERT_TRUE(body);
    EXPECT_EQ(text(*body), "small file body\n");
    EXPECT_EQ(response->statusCode, 200);

    writeFile(dir / "local file", "local");
    auto local = load(URL::fileURL(dir / "local file").absoluteString(), &response, &error);
    ASSERT_TRUE(local);
    EXPECT_EQ(text(*local), "local");
}

TEST_F(URLDownloadTests, SynchronousLoadsSendTheUserAgentAndAnswerChallenges) {
    CWURLConnection::setUserAgent("Crateworks-Test/1.0");
    platform::Error error;
    EXPECT_TRUE(load(faults.url("/changing"), nullptr, &error));
    ASSERT_EQ(faults.requests().size(), 1u);
    EXPECT_NE(faults.requests()[0].find("User-Agent: Crateworks-Test/1.0"), std::string::npos);
    CWURLConnection::setUserAgent(std::nullopt);

    EXPECT_FALSE(load(nginx.url("/auth/secret.txt"), nullptr, &error));
    EXPECT_EQ(error.code, -1100);
    EXPECT_EQ(error.userInfo.find("CWURLErrorStatusCode")->integer(), 401);
    writeFile(dir / ".netrc", "machine 127.0.0.1 login crate password works\n");
    auto body = load(nginx.url("/auth/secret.txt"), nullptr, &error);
    ASSERT_TRUE(body);
    EXPECT_EQ(text(*body), "secret body\n");
}

TEST_F(URLDownloadTests, AnIdleTransferTimesOut) {
    platform::URLRequest request(*URL::parse(faults.url("/stall")), 0, 1);
    platform::Error error;
    EXPECT_FALSE(CWURLConnection::sendSynchronousRequest(request, nullptr, &error));
    EXPECT_EQ(error.code, platform::kURLErrorTimedOut);
}

// A file URL loads only a regular file: a device would be read until memory ran out, a
// FIFO with no writer would load as empty.
TEST_F(URLDownloadTests, AFileURLToSomethingOtherThanARegularFileFailsAtOnce) {
    testsupport::TempDir dir;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    testsupport::writeFile(dir / "plain", "plain body");
    platform::Error error;
    for (const std::string& path : {std::string("/dev/zero"), dir / "fifo"}) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(load(URL::fileURL(path).absoluteString(), nullptr, &error));
        EXPECT_EQ(error.code, platform::kURLErrorNoPermissionsToReadFile);
        EXPECT_NE(error.description().find("not a regular file"), std::string::npos) << error.description();
    }
    EXPECT_FALSE(load(URL::fileURL(dir.path()).absoluteString(), nullptr, &error));
    EXPECT_EQ(error.code, platform::kURLErrorFileIsDirectory);
    auto body = load(URL::fileURL(dir / "plain").absoluteString(), nullptr, &error);
    ASSERT_TRUE(body);
    EXPECT_EQ(text(*body), "plain body");
}
