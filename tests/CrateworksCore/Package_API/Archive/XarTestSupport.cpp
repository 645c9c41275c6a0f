#include "XarTestSupport.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"
#include "Platform/Digest.h"
#include "support/TempDir.h"

namespace xartest {

using testsupport::writeFile;

void makeSampleTree(const std::string& root) {
    writeFile(root + "/top.txt", "top level\n");
    std::string text;
    for (int i = 0; i < 2000; ++i) text += "line " + std::to_string(i) + " of some repeated text\n";
    writeFile(root + "/dir/text.txt", text);
    std::string binary;
    uint32_t x = 12345;
    for (int i = 0; i < 70000; ++i) binary += char((x = x * 1103515245 + 12345) >> 24);
    writeFile(root + "/dir/binary.bin", binary);
    writeFile(root + "/dir/empty", "");
    writeFile(root + "/dir/nested/deep/leaf.txt", "leaf\n");
    writeFile(root + "/dir/readonly.txt", "read only\n");
    chmod((root + "/dir/readonly.txt").c_str(), 0444);
    chmod((root + "/dir/nested").c_str(), 0750);
    symlink("text.txt", (root + "/dir/link").c_str());
}

std::string runTool(const std::string& args, int* status) {
    return testsupport::runCommand(std::string(FERRYHOLD_BINARY_DIR) + "/crateworks " + args + " 2>&1", status);
}

namespace {
uint64_t bigEndian(const std::string& b, size_t at, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | uint8_t(b[at + i]);
    return v;
}
void putBigEndian(std::string& b, size_t at, size_t n, uint64_t v) {
    for (size_t i = n; i > 0; --i, v >>= 8) b[at + i - 1] = char(v & 0xff);
}
}  // namespace

std::string tocOf(const std::string& archive) {
    std::string bytes = testsupport::readFile(archive);
    uint64_t headerSize = bigEndian(bytes, 4, 2), compressed = bigEndian(bytes, 8, 8);
    auto xml = crateworks::xar::inflateTOC(
        {reinterpret_cast<const uint8_t*>(bytes.data()) + headerSize, size_t(compressed)}, 0, 64 << 20);
    EXPECT_TRUE(xml.has_value());
    return xml.value_or("");
}

void editToc(const std::string& archive, const std::function<void(std::string&)>& edit, bool fixChecksum) {
    std::string bytes = testsupport::readFile(archive);
    uint64_t headerSize = bigEndian(bytes, 4, 2), compressed = bigEndian(bytes, 8, 8);
    std::string xml = tocOf(archive);
    edit(xml);
    platform::Data toc = crateworks::xar::compressTOC(xml);
    std::string header = bytes.substr(0, headerSize);
    std::string heap = bytes.substr(headerSize + compressed);
    putBigEndian(header, 8, 8, toc.size());
    putBigEndian(header, 16, 8, xml.size());
    if (fixChecksum) {
        // Our writer keeps the SHA-1 TOC checksum at heap offset 0.
        platform::Data sum = platform::digest::compute(platform::digest::Algorithm::SHA1, toc);
        heap.replace(0, sum.size(), std::string(sum.begin(), sum.end()));
    }
    std::ofstream out(archive, std::ios::binary | std::ios::trunc);
    out << header << std::string(toc.begin(), toc.end()) << heap;
}

void replaceOnce(std::string& s, const std::string& from, const std::string& to) {
    auto at = s.find(from);
    ASSERT_NE(at, std::string::npos) << "no " << from;
    s.replace(at, from.size(), to);
}

void flipByte(const std::string& path, uint64_t offset) {
    std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
    f.seekg(std::streamoff(offset));
    char c = 0;
    f.read(&c, 1);
    c = char(c ^ 0x5a);
    f.seekp(std::streamoff(offset));
    f.write(&c, 1);
}

}  // namespace xartest
