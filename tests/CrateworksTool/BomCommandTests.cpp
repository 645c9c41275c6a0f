// `crateworks bom list` and `crateworks bom make`, run as the built program.
#include <gtest/gtest.h>

#include <sstream>
#include <sys/stat.h>

#include "BOMTestSupport.h"
#include "support/TempDir.h"

namespace {

const std::string kTool = FERRYHOLD_BINARY_DIR "/crateworks";

std::string run(const std::string& arguments, int* status, bool withStderr = false) {
    return testsupport::runCommand(kTool + " " + arguments + (withStderr ? " 2>&1" : " 2>/dev/null"), status);
}

using testsupport::lines;

TEST(BomCommand, ListPrintsEightTabSeparatedFields) {
    testsupport::TempDir dir;
    bomtest::SampleBOM(dir / "l.bom")
        .directory("bin", 0755)
        .file("bin/tool", 6000000000ull, 123456789, 0750, 501, 20)
        .link("bin/alias", "tool")
        .link("bin/bare", std::nullopt)
        .device("disk", 0x07000003)
        .commit();
    int status = -1;
    std::string out = run("bom list '" + dir / "l.bom" + "'", &status);
    EXPECT_EQ(0, status);
    uint32_t toolSum = uint32_t(std::stoul(testsupport::runCommand("printf tool | cksum")));
    EXPECT_EQ("bin\tdirectory\t40755\t0\t0\t0\t0\t\n"
              "bin/alias\tsymlink\t120755\t0\t0\t4\t" + std::to_string(toolSum) + "\ttool\n"
              "bin/bare\tsymlink\t120755\t0\t0\t0\t0\t\n"
              "bin/tool\tfile\t100750\t501\t20\t6000000000\t123456789\t\n"
              "disk\tdevice\t60640\t0\t0\t0\t117440515\t\n",
              out);

    out = run("bom list '" + dir / "l.bom" + "' --json", &status);
    EXPECT_EQ(0, status);
    auto json = lines(out);
    ASSERT_EQ(5u, json.size());
    EXPECT_EQ(R"({"path":"bin/tool","type":"file","mode":"100750","uid":501,"gid":20,"size":6000000000,)"
              R"("checksum":123456789,"target":null})",
              json[3]);
    // Python's own JSON reader takes every line, with the same fields as the plain listing.
    std::string check = testsupport::runCommand(
        kTool + " bom list '" + dir / "l.bom" +
        "' --json | python3 -c \"import json,sys; "
        "[print(d['path'],d['type'],d['mode'],d['uid'],d['gid'],d['size'],d['checksum'],d['target'] or '',sep='\\t') "
        "for d in map(json.loads, sys.stdin)]\"");
    EXPECT_EQ(run("bom list '" + dir / "l.bom" + "'", &status), check);
}

TEST(BomCommand, MakeThenListAgreesWithTheDisk) {
    testsupport::TempDir dir;
    std::string src = dir / "tree";
    std::vector<size_t> sizes = {0, 1, 4096, 100001};
    for (size_t size : sizes) testsupport::writeFile(src + "/data/f" + std::to_string(size), std::string(size, 'q'));
    symlink("data/f1", (src + "/link").c_str());
    mkdir((src + "/empty dir").c_str(), 0700);
    int status = -1;
    run("bom make '" + src + "' '" + dir / "t.bom" + "'", &status);
    ASSERT_EQ(0, status);
    auto listed = lines(run("bom list '" + dir / "t.bom" + "'", &status));
    ASSERT_EQ(0, status);
    ASSERT_EQ(7u, listed.size());
    EXPECT_EQ("data\tdirectory\t40755\t0\t0\t0\t0\t", listed[0]);
    EXPECT_EQ("empty dir\tdirectory\t40700\t0\t0\t0\t0\t", listed[5]);
    for (size_t i = 0; i < sizes.size(); ++i) {
        // cksum prints "CRC SIZE NAME"; the listing has the same CRC and size.
        std::string file = src + "/data/f" + std::to_string(sizes[i]);
        std::istringstream cksum(testsupport::runCommand("cksum '" + file + "'"));
        std::string crc, size;
        cksum >> crc >> size;
        bool found = false;
        for (const std::string& line : listed)
            if (line.rfind("data/f" + std::to_string(sizes[i]) + "\t", 0) == 0) {
                EXPECT_EQ("data/f" + std::to_string(sizes[i]) + "\tfile\t100644\t0\t0\t" + size + "\t" + crc + "\t", line);
                found = true;
            }
        EXPECT_TRUE(found) << file;
    }
    std::string linkSum = std::to_string(std::stoul(testsupport::runCommand("printf data/f1 | cksum")));
    EXPECT_EQ("link\tsymlink\t120777\t0\t0\t7\t" + linkSum + "\tdata/f1", listed[6]);
}

TEST(BomCommand, WrongCallsPrintTheUsageAndNonBOMsAreNamed) {
    testsupport::TempDir dir;
    for (const char* call : {"bom", "bom list", "bom list a b", "bom make onlyone", "bom frobnicate x"}) {
        int status = -1;
        std::string out = run(call, &status, true);
        EXPECT_EQ(2, status) << call;
        EXPECT_NE(std::string::npos, out.find("Usage: crateworks bom")) << call;
    }
    testsupport::writeFile(dir / "plain.txt", "not a bill of materials");
    for (const std::string& file : {dir / "plain.txt", dir / "missing.bom"}) {
        int status = -1;
        std::string out = run("bom list '" + file + "'", &status, true);
        EXPECT_EQ(1, status);
        auto said = lines(out);
        ASSERT_EQ(1u, said.size());
        EXPECT_NE(std::string::npos, said[0].find(file));
    }
    int status = -1;
    run("bom make '" + dir / "missing" + "' '" + dir / "x.bom" + "'", &status);
    EXPECT_EQ(1, status);
}

}  // namespace
