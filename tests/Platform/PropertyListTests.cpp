#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "support/TempDir.h"

using namespace platform;
using testsupport::TempDir;

namespace {

Value sampleValue() {
    Dictionary nested{{"flag", true}, {"list", Array{Value(1), Value("two"), Value(3.5)}}};
    Dictionary d;
    d.set("path", "/.HFS+ Private Directory Data\r");
    d.set("big", uint64_t(9223372036854775813ull));
    d.set("max", uint64_t(UINT64_MAX));
    d.set("negative", int64_t(-42));
    d.set("date", Date{1700000000});
    d.set("data", Data{0, 1, 2, 255});
    d.set("nested", nested);
    d.set("empty", Array{});
    return Value(std::move(d));
}

std::string python(const std::string& script) {
    int status = 0;
    std::string out = testsupport::runCommand("python3 -c '" + script + "'", &status);
    EXPECT_EQ(0, status) << script;
    return out;
}

}  // namespace

TEST(PropertyList, OursReadBackByPlistlibInBothForms) {
    TempDir dir;
    Value value = sampleValue();
    ASSERT_TRUE(plist::writeXMLFile(value, dir / "x.plist"));
    Data binary = plist::toBinary(value);
    testsupport::writeFile(dir / "b.plist", std::string(binary.begin(), binary.end()));
    for (const char* name : {"x.plist", "b.plist"}) {
        std::string out = python(
            "import plistlib,datetime; d=plistlib.load(open(\"" + dir / name +
            "\",\"rb\")); "
            "print(repr(d[\"path\"]), d[\"big\"], d[\"max\"], d[\"negative\"], d[\"data\"].hex(), "
            "d[\"nested\"][\"list\"], d[\"nested\"][\"flag\"], int(d[\"date\"].replace(tzinfo=datetime.timezone.utc).timestamp()))");
        EXPECT_EQ("'/.HFS+ Private Directory Data\\r' 9223372036854775813 18446744073709551615 -42 000102ff "
                  "[1, 'two', 3.5] True 1700000000\n",
                  out)
            << name;
    }
}

TEST(PropertyList, PlistlibFilesReadByOursInBothForms) {
    TempDir dir;
    for (const char* fmt : {"FMT_XML", "FMT_BINARY"}) {
        std::string path = dir / (std::string(fmt) + ".plist");
        python("import plistlib,datetime; plistlib.dump({\"s\": \"a\\rb\", \"u\": 2**64-1, \"n\": -7, "
               "\"d\": datetime.datetime(2020,1,2,3,4,5), \"b\": b\"\\x00\\x01\", \"a\": [{\"k\": False}]}, "
               "open(\"" + path + "\", \"wb\"), fmt=plistlib." + fmt + ")");
        auto read = plist::readDictionaryFile(path);
        ASSERT_TRUE(read) << fmt;
        // plistlib writes a carriage return raw in XML, and XML readers normalise a raw one
        // to a line feed: the reason our writer escapes it.
        EXPECT_EQ(std::string(fmt) == "FMT_XML" ? "a\nb" : "a\rb", *read->findString("s"));
        EXPECT_EQ(Value::Type::UnsignedInteger, read->find("u")->type());
        EXPECT_EQ(UINT64_MAX, *read->find("u")->unsignedInteger());
        EXPECT_EQ(-7, *read->find("n")->integer());
        EXPECT_EQ(Date::fromISO8601("2020-01-02T03:04:05Z"), read->find("d")->date());
        EXPECT_EQ((Data{0, 1}), *read->find("b")->data());
        EXPECT_EQ(false, *(*read->findArray("a"))[0].dictionary()->find("k")->boolean());
    }
}

TEST(PropertyList, RoundTripAndPlistutilAgree) {
    TempDir dir;
    Value value = sampleValue();
    ASSERT_TRUE(plist::writeXMLFile(value, dir / "x.plist"));
    EXPECT_EQ(value, *plist::readFile(dir / "x.plist"));
    EXPECT_EQ(value, *plist::readBytes(plist::toBinary(value)));
    // An independent converter turns our XML into binary; we read that back unchanged.
    int status = 0;
    testsupport::runCommand("plistutil -i " + dir / "x.plist" + " -o " + dir / "c.plist" + " -f bin", &status);
    ASSERT_EQ(0, status);
    EXPECT_EQ(value, *plist::readFile(dir / "c.plist"));
}

