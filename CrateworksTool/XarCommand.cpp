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
#include "CrateworksTool/Command.h"
#include "CrateworksTool/SignCommand.h"
#include "Platform/ExtractionRoot.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace {

using crateworks::CWXARArchive;
using crateworks::xar::File;
using crateworks::xar::XarReader;

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default:
            if (c < 0x20) out += fmt::format("\\u{:04x}", c);
            else out += char(c);
        }
    }
    return out + "\"";
}

// The archive, or null after one line naming the file that is not one.
std::shared_ptr<CWXARArchive> openArchive(const std::string& path) {
    platform::Error error;
    auto archive = CWXARArchive::initForReadingFromPath(path, &error);
    if (!archive) {
        const std::string* reason = error.userInfo.findString(platform::kFailureReasonKey);
        if (error.domain == platform::kPOSIXErrorDomain || !reason || reason->rfind("truncated", 0) == 0)
            fmt::print(stderr, "crateworks xar: {}\n", error.description());
        else
            fmt::print(stderr, "crateworks xar: {}: not a XAR archive ({})\n", path, *reason);
        return nullptr;
    }
    if (uint64_t refused = archive->_xar()->refusedEntryCount())
        fmt::print(stderr, "crateworks xar: {}: {} entries with unsafe names left out\n", path, refused);
    return archive;
}

uint64_t number(XarReader& xar, File f, const char* name) {
    return crateworks::xar::parseU64(xar.propertyGet(f, name).value_or("0")).value_or(0);
}

int list(const std::string& path, bool json) {
    auto archive = openArchive(path);
    if (!archive) return 1;
    XarReader& xar = *archive->_xar();
    for (File f = xar.first(); f; f = xar.next(f)) {
        std::string mode = fmt::format("{:o}", crateworks::xar::XarExtractor::modeOf(f, 0));
        uint64_t size = f->data ? f->data->size : 0;
        if (!json) {
            fmt::print("{}\t{}\t{}\t{}\t{}\t{}\n", f->path, f->type, mode, number(xar, f, "uid"), number(xar, f, "gid"),
                       size);
            continue;
        }
        std::string encoding = f->data ? std::string(crateworks::xar::styleForEncoding(f->data->encoding)) : "";
        fmt::print("{{\"path\":{},\"type\":{},\"mode\":{},\"uid\":{},\"gid\":{},\"size\":{},\"encoding\":{},"
                   "\"archived_checksum\":{},\"extracted_checksum\":{}}}\n",
                   jsonString(f->path), jsonString(f->type), jsonString(mode), number(xar, f, "uid"), number(xar, f, "gid"), size, jsonString(encoding),
                   jsonString(f->data ? f->data->archivedChecksum : ""),
                   jsonString(f->data ? f->data->extractedChecksum : ""));
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
            fmt::print(stderr, "crateworks xar: {}: entry {} failed its checksum\n", path, failed);
        else
            fmt::print(stderr, "crateworks xar: {}: entry {}: {}\n", path, failed, error.description());
        return 1;
    }
    return 0;
}

int create(const std::string& output, const std::string& directory, bool store) {
    platform::Error error;
    auto archive = crateworks::CWMutableXARArchive::initForWritingToPath(output, &error);
    // Nothing is at OUT until the close succeeds: every failure leaves what was there.
    bool ok = archive && archive->setContentsOfDirectory(directory, "", !store, &error) &&
              archive->closeArchiveReturningError(&error);
    if (!ok) {
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
        fmt::print(stderr, "crateworks xar: {}: entry {} is damaged\n", path, entry ? *entry : "?");
        return 1;
    }
    size_t count = 0;
    XarReader& xar = *archive->_xar();
    for (File f = xar.first(); f; f = xar.next(f)) ++count;
    fmt::print("verified {} entries\n", count);
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
    fmt::print("{}\n", *digest);
    return 0;
}

int xarMain(const std::vector<std::string>& args) {
    if (args.empty()) return crateworks::usage();
    const std::string& verb = args[0];
    if (verb == "list" && (args.size() == 2 || (args.size() == 3 && args[2] == "--json")))
        return list(args[1], args.size() == 3);
    if (verb == "extract" && args.size() == 3) return extract(args[1], args[2]);
    if (verb == "create" && (args.size() == 3 || (args.size() == 4 && args[3] == "--store")))
        return create(args[1], args[2], args.size() == 4);
    if (verb == "verify" && args.size() == 2) return verify(args[1]);
    if (verb == "digest" && args.size() == 2) return digest(args[1]);
    if (verb == "sign") return crateworks::xarSignMain({args.begin() + 1, args.end()});
    return crateworks::usage();
}

const crateworks::Registration registration{
    "xar",
    "xar list ARCHIVE [--json] | xar extract ARCHIVE DEST | xar create OUT DIR [--store] | xar verify ARCHIVE | "
    "xar digest ARCHIVE | xar sign IN OUT --key KEY.pem --cert CERT.pem [--cert MORE.pem ...] [--date ISO8601]",
    xarMain};

}  // namespace
