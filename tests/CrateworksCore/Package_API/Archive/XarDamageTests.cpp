// Damaged and hostile archives: none crashes, hangs, or writes outside the destination.
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "Platform/ExtractionRoot.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"

using namespace crateworks;
using testsupport::runCommand;
using testsupport::TempDir;
using xartest::runTool;
using xartest::shellQuote;

namespace {

std::string sampleArchive(const TempDir& tmp) {
    xartest::makeSampleTree(tmp / "src");
    int status = -1;
    std::string out = runTool("xar create " + shellQuote(tmp / "in.xar") + " " + shellQuote(tmp / "src"), &status);
    EXPECT_EQ(0, status) << out;
    return tmp / "in.xar";
}

// Everything below `dir`, one path a line.
std::string contents(const std::string& dir) {
    return runCommand("cd " + shellQuote(dir) + " 2>/dev/null && find . -mindepth 1 | LC_ALL=C sort");
}

std::string openDiagnostic(const std::string& path) {
    platform::Error error;
    EXPECT_FALSE(xar::XarReader::open(path, &error));
    const std::string* reason = error.userInfo.findString(platform::kFailureReasonKey);
    return reason ? *reason : error.description();
}

TEST(XarDamage, AFlippedDataByteFailsThatEntryOnly) {
    TempDir tmp;
    std::string path = sampleArchive(tmp);
    uint64_t offset = CWXARArchive::initForReadingFromPath(path)->_fileOffsetForPath("dir/binary.bin", nullptr);
    ASSERT_GT(offset, 0u);
    xartest::flipByte(path, offset + 1000);

    auto archive = CWXARArchive::initForReadingFromPath(path);
    ASSERT_TRUE(archive);
    platform::Error error;
    EXPECT_FALSE(archive->verifyReturningError(&error));
    EXPECT_EQ(platform::kGeneralErrorDomain, error.domain);
    EXPECT_EQ(platform::kFileReadCorruptFileError, error.code);
    EXPECT_EQ("dir/binary.bin", *error.userInfo.findString(platform::kFilePathErrorKey));
    EXPECT_FALSE(archive->dataForPath("dir/binary.bin"));
    EXPECT_EQ(testsupport::readFile(tmp / "src/dir/text.txt"), [&] {
        auto d = archive->dataForPath("dir/text.txt");
        return d ? std::string(d->begin(), d->end()) : "";
    }());

    int status = -1;
    std::string out = runTool("xar verify " + shellQuote(path), &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, out.find("dir/binary.bin")) << out;
    out = runTool("xar extract " + shellQuote(path) + " " + shellQuote(tmp / "out"), &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, out.find("entry dir/binary.bin failed its checksum")) << out;
    // Nothing of the damaged entry, under its name or a temporary one.
    std::string written = contents(tmp / "out");
    EXPECT_EQ(std::string::npos, written.find("binary")) << written;
    EXPECT_EQ(std::string::npos, written.find("xartmp")) << written;
}

TEST(XarDamage, ATocThatDoesNotMatchItsChecksumDoesNotOpen) {
    TempDir tmp;
    std::string path = sampleArchive(tmp);
    xartest::editToc(path, [](std::string& xml) { xartest::replaceOnce(xml, "<mode>0644</mode>", "<mode>0666</mode>"); },
                     false);
    EXPECT_FALSE(CWXARArchive::initForReadingFromPath(path));
    EXPECT_EQ("the TOC does not match its checksum", openDiagnostic(path));

    std::string flipped = sampleArchive(tmp);
    xartest::flipByte(flipped, 28 + 40);  // inside the compressed TOC
    EXPECT_FALSE(CWXARArchive::initForReadingFromPath(flipped));
    int status = -1;
    std::string out = runTool("xar list " + shellQuote(flipped), &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ(1, std::count(out.begin(), out.end(), '\n')) << out;
    EXPECT_NE(std::string::npos, out.find(flipped + ": not a XAR archive")) << out;
}

TEST(XarDamage, ATruncatedHeapRefusesTheArchiveNamingTheEntryPastItsEnd) {
    TempDir tmp;
    std::string path = sampleArchive(tmp);
    uint64_t offset = CWXARArchive::initForReadingFromPath(path)->_fileOffsetForPath("dir/binary.bin", nullptr);
    ASSERT_EQ(0, truncate(path.c_str(), off_t(offset + 10)));
    platform::Error error;
    EXPECT_FALSE(CWXARArchive::initForReadingFromPath(path, &error));
    EXPECT_EQ(platform::kGeneralErrorDomain, error.domain);
    EXPECT_EQ(platform::kFileReadCorruptFileError, error.code);
    EXPECT_NE(std::string::npos, error.description().find("entry dir/binary.bin")) << error.description();
    for (std::string verb : {"list", "verify", "digest"}) {
        int status = -1;
        std::string out = runTool("xar " + verb + " " + shellQuote(path), &status);
        EXPECT_EQ(1, status) << verb;
        EXPECT_EQ(1, std::count(out.begin(), out.end(), '\n')) << out;
        EXPECT_NE(std::string::npos, out.find("truncated or damaged")) << out;
    }
    int status = -1;
    runTool("xar extract " + shellQuote(path) + " " + shellQuote(tmp / "out"), &status);
    EXPECT_EQ(1, status);
    EXPECT_EQ("", contents(tmp / "out"));
}

TEST(XarDamage, UnsafeNamesRefuseTheirWholeSubtree) {
    for (std::string name : {"..", ".", "", "/etc", "a/../../x", "Li4=\" enctype=\"base64"}) {
        TempDir tmp;
        std::string path = sampleArchive(tmp);
        xartest::editToc(path, [&](std::string& xml) {
            if (name.find("enctype") != std::string::npos)
                xartest::replaceOnce(xml, "<name>dir</name>", "<name enctype=\"base64\">Li4=</name>");
            else
                xartest::replaceOnce(xml, "<name>dir</name>", "<name>" + name + "</name>");
        });
        auto archive = CWXARArchive::initForReadingFromPath(path);
        ASSERT_TRUE(archive) << name;
        EXPECT_EQ(9u, archive->_xar()->refusedEntryCount()) << name;  // dir and the 8 entries below it
        int status = -1;
        std::string list = runTool("xar list " + shellQuote(path), &status);
        EXPECT_EQ(0, status);
        EXPECT_EQ(std::string::npos, list.find("binary")) << list;
        mkdir((tmp / "box").c_str(), 0755);
        runTool("xar extract " + shellQuote(path) + " " + shellQuote(tmp / "box/out"), &status);
        EXPECT_EQ(0, status);
        EXPECT_EQ("./out\n./out/top.txt\n", contents(tmp / "box")) << name;
    }
}

// A symbolic link entry pointing outside, then entries that would write through it.
void expectNoEscape(bool nested) {
    TempDir tmp;
    std::string path = sampleArchive(tmp);
    mkdir((tmp / "outside").c_str(), 0755);
    std::string text = xartest::tocOf(path);
    // The first data element (dir/binary.bin's), reused for the file below the link.
    auto begin = text.find("<data>"), end = text.find("</data>") + 7;
    std::string data = text.substr(begin, end - begin);
    std::string link = "<file id=\"900\"><name>esc</name><type>symlink</type><link type=\"directory\">" +
                       tmp / "outside" + "</link>";
    std::string file = "<file id=\"901\"><name>f</name><type>file</type><mode>0644</mode>" + data + "</file>";
    std::string entries = nested ? link + file + "</file>"
                                 : link + "</file><file id=\"902\"><name>esc</name><type>directory</type>" + file +
                                       "</file>";
    xartest::editToc(path, [&](std::string& xml) { xartest::replaceOnce(xml, " </toc>", entries + " </toc>"); });
    int status = -1;
    std::string out = runTool("xar extract " + shellQuote(path) + " " + shellQuote(tmp / "out"), &status);
    EXPECT_EQ("", contents(tmp / "outside")) << out;
    if (nested) {
        EXPECT_EQ(1, status) << out;
    } else {
        EXPECT_EQ(0, status) << out;
        EXPECT_TRUE(testsupport::readFile(tmp / "src/dir/binary.bin") == testsupport::readFile(tmp / "out/esc/f"));
    }
}

TEST(XarDamage, NoLinkIsFollowedOutOfTheDestination) {
    expectNoEscape(true);
    expectNoEscape(false);
    // The same without openat2, one O_NOFOLLOW step at a time.
    platform::ExtractionRoot::setUsesOpenat2(false);
    TempDir tmp;
    mkdir((tmp / "outside").c_str(), 0755);
    mkdir((tmp / "root").c_str(), 0755);
    symlink((tmp / "outside").c_str(), (tmp / "root/esc").c_str());
    auto root = platform::ExtractionRoot::open(tmp / "root", false);
    platform::Error error;
    EXPECT_FALSE(root->createFile("esc/f", 0644, &error));
    EXPECT_TRUE(error.code == ELOOP || error.code == ENOTDIR) << error.code;
    EXPECT_FALSE(root->makeDirectory("esc/d", 0755, &error));
    EXPECT_TRUE(root->makeDirectory("esc", 0755, &error));  // the link is replaced, not followed
    auto file = root->createFile("esc/f", 0644, &error);
    ASSERT_TRUE(file);
    EXPECT_TRUE(root->commit(*file, 0600, std::nullopt, &error));
    platform::ExtractionRoot::setUsesOpenat2(true);
    EXPECT_EQ("", contents(tmp / "outside"));
    struct stat st {};
    ASSERT_EQ(0, lstat((tmp / "root/esc/f").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
}

TEST(XarDamage, HugeClaimsAreRefusedWithoutCommittingMemory) {
    TempDir tmp;
    std::string path = sampleArchive(tmp);
    // A 10 GB entry behind a few hundred stored bytes.
    xartest::editToc(path, [](std::string& xml) {
        auto at = xml.find("<size>", xml.find("<data>"));
        xml.replace(at, xml.find("</size>", at) - at, "<size>10737418240");
    });
    auto archive = CWXARArchive::initForReadingFromPath(path);
    ASSERT_TRUE(archive);
    EXPECT_EQ(10737418240u, archive->_xar()->find("dir/binary.bin")->data->size);
    EXPECT_FALSE(archive->dataForPath("dir/binary.bin"));
    EXPECT_TRUE(archive->dataForPath("dir/text.txt"));
    int status = -1;
    runTool("xar extract " + shellQuote(path) + " " + shellQuote(tmp / "out"), &status);
    EXPECT_EQ(1, status);

    // Lengths and offsets past the file, and offsets that wrap.
    for (std::string data : {"<length>10737418240</length><offset>0</offset><size>1</size>",
                             "<length>16</length><offset>18446744073709551615</offset><size>1</size>"}) {
        std::string p = sampleArchive(tmp);
        xartest::editToc(p, [&](std::string& xml) {
            auto at = xml.find("<length>");
            xml.replace(at, xml.find("<encoding") - at, data);
        });
        EXPECT_NE(std::string::npos, openDiagnostic(p).find("runs past the end of the heap")) << data;
    }
    std::string bad = sampleArchive(tmp);
    xartest::editToc(bad, [](std::string& xml) {
        auto at = xml.find("<offset>", xml.find("<data>"));
        xml.replace(at, xml.find("</offset>", at) - at, "<offset>18446744073709551616");
    });
    EXPECT_NE(std::string::npos, openDiagnostic(bad).find("not an unsigned 64-bit number"));
}

TEST(XarDamage, HeaderAndTocLimitsRefuseTheArchiveNamingTheLimit) {
    TempDir tmp;
    auto patchHeader = [&](size_t at, uint64_t value) {
        std::string p = sampleArchive(tmp);
        std::fstream f(p, std::ios::binary | std::ios::in | std::ios::out);
        f.seekp(std::streamoff(at));
        for (int i = 7; i >= 0; --i) f.put(char((value >> (i * 8)) & 0xff));
        return p;
    };
    EXPECT_NE(std::string::npos, openDiagnostic(patchHeader(8, 10737418240ull)).find("kMaxCompressedTOCSize"));
    EXPECT_NE(std::string::npos, openDiagnostic(patchHeader(16, 10737418240ull)).find("kMaxUncompressedTOCSize"));

    std::string deep = sampleArchive(tmp);
    xartest::editToc(deep, [](std::string& xml) {
        std::string nest;
        for (int i = 0; i < 300; ++i) nest += "<file><name>d</name><type>directory</type>";
        for (int i = 0; i < 300; ++i) nest += "</file>";
        xartest::replaceOnce(xml, " </toc>", nest + " </toc>");
    });
    EXPECT_NE(std::string::npos, openDiagnostic(deep).find("kMaxDepth"));

    std::string doctype = sampleArchive(tmp);
    xartest::editToc(doctype, [](std::string& xml) {
        xartest::replaceOnce(xml, "<xar>", "<!DOCTYPE xar [<!ENTITY e \"boom\">]>\n<xar>");
    });
    EXPECT_NE(std::string::npos, openDiagnostic(doctype).find("DOCTYPE"));

    std::string garbage = tmp / "garbage.xar";
    testsupport::writeFile(garbage, std::string("xar!\0\x1c\0\x01", 8) + std::string(40, '\xff'));
    EXPECT_FALSE(CWXARArchive::initForReadingFromPath(garbage));
}

}  // namespace
