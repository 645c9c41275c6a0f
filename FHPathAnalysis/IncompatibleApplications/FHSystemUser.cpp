#include "FHPathAnalysis/IncompatibleApplications/FHSystemUser.h"

#include <algorithm>
#include <sstream>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace path = platform::path;

namespace {

// The item itself is a directory; a link on the analysed volume may point anywhere on the host.
bool isFolder(const std::string& absolutePath) { return platform::fs::isDirectoryNoFollow(absolutePath); }

std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> out;
    std::string field;
    std::istringstream in(line);
    while (std::getline(in, field, ':')) out.push_back(field);
    if (!line.empty() && line.back() == ':') out.emplace_back();
    return out;
}

void addUsersFolder(const std::string& rootPath, std::vector<FHSystemUser>& users) {
    std::string usersFolder = path::appendComponent(rootPath, "Users");
    auto names = platform::fs::contentsOfDirectory(usersFolder);
    if (!names) return;
    std::sort(names->begin(), names->end());
    for (const auto& name : *names) {
        if (name == "Shared" || name.starts_with(".")) continue;
        if (isFolder(path::appendComponent(usersFolder, name))) users.emplace_back(name, "/Users/" + name);
    }
}

void addPasswordFileUsers(const std::string& rootPath, std::vector<FHSystemUser>& users) {
    auto bytes = platform::fs::readRegularFile(path::appendComponent(rootPath, "etc/passwd"));
    if (!bytes) return;
    std::istringstream lines(std::string(bytes->begin(), bytes->end()));
    for (std::string line; std::getline(lines, line);) {
        auto entry = fields(line);
        if (entry.size() < 6 || !entry[5].starts_with("/")) continue;
        const std::string& home = entry[5];
        bool listed = std::any_of(users.begin(), users.end(),
                                  [&](const FHSystemUser& user) { return user.relativeHomeDir() == home; });
        if (!listed && isFolder(path::appendComponent(rootPath, home))) users.emplace_back(entry[0], home);
    }
}

}  // namespace

std::vector<FHSystemUser> FHSystemUser::usersOfSystemAtPath(const std::string& rootPath) {
    std::vector<FHSystemUser> users;
    addUsersFolder(rootPath, users);
    addPasswordFileUsers(rootPath, users);
    return users;
}
