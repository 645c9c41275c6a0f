#include "ToolRun.h"

#include <filesystem>
#include <fmt/format.h>

#include "Platform/Digest.h"
#include "Platform/PropertyList.h"
#include "support/TempDir.h"

namespace tooltest {

using testsupport::shellQuote;

std::string binary(const std::string& tool) { return std::string(FERRYHOLD_BINARY_DIR) + "/" + tool; }

Result run(const std::string& tool, const std::vector<std::string>& arguments, const std::string& scratch,
        const std::string& redirect, const std::string& directory) {
    std::string command = (directory.empty() ? "" : "cd " + shellQuote(directory) + " && ") + shellQuote(binary(tool));
    for (const auto& argument : arguments) command += " " + shellQuote(argument);
    Result result;
    result.out = testsupport::runCommand(command + " " + redirect + " 2>" + shellQuote(scratch), &result.status);
    result.err = testsupport::readFile(scratch);
    return result;
}

std::string namesFromJsonLines(const std::string& lines, const std::string& key, const std::string& scratch) {
    testsupport::writeFile(scratch + ".json", lines);
    testsupport::writeFile(scratch + ".py", R"(
import base64, json, sys
key = sys.argv[2]
for line in open(sys.argv[1], encoding='utf-8'):
    entry = json.loads(line)
    if entry.get(key) is None: continue
    exact = base64.b64decode(entry[key + '_base64']) if key + '_base64' in entry else entry[key].encode('utf-8')
    print(entry[key].encode('unicode_escape').decode('ascii') + '|' + exact.hex())
)");
    return testsupport::runCommand("python3 " + shellQuote(scratch + ".py") + " " + shellQuote(scratch + ".json") + " " +
                                   shellQuote(key));
}

std::string hex(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) out += fmt::format("{:02x}", c);
    return out;
}

std::string md5(const std::string& bytes) {
    return platform::digest::hex(platform::digest::compute(
        platform::digest::Algorithm::MD5, std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())));
}

bool writeOnePackageProduct(const std::string& root, const std::string& productIdentifier, const std::string& url,
                            const std::string& identifier, const std::string& body) {
    platform::Array list{platform::Dictionary{{"URL", url},
                                              {"Identifier", identifier},
                                              {"Version", "1.0"},
                                              {"Size", platform::Value(int64_t(body.size()))},
                                              {"MD5", md5(body)}}};
    std::filesystem::create_directories(root);
    return platform::plist::writeXMLFile(
        platform::Value(platform::Dictionary{{"ProductIdentifier", productIdentifier}, {"Packages", list}}),
        root + "/index.product");
}

}  // namespace tooltest
