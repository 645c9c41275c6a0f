// crateworks fetch: loads a product, judges its trust, and fetches its packages into DEST.
//
// Every package goes to DEST under the last component of its URL's path, N at once,
// through the package downloader: each is written to NAME.partial, checked (its MD5,
// or by its kind), and only then renamed to NAME. A package that fails is tried once
// more. One that still fails leaves NAME as it was (an older copy stays until a new one
// has passed its check) and no side files, except that a transfer cut off midway keeps
// NAME.partial and NAME.partialState so that the next run resumes it.
// SIGINT stops the queue the same way and exits 130.
#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "CommandLine/StandardOutput.h"
#include "CrateworksTool/Command.h"
#include "CrateworksTool/ToolSupport.h"
#include "Distribution_Layer/Downloader/CWDownloader.h"
#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "Distribution_Layer/Downloader/CWURLConnection.h"
#include "Distribution_Layer/Product/CWProduct.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/RunLoop.h"
#include "Platform/URLErrors.h"

namespace {

namespace tool = crateworks::tool;
using crateworks::CWDownloader;
using crateworks::CWPackageReference;
using Reference = std::shared_ptr<CWPackageReference>;

constexpr const char* kTrustLevelKey = "CWTrustLevel";
// More concurrent transfers than this would only contend for the same link; a larger
// --jobs is taken as this many.
constexpr uint64_t kMaxJobs = 64;
constexpr size_t kBarWidth = 20;

struct Arguments {
    std::string productURL, dest;
    uint64_t jobs = 1;
    std::optional<int32_t> minimumTrust;
    std::optional<std::string> caFile;
    bool force = false;
};

// A whole number of at least 1, however long; absent for anything else.
std::optional<uint64_t> parseJobs(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    size_t first = text.find_first_not_of('0');
    if (first == std::string::npos) return std::nullopt;
    if (text.size() - first > 3) return kMaxJobs;
    return std::min(kMaxJobs, uint64_t(std::stoull(text.substr(first))));
}

// A finished line never holds the word "failed", whatever a product calls its packages:
// there it is written with its first letter escaped.
std::string neverFailed(std::string text) {
    for (size_t at = text.find("failed"); at != std::string::npos; at = text.find("failed", at + 8))
        text.replace(at, 1, "%66");
    return text;
}

// A package's file name in DEST: the last component of its URL's path.
std::string fileName(const CWPackageReference& reference) {
    return platform::path::lastComponent(reference.URL().path());
}

bool isHTTPError(const platform::Error& error) {
    return error.domain == platform::kURLErrorDomain && error.userInfo.find(platform::kURLErrorHTTPStatusKey);
}

// Watches the queue: draws the bar on a terminal, prints one line per package done,
// retries each package once, and tidies DEST after a final failure.
class Fetch : public crateworks::CWDownloaderDelegate {
public:
    Fetch(std::string dest, bool terminal) : dest_(std::move(dest)), terminal_(terminal) {}

    void setDownloader(CWDownloader* downloader) { downloader_ = downloader; }
    bool stopped() const { return stopped_; }
    int failures() const { return failures_; }

    void packageDownloaderDidStop(CWDownloader&) override { stopped_ = true; }

    void packageDownloaderDidChangeProgress(CWDownloader&, double) override {
        if (terminal_) _drawBar();
    }

    void packageDownloaderDidFinishPackageReference(CWDownloader&, const Reference& reference,
                                                    const Reference&) override {
        reportFetched(*reference);
    }

    bool packageDownloaderShouldRetryFailedPackageReference(CWDownloader&, const Reference& reference,
                                                            const std::optional<platform::Error>& error) override {
        if (!retried_.insert(reference->URL().absoluteString()).second) return false;
        // An error page is nothing to resume from.
        if (error && isHTTPError(*error)) _removeSideFiles(*reference);
        return true;
    }

