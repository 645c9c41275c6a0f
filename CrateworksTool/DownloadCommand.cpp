// crateworks download: fetches one http, https or file URL into DEST.
//
// The bytes go to DEST.partial; DEST appears only once the transfer is complete. A
// transfer that stops early (a dropped connection, a short body, SIGINT) keeps
// DEST.partial and writes resume data to DEST.partialState, from which the next run
// continues. A DEST.partial without its state file is stale and is written from byte 0.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <string>
#include <vector>

#include "CommandLine/Streams.h"
#include "CommandLine/Text.h"
#include "CrateworksTool/Command.h"
#include "CrateworksTool/ToolSupport.h"
#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "Platform/AtomicFile.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/RunLoop.h"
#include "Platform/URLErrors.h"

namespace {

namespace tool = crateworks::tool;

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
            // An estimate from less than a second of transfer says nothing.
            if (speed > 0 && elapsed >= 1.0) {
                line += fmt::format("  {}/s  {} left", tool::humanBytes(speed),
                                    tool::humanDuration(double(total - received) / speed));
            }
        } else {
            line = fmt::format("{}  {}/s", tool::humanBytes(double(received)), tool::humanBytes(speed));
        }
        fmt::print(stderr, "\r\033[K{}", tool::fitted(line));
        fflush(stderr);
    }
};

struct Arguments {
    std::string url, dest;
    std::optional<std::string> caFile;
};

// One line whatever the URL or the paths in `why` hold (a newline, bytes that are not
// UTF-8): both are escaped as every listing is.
int fail(const std::string& url, const std::string& why) {
    fmt::print(stderr, "crateworks download: \"{}\": {}\n", commandline::escapedText(url),
               commandline::escapedText(why));
    return 1;
}

// A download continuing from DEST.partialState, or null when there is none to continue.
std::shared_ptr<crateworks::CWDownload> resumed(const platform::URL& url, const std::string& partial,
                                                const std::string& state, Transfer* transfer) {
    if (!platform::fs::exists(state)) return nullptr;
    auto data = platform::fs::readFile(state);
    platform::fs::removeItem(state);
    if (!data || !platform::fs::exists(partial)) return nullptr;
    auto download = crateworks::CWDownload::downloadWithResumeData(*data, partial, transfer, url);
    if (!download) return nullptr;
    download->setDelegate(transfer);
    download->setDeletesFileUponFailure(false);
    return download;
}

// Where the file goes: DEST, or the URL's last path component inside a DEST that is a
// directory; absent, after a message, when a directory gets no usable name.
std::optional<std::string> destinationPath(const platform::URL& url, const std::string& dest) {
    bool isDirectory = false;
    if (!platform::fs::exists(dest, &isDirectory) || !isDirectory) return dest;
    std::string name = platform::path::lastComponent(url.path());
    bool control = std::any_of(name.begin(), name.end(), [](char c) { return (unsigned char)c < 0x20 || c == 0x7f; });
    if (name.empty() || name == "." || name == ".." || name == "/" || control) {
        fail(url.absoluteString(), fmt::format("{} is a directory and the URL names no file to save in it", dest));
        return std::nullopt;
    }
    return platform::path::appendComponent(dest, name);
}

int download(const Arguments* parsed) {
    auto url = tool::urlFromArgument(parsed->url);
    if (auto why = platform::URL::unavailableReason()) return fail(parsed->url, *why);
    if (!url || (url->scheme() != "http" && url->scheme() != "https" && url->scheme() != "file"))
        return fail(parsed->url, "not an http, https or file URL");
    crateworks::CWDownload::addDownloadClass(crateworks::CWSecureURLDownload::downloadClass());
    crateworks::CWSecureURLDownload::setCertificateAuthorityFile(parsed->caFile);

    // "-": the file is gathered in scratch space and sent on once complete; a stream
    // cannot be resumed, so nothing is kept after a failure.
    std::optional<commandline::ScratchOutput> scratch;
    platform::Error scratchError;
    if (commandline::isStandardStream(parsed->dest) && !(scratch = commandline::ScratchOutput::create(&scratchError)))
        return fail(parsed->url, scratchError.description());
    auto destination = scratch ? std::optional<std::string>(scratch->path()) : destinationPath(*url, parsed->dest);
    if (!destination) return 1;
    const std::string& dest = *destination;
    // The file arrives by renaming over DEST: a device, a FIFO or a link there is left alone.
    if (auto refusal = platform::fs::AtomicFile::refusalFor(dest)) return fail(parsed->url, refusal->description());
    const std::string partial = dest + ".partial", state = dest + ".partialState";
    // The side files are this command's own: anything else under their names stays.
    for (const std::string& side : {partial, state})
        if (auto refusal = platform::fs::AtomicFile::refusalFor(side)) return fail(parsed->url, refusal->description());
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
        tool::watchTerminalWidth();
        timer = loop->addTimer(kProgressInterval, true, [&] {
            transfer.drawProgress(std::chrono::duration<double>(platform::RunLoop::Clock::now() - started).count());
        });
    }
    loop->runUntil([&] { return transfer.finished || transfer.failed || tool::interrupted(); });
    if (timer) timer->invalidate();
    if (showProgress) fmt::print(stderr, "\r\033[K");

    if (transfer.finished && !tool::interrupted()) {
        platform::Error error;
        // Checked again: something else may have been put in either place while the file arrived.
        for (const std::string& end : {partial, dest})
            if (auto refusal = platform::fs::AtomicFile::refusalFor(end))
                return fail(parsed->url, refusal->description());
        if (!platform::fs::moveItem(partial, dest, &error))
            return fail(parsed->url, "cannot move into place: " + error.description());
        platform::fs::removeItem(state);
        if (scratch && !scratch->sendToStandardOutput(&error)) return fail(parsed->url, error.description());
        return 0;
    }
    if (tool::interrupted()) download->cancel();
    const platform::Value* httpStatus =
        transfer.error ? transfer.error->userInfo.find(platform::kURLErrorHTTPStatusKey) : nullptr;
    auto resume = url->isFileURL() || httpStatus || scratch ? std::nullopt : download->resumeData();
    if (resume && platform::fs::writeFileAtomically(state, *resume)) {
        // Kept for the next run.
    } else {
        platform::fs::removeItem(partial);
        platform::fs::removeItem(state);
    }
    if (tool::interrupted()) {
        fail(parsed->url, "interrupted");
        return tool::interruptedStatus();
    }
    if (httpStatus) return fail(parsed->url, tool::httpStatusText(int(httpStatus->integer().value_or(0))));
    return fail(parsed->url, transfer.error ? transfer.error->description() : "failed");
}

}  // namespace

void crateworks::addDownloadCommand(CLI::App& app) {
    auto arguments = std::make_shared<Arguments>();
    CLI::App* command =
        commandline::addCommand(app, "download", "One http, https or file transfer; resumes after an interruption");
    command->add_option("URL", arguments->url, "What to download: an http, https or file URL, or a local path")->required()->check(commandline::nonEmpty);
    command->add_option("DEST", arguments->dest, "The file to write, a directory to write into, or \"-\" for standard output")->required()->check(commandline::nonEmpty);
    command->add_option("--cacert", arguments->caFile, "Certificate authorities (PEM) to trust instead of the system's")
        ->type_name("FILE");
    commandline::onRun(command, [arguments] { return download(arguments.get()); });
}
