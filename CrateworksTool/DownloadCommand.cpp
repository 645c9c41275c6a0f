// crateworks download: fetches one http, https or file URL into DEST.
//
// The bytes go to DEST.partial; DEST appears only once the transfer is complete. A
// transfer that stops early (a dropped connection, a short body, SIGINT) keeps
// DEST.partial and writes resume data to DEST.partialState, from which the next run
// continues. A DEST.partial without its state file is stale and is written from byte 0.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <string>
#include <vector>

#include "CrateworksTool/Command.h"
#include "CrateworksTool/ToolSupport.h"
#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "Platform/FileSystem.h"
#include "Platform/RunLoop.h"
#include "Platform/URLErrors.h"

namespace {

namespace tool = crateworks::tool;

constexpr const char* kUsage = "download URL DEST [--cacert FILE]";
constexpr double kProgressInterval = 0.25;

// Follows one transfer and draws its progress line.
class Transfer : public crateworks::CWDownloadDelegate {
public:
    bool finished = false, failed = false;
    std::optional<platform::Error> error;
    int status = 0;
    int64_t expected = -1, received = 0, startOffset = 0;

    bool respondsToSelector(std::string_view selector) const override {
        // URL downloads tell of resumes only to a delegate answering to this spelling.
        return selector == "download:willResumeFomByte:" || CWDownloadDelegate::respondsToSelector(selector);
    }
    void downloadWillResumeFromByte(crateworks::CWDownload&, int64_t offset) override {
        startOffset = offset;
        received = offset;
    }
    void downloadDidReceiveResponse(crateworks::CWDownload&, const platform::URLResponse& response) override {
        status = response.statusCode;
        expected = response.expectedContentLength;
    }
    void downloadDidReceiveDataOfLength(crateworks::CWDownload&, uint64_t length) override {
        received += int64_t(length);
    }
    void downloadDidReceiveAuthenticationChallenge(
        crateworks::CWDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) override {
        const auto& proposed = challenge->proposedCredential();
        if (challenge->previousFailureCount() == 0 && proposed) challenge->useCredential(*proposed);
        else challenge->cancel();
    }
    void downloadDidFinish(crateworks::CWDownload&) override { finished = true; }
    void downloadDidFailWithError(crateworks::CWDownload&, const platform::Error& e) override {
        failed = true;
        error = e;
    }

    void drawProgress(double elapsed) const {
        double speed = elapsed > 0 ? double(received - startOffset) / elapsed : 0;
        std::string line;
        if (expected >= 0) {
            int64_t total = expected + (status == 206 ? startOffset : 0);
            double percent = total > 0 ? 100.0 * double(received) / double(total) : 100.0;
            line = fmt::format("{:5.1f}%  {} of {}", percent, tool::humanBytes(double(received)), tool::humanBytes(double(total)));
            if (speed > 0) {
                line += fmt::format("  {}/s  {} left", tool::humanBytes(speed),
                                    tool::humanDuration(double(total - received) / speed));
            }
        } else {
            line = fmt::format("{}  {}/s", tool::humanBytes(double(received)), tool::humanBytes(speed));
        }
        fmt::print(stderr, "\r{:<72}", line);
        fflush(stderr);
    }
};

struct Arguments {
    std::string url, dest;
    std::optional<std::string> caFile;
};

std::optional<Arguments> parse(const std::vector<std::string>& args) {
    Arguments parsed;
    std::vector<std::string> positional;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--cacert") {
            if (i + 1 >= args.size() || parsed.caFile) return std::nullopt;
            parsed.caFile = args[++i];
        } else if (args[i].starts_with("--")) {
            return std::nullopt;
        } else {
            positional.push_back(args[i]);
        }
    }
    if (positional.size() != 2 || positional[0].empty() || positional[1].empty()) return std::nullopt;
    parsed.url = positional[0];
    parsed.dest = positional[1];
    return parsed;
}

int fail(const std::string& url, const std::string& why) {
    fmt::print(stderr, "crateworks download: \"{}\": {}\n", url, why);
    return 1;
}

