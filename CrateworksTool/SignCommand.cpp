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
    std::string input, output;  // xar sign: IN and OUT; folder sign: DIR is the input
    std::optional<std::string> keyPath;
    std::vector<std::string> certificatePaths;
    std::optional<std::string> date;
    std::optional<std::string> identifier;
};

// The options every signing command takes.
void addSigningOptions(CLI::App* command, SigningOptions& options) {
    command->add_option("-k,--key", options.keyPath, "The RSA private key (PEM)")->type_name("KEY")->required();
    command->add_option("-c,--cert", options.certificatePaths,
                        "A certificate (PEM), the signing one first; repeat for the chain")
        ->type_name("CERT")
        ->required()
        ->allow_extra_args(false);
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
    const std::string& directory = options.input;
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

int xarSign(const SigningOptions& options) {
    auto created = creationTime(options.date);
    if (!created) {
        fmt::print(stderr, "crateworks xar sign: {}: not an ISO 8601 date\n", *options.date);
        return 2;
    }
    auto identity = loadIdentity(options, "xar sign");
    if (!identity) return 1;
    return signArchive(options.input, options.output, *identity, *created);
}

}  // namespace

void addXarSignCommand(CLI::App& xar) {
    auto options = std::make_shared<SigningOptions>();
    CLI::App* command = commandline::addCommand(xar, "sign", "A signed copy of an archive");
    command->add_option("IN", options->input, "The archive to sign")->required();
    command->add_option("OUT", options->output, "The signed copy to write")->required();
    addSigningOptions(command, *options);
    command->add_option("-d,--date", options->date, "The signing time (ISO 8601), now when not given")
        ->type_name("DATE");
    commandline::onRun(command, [options] { return xarSign(*options); });
}

void addFolderCommand(CLI::App& app) {
    CLI::App* folder = commandline::addCommand(app, "folder", "Signs a folder archive");
    folder->require_subcommand(1);
    auto options = std::make_shared<SigningOptions>();
    CLI::App* command = commandline::addCommand(*folder, "sign", "Writes DIR/_CodeSignature");
    command->add_option("DIR", options->input, "The folder to sign")->required();
    command->add_option("-i,--identifier", options->identifier, "The signed identifier")
        ->type_name("ID")
        ->required()
        ->check(commandline::nonEmpty);
    addSigningOptions(command, *options);
    commandline::onRun(command, [options] { return folderSign(*options); });
}

}  // namespace crateworks
