// Writes the seed corpora of the fuzz targets with the project's own writers:
//
//   make-fuzz-seeds DIR     writes DIR/<target>/<seed> for every target it knows
//
// Property lists come from the property-list writer, certificates, chains, trust
// settings and signed folders from the tests' PKI and the signing code, product
// indexes from the product classes, resume states from the downloads themselves.
// Seeds of the BOM and XAR targets are written by their tests (see the README).
// Every name written is replaced; other files (regression inputs) are left alone.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <functional>
#include <string>
#include <vector>

#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Distribution_Layer/Downloader/CWFileDownload.h"
#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "Distribution_Layer/Downloader/CWURLDownload.h"
#include "Distribution_Layer/Product/CWPackageReference.h"
#include "Distribution_Layer/Product/CWProductInfo.h"
#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FuzzSupport.h"
#include "Platform/Base64.h"
#include "Platform/Checksum.h"
#include "Platform/CodeSignature.h"
#include "Platform/Framework.h"
#include "Platform/PrivateKey.h"
#include "Platform/PropertyList.h"
#include "Platform/RunLoop.h"
#include "support/TempDir.h"
#include "support/TestPKI.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Value;

std::string outputDirectory;
int written = 0;

[[noreturn]] void fail(const std::string& why) {
    fmt::print(stderr, "make-fuzz-seeds: {}\n", why);
    exit(1);
}

void seed(const std::string& target, const std::string& name, const std::string& bytes) {
    std::string path = outputDirectory + "/" + target + "/" + name;
    std::filesystem::create_directories(outputDirectory + "/" + target);
    testsupport::writeFile(path, bytes);
    ++written;
}

std::string text(const Data& data) { return std::string(data.begin(), data.end()); }
std::string xml(const Value& value) { return platform::plist::toXML(value); }
std::string binary(const Value& value) { return text(platform::plist::toBinary(value)); }
std::string join(const std::vector<std::string>& parts) { return fuzzsupport::join(parts); }

// Both forms of a value, as NAME.xml and NAME.bplist.
void plistSeeds(const std::string& target, const std::string& name, const Value& value) {
    seed(target, name + ".xml", xml(value));
    seed(target, name + ".bplist", binary(value));
}

std::string fileText(const std::string& path) {
    auto bytes = platform::plist::readFile(path);
    if (!bytes) fail("cannot read the shipped property list " + path);
    return xml(*bytes);
}

const platform::Date kInstalled{1290000000};  // 2010-11-17

Dictionary receiptDictionary() {
    Data sha1(20);
    for (size_t i = 0; i < sha1.size(); ++i) sha1[i] = uint8_t(i * 13);
    return Dictionary{{"PackageIdentifier", "com.quarn.pkg.Essentials"},
                      {"PackageVersion", "10.6.8.1.1"},
                      {"InstallDate", kInstalled},
                      {"InstallProcessName", "installer"},
                      {"InstallPrefixPath", "/"},
                      {"PackageFileName", "Essentials.pkg"},
                      {"PackageGroups", Array{"com.quarn.FindSystemFiles.pkg-group", "com.quarn.snowleopard"}},
                      {"PathSHA1Checksums", Dictionary{{"./usr/bin/tool", sha1}}},
                      {"PathACLs", Dictionary{{"./usr/bin/tool", "!#acl 1\nuser:FFFFEEEE-DDDD-CCCC-BBBB-AAAA00000000:"
                                                                  "root:0:allow:read\n"}}}};
}

