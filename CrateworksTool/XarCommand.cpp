// crateworks xar: lists, extracts, makes, verifies and digests XAR package archives.
#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"
#include "CrateworksCore/Package_API/Archive/xar/XarExtractor.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "CommandLine/Json.h"
#include "CommandLine/StandardOutput.h"
#include "CommandLine/Streams.h"
#include "CommandLine/Text.h"
#include "CrateworksTool/Command.h"
#include "CrateworksTool/SignCommand.h"
#include "Platform/ExtractionRoot.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace {

using crateworks::CWXARArchive;
using crateworks::xar::File;
using crateworks::xar::XarReader;

// Standard input, spooled for the reader, which seeks; kept while the command runs.
std::optional<commandline::SpooledInput>& spooledInput() {
    static std::optional<commandline::SpooledInput> spool;
    return spool;
}

// The archive ("-": standard input), or null after one line naming the file that is not one.
std::shared_ptr<CWXARArchive> openArchive(const std::string& argument) {
    platform::Error error;
    std::string path = argument;
    if (commandline::isStandardStream(argument)) {
        if (!spooledInput()) spooledInput() = commandline::SpooledInput::fromStandardInput(&error);
        if (!spooledInput()) {
            fmt::print(stderr, "crateworks xar: standard input: {}\n", error.description());
            return nullptr;
        }
        path = spooledInput()->path();
    }
    // Messages name what the user gave, never the spooled copy.
    std::string shown = path == argument ? commandline::escapedText(argument) : "standard input";
    auto named = [&](std::string text) {
        if (path == argument) return text;
        for (size_t at = text.find(path); at != std::string::npos; at = text.find(path, at + shown.size()))
            text.replace(at, path.size(), shown);
        return text;
    };
    auto archive = CWXARArchive::initForReadingFromPath(path, &error);
    if (!archive) {
        const std::string* reason = error.userInfo.findString(platform::kFailureReasonKey);
        if (error.domain == platform::kPOSIXErrorDomain || !reason || reason->rfind("truncated", 0) == 0)
            fmt::print(stderr, "crateworks xar: {}\n", named(error.description()));
        else
            fmt::print(stderr, "crateworks xar: {}: not a XAR archive ({})\n", shown, *reason);
        return nullptr;
    }
    if (uint64_t refused = archive->_xar()->refusedEntryCount())
        fmt::print(stderr, "crateworks xar: {}: {} entries with unsafe names left out\n", shown, refused);
    return archive;
}

uint64_t number(XarReader& xar, File f, const char* name) {
    return crateworks::xar::parseU64(xar.propertyGet(f, name).value_or("0")).value_or(0);
}

std::string modificationTime(File f) {
    auto date = crateworks::xar::XarExtractor::modificationDateOf(f);
    return date ? date->iso8601() : std::string();
}

std::optional<std::string> linkTarget(File f) {
    if (f->type != "symlink" && f->type != "hardlink") return std::nullopt;
    const auto* link = f->find("link");
    if (!link || !link->value) return std::nullopt;
    return *link->value;
}

int list(const std::string& path, bool json) {
    auto archive = openArchive(path);
    if (!archive) return 1;
    XarReader& xar = *archive->_xar();
    auto& out = commandline::StandardOutput::shared();
    for (File f = xar.first(); f && out.good(); f = xar.next(f)) {
        std::string mode = fmt::format("{:o}", crateworks::xar::XarExtractor::modeOf(f, 0));
        uint64_t size = f->data ? f->data->size : 0;
        auto link = linkTarget(f);
        if (!json) {
            using commandline::escapedText;
            out.line(fmt::format("{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}", escapedText(f->path), escapedText(f->type), mode,
                                 number(xar, f, "uid"), number(xar, f, "gid"), size, escapedText(link.value_or("")),
                                 modificationTime(f)));
            continue;
        }
        commandline::Json line;
        commandline::setName(line, "path", f->path);
        commandline::setName(line, "type", f->type);
        line["mode"] = mode;
        line["uid"] = number(xar, f, "uid");
        line["gid"] = number(xar, f, "gid");
        line["size"] = size;
        line["encoding"] = f->data ? std::string(crateworks::xar::styleForEncoding(f->data->encoding)) : "";
        commandline::setName(line, "archived_checksum", f->data ? f->data->archivedChecksum : "");
        commandline::setName(line, "extracted_checksum", f->data ? f->data->extractedChecksum : "");
        if (link) commandline::setName(line, "link", *link);
        else line["link"] = nullptr;
        std::string mtime = modificationTime(f);
        line["mtime"] = mtime.empty() ? commandline::Json(nullptr) : commandline::Json(mtime);
        out.line(commandline::jsonLine(line));
    }
    return 0;
}

