// crateworks xar sign and crateworks folder sign: sign an archive's table of contents
// or a directory's contents with a key and its certificate chain.
#include "CrateworksTool/SignCommand.h"

#include <fmt/format.h>
#include <map>
#include <optional>

#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "CrateworksCore/Package_API/Archive/xar/XarWriter.h"
#include "CrateworksTool/Command.h"
#include "Platform/CodeSignature.h"
#include "Platform/FileSystem.h"
#include "Platform/PrivateKey.h"

namespace crateworks {

namespace {

using platform::security::Certificate;
using platform::security::CertificateList;
using platform::security::PrivateKey;
using xar::XarReader;
using xar::XarWriter;

struct SigningOptions {
    std::vector<std::string> positional;
    std::optional<std::string> keyPath;
    std::vector<std::string> certificatePaths;
    std::optional<std::string> date;
    std::optional<std::string> identifier;
};

// Absent on an unknown option or one without its value.
std::optional<SigningOptions> parseOptions(const std::vector<std::string>& args) {
    SigningOptions options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        bool takesValue = arg == "--key" || arg == "--cert" || arg == "--date" || arg == "--identifier";
        if (!takesValue) {
            if (arg.rfind("--", 0) == 0) return std::nullopt;
            options.positional.push_back(arg);
            continue;
        }
        if (i + 1 >= args.size()) return std::nullopt;
        const std::string& value = args[++i];
        if (arg == "--key")
            options.keyPath = value;
        else if (arg == "--cert")
            options.certificatePaths.push_back(value);
        else if (arg == "--date")
            options.date = value;
        else
            options.identifier = value;
    }
    if (!options.keyPath || options.certificatePaths.empty()) return std::nullopt;
    return options;
}

struct Identity {
    std::shared_ptr<PrivateKey> key;
    CertificateList certificates;  // the key's own certificate first
};

// The key and certificates named by the options, or absent after a message.
std::optional<Identity> loadIdentity(const SigningOptions& options, const char* command) {
    Identity identity;
    auto keyBytes = platform::fs::readFile(*options.keyPath);
    identity.key = keyBytes ? PrivateKey::fromData(*keyBytes) : nullptr;
    if (!identity.key || !identity.key->isRSA()) {
        fmt::print(stderr, "crateworks {}: {}: not an RSA private key\n", command, *options.keyPath);
        return std::nullopt;
    }
    for (const auto& path : options.certificatePaths) {
        auto bytes = platform::fs::readFile(path);
        auto certificates = bytes ? Certificate::allFromData(*bytes) : CertificateList{};
        if (certificates.empty()) {
            fmt::print(stderr, "crateworks {}: {}: not a certificate\n", command, path);
            return std::nullopt;
        }
        identity.certificates.insert(identity.certificates.end(), certificates.begin(), certificates.end());
    }
    return identity;
}

// "YYYY-MM-DDTHH:MM:SS" in UTC, as the TOC keeps its creation time.
std::optional<std::string> creationTime(const std::optional<std::string>& given) {
    auto date = given ? platform::Date::fromISO8601(*given) : platform::Date::now();
    if (!date) return std::nullopt;
    std::string text = date->iso8601();
    return text.substr(0, 19);
}

bool copyEntries(const XarReader& source, XarWriter& target, platform::Error* error) {
    std::map<const xar::Entry*, xar::File> copies;
    for (xar::File f = source.first(); f; f = source.next(f)) {
        xar::File parent = f->parent ? copies[f->parent] : nullptr;
        xar::File copy = target.addFromArchive(parent, f->name, source, f, error);
        if (!copy) return false;
        copies[f] = copy;
    }
    return true;
}

int signArchive(const std::string& input, const std::string& output, const Identity& identity,
                const std::string& created) {
    platform::Error error;
    auto source = XarReader::open(input, &error);
    if (!source) {
        const std::string* reason = error.userInfo.findString(platform::kFailureReasonKey);
        if (reason)
            fmt::print(stderr, "crateworks xar sign: {}: not a XAR archive ({})\n", input, *reason);
        else
            fmt::print(stderr, "crateworks xar sign: {}\n", error.description());
        return 1;
    }
    auto target = XarWriter::open(output, &error);
    if (!target) {
        fmt::print(stderr, "crateworks xar sign: {}\n", error.description());
        return 1;
    }
    bool keyMatches = true;
    auto sign = [&identity, &keyMatches](std::span<const uint8_t> checksum) -> std::optional<platform::Data> {
        auto signature = identity.key->signRSASHA1Digest(checksum);
        // A key that is not the certificate's would make an archive nobody can check.
        keyMatches = signature && identity.certificates.front()->verifyRSASHA1Digest(checksum, *signature) == 0;
        return keyMatches ? signature : std::nullopt;
    };
    auto index = target->signatureAdd("RSA", identity.key->signatureSize(), sign);
    for (const auto& certificate : identity.certificates)
        target->signatureAddX509Certificate(*index, certificate->der());
    target->setCreationTime(created);
    // A failure leaves OUT as it was: the writer replaces it only once all is written.
    if (copyEntries(*source, *target, &error) && target->close(&error)) return 0;
    if (!keyMatches)
        fmt::print(stderr, "crateworks xar sign: the key does not belong to the signing certificate\n");
    else
        fmt::print(stderr, "crateworks xar sign: cannot write {}: {}\n", output, error.description());
    return 1;
}

int folderSign(const SigningOptions& options) {
    const std::string& directory = options.positional[0];
    bool isDirectory = false;
    if (!platform::fs::exists(directory, &isDirectory) || !isDirectory) {
        fmt::print(stderr, "crateworks folder sign: {}: not a directory\n", directory);
        return 1;
    }
    auto identity = loadIdentity(options, "folder sign");
    if (!identity) return 1;
    platform::Error error;
    if (!platform::security::signDirectory(directory, *options.identifier, *identity->key, identity->certificates,
                                           &error)) {
        fmt::print(stderr, "crateworks folder sign: {}: {}\n", directory, error.description());
        return 1;
    }
    return 0;
}

int folderMain(const std::vector<std::string>& args) {
    if (args.empty() || args[0] != "sign") return usage();
    auto options = parseOptions({args.begin() + 1, args.end()});
    if (!options || options->positional.size() != 1 || !options->identifier || options->identifier->empty() ||
        options->date)
        return usage();
    return folderSign(*options);
}

const Registration registration{
    "folder", "folder sign DIR --identifier ID --key KEY.pem --cert CERT.pem [--cert MORE.pem ...]", folderMain};

}  // namespace

int xarSignMain(const std::vector<std::string>& args) {
    auto options = parseOptions(args);
    if (!options || options->positional.size() != 2 || options->identifier) return usage();
    auto created = creationTime(options->date);
    if (!created) {
        fmt::print(stderr, "crateworks xar sign: {}: not an ISO 8601 date\n", *options->date);
        return 2;
    }
    auto identity = loadIdentity(*options, "xar sign");
    if (!identity) return 1;
    return signArchive(options->positional[0], options->positional[1], *identity, *created);
}

}  // namespace crateworks