    void packageDownloaderDidFailOnPackageReference(CWDownloader&, const Reference& reference,
                                                    const platform::Error& error) override {
        std::string state = _path(*reference) + ".partialState";
        // Only a cut-off transfer with its resume data kept is worth keeping.
        if (isHTTPError(error) || !platform::fs::existsNoFollow(state)) _removeSideFiles(*reference);
        if (isHTTPError(error)) {
            auto status = error.userInfo.find(platform::kURLErrorHTTPStatusKey)->integer().value_or(0);
            _fail(*reference, tool::httpStatusText(int(status)) + " from " + reference->URL().absoluteString());
            return;
        }
        _fail(*reference, error.description());
    }

    void packageDownloaderDidDownloadInvalidDataForPackageReference(CWDownloader& downloader,
                                                                    const Reference& reference) override {
        std::string why = "did not pass its check";
        auto expected = reference->MD5();
        auto computed = downloader.computedMD5ForFailedPackageReference(*reference);
        if (expected && computed)
            why = fmt::format("expected MD5 {}, got {}", tool::printable(*expected), *computed);
        else if (expected)
            why = fmt::format("expected MD5 {}, the file could not be read", tool::printable(*expected));
        _removeSideFiles(*reference);
        _fail(*reference, why);
    }

    void packageDownloaderDidReceiveAuthenticationChallenge(
        CWDownloader&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) override {
        crateworks::CWURLConnection::didReceiveAuthenticationChallenge(challenge);
    }

    void reportFetched(const CWPackageReference& reference, const char* word = "fetched") {
        _printLine(fmt::format("{}\t{}\t{}", word, neverFailed(tool::printable(reference.identifier())),
                               neverFailed(fileName(reference))));
    }

    // Leaves the bar's line for good.
    void finish() {
        if (terminal_ && barDrawn_) fmt::print(stderr, "\n");
    }

private:
    std::string _path(const CWPackageReference& reference) const {
        return platform::path::appendComponent(dest_, fileName(reference));
    }

    void _removeSideFiles(const CWPackageReference& reference) {
        platform::fs::removeItem(_path(reference) + ".partial");
        platform::fs::removeItem(_path(reference) + ".partialState");
    }

    void _fail(const CWPackageReference& reference, const std::string& why) {
        ++failures_;
        // Whatever is under the package's name stays: only a package that has passed its
        // check ever replaces it.
        _printLine(fmt::format("failed\t{}\t{}\t{}", tool::printable(reference.identifier()),
                               tool::printable(fileName(reference)), tool::printable(why)));
    }

    void _printLine(const std::string& line) {
        if (terminal_ && barDrawn_) fmt::print(stderr, "\r\033[K");
        commandline::outLine(line);
        if (terminal_ && barDrawn_) _drawBar();
    }

    void _drawBar() {
        if (!downloader_) return;
        double percent = std::max(0.0, downloader_->progressValue());
        auto filled = size_t(percent / 100.0 * double(kBarWidth));
        std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '-');
        std::string line = fmt::format("[{}] {:5.1f}%  {} of {}  {}/s  {} left", bar, percent,
                                       tool::humanBytes(double(downloader_->completedDownloadSize())),
                                       tool::humanBytes(double(downloader_->totalDownloadSize())),
                                       tool::humanBytes(double(downloader_->downloadBytesPerSecond())),
                                       tool::humanDuration(downloader_->estimatedTimeRemaining()));
        fmt::print(stderr, "\r\033[K{}", tool::fitted(line));
        barDrawn_ = true;
    }

    std::string dest_;
    bool terminal_;
    CWDownloader* downloader_ = nullptr;
    bool stopped_ = false, barDrawn_ = false;
    int failures_ = 0;
    std::set<std::string> retried_;
};