void plists() {
    Data bytes(32);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7);
    Value everyType(Dictionary{{"String", "Ferryhold"},
                               {"Unicode", "Gr\xc3\xbc\xc3\x9f" "e \xe2\x98\x83"},
                               {"Carriage\rReturn", "line one\r\nline two"},
                               {"Negative", -42},
                               {"Large", int64_t(1) << 40},
                               {"Unsigned", uint64_t(9223372036854775813ULL)},
                               {"Real", 3.25},
                               {"True", true},
                               {"False", false},
                               {"Date", kInstalled},
                               {"Data", bytes},
                               {"Empty", ""},
                               {"EmptyArray", Array{}},
                               {"EmptyDictionary", Dictionary{}},
                               {"Nested", Array{1, "two", Array{3.5, Dictionary{{"four", 4}}}}}});
    plistSeeds("fuzz_plist", "every-type", everyType);
    plistSeeds("fuzz_plist", "receipt", Value(receiptDictionary()));
    plistSeeds("fuzz_plist", "paths", Value(Array{"/System", "/Library/Printers", "/usr/share/man", "/private/etc/hosts"}));
    plistSeeds("fuzz_plist", "string", Value("just a string"));
    Array wide;
    for (int i = 0; i < 40; ++i) wide.push_back(Value(Dictionary{{fmt::format("key{}", i), i * 1000003}}));
    plistSeeds("fuzz_plist", "many-objects", Value(std::move(wide)));
}

void receipts() {
    plistSeeds("fuzz_receipt", "flat-receipt", Value(receiptDictionary()));
    Dictionary info{{"CFBundleIdentifier", "com.quarn.pkg.BSD"},
                    {"CFBundleShortVersionString", "10.4.0"},
                    {"CFBundleVersion", "1.2"},
                    {"IFPkgFlagRestartAction", "RequiredRestart"}};
    plistSeeds("fuzz_receipt", "bundle-info", Value(info));
    plistSeeds("fuzz_receipt", "without-identifier", Value(Dictionary{{"PackageVersion", "1.0"}}));
}

void pathCache() {
    auto version = FHConfMigrator::mostRecentMigrationDataVersion();
    if (!version) fail("the rule data has no version");
    Value cache(Dictionary{{"systemPaths", Array{"/System", "/bin", "/usr/bin/tool", "/Library/Printers"}},
                           {"MigrationDatabaseVersion", *version}});
    Value stale(Dictionary{{"systemPaths", Array{"/System"}}, {"MigrationDatabaseVersion", "0.1"}});
    // The first byte: how the file is planted (see fuzz_path_cache.cpp).
    struct Plant {
        const char* name;
        char how;
    };
    for (Plant plant : {Plant{"valid", 0}, Plant{"receipt-date", 16}, Plant{"loose-mode", 1}, Plant{"other-owner", 2},
                        Plant{"link", 4}, Plant{"old", 8}, Plant{"fifo", 32}}) {
        seed("fuzz_path_cache", std::string(plant.name) + ".xml", std::string(1, plant.how) + xml(cache));
    }
    seed("fuzz_path_cache", "valid.bplist", std::string(1, '\0') + binary(cache));
    seed("fuzz_path_cache", "stale-version.xml", std::string(1, '\0') + xml(stale));
}

void migrationData() {
    std::string migration = platform::framework::resourcesPath() + "/MigrationData";
    std::string exclusion = fileText(migration + "/SystemExclusion.plist");
    std::string version = fileText(migration + "/datv.plist");
    for (const char* rules : {"Accounts", "Network", "Printing", "Reap"})
        seed("fuzz_migration_data", std::string(rules) + ".txt",
             join({fileText(migration + "/ConfMigrator/" + rules + ".plist"), exclusion, version}));
    Value keepPrefix(Dictionary{
        {"Grouping", Array{Dictionary{{"KeepPrefix", "/Library/Preferences/com.example."},
                                      {"UserPaths", Array{"~/Library/Example", "~/Library/Other"}},
                                      {"Context", "OSServerInstall"},
                                      {"CopyPath", "/Library/Example"},
                                      {"OverwriteSubPaths", true}}}},
        {"extraPathsToReap", Array{Dictionary{{"Path", "/private/var/tmp/old"}}}}});
    seed("fuzz_migration_data", "keep-prefix.txt",
         join({binary(keepPrefix), text(platform::plist::toBinary(*platform::plist::readFile(
                                       migration + "/SystemExclusion.plist"))),
               version}));
}