TEST(PropertyList, DamagedOrWrongTypeReadsAsAbsent) {
    TempDir dir;
    std::string xml = plist::toXML(sampleValue());
    testsupport::writeFile(dir / "trunc.plist", xml.substr(0, xml.size() / 2));
    testsupport::writeFile(dir / "garbage.plist", "not a property list at all");
    testsupport::writeFile(dir / "empty.plist", "");
    Data binary = plist::toBinary(sampleValue());
    testsupport::writeFile(dir / "trunc.bin", std::string(binary.begin(), binary.begin() + binary.size() / 2));
    for (const char* name : {"trunc.plist", "garbage.plist", "empty.plist", "trunc.bin", "missing.plist"})
        EXPECT_FALSE(plist::readFile(dir / name)) << name;
    ASSERT_TRUE(plist::writeXMLFile(Value(Array{Value("x")}), dir / "array.plist"));
    EXPECT_FALSE(plist::readDictionaryFile(dir / "array.plist"));
    EXPECT_TRUE(plist::readArrayFile(dir / "array.plist"));
}

namespace {

// The failure reason readBytes gives, after checking the error it comes in.
std::string failureReason(std::string_view bytes) {
    Error error;
    auto value = plist::readBytes(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), &error);
    EXPECT_FALSE(value);
    EXPECT_EQ(kGeneralErrorDomain, error.domain);
    EXPECT_EQ(kFileReadCorruptFileError, error.code);
    const std::string* reason = error.userInfo.findString(kFailureReasonKey);
    return reason ? *reason : "(none)";
}

}  // namespace

TEST(PropertyList, AFailedReadSaysWhyAndWhere) {
    TempDir dir;
    EXPECT_EQ("The data is empty.", failureReason(""));
    Error untouched{"untouched", 1, {}};
    EXPECT_TRUE(plist::readBytes(plist::toBinary(sampleValue()), &untouched));
    EXPECT_EQ("untouched", untouched.domain);

    // Not well formed: the first error, at the line Python's expat gives too, and the byte
    // after the end tag that does not match, counted in bytes although "é" takes two.
    std::string mismatched = "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n<dict>\n"
                             "\t<key>name</key>\n\t<string>\xC3\xA9t\xC3\xA9</str>\n</dict>\n</plist>\n";
    testsupport::writeFile(dir / "mismatched.plist", mismatched);
    std::string expatLine = python("import plistlib,xml.parsers.expat\ntry: plistlib.load(open(\"" + dir.path() +
                                   "/mismatched.plist\", \"rb\"))\nexcept xml.parsers.expat.ExpatError as e: "
                                   "print(e.lineno)");
    EXPECT_EQ("5\n", expatLine);
    size_t stop = mismatched.find("</str>") + 6;
    EXPECT_EQ("XML error at line 5, column 19 (byte " + std::to_string(stop) +
                  "): Opening and ending tag mismatch: string line 5 and str",
              failureReason(mismatched));
    EXPECT_EQ("XML error at line 1, column 1 (byte 0): Start tag expected, '<' not found",
              failureReason("not a property list at all"));

    // Well formed, but not what a property list holds.
    EXPECT_EQ("The XML document's root element is <html>, not <plist>.", failureReason("<html><body/></html>"));
    EXPECT_EQ("Line 1: <plist> holds no value.", failureReason("<plist>\n</plist>"));
    EXPECT_EQ("Line 3: <colour> is not a property-list value.",
              failureReason("<plist>\n<dict><key>a</key>\n<colour/></dict></plist>"));
    EXPECT_EQ("Line 2: <dict> holds <string> where a <key> belongs.",
              failureReason("<plist><dict>\n<string>x</string></dict></plist>"));

    // Binary: what the trailer or the offset table gets wrong, checked against plistlib
    // refusing the same bytes.
    Data good = plist::toBinary(Value(Dictionary{{"a", "b"}}));
    std::string binary(good.begin(), good.end());
    const size_t trailer = binary.size() - 32;
    const uint8_t offsetSize = uint8_t(binary[trailer + 6]);
    const size_t offsetTable = size_t(uint8_t(binary[binary.size() - 1]));  // small: its last byte says it
    ASSERT_EQ(1u, offsetSize);
    std::string shortened = binary.substr(0, 30);
    std::string badTop = binary;
    badTop[trailer + 23] = 9;  // top object 9 of 3
    std::string badOffset = binary;
    ASSERT_LT(binary.size(), 0xF0u);
    badOffset[offsetTable + 1] = char(0xF0);  // object 1 beyond the end
    for (auto [name, bytes] : {std::pair{"short", shortened}, {"top", badTop}, {"offset", badOffset}}) {
        testsupport::writeFile(dir / name, bytes);
        EXPECT_EQ("refused\n", python("import plistlib\ntry: plistlib.load(open(\"" + dir / name +
                                      "\", \"rb\")); print(\"read\")\nexcept Exception: print(\"refused\")"))
            << name;
    }
    EXPECT_EQ("The binary property list is 30 bytes long, too short for its header and 32-byte trailer.",
              failureReason(shortened));
    EXPECT_EQ("The binary property list names object 9 as its top object but holds 3 objects.",
              failureReason(badTop));
    EXPECT_EQ("The binary property list places object 1 at byte 240, outside its objects (bytes 8 to " +
                  std::to_string(offsetTable) + ").",
              failureReason(badOffset));
}

