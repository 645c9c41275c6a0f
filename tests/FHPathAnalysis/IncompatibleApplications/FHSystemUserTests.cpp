// The users of a system: folders in Users/ first, then homes from etc/passwd.
#include <gtest/gtest.h>

#include <filesystem>

#include "FHPathAnalysis/ConfMigrator/FHSystem.h"
#include "support/TempDir.h"

using namespace testsupport;

namespace {

std::vector<std::pair<std::string, std::string>> namesAndHomes(const std::vector<FHSystemUser>& users) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const auto& user : users) out.emplace_back(user.name(), user.relativeHomeDir().value_or("(none)"));
    return out;
}

}  // namespace

TEST(FHSystemUserTest, UsersFolderThenPasswordFileHomes) {
    TempDir root;
    for (const char* folder : {"Users/bob", "Users/alice", "Users/Shared", "Users/.hidden", "var/root", "home/carol",
                               "srv/svc", "home/dave"})
        std::filesystem::create_directories(root / folder);
    writeFile(root / "Users/notes.txt", "not a folder");
    std::filesystem::create_directory_symlink(root / "home/carol", root / "home/linked");
    writeFile(root / "etc/passwd",
              "root:x:0:0:root:/var/root:/bin/sh\n"
              "# a comment line\n"
              "alice2:x:501:20::/Users/alice:/bin/zsh\n"  // already listed from Users/
              "carol:x:502:20:Carol:/home/carol:/bin/sh\n"
              "gone:x:503:20::/home/gone:/bin/sh\n"        // no such folder
              "rel:x:504:20::srv/svc:/bin/sh\n"            // not absolute
              "link:x:505:20::/home/linked:/bin/sh\n"      // a link, not a folder
              "short:x:506:20\n"
              "carol2:x:507:20::/home/carol:/bin/sh\n"     // same home again
              "dave:x:508:20::/home/dave:");
    FHSystem system(root.path());
    EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{{"alice", "/Users/alice"},
                                                                 {"bob", "/Users/bob"},
                                                                 {"root", "/var/root"},
                                                                 {"carol", "/home/carol"},
                                                                 {"dave", "/home/dave"}}),
              namesAndHomes(system.getSystemUsers()));
}

TEST(FHSystemUserTest, NoUsersWithoutEitherSource) {
    TempDir root;
    EXPECT_TRUE(FHSystem(root.path()).getSystemUsers().empty());
    EXPECT_TRUE(FHSystem(root / "missing").getSystemUsers().empty());
}