int extract(const std::string& path, const std::string& destination) {
    auto archive = openArchive(path);
    if (!archive) return 1;
    platform::Error error;
    auto root = platform::ExtractionRoot::open(destination, true, &error);
    if (!root) {
        fmt::print(stderr, "crateworks xar: {}\n", error.description());
        return 1;
    }
    crateworks::xar::XarExtractor extractor(*archive->_xar(), *root);
    std::string failed;
    if (!extractor.extractAll(&failed, &error)) {
        if (error.code == platform::kFileReadCorruptFileError)
            fmt::print(stderr, "crateworks xar: {}: entry {} failed its checksum\n", path, commandline::escapedText(failed));
        else
            fmt::print(stderr, "crateworks xar: {}: entry {}: {}\n", path, commandline::escapedText(failed),
                       error.description());
        return 1;
    }
    return 0;
}

int create(const std::string& output, const std::string& directory, bool store) {
    platform::Error error;
    // "-": written whole to a scratch file first, since the TOC comes before the heap.
    std::optional<commandline::ScratchOutput> scratch;
    if (commandline::isStandardStream(output)) {
        scratch = commandline::ScratchOutput::create(&error);
        if (!scratch) {
            fmt::print(stderr, "crateworks xar: {}\n", error.description());
            return 1;
        }
    }
    auto archive = crateworks::CWMutableXARArchive::initForWritingToPath(scratch ? scratch->path() : output, &error);
    // Nothing is at OUT until the close succeeds: every failure leaves what was there.
    bool ok = archive && archive->setContentsOfDirectory(directory, "", !store, &error) &&
              archive->closeArchiveReturningError(&error);
    if (!ok) {
        fmt::print(stderr, "crateworks xar: {}\n", error.description());
        return 1;
    }
    if (scratch && !scratch->sendToStandardOutput(&error)) {
        fmt::print(stderr, "crateworks xar: {}\n", error.description());
        return 1;
    }
    return 0;
}

int verify(const std::string& path) {
    auto archive = openArchive(path);
    if (!archive) return 1;
    platform::Error error;
    if (!archive->verifyReturningError(&error)) {
        const std::string* entry = error.userInfo.findString(platform::kFilePathErrorKey);
        fmt::print(stderr, "crateworks xar: {}: entry {} is damaged\n", path, entry ? commandline::escapedText(*entry) : "?");
        return 1;
    }
    size_t count = 0;
    XarReader& xar = *archive->_xar();
    for (File f = xar.first(); f; f = xar.next(f)) ++count;
    commandline::outLine(fmt::format("verified {} entries", count));
    return 0;
}

int digest(const std::string& path) {
    auto archive = openArchive(path);
    if (!archive) return 1;
    auto digest = archive->archiveDigest();
    if (!digest) {
        fmt::print(stderr, "crateworks xar: {}: the TOC checksum cannot be read\n", path);
        return 1;
    }
    commandline::outLine(*digest);
    return 0;
}

}  // namespace

void crateworks::addXarCommand(CLI::App& app) {
    CLI::App* xar = commandline::addCommand(app, "xar", "Lists, extracts, makes, verifies, digests and signs XAR archives");
    xar->require_subcommand(1);

    struct Options {
        std::string archive, destination, directory;
        bool json = false, store = false;
    };
    auto options = std::make_shared<Options>();

    CLI::App* listCommand = commandline::addCommand(*xar, "list", "One line per entry of an archive");
    listCommand->add_option("ARCHIVE", options->archive, "The archive (\"-\": standard input)")->required();
    listCommand->add_flag("--json", options->json, "One JSON object per entry");
    commandline::onRun(listCommand, [options] { return list(options->archive, options->json); });

    CLI::App* extractCommand =
        commandline::addCommand(*xar, "extract", "Extracts an archive into DEST; nothing is written outside it");
    extractCommand->add_option("ARCHIVE", options->archive, "The archive (\"-\": standard input)")->required();
    extractCommand->add_option("DEST", options->destination, "The directory to extract into")->required();
    commandline::onRun(extractCommand, [options] { return extract(options->archive, options->destination); });

    CLI::App* createCommand = commandline::addCommand(*xar, "create", "A gzip-encoded (or stored) archive of a tree");
    createCommand->add_option("OUT", options->archive, "The archive to write (\"-\": standard output)")->required();
    createCommand->add_option("DIR", options->directory, "The directory to archive")->required();
    createCommand->add_flag("--store", options->store, "Store the files without compressing them");
    commandline::onRun(createCommand,
                       [options] { return create(options->archive, options->directory, options->store); });

    CLI::App* verifyCommand = commandline::addCommand(*xar, "verify", "Checks every entry's checksums");
    verifyCommand->add_option("ARCHIVE", options->archive, "The archive (\"-\": standard input)")->required();
    commandline::onRun(verifyCommand, [options] { return verify(options->archive); });

    CLI::App* digestCommand = commandline::addCommand(*xar, "digest", "Prints the archive's digest");
    digestCommand->add_option("ARCHIVE", options->archive, "The archive (\"-\": standard input)")->required();
    commandline::onRun(digestCommand, [options] { return digest(options->archive); });

    crateworks::addXarSignCommand(*xar);
}