// A NUL character in a string or key (which neither form's writer makes) damages the
// document, in XML as a byte or a character reference, in binary form in an ASCII or
// UTF-16 string; it neither stops the reader nor reads as a shorter string.
TEST(PropertyList, TextHoldingANulIsRefused) {
    const std::string why = "a string or key holds a NUL character";
    Value written(Dictionary{{"KeyX", "plain"}, {"Other", Array{"oneYtwo", "\xc3\x84Z"}}});
    std::string xml = plist::toXML(written);
    for (char placeholder : {'X', 'Y'}) {
        SCOPED_TRACE(placeholder);
        std::string damaged = xml;
        std::replace(damaged.begin(), damaged.end(), placeholder, '\0');
        EXPECT_EQ(why, failureReason(damaged));
        damaged = xml;
        damaged.replace(damaged.find(placeholder), 1, "&#x00;");
        EXPECT_EQ(why, failureReason(damaged));
        Data binary = plist::toBinary(written);
        std::replace(binary.begin(), binary.end(), uint8_t(placeholder), uint8_t(0));
        EXPECT_EQ(why, failureReason(std::string(binary.begin(), binary.end())));
    }
    // "\xc3\x84Z" is written as UTF-16: its 'Z' unit becomes U+0000.
    Data binary = plist::toBinary(written);
    const uint8_t unit[] = {0, 'Z'};
    auto at = std::search(binary.begin(), binary.end(), std::begin(unit), std::end(unit));
    ASSERT_NE(binary.end(), at);
    at[1] = 0;
    EXPECT_EQ(why, failureReason(std::string(binary.begin(), binary.end())));
    // Untouched, both forms read back as written; "&#38;" and "&#10;" are no NUL.
    EXPECT_EQ(written, plist::readBytes(plist::toBinary(written)));
    std::string references = xml;
    references.replace(references.find("plain"), 5, "a&#38;b&#10;c");
    auto read = plist::readBytes(std::span(reinterpret_cast<const uint8_t*>(references.data()), references.size()));
    ASSERT_TRUE(read && read->dictionary());
    EXPECT_EQ("a&b\nc", *read->dictionary()->findString("KeyX"));
}

// Keys and strings are Unicode text: a document whose text is not UTF-8, in either
// form, is damaged (its writers could not give it back).
TEST(PropertyList, TextThatIsNotUTF8IsRefused) {
    Value written(Dictionary{{"KeyX", "plain"}, {"Other", Array{"valueY"}}});
    for (char placeholder : {'X', 'Y'}) {
        SCOPED_TRACE(placeholder);
        std::string xml = plist::toXML(written);
        std::replace(xml.begin(), xml.end(), placeholder, '\xef');
        EXPECT_EQ("a string or key is not UTF-8 text", failureReason(xml));
        Data binary = plist::toBinary(written);
        std::replace(binary.begin(), binary.end(), uint8_t(placeholder), uint8_t(0xef));
        EXPECT_EQ("a string or key is not UTF-8 text", failureReason(std::string(binary.begin(), binary.end())));
    }
    EXPECT_TRUE(plist::readBytes(plist::toBinary(written)));
}