void incompatibleApplications() {
    testsupport::TempDir scratch;
    testsupport::writeFile(scratch / "Old", "old program\n");
    auto crc = platform::checksum::ofFile(scratch / "Old");
    if (!crc) fail("cannot checksum a file");
    Value list(Dictionary{
        {"IncompatiblePaths",
         Array{Dictionary{{"Path", "Applications/Old.app"},
                          {"MinimumBundleVersion", "1.0"},
                          {"MaximumBundleVersion", "2.5"}},
               Dictionary{{"Paths", Array{"Applications/Old.app/Contents/MacOS/Old",
                                          "Library/Internet Plug-Ins/Old.plugin"}},
                          {"KnownChecksums", Array{fmt::format("{}", *crc), "12345"}}},
               Dictionary{{"Path", "~/Applications/Tool.app"}, {"MaximumBundleVersion", "3"}},
               Dictionary{{"Path", "Applications/New.app"}, {"MinimumBundleVersion", "3"}},
               Dictionary{{"Comment", "an entry without a path"}}}}});
    std::string passwd =
        "root:*:0:0:System Administrator:/var/root:/bin/sh\n"
        "bob:*:501:20:Bob:/var/home/bob:/bin/bash\n"
        "short:line\n";
    seed("fuzz_incompatible_apps", "list.txt", join({xml(list), passwd}));
    seed("fuzz_incompatible_apps", "list-binary.txt", join({binary(list), ""}));
}

void pathFilters() {
    // Filters as the analysis writes them, and paths as a volume holds them.
    std::vector<std::vector<std::string>> seeds{
        {"( ! SELF like \"*.app\")", "/Applications/Old.app", "/Library/Caches/com.example.cache", "Old.app"},
        {"( SELF like \"com.?xample.*\") OR ( SELF like \"*.plist\")", "com.example.plist", "com.axample.x", "other"},
        {"NOT (SELF BEGINSWITH \"/Library/Printers\")", "/Library/Printers/Tamarind", "/Library/Fonts"},
        {"SELF ENDSWITH \".plist\" AND NOT (SELF CONTAINS \"Caches\") || SELF == \"/private/etc/hosts\"",
         "/Library/Preferences/a.plist", "/Library/Caches/b.plist", "/private/etc/hosts"},
        {"(SELF != \"a\") && !(SELF == \"b\")", "a", "b", "c"},
        {"SELF like \"My \\\"quoted\\\" 100%% name\"", "/Users/a/My \"quoted\" \\ 100% name",
         "/Users/a/tab\there", "/Users/a/new\nline"},
    };
    int n = 0;
    for (const auto& parts : seeds) seed("fuzz_path_filter", fmt::format("filter-{}.txt", ++n), join(parts));
}

void trustSettings() {
    testsupport::TempDir scratch;
    auto chain = testpki::makerChain(testpki::MakerLeafKind::SoftwareUpdate);
    auto other = testpki::selfSigned(testpki::authorityProfile("Other Root"), testpki::Key::pooled(5));
    using testpki::TrustSettingEntry;
    using testpki::TrustSettingsCertificate;
    auto write = [&](const std::string& name, const std::vector<TrustSettingsCertificate>& user,
                     const std::vector<TrustSettingsCertificate>& admin) {
        testpki::writeTrustSettings(scratch / "user.plist", user);
        testpki::writeTrustSettings(scratch / "admin.plist", admin);
        seed("fuzz_trust_settings", name,
             join({testsupport::readFile(scratch / "user.plist"), testsupport::readFile(scratch / "admin.plist")}));
    };
    write("everything.txt", {TrustSettingsCertificate(chain.root, {})}, {});
    write("policies.txt",
          {TrustSettingsCertificate(chain.root, {TrustSettingEntry(testpki::basicX509Policy(), 1),
                                                 TrustSettingEntry(testpki::softwareUpdateSigningPolicy(), 3)}),
           TrustSettingsCertificate(chain.intermediate, {TrustSettingEntry(std::nullopt, 2)})},
          {TrustSettingsCertificate(other, {TrustSettingEntry(testpki::basicX509Policy(), std::nullopt)})});
    write("deny.txt", {TrustSettingsCertificate(other, {TrustSettingEntry("1.2.3.4", 3)})},
          {TrustSettingsCertificate(chain.root, {TrustSettingEntry(testpki::softwareUpdateSigningPolicy(), 4)})});
}

