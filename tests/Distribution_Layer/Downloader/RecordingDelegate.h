// A download delegate that records what it is told, and runs a download to its end.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Platform/RunLoop.h"

namespace downloadtests {

class RecordingDelegate : public crateworks::CWDownloadDelegate {
public:
    std::vector<std::string> events;
    std::vector<std::thread::id> threads;
    std::optional<platform::Error> error;
    std::optional<platform::URLResponse> response;
    uint64_t bytes = 0;
    int64_t resumedFrom = -1;
    bool done = false;
    // Answers to "download:willResumeFomByte:" as well, to hear URL resumes.
    bool hearsURLResumes = true;
    // Hook answer for redirects: false refuses them.
    bool allowRedirects = true;
    std::vector<std::string> requestedURLs;

    bool respondsToSelector(std::string_view selector) const override {
        if (selector == "download:willResumeFomByte:") return hearsURLResumes;
        return CWDownloadDelegate::respondsToSelector(selector);
    }
    void downloadDidBegin(crateworks::CWDownload&) override { note("begin"); }
    void downloadWillResumeFromByte(crateworks::CWDownload&, int64_t offset) override {
        resumedFrom = offset;
        note("resume " + std::to_string(offset));
    }
    void downloadDidReceiveDataOfLength(crateworks::CWDownload&, uint64_t length) override {
        bytes += length;
        threads.push_back(std::this_thread::get_id());
    }
    void downloadDidFinish(crateworks::CWDownload&) override {
        note("finish");
        done = true;
    }
    void downloadDidFailWithError(crateworks::CWDownload&, const platform::Error& e) override {
        note("fail");
        error = e;
        done = true;
    }
    std::optional<platform::URLRequest> downloadWillSendRequestRedirectResponse(
        crateworks::CWDownload&, platform::URLRequest request,
        const std::optional<platform::URLResponse>& redirect) override {
        requestedURLs.push_back(request.url.absoluteString());
        if (redirect && !allowRedirects) return std::nullopt;
        return request;
    }
    void downloadDidReceiveResponse(crateworks::CWDownload&, const platform::URLResponse& r) override {
        response = r;
        note("response " + std::to_string(r.statusCode));
    }
    void downloadDidReceiveAuthenticationChallenge(
        crateworks::CWDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& c) override {
        note("challenge " + std::to_string(c->previousFailureCount()));
        if (c->previousFailureCount() == 0 && c->proposedCredential()) c->useCredential(*c->proposedCredential());
        else c->cancel();
    }

    // Runs the current loop until the download ends (or 20 s pass).
    void wait() {
        auto loop = platform::RunLoop::current();
        auto deadline = platform::RunLoop::Clock::now() + std::chrono::seconds(20);
        while (!done && platform::RunLoop::Clock::now() < deadline) loop->runFor(0.05);
    }

private:
    void note(std::string event) {
        events.push_back(std::move(event));
        threads.push_back(std::this_thread::get_id());
    }
};

}  // namespace downloadtests
