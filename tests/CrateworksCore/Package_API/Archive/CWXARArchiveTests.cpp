// The XAR archive classes: attributes, enumeration, digests, writing, verification.
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/CWMutableXARArchive.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/CWXARDirectoryEnumerator.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"
#include "Platform/Exception.h"
#include "XarTestSupport.h"
#include "support/HostileFiles.h"
#include "support/TempDir.h"

using namespace crateworks;
using testsupport::runCommand;
using testsupport::TempDir;
using xartest::runTool;
using xartest::shellQuote;

namespace {

std::string text(const std::optional<platform::Data>& d) { return d ? std::string(d->begin(), d->end()) : "<null>"; }
platform::Data bytes(const std::string& s) { return platform::Data(s.begin(), s.end()); }

std::vector<std::string> walk(platform::DirectoryEnumerator& e) {
    std::vector<std::string> out;
    while (auto p = e.nextObject()) out.push_back(*p);
    return out;
}

// a.txt, dir/, dir/one, dir/sub/, dir/sub/two, dir/three, z.txt in TOC order.
std::string writeSample(const TempDir& tmp) {
    std::string path = tmp / "sample.xar";
    auto archive = CWMutableXARArchive::initForWritingToPath(path, nullptr);
    EXPECT_TRUE(archive);
    EXPECT_TRUE(archive->setData(bytes("alpha"), "a.txt", true));
    EXPECT_TRUE(archive->setData(bytes("one"), "dir/one", true));
    EXPECT_TRUE(archive->setData(bytes("two"), "dir/sub/two", false));
    EXPECT_TRUE(archive->setData(bytes("three"), "dir/three", true));
    EXPECT_TRUE(archive->setData(bytes("zulu"), "z.txt", false));
    EXPECT_TRUE(archive->closeArchive());
    return path;
}

// Something that is not a regular file where an archive is expected is refused with a
// POSIX error at once: a FIFO must not block the open, a device must not be read.
TEST(CWXARArchive, NonRegularFilesAreRefusedWithoutBlocking) {
    TempDir dir;
    auto planted = testsupport::makeHostileFiles(dir / "planted");
    ASSERT_GE(planted.size(), 2u);
    for (const auto& item : planted) {
        auto refused = testsupport::resultWithin(10, [&] {
            platform::Error error;
            return CWXARArchive::initForReadingFromPath(item.path, &error) == nullptr &&
                   error.domain == platform::kPOSIXErrorDomain && error.code == (item.kind == "socket" ? ENXIO : EINVAL);
        });
        EXPECT_EQ(refused, true) << item.kind;
    }
}

TEST(CWXARArchive, AttributesComeFromTheTocWithTheDecimalModeReading) {
    TempDir tmp;
    testsupport::writeFile(tmp / "src/file.txt", "hello");
    chmod((tmp / "src/file.txt").c_str(), 0755);
    symlink("file.txt", (tmp / "src/link").c_str());
    auto writer = CWMutableXARArchive::initForWritingToPath(tmp / "a.xar", nullptr);
    ASSERT_TRUE(writer->setFile(tmp / "src/file.txt", "file.txt", true));
    ASSERT_TRUE(writer->setFile(tmp / "src/link", "link", true));
    ASSERT_TRUE(writer->closeArchive());

    auto archive = CWXARArchive::initForReadingFromPath(tmp / "a.xar");
    ASSERT_TRUE(archive);
    auto attributes = archive->fileAttributesAtPath("file.txt");
    ASSERT_TRUE(attributes);
    using namespace platform::fs;
    EXPECT_EQ(platform::Value(int64_t(755)), *attributes->find(kFilePosixPermissions));  // "0755" read as 755
    EXPECT_EQ(kFileTypeRegular, *attributes->findString(kFileType));
    EXPECT_EQ(platform::Value(uint64_t(5)), *attributes->find(kFileSize));
    EXPECT_EQ(platform::Value(int64_t(0)), *attributes->find(kFileOwnerAccountID));
    EXPECT_EQ("root", *attributes->findString(kFileOwnerAccountName));
    auto mtime = attributes->find(kFileModificationDate)->date();
    ASSERT_TRUE(mtime);
    struct stat st {};
    stat((tmp / "src/file.txt").c_str(), &st);
    EXPECT_EQ(double(st.st_mtime), mtime->secondsSince1970);
    // Properties without a key of their own keep their TOC names.
    EXPECT_TRUE(attributes->find("data/offset") && attributes->find("data/archived-checksum"));
    auto link = archive->fileAttributesAtPath("link");
    EXPECT_EQ(kFileTypeSymbolicLink, *link->findString(kFileType));
    EXPECT_EQ("file.txt", *link->findString("link"));

    EXPECT_EQ(kFileTypeUnknown, CWXARArchive::_fileAttributeKeyForXARFileType("fifo"));
    EXPECT_EQ(kFileTypeCharacterSpecial, CWXARArchive::_fileAttributeKeyForXARFileType("character special"));
    EXPECT_TRUE(CWXARArchive::_fileAttributeForXARProperty("not a date", kFileCreationDate).isNull());
    EXPECT_FALSE(archive->fileAttributesAtPath("missing"));
    EXPECT_FALSE(archive->fileExistsAtPath("missing"));
    EXPECT_TRUE(archive->fileExistsAtPath("link"));
}

TEST(CWXARArchive, EmptyPathAndDotAreDirectoriesWithoutLookingAtTheFile) {
    TempDir tmp;
    auto archive = CWXARArchive::initForReadingFromPath(writeSample(tmp));
    ASSERT_TRUE(archive->closeArchive());
    unlink((tmp / "sample.xar").c_str());  // a lookup would now fail
    for (std::string path : {"", "."}) {
        auto attributes = archive->fileAttributesAtPath(path);
        ASSERT_TRUE(attributes) << path;
        EXPECT_EQ(1u, attributes->size());
        EXPECT_EQ(platform::fs::kFileTypeDirectory, *attributes->findString(platform::fs::kFileType));
    }
    EXPECT_FALSE(archive->fileAttributesAtPath("a.txt"));
}

TEST(CWXARArchive, EnumeratorsWalkSubtreesSkipAndPeek) {
    TempDir tmp;
    auto archive = CWXARArchive::initForReadingFromPath(writeSample(tmp));
    auto all = archive->enumeratorAtPath("");
    EXPECT_EQ((std::vector<std::string>{"a.txt", "dir", "dir/one", "dir/sub", "dir/sub/two", "dir/three", "z.txt"}),
              walk(*all));
    // A sub-path yields the paths below it, relative to it, and stops at the first entry outside.
    auto dir = archive->enumeratorAtPath("dir");
    ASSERT_TRUE(dir);
    EXPECT_EQ((std::vector<std::string>{"one", "sub", "sub/two", "three"}), walk(*dir));
    EXPECT_FALSE(dir->nextObject());
    // A file sub-path yields nothing; a missing one gives no enumerator.
    EXPECT_TRUE(walk(*archive->enumeratorAtPath("dir/one")).empty());
    EXPECT_FALSE(archive->enumeratorAtPath("dir/missing"));
    EXPECT_FALSE(archive->enumeratorAtPath("di"));

    // Skipping a directory peeks at the next entry outside it, under both spellings.
    auto skipping = CWXARDirectoryEnumerator::initWithXAR(archive->_xar(), "");
    EXPECT_EQ("a.txt", skipping->nextObject());
    EXPECT_FALSE(skipping->isDirectory());
    EXPECT_EQ("dir", skipping->nextObject());
    EXPECT_TRUE(skipping->isDirectory());
    skipping->skipDescendants();
    EXPECT_EQ("z.txt", skipping->nextObject());
    EXPECT_FALSE(skipping->nextObject());
    auto second = CWXARDirectoryEnumerator::initWithXAR(archive->_xar(), "dir");
    EXPECT_EQ("one", second->nextObject());
    EXPECT_EQ("sub", second->nextObject());
    second->skipDescendents();
    EXPECT_EQ("three", second->nextObject());
    EXPECT_EQ("three", archive->_xar()->path(second->xar_file()).substr(4));
    EXPECT_FALSE(second->nextObject());
    // Skipping the last entry ends the walk.
    auto last = CWXARDirectoryEnumerator::initWithXAR(archive->_xar(), "");
    while (last->nextObject() != std::optional<std::string>("z.txt")) {}
    last->skipDescendants();
    EXPECT_FALSE(last->nextObject());
}

TEST(CWXARArchive, DigestIsTheStoredTocChecksumAndLeavesTheArchiveReadable) {
    TempDir tmp;
    std::string path = writeSample(tmp);
    auto archive = CWXARArchive::initForReadingFromPath(path);
    auto digest = archive->archiveDigest();
    ASSERT_TRUE(digest);
    // Independently: SHA-1 of the compressed TOC bytes named by the header.
    std::string expected = runCommand(
        "python3 -c 'import sys,struct,hashlib; b=open(sys.argv[1],\"rb\").read(); h,=struct.unpack(\">H\",b[4:6]);"
        " c,=struct.unpack(\">Q\",b[8:16]); print(hashlib.sha1(b[h:h+c]).hexdigest())' " +
        shellQuote(path));
    EXPECT_EQ(expected, *digest + "\n");
    EXPECT_EQ("alpha", text(archive->dataForPath("a.txt")));
    EXPECT_EQ(*digest, runTool("xar digest " + shellQuote(path)).substr(0, 40));

    EXPECT_EQ(CWArchiveSignatureList{}, archive->archiveSignatures().value());
    auto date = archive->archiveSignatureDate();
    ASSERT_TRUE(date);
    EXPECT_NEAR(platform::Date::now().secondsSince1970, date->secondsSince1970, 120);
}

TEST(CWXARArchive, DataOffsetsPointAtTheStoredBytes) {
    TempDir tmp;
    std::string path = writeSample(tmp);
    auto archive = CWXARArchive::initForReadingFromPath(path);
    uint64_t offset = archive->_fileOffsetForPath("dir/sub/two", nullptr);  // stored, not compressed
    ASSERT_GT(offset, 0u);
    EXPECT_EQ("two", testsupport::readFile(path).substr(offset, 3));
    platform::Error error;
    EXPECT_EQ(0u, archive->_fileOffsetForPath("nope", &error));
    EXPECT_EQ(ENOENT, error.code);
    EXPECT_EQ(0u, archive->_fileOffsetForPath("dir", &error));
}

TEST(CWMutableXARArchive, MissingParentsAreMadeWith0700AndEncodingsFollowTheFlag) {
    TempDir tmp;
    auto writer = CWMutableXARArchive::initForWritingToPath(tmp / "w.xar", nullptr);
    ASSERT_TRUE(writer->setData(bytes("cee"), "a/b/c", false));
    ASSERT_TRUE(writer->setData(bytes(std::string(1000, 'x')), "a/b/d", true));
    ASSERT_TRUE(writer->closeArchive());
    auto archive = CWXARArchive::initForReadingFromPath(tmp / "w.xar");
    auto all = archive->enumeratorAtPath("");
    EXPECT_EQ((std::vector<std::string>{"a", "a/b", "a/b/c", "a/b/d"}), walk(*all));
    for (std::string dir : {"a", "a/b"}) {
        auto attributes = archive->fileAttributesAtPath(dir);
        EXPECT_EQ(platform::fs::kFileTypeDirectory, *attributes->findString(platform::fs::kFileType));
        EXPECT_EQ(platform::Value(int64_t(700)), *attributes->find(platform::fs::kFilePosixPermissions));
    }
    auto* xar = archive->_xar();
    EXPECT_EQ("application/octet-stream", std::string(xar::styleForEncoding(xar->find("a/b/c")->data->encoding)));
    EXPECT_EQ("application/x-gzip", std::string(xar::styleForEncoding(xar->find("a/b/d")->data->encoding)));
    EXPECT_LT(xar->find("a/b/d")->data->length, 100u);
    EXPECT_EQ("cee", text(archive->dataForPath("a/b/c")));
    EXPECT_EQ(std::string(1000, 'x'), text(archive->dataForPath("a/b/d")));
    // SHA-1 everywhere.
    std::string toc = xartest::tocOf(tmp / "w.xar");
    EXPECT_NE(std::string::npos, toc.find("<checksum style=\"sha1\">"));
    EXPECT_NE(std::string::npos, toc.find("<extracted-checksum style=\"sha1\">"));
}

TEST(CWMutableXARArchive, WritingAfterCloseRaisesAndReadingReopens) {
    TempDir tmp;
    auto writer = CWMutableXARArchive::initForWritingToPath(tmp / "w.xar", nullptr);
    ASSERT_TRUE(writer->setData(bytes("x"), "x", true));
    ASSERT_TRUE(writer->closeArchive());
    try {
        writer->setData(bytes("y"), "y", true);
        FAIL() << "no exception";
    } catch (const platform::Exception& e) {
        EXPECT_EQ("CWMutableXARArchiveException", e.name());
        EXPECT_EQ("-[CWMutableXARArchive setData:forPath:compressed:] cannot be used after archive has been closed",
                  e.reason());
    }
    EXPECT_THROW(writer->setFile(tmp / "w.xar", "f", true), platform::Exception);
    EXPECT_THROW(writer->setContentsOfArchive(*writer, ""), platform::Exception);
    EXPECT_EQ("x", text(writer->dataForPath("x")));

    platform::Error error;
    EXPECT_FALSE(CWMutableXARArchive::initForWritingToPath("", &error));
    EXPECT_EQ(ENOENT, error.code);
    EXPECT_TRUE(error.userInfo.empty());
    EXPECT_FALSE(CWMutableXARArchive::initForWritingToPath(tmp / "no/such/dir/w.xar", &error));
    EXPECT_EQ(platform::kPOSIXErrorDomain, error.domain);
    EXPECT_FALSE(writer->addIntermediateCertificate(bytes("der")));
    EXPECT_FALSE(writer->addSignatureBySigningWithIdentity(nullptr, "RSA"));
}

TEST(CWMutableXARArchive, ContentsOfAnotherArchiveAreCopiedBelowAPath) {
    TempDir tmp;
    auto source = CWXARArchive::initForReadingFromPath(writeSample(tmp));
    auto writer = CWMutableXARArchive::initForWritingToPath(tmp / "copy.xar", nullptr);
    ASSERT_TRUE(writer->setContentsOfArchive(*source, "inner"));
    ASSERT_TRUE(writer->closeArchive());
    auto copy = CWXARArchive::initForReadingFromPath(tmp / "copy.xar");
    ASSERT_TRUE(copy);
    EXPECT_TRUE(copy->verifyReturningError(nullptr));
    EXPECT_EQ((std::vector<std::string>{"a.txt", "dir", "dir/one", "dir/sub", "dir/sub/two", "dir/three", "z.txt"}),
              walk(*copy->enumeratorAtPath("inner")));
    EXPECT_EQ("two", text(copy->dataForPath("inner/dir/sub/two")));
    EXPECT_EQ("three", text(copy->dataForPath("inner/dir/three")));
}

TEST(CWXARArchive, SkippingVerificationAppliesOnlyToUnsignedArchives) {
    TempDir tmp;
    std::string path = writeSample(tmp);
    // The archived checksum of a.txt no longer matches; its extracted bytes still do.
    std::string toc = xartest::tocOf(path);
    auto at = toc.find("<archived-checksum style=\"sha1\">");
    ASSERT_NE(std::string::npos, at);
    xartest::editToc(path, [&](std::string& xml) { xml[at + 32] = xml[at + 32] == '0' ? '1' : '0'; });

    auto archive = CWXARArchive::initForReadingFromPath(path);
    ASSERT_TRUE(archive);
    EXPECT_FALSE(archive->dataForPath("a.txt"));
    archive->_setSkipsVerifyIfUnsigned(true);
    EXPECT_EQ("alpha", text(archive->dataForPath("a.txt")));
    platform::Error error;
    EXPECT_FALSE(archive->verifyReturningError(&error));  // verification itself never skips
    EXPECT_EQ(platform::kFileReadCorruptFileError, error.code);
    EXPECT_EQ("a.txt", *error.userInfo.findString(platform::kFilePathErrorKey));

    // Once the archive carries an RSA signature, entries are checked again.
    xartest::editToc(path, [](std::string& xml) {
        xartest::replaceOnce(xml, "  <file id=", "  <signature style=\"RSA\"><offset>20</offset><size>0</size>"
                                                 "</signature>\n  <file id=");
    });
    auto signedArchive = CWXARArchive::initForReadingFromPath(path);
    ASSERT_TRUE(signedArchive);
    signedArchive->_setSkipsVerifyIfUnsigned(true);
    EXPECT_FALSE(signedArchive->dataForPath("a.txt"));
    EXPECT_EQ(1u, signedArchive->_xar()->signatures().size());
}

TEST(CWArchive, AbstractOperationsRaiseWithTheirNames) {
    struct Bare : CWArchive {};
    Bare bare;
    auto reason = [](auto&& call) {
        try {
            call();
        } catch (const platform::Exception& e) {
            EXPECT_EQ("CWArchiveException", e.name());
            return e.reason();
        }
        return std::string("no exception");
    };
    EXPECT_EQ("Concrete subclasses must implement -[CWArchive archivePath]", reason([&] { bare.archivePath(); }));
    EXPECT_EQ("Concrete subclasses must implement -[CWArchive dataForPath:]", reason([&] { bare.dataForPath("x"); }));
    EXPECT_EQ("Concrete subclasses must implement -[CWArchive(ForSubclassers) initForReadingFromPath:]",
              reason([&] { CWArchive::initForReadingFromPath("x"); }));
    EXPECT_EQ("Concrete subclasses must implement -[CWArchive closeArchive], even if it does nothing. See CWArchive",
              reason([&] { bare.closeArchive(); }));
    EXPECT_EQ("Concrete subclasses must implement -[CWMutableArchive(ForSubclassers) initForWritingToPath:error:]",
              reason([&] { CWMutableArchive::initForWritingToPath("x", nullptr); }));
    EXPECT_FALSE(bare.archiveDigest());
    EXPECT_FALSE(bare.archiveSignatures());

    TempDir tmp;
    platform::Error error;
    error.code = 77;
    EXPECT_FALSE(CWMutableArchive::initForWritingToPath(tmp / "x", "zip", &error));
    EXPECT_EQ(77, error.code);  // no error set
    auto xarWriter = CWMutableArchive::initForWritingToPath(tmp / "x.xar", "xar", &error);
    ASSERT_TRUE(xarWriter);
    EXPECT_STREQ("CWMutableXARArchive", xarWriter->className());
    EXPECT_EQ("CWMutableXARArchive <" + tmp / "x.xar" + ">", xarWriter->description());
    EXPECT_STREQ("CWFolderArchive", CWMutableArchive::initForWritingToPath(tmp / "f", "folder", &error)->className());
}

TEST(CWXARArchive, ExtractingADirectoryItemWritesItsTree) {
    TempDir tmp;
    auto archive = CWXARArchive::initForReadingFromPath(writeSample(tmp));
    mkdir((tmp / "out").c_str(), 0755);
    platform::Error error;
    ASSERT_TRUE(archive->extractItemAtPath("dir", tmp / "out", &error)) << error.description();
    EXPECT_EQ("one", testsupport::readFile(tmp / "out/one"));
    EXPECT_EQ("two", testsupport::readFile(tmp / "out/sub/two"));
    EXPECT_EQ("three", testsupport::readFile(tmp / "out/three"));
    ASSERT_TRUE(archive->extractItemAtPath("z.txt", tmp / "z-copy", &error));
    EXPECT_EQ("zulu", testsupport::readFile(tmp / "z-copy"));
    EXPECT_FALSE(archive->extractItemAtPath("missing", tmp / "m", &error));
    EXPECT_EQ(ENOENT, error.code);
}

TEST(CWMutableXARArchive, LargeFilesAreStreamedBothWays) {
    TempDir tmp;
    // Past the in-memory limit: written and extracted in pieces, not held whole.
    std::string big = tmp / "big.bin";
    testsupport::writeFile(big, "head");
    ASSERT_EQ(0, truncate(big.c_str(), (65 << 20) + 17));
    testsupport::writeFile(tmp / "tail.bin", "tail");
    auto writer = CWMutableXARArchive::initForWritingToPath(tmp / "big.xar", nullptr);
    ASSERT_TRUE(writer->setFile(big, "big.bin", true));
    ASSERT_TRUE(writer->setFile(tmp / "tail.bin", "tail.bin", false));
    ASSERT_TRUE(writer->closeArchive());
    EXPECT_LT(testsupport::readFile(tmp / "big.xar").size(), 1u << 20);
    EXPECT_TRUE(writer->verifyReturningError(nullptr));
    EXPECT_EQ("tail", text(writer->dataForPath("tail.bin")));
    int status = -1;
    std::string out = runTool("xar extract " + shellQuote(tmp / "big.xar") + " " + shellQuote(tmp / "out"), &status);
    ASSERT_EQ(0, status) << out;
    EXPECT_EQ("", runCommand("cmp " + shellQuote(big) + " " + shellQuote(tmp / "out/big.bin") + " 2>&1"));
}

}  // namespace