std::string base64(const Data& der) { return platform::base64::encode(der); }

void certificates() {
    using Kind = testpki::MakerLeafKind;
    struct Named {
        const char* name;
        Kind kind;
    };
    for (Named named : {Named{"software-update", Kind::SoftwareUpdate},
                        Named{"software-update-development", Kind::SoftwareUpdateDevelopment},
                        Named{"distribution", Kind::Distribution},
                        Named{"distribution-development", Kind::DistributionDevelopment},
                        Named{"developer", Kind::Developer}}) {
        auto chain = testpki::makerChain(named.kind);
        seed("fuzz_certificates", std::string(named.name) + ".txt",
             join({base64(chain.root.der), base64(chain.leaf.der), base64(chain.intermediate.der)}));
    }
    auto lone = testpki::selfSigned(testpki::authorityProfile("Lone Root"), testpki::Key::pooled(6));
    seed("fuzz_certificates", "self-signed.txt", join({"", base64(lone.der)}));
    auto chain = testpki::makerChain(Kind::Distribution);
    seed("fuzz_certificates", "foreign-root.txt",
         join({base64(lone.der), base64(chain.leaf.der), base64(chain.intermediate.der), base64(chain.root.der)}));
}

void codeSignatures() {
    auto chain = testpki::makerChain(testpki::MakerLeafKind::Developer);
    std::string pem = chain.leaf.key.privateKeyPEM();
    auto key = platform::security::PrivateKey::fromData({reinterpret_cast<const uint8_t*>(pem.data()), pem.size()});
    if (!key) fail("cannot read the test key");
    platform::security::CertificateList certificates;
    for (const auto& c : chain.signingOrder()) certificates.push_back(platform::security::Certificate::fromData(c.der));
    auto signedFolder = [&](const std::string& name, const std::string& first, const std::string& second,
                            const std::string& secondAfterSigning) {
        testsupport::TempDir scratch;
        std::string folder = scratch / "Signed";
        testsupport::writeFile(folder + "/file-1", first);
        testsupport::writeFile(folder + "/folder/file-2", second);
        std::filesystem::create_symlink("file-1", folder + "/link");
        platform::Error error;
        if (!platform::security::signDirectory(folder, "com.quarn.example", *key, certificates, &error))
            fail("cannot sign a folder: " + error.description());
        seed("fuzz_code_signature", name,
             join({testsupport::readFile(folder + "/_CodeSignature/CodeResources"),
                   testsupport::readFile(folder + "/_CodeSignature/CodeSignature"), first, secondAfterSigning}));
    };
    signedFolder("valid.txt", "first file\n", "second file\n", "second file\n");
    signedFolder("changed-file.txt", "first file\n", "second file\n", "second file, changed\n");
    signedFolder("empty-files.txt", "", "", "");
}