// A download continuing from DEST.partialState, or null when there is none to continue.
std::shared_ptr<crateworks::CWDownload> resumed(const platform::URL& url, const std::string& partial,
                                                const std::string& state, Transfer* transfer) {
    if (!platform::fs::exists(state)) return nullptr;
    auto data = platform::fs::readFile(state);
    platform::fs::removeItem(state);
    if (!data || !platform::fs::exists(partial)) return nullptr;
    auto download = crateworks::CWDownload::downloadWithResumeData(*data, partial, transfer);
    if (!download) return nullptr;
    if (!(download->sourceURL() == url)) {
        download->cancel();
        return nullptr;
    }
    download->setDelegate(transfer);
    download->setDeletesFileUponFailure(false);
    return download;
}

int downloadMain(const std::vector<std::string>& args) {
    auto parsed = parse(args);
    if (!parsed) {
        fmt::print(stderr, "usage: crateworks {}\n", kUsage);
        return 2;
    }
    auto url = platform::URL::parse(parsed->url);
    if (!url || (url->scheme() != "http" && url->scheme() != "https" && url->scheme() != "file"))
        return fail(parsed->url, "not an http, https or file URL");
    crateworks::CWDownload::addDownloadClass(crateworks::CWSecureURLDownload::downloadClass());
    crateworks::CWSecureURLDownload::setCertificateAuthorityFile(parsed->caFile);

    const std::string partial = parsed->dest + ".partial", state = parsed->dest + ".partialState";
    Transfer transfer;
    // File copies start over: the copy class appends from the source's first byte on resume.
    std::shared_ptr<crateworks::CWDownload> download;
    if (url->isFileURL()) platform::fs::removeItem(state);
    else download = resumed(*url, partial, state, &transfer);
    if (!download) {
        download = crateworks::CWDownload::downloadWithURL(*url, &transfer);
        if (!download) return fail(parsed->url, "cannot be downloaded");
        download->setDeletesFileUponFailure(false);
        download->setDestination(partial, true);
    }

    auto loop = platform::RunLoop::current();
    tool::catchInterrupt(*loop);
    std::shared_ptr<platform::RunLoopTimer> timer;
    auto started = platform::RunLoop::Clock::now();
    bool showProgress = tool::stderrIsTerminal();
    if (showProgress) {
        timer = loop->addTimer(kProgressInterval, true, [&] {
            transfer.drawProgress(std::chrono::duration<double>(platform::RunLoop::Clock::now() - started).count());
        });
    }
    loop->runUntil([&] { return transfer.finished || transfer.failed || tool::interrupted(); });
    if (timer) timer->invalidate();
    if (showProgress) fmt::print(stderr, "\r{:<72}\r", "");

    if (transfer.finished && !tool::interrupted()) {
        if (rename(partial.c_str(), parsed->dest.c_str()) != 0)
            return fail(parsed->url, fmt::format("cannot move into place: {}", strerror(errno)));
        platform::fs::removeItem(state);
        return 0;
    }
    if (tool::interrupted()) download->cancel();
    const platform::Value* httpStatus =
        transfer.error ? transfer.error->userInfo.find(platform::kURLErrorHTTPStatusKey) : nullptr;
    auto resume = url->isFileURL() || httpStatus ? std::nullopt : download->resumeData();
    if (resume && platform::fs::writeFileAtomically(state, *resume)) {
        // Kept for the next run.
    } else {
        platform::fs::removeItem(partial);
        platform::fs::removeItem(state);
    }
    if (tool::interrupted()) {
        fmt::print(stderr, "crateworks download: \"{}\": interrupted\n", parsed->url);
        return 130;
    }
    if (httpStatus) return fail(parsed->url, fmt::format("HTTP status {}", httpStatus->integer().value_or(0)));
    return fail(parsed->url, transfer.error ? transfer.error->description() : "failed");
}

const crateworks::Registration registration{"download", kUsage, downloadMain};

}  // namespace