namespace {
// Runs `body` in a child process that has dropped to user and group 65534, and
// answers its exit status (0 when `body` answered true).
int asUnprivileged(const std::function<bool()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        bool dropped = setgroups(0, nullptr) == 0 && setresgid(65534, 65534, 65534) == 0 &&
                       setresuid(65534, 65534, 65534) == 0;
        _exit(!dropped ? 3 : body() ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
}  // namespace

TEST(CWXARArchive, ReadOnlyDirectoriesAreFilledBeforeTheyTakeTheirModeAndTime) {
    TempDir tmp;
    ASSERT_EQ(0, chmod(tmp.path().c_str(), 0755));
    testsupport::writeFile(tmp / "src/top/ro/a.txt", "alpha");
    testsupport::writeFile(tmp / "src/top/ro/inner/b.txt", "beta");
    ASSERT_EQ(0, chmod((tmp / "src/top/ro/inner").c_str(), 0555));
    ASSERT_EQ(0, chmod((tmp / "src/top/ro").c_str(), 0555));
    runCommand("touch -h -d '2001-02-03 04:05:06 UTC' " + shellQuote(tmp / "src/top/ro/inner") + " " +
               shellQuote(tmp / "src/top/ro"));
    int status = -1;
    std::string out = runTool("xar create " + shellQuote(tmp / "ro.xar") + " " + shellQuote(tmp / "src"), &status);
    ASSERT_EQ(0, status) << out;
    ASSERT_EQ(0, mkdir((tmp / "dest").c_str(), 0777));
    ASSERT_EQ(0, chmod((tmp / "dest").c_str(), 0777));

    // Not root: a directory given its 0555 first could not receive a.txt.
    std::string archivePath = tmp / "ro.xar", destination = tmp / "dest";
    EXPECT_EQ(0, asUnprivileged([&] {
        auto archive = CWXARArchive::initForReadingFromPath(archivePath);
        platform::Error error;
        return archive && archive->extractItemAtPath("top", destination, &error);
    }));
    EXPECT_EQ("alpha", testsupport::readFile(tmp / "dest/ro/a.txt"));
    EXPECT_EQ("beta", testsupport::readFile(tmp / "dest/ro/inner/b.txt"));
    for (std::string dir : {"dest/ro", "dest/ro/inner"}) {
        struct stat st {};
        ASSERT_EQ(0, lstat((tmp / dir).c_str(), &st)) << dir;
        EXPECT_EQ(0555u, st.st_mode & 07777) << dir;
        EXPECT_EQ(981173106, st.st_mtime) << dir;  // 2001-02-03 04:05:06 UTC
    }
    runCommand("chmod -R u+w " + shellQuote(tmp / "dest") + " " + shellQuote(tmp / "src"));
}