void products() {
    auto base = platform::URL::parse("https://updates.example.com/products/Example/index.product");
    auto make = [&](bool localized) {
        crateworks::CWProductInfo info(Dictionary{}, base);
        info.setProductIdentifier("com.quarn.example.product", "1.4.2");
        if (localized) {
            info.setDistributionURL(*platform::URL::parse("Example.en.dist", *base), "en");
            info.setDistributionURL(*platform::URL::parse("https://cdn.example.com/Example.fr.dist"), "fr");
        } else {
            info.setDistributionURL(*platform::URL::parse("Example.dist", *base), std::nullopt);
        }
        std::vector<std::shared_ptr<crateworks::CWPackageReference>> references;
        references.push_back(crateworks::CWPackageReference::initWithURL(
            *platform::URL::parse("packages/Core.pkg", *base), "com.quarn.example.core", "1.4.2", 123456,
            "0123456789abcdef0123456789abcdef", base));
        references.push_back(crateworks::CWPackageReference::initWithURL(
            *platform::URL::parse("https://cdn.example.com/Extras%20One.pkg"), "com.quarn.example.extras", "2.0", 0,
            std::nullopt, base));
        info.setPackageReferences(references);
        return Value(info.dictionaryRepresentation());
    };
    plistSeeds("fuzz_product", "index", make(false));
    plistSeeds("fuzz_product", "index-localized", make(true));
}

void netrc() {
    seed("fuzz_netrc", "machine.txt",
         join({"downloads.example.com",
               "machine downloads.example.com login alice password s3cret\n"
               "machine other.example.com\n  login bob\n  password \"two words\"\n"
               "default login anonymous password guest@example.com\n"}));
    seed("fuzz_netrc", "macdef.txt",
         join({"example.com",
               "macdef init\ncd /pub\nget file\n\nmachine example.com login carol password x\n"}));
    seed("fuzz_netrc", "default-only.txt", join({"nowhere.example.com", "default login anonymous password guest\n"}));
}

void resumeStates() {
    crateworks::CWDownload::addDownloadClass(crateworks::CWSecureURLDownload::downloadClass());
    testsupport::TempDir scratch;
    std::string partial = scratch / "Example.pkg.partial";
    testsupport::writeFile(partial, "0123456789abcdef");
    // The host transfer's state as a transfer keeps it: URL, validator, bytes on disk.
    Value blob(Dictionary{{"URL", "https://updates.example.com/products/Example/packages/Core.pkg"},
                          {"ValidatorField", "ETag"},
                          {"Validator", "\"5d8c72a5edda8\""},
                          {"BytesOnDisk", 16},
                          {"CachePolicy", 1},
                          {"TimeoutInterval", 60.0}});
    for (const char* type : {crateworks::kCWURLDownloadResumeType, crateworks::kCWSecureURLDownloadResumeType}) {
        Value state(Dictionary{{crateworks::kCWResumeDataTypeKey, type},
                               {crateworks::kCWHostURLResumeDataKey, platform::plist::toBinary(blob)}});
        auto download = crateworks::CWDownload::downloadWithResumeData(platform::plist::toBinary(state), partial, nullptr);
        auto written = download ? download->resumeData() : std::nullopt;
        if (!written) fail(std::string("a ") + type + " does not keep its resume state");
        seed("fuzz_resume_state", std::string(type) + ".bplist", text(*written));
        download->cancel();
    }
    auto copy = crateworks::CWFileDownload::initWithURL(*platform::URL::parse("file:///srv/products/Example/Core.pkg"),
                                                        nullptr);
    if (auto written = copy ? copy->resumeData() : std::nullopt)
        seed("fuzz_resume_state", "CWFileDownload.bplist", text(*written));
    else
        fail("a local copy does not keep its resume state");
    platform::RunLoop::current()->runFor(0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fmt::print(stderr, "usage: make-fuzz-seeds DIR\n");
        return 2;
    }
    outputDirectory = argv[1];
    fuzzsupport::quietLogs();
    for (const auto& make : std::vector<std::function<void()>>{plists, receipts, pathCache, migrationData,
                                                                incompatibleApplications, pathFilters, trustSettings,
                                                                certificates, codeSignatures, products, netrc,
                                                                resumeStates})
        make();
    fmt::print("make-fuzz-seeds: wrote {} seeds below {}\n", written, outputDirectory);
    return 0;
}