// A package already in DEST under its name that passes the check a fetched one gets.
bool alreadyPresent(const CWPackageReference& reference, const std::string& path) {
    bool isDirectory = true;
    if (!platform::fs::existsNoFollow(path) || !platform::fs::exists(path, &isDirectory) || isDirectory) return false;
    if (platform::fs::existsNoFollow(path + ".partial")) return false;  // a transfer to resume
    auto expected = reference.MD5();
    return expected ? crateworks::downloader_checks::checksumMatches(path, *expected, [](uint64_t) {})
                    : crateworks::downloader_checks::nativeCheckPasses(path, path);
}

int fail(const std::string& what, const std::string& why) {
    fmt::print(stderr, "crateworks fetch: {}: {}\n", what, why);
    return 1;
}

// The packages to fetch, each once. Absent, with a message printed, when there are none,
// when a package's file name cannot be used, two different packages would share one, or a product from
// the network names a file on this machine.
std::optional<std::vector<Reference>> packagesToFetch(const crateworks::CWProduct& product) {
    std::vector<Reference> packages;
    std::map<std::string, Reference> byName;
    for (const auto& reference : product.allPackageReferences()) {
        if (reference->URL().isFileURL() && !product.URL().isFileURL()) {
            fail(product.URL().absoluteString(),
                 fmt::format("package {} is a local file named by a product from the network",
                             tool::printable(reference->URL().absoluteString())));
            return std::nullopt;
        }
        std::string name = fileName(*reference);
        bool control = std::any_of(name.begin(), name.end(), [](char c) { return (unsigned char)c < 0x20 || c == 0x7f; });
        if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos || control) {
            fail(product.URL().absoluteString(),
                 fmt::format("package {} has no usable file name", tool::printable(reference->URL().absoluteString())));
            return std::nullopt;
        }
        auto same = byName.find(name);
        if (same != byName.end() && same->second->isEqual(*reference)) continue;  // listed twice
        // A package's side files must not be another package's name either.
        for (const std::string& taken : {name, name + ".partial", name + ".partialState"}) {
            auto found = byName.find(taken);
            if (found == byName.end()) continue;
            fail(product.URL().absoluteString(),
                 fmt::format("packages {} and {} would share the file name {}",
                             tool::printable(found->second->identifier()), tool::printable(reference->identifier()),
                             tool::printable(taken)));
            return std::nullopt;
        }
        for (const std::string& taken : {name, name + ".partial", name + ".partialState"}) byName[taken] = reference;
        packages.push_back(reference);
    }
    // The library leaves out index entries that make no reference (no URL, or one that
    // names no file): a product left with nothing is refused rather than fetched as empty.
    if (packages.empty()) {
        fail(product.URL().absoluteString(), "lists no package that can be fetched");
        return std::nullopt;
    }
    return packages;
}

