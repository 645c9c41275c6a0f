#include <gtest/gtest.h>

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