// Dates are written as whole seconds from 2001 in 32 bits: one beyond that span is
// written as the nearest date the forms hold, one that is not a number as 2001-01-01.
TEST(PropertyList, DatesBeyondWhatTheFormsHoldAreWrittenAsTheNearest) {
    const double since2001 = 978307200;
    struct Case {
        double written, read;
    };
    for (Case c : {Case{since2001 + 1e12, since2001 + 2147483647.0}, Case{since2001 - 1e12, since2001 - 2147483648.0},
                   Case{std::nan(""), since2001}, Case{since2001 + 86400, since2001 + 86400}}) {
        SCOPED_TRACE(c.written);
        Value value(Array{Date{c.written}});
        std::string xml = plist::toXML(value);
        for (const Data& form : {plist::toBinary(value), Data(xml.begin(), xml.end())}) {
            auto read = plist::readBytes(form);
            ASSERT_TRUE(read && read->array() && read->array()->size() == 1);
            ASSERT_TRUE(read->array()->front().date());
            EXPECT_DOUBLE_EQ(c.read, read->array()->front().date()->secondsSince1970);
        }
    }
}

// A date with a fraction of a second keeps it through the binary form on either side of
// 2001, where the library's split into seconds and microseconds changes direction.
TEST(PropertyList, FractionsOfASecondSurviveBeforeAndAfter2001) {
    const double since2001 = 978307200;
    for (double date : {since2001 - 311692800.003051, since2001 - 311692799.996949, since2001 - 1.25,
                        since2001 + 1.25, since2001 + 86400.5, 1700000000.123456}) {
        SCOPED_TRACE(date);
        auto read = plist::readBytes(plist::toBinary(Value(Array{Date{date}})));
        ASSERT_TRUE(read && read->array() && read->array()->size() == 1 && read->array()->front().date());
        EXPECT_NEAR(date, read->array()->front().date()->secondsSince1970, 2e-6);
    }
}

TEST(PropertyList, ForeignValuesAreLeftOut) {
    Dictionary d{{"url", Value::url("http://example.invalid/")}, {"keep", Array{Value::url("x"), Value(1)}}};
    Value safe = Value(d).propertyListSafe();
    EXPECT_FALSE(safe.dictionary()->contains("url"));
    EXPECT_EQ(1u, safe.dictionary()->findArray("keep")->size());
    auto back = plist::readBytes(plist::toBinary(Value(d)));
    ASSERT_TRUE(back);
    EXPECT_EQ(safe, *back);
}

TEST(AtomicWrite, ModeFollowsUmaskAndLinksAreReplacedNotFollowed) {
    TempDir dir;
    mode_t old = umask(022);
    ASSERT_TRUE(plist::writeXMLFile(Value(Dictionary{{"a", 1}}), dir / "cache.plist"));
    umask(old);
    auto attrs = fs::attributes(dir / "cache.plist");
    ASSERT_TRUE(attrs);
    EXPECT_EQ(0644u, *attrs->find(fs::kFilePosixPermissions)->unsignedInteger());

    // A symbolic link planted at the destination is replaced; its target is untouched.
    testsupport::writeFile(dir / "victim", "keep me");
    ASSERT_EQ(0, symlink((dir / "victim").c_str(), (dir / "planted.plist").c_str()));
    ASSERT_TRUE(plist::writeXMLFile(Value(Dictionary{{"a", 1}}), dir / "planted.plist"));
    EXPECT_EQ("keep me", testsupport::readFile(dir / "victim"));
    EXPECT_EQ(fs::kFileTypeRegular, *fs::attributes(dir / "planted.plist")->findString(fs::kFileType));

    Error error;
    EXPECT_FALSE(plist::writeXMLFile(Value(1), dir / "no/such/dir/x.plist", &error));
    EXPECT_EQ(kPOSIXErrorDomain, error.domain);
    EXPECT_EQ(ENOENT, error.code);
}
