// Whether an item's access ACL says more than its mode bits: the ACL text and the
// metadata check of bills of materials must judge every item alike.
#include <gtest/gtest.h>

#include <filesystem>

#include "Platform/Acl.h"
#include "Platform/ItemStatus.h"
#include "support/TempDir.h"

using testsupport::TempDir;
using testsupport::writeFile;

TEST(Acl, AnExtendedACLIsJudgedAlikeByEveryCaller) {
    TempDir dir;
    const std::string plain = dir / "plain", same = dir / "same", shared = dir / "shared", link = dir / "link";
    for (const auto& path : {plain, same, shared}) writeFile(path, "x");
    std::filesystem::permissions(plain, std::filesystem::perms(0644));
    // An ACL of only the three base entries is the mode bits over again.
    ASSERT_TRUE(platform::acl::setACLText(same, "user::rw-,group::r--,other::---"));
    ASSERT_TRUE(platform::acl::setACLText(shared, "user::rw-,user:1:r--,group::r--,mask::r--,other::---"));
    std::filesystem::create_symlink(shared, link);

    for (const auto& path : {plain, same, link, dir / "missing"}) {
        EXPECT_FALSE(platform::acl::hasExtendedACL(path)) << path;
        EXPECT_EQ(platform::acl::extendedACLText(path), std::nullopt) << path;
        EXPECT_FALSE(platform::fs::hasCopyableMetadata(path, true)) << path;
    }
    EXPECT_TRUE(platform::acl::hasExtendedACL(shared));
    auto text = platform::acl::extendedACLText(shared);
    ASSERT_TRUE(text);
    EXPECT_NE(text->find("mask::r--"), std::string::npos) << *text;
    EXPECT_TRUE(platform::fs::hasCopyableMetadata(shared, true));
    // The stored ACL is no plain extended attribute.
    EXPECT_FALSE(platform::fs::hasCopyableMetadata(shared, false));
}