int fetchProduct(const Arguments* parsed) {
    auto url = tool::urlFromArgument(parsed->productURL);
    if (auto why = platform::URL::unavailableReason()) return fail(parsed->productURL, *why);
    if (!url) return fail(parsed->productURL, "not a URL");
    crateworks::CWDownload::addDownloadClass(crateworks::CWSecureURLDownload::downloadClass());
    crateworks::CWSecureURLDownload::setCertificateAuthorityFile(parsed->caFile);
    auto loop = platform::RunLoop::current();
    platform::RunLoop::makeCurrentThreadMain();
    tool::catchInterrupt(*loop);
    auto interruptedBeforeStart = [] {
        fmt::print(stderr, "crateworks fetch: interrupted before anything was fetched\n");
        return tool::interruptedStatus();
    };

    platform::Error error;
    auto product = crateworks::CWProduct::productByLoadingProductAtURL(*url, &error);
    if (!product) return fail(url->absoluteString(), "cannot load the product: " + error.description());
    product->setMinimumRequiredTrustLevel(parsed->minimumTrust.value_or(0));
    if (!product->evaluateTrustReturningError(&error)) {
        const platform::Value* level = error.userInfo.find(kTrustLevelKey);
        if (!level || !level->integer()) return fail(url->absoluteString(), "cannot judge its trust: " + error.description());
        return fail(url->absoluteString(),
                    fmt::format("trust level {} is below the minimum {}", tool::describeTrustLevel(int32_t(*level->integer())),
                                tool::describeTrustLevel(parsed->minimumTrust.value_or(0))));
    }
    if (tool::interrupted()) return interruptedBeforeStart();
    auto packages = packagesToFetch(*product);
    if (!packages) return 1;

    bool isDirectory = false;
    if (platform::fs::exists(parsed->dest, &isDirectory)) {
        if (!isDirectory) return fail(parsed->dest, "not a directory");
    } else if (!platform::fs::createDirectories(parsed->dest, 0755, &error)) {
        return fail(parsed->dest, "cannot be made: " + error.description());
    }

    commandline::StandardOutput::shared().setFlushesEachLine(true);
    Fetch fetch(parsed->dest, tool::stderrIsTerminal());
    if (tool::stderrIsTerminal()) tool::watchTerminalWidth();
    auto downloader = CWDownloader::initWithDelegate(&fetch);
    fetch.setDownloader(downloader.get());
    downloader->setMaxConcurrentDownloadCount(parsed->jobs);
    size_t queued = 0;
    for (const auto& reference : *packages) {
        std::string path = platform::path::appendComponent(parsed->dest, fileName(*reference));
        if (!parsed->force && alreadyPresent(*reference, path)) {
            fetch.reportFetched(*reference, "present");
            continue;
        }
        ++queued;
        // A local file is copied again from its start: resume data would only append to it.
        if (reference->URL().isFileURL()) platform::fs::removeItem(path + ".partialState");
        downloader->queuePackageReference(*reference, path);
    }

    if (queued == 0) {
        fetch.finish();
        return 0;
    }
    downloader->startQueue();
    loop->runUntil([&] { return fetch.stopped() || tool::interrupted(); });
    if (tool::interrupted()) {
        // Keeps each active transfer's resume data beside its partial file, and lets a
        // package already being checked finish, so that no check runs on at exit.
        downloader->stopQueue();
        loop->runUntil([&] { return fetch.stopped(); });
        fetch.finish();
        fmt::print(stderr, "crateworks fetch: interrupted; run it again to resume\n");
        return tool::interruptedStatus();
    }
    fetch.finish();
    if (fetch.failures() > 0)
        return fail(url->absoluteString(), fmt::format("{} of {} packages failed", fetch.failures(), packages->size()));
    return 0;
}

}  // namespace

void crateworks::addFetchCommand(CLI::App& app) {
    struct Options {
        Arguments arguments;
        std::string jobs, minimumTrust;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = commandline::addCommand(app, "fetch", "A product's packages, checked, into DEST");
    command->add_option("PRODUCT_URL", options->arguments.productURL, "The product: its URL or a local path")
        ->required()
        ->check(commandline::nonEmpty);
    command->add_option("DEST", options->arguments.dest, "The directory for the packages (made when missing)")
        ->required()
        ->check(commandline::nonEmpty);
    command->add_option("-j,--jobs", options->jobs, "Packages fetched at once (default 1, at most 64)")
        ->type_name("N")
        ->check([](const std::string& text) { return parseJobs(text) ? std::string() : "not a whole number above 0: " + text; });
    command->add_option("--min-trust", options->minimumTrust, "Refuse a product below this trust level")
        ->type_name("LEVEL")
        ->check(tool::checkTrustLevel);
    command->add_flag("-f,--force", options->arguments.force, "Fetch even the packages already in DEST");
    command->add_option("--cacert", options->arguments.caFile,
                        "Certificate authorities (PEM) to trust instead of the system's")
        ->type_name("FILE");
    commandline::onRun(command, [options] {
        if (!options->jobs.empty()) options->arguments.jobs = *parseJobs(options->jobs);
        if (!options->minimumTrust.empty()) options->arguments.minimumTrust = tool::parseTrustLevel(options->minimumTrust);
        return fetchProduct(&options->arguments);
    });
}
