// The output policy the tools share: the text escaping of listings, names that are not
// UTF-8 in JSON, and standard output whose every write is checked.
#include <gtest/gtest.h>

#include "CommandLine/Json.h"
#include "CommandLine/StandardOutput.h"
#include "CommandLine/Text.h"
#include "Platform/Base64.h"
#include "support/TempDir.h"

namespace {

using commandline::escapedText;
using commandline::Json;

TEST(TextEscaping, EveryEntryStaysOnOneLineAndOneField) {
    EXPECT_EQ("a\\\\b\\nc\\td\\re", escapedText("a\\b\nc\td\re"));
    EXPECT_EQ("\\x01\\x1b\\x7f", escapedText(std::string("\x01\x1b\x7f")));
    // Valid characters of every length stay; each byte that is not UTF-8 is escaped.
    EXPECT_EQ("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", escapedText("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_EQ("raw\\xff\\xc3", escapedText("raw\xff\xc3"));
    // Overlong forms and surrogates are not UTF-8 however they look.
    EXPECT_EQ("\\xc0\\xaf", escapedText("\xc0\xaf"));
    EXPECT_EQ("\\xed\\xa0\\x80", escapedText("\xed\xa0\x80"));
    // An escaped text is never mistaken for a different name: the backslash is escaped.
    EXPECT_NE(escapedText("\\xff"), escapedText("\xff"));
    EXPECT_EQ(std::string::npos, escapedText(std::string("a\0b\nc", 5)).find_first_of(std::string("\n\t\r\0", 4)));
}

TEST(JsonNames, InvalidBytesGetAReplacementAndTheirExactBytes) {
    Json line;
    commandline::setName(line, "path", "dir/ok\xc3\xa9");
    commandline::setName(line, "link", "bad\xff\xfe");
    EXPECT_EQ("dir/ok\xc3\xa9", line["path"]);
    EXPECT_FALSE(line.contains("path_base64"));
    EXPECT_EQ("bad\xef\xbf\xbd\xef\xbf\xbd", line["link"]);
    auto bytes = platform::base64::decode(line["link_base64"].get<std::string>());
    ASSERT_TRUE(bytes);
    EXPECT_EQ("bad\xff\xfe", std::string(bytes->begin(), bytes->end()));
    std::string text = commandline::jsonLine(line);
    EXPECT_EQ(std::string::npos, text.find('\n'));
    EXPECT_EQ(line, Json::parse(text));
}

TEST(JsonNames, DocumentsAreMadeValidAndTheDamageIsReported) {
    platform::Dictionary sizes{{"/ok", uint64_t(1)}, {"/raw\xff", uint64_t(2)}};
    platform::Value document(platform::Dictionary{{"Sizes", std::move(sizes)},
                                                  {"Paths", platform::Array{platform::Value("/x\xfe")}},
                                                  {"Ratio", 0.5}});
    std::vector<std::string> damaged;
    platform::Value clean = commandline::sanitizedStrings(document, &damaged);
    EXPECT_EQ((std::vector<std::string>{"/raw\xff", "/x\xfe"}), damaged);
    Json json = commandline::toJson(clean);
    EXPECT_EQ(2u, json["Sizes"]["/raw\xef\xbf\xbd"]);
    EXPECT_EQ("/x\xef\xbf\xbd", json["Paths"][0]);
    EXPECT_EQ(0.5, json["Ratio"]);
    EXPECT_EQ(json, Json::parse(json.dump()));
}

platform::fs::File openForWriting(const std::string& path) {
    platform::fs::OpenOptions options;
    options.access = platform::fs::OpenOptions::Access::Write;
    options.create = true;
    options.truncate = true;
    auto file = platform::fs::File::open(path, options);
    EXPECT_TRUE(file) << path;
    return file ? std::move(*file) : platform::fs::File();
}

TEST(CheckedOutput, AFullDeviceIsAnErrorEvenWhenTheWriteWasBuffered) {
    commandline::StandardOutput out(openForWriting("/dev/full"));
    out.line("small");
    EXPECT_TRUE(out.good());  // still in the buffer
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, out.finish(0, "tool"));
    EXPECT_EQ("tool: write error: No space left on device\n", testing::internal::GetCapturedStderr());

    commandline::StandardOutput large(openForWriting("/dev/full"));
    large.write(std::string(200 * 1024, 'x'));
    EXPECT_FALSE(large.good());  // a command may stop early
    EXPECT_EQ(ENOSPC, large.failure());
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, large.finish(0, "tool"));
    testing::internal::GetCapturedStderr();
}

TEST(CheckedOutput, EverythingWrittenInOrderAndTheStatusKept) {
    testsupport::TempDir tmp;
    commandline::StandardOutput out(openForWriting(tmp / "out"));
    std::string expected;
    for (int i = 0; i < 20000; ++i) {
        out.line(std::to_string(i));
        expected += std::to_string(i) + "\n";
    }
    out.write("no newline");
    EXPECT_EQ(7, out.finish(7, "tool"));
    EXPECT_EQ(expected + "no newline", testsupport::readFile(tmp / "out"));
}

}  // namespace
