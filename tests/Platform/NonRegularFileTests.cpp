// Readers of files a volume names, handed a FIFO, a device or a socket: each refuses at
// once instead of blocking on the open or reading a stream that never ends. Every call
// runs in a child with a deadline, so that a reader that blocks fails the test.
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "Platform/Checksum.h"
#include "Platform/Digest.h"
#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/MappedFile.h"
#include "Platform/PropertyList.h"
#include "support/HostileFiles.h"
#include "support/TempDir.h"

using namespace platform;
using testsupport::HostileFile;
using testsupport::resultWithin;
using testsupport::TempDir;

namespace {

constexpr double kDeadline = 10;

// The POSIX code of a refused open, or 0 when the open succeeded.
int openCode(const std::string& path, const fs::OpenOptions& options) {
    Error error;
    auto file = fs::File::open(path, options, &error);
    if (file) return 0;
    EXPECT_EQ(error.domain, kPOSIXErrorDomain);
    return int(error.code);
}

}  // namespace

TEST(NonRegularFiles, EveryPlatformReaderRefusesWithoutBlocking) {
    TempDir dir;
    auto hostile = testsupport::makeHostileFiles(dir / "planted");
    ASSERT_GE(hostile.size(), 2u);  // a FIFO and a socket can always be made
    testsupport::writeFile(dir / "real.plist", "<plist version=\"1.0\"><dict><key>k</key><string>v</string></dict></plist>");
    ASSERT_EQ(symlink((dir / "planted.fifo").c_str(), (dir / "link-to-fifo").c_str()), 0);
    hostile.push_back({"link to a FIFO", dir / "link-to-fifo"});

    for (const HostileFile& item : hostile) {
        SCOPED_TRACE(item.kind);
        const std::string& path = item.path;
        // A socket cannot even be opened; the rest open and are then refused by type.
        int expected = item.kind == "socket" ? ENXIO : EINVAL;
        EXPECT_EQ(resultWithin(kDeadline, [&] { return openCode(path, {.regularFile = true}) == expected; }), true);
        EXPECT_EQ(resultWithin(kDeadline, [&] { return !fs::readRegularFile(path); }), true);
        EXPECT_EQ(resultWithin(kDeadline, [&] { return !plist::readFile(path) && !plist::readDictionaryFile(path); }),
                  true);
        EXPECT_EQ(resultWithin(kDeadline, [&] { return MappedFile::open(path) == nullptr; }), true);
        // Checksums and digests of a volume's files (receipts, incompatible applications,
        // the rule tool's configuration files) and of downloaded packages.
        EXPECT_EQ(resultWithin(kDeadline, [&] { return !checksum::ofFile(path); }), true);
        EXPECT_EQ(resultWithin(kDeadline, [&] { return !digest::ofFile(digest::Algorithm::SHA1, path); }), true);
    }
    // Not followed when asked not to be, whatever it points at; a directory is named as such.
    EXPECT_EQ(openCode(dir / "link-to-fifo", {.followFinalLink = false, .regularFile = true}), ELOOP);
    EXPECT_EQ(openCode(dir.path(), {.regularFile = true}), EISDIR);

    // A regular file, directly or through a link, still reads, and reads blocking.
    ASSERT_EQ(symlink((dir / "real.plist").c_str(), (dir / "link-to-real").c_str()), 0);
    for (const std::string& path : {dir / "real.plist", dir / "link-to-real"}) {
        auto file = fs::File::open(path, {.regularFile = true});
        ASSERT_TRUE(file) << path;
        EXPECT_EQ(fcntl(file->descriptor(), F_GETFL) & O_NONBLOCK, 0) << path;
        auto value = plist::readDictionaryFile(path);
        ASSERT_TRUE(value) << path;
        EXPECT_EQ(*value->findString("k"), "v");
        auto mapped = MappedFile::open(path);
        ASSERT_TRUE(mapped) << path;
        EXPECT_EQ(mapped->bytes().size(), testsupport::readFile(dir / "real.plist").size());
        EXPECT_TRUE(checksum::ofFile(path)) << path;
    }
}
