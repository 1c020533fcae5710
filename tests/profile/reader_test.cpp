// reader_test.cpp - the properties reader and the \u escapes.
#include <cstdlib>
#include <cstring>

#include "profile_fixture.h"

using profiletest::TempDir;

namespace {

mav::PropertyReader readText(const std::string& text) {
    mav::PropertyReader r;
    r.readbuffer(text.data(), text.size());
    return r;
}

TEST(PropertyReader, BlanksAndTheSemicolonCut) {
    mav::PropertyReader r = readText(
        "  key = va lue  \n"
        "k1=a;b\n"
        "kv2=value;comment\n"
        "ab=;c\n"
        "a=b=c\n"
        "semi;first=xyz\n"
        "tab\tbed=\tx\t\n");
    EXPECT_EQ(r.get_string("key", "d"), "value");
    EXPECT_EQ(r.get_string("k1", "d"), "a;b");
    EXPECT_EQ(r.get_string("kv2", "d"), "value;com");
    EXPECT_EQ(r.get_string("ab", "d"), ";c");
    EXPECT_EQ(r.get_string("a", "d"), "b=c");
    // The ';' at position 4 cuts the value to 4 characters.
    EXPECT_EQ(r.get_string("semi;first", "d"), "xyz");
    EXPECT_EQ(r.get_string("tabbed", "d"), "x");
    EXPECT_EQ(r.get_string("key ", "d"), "d");
}

TEST(PropertyReader, SkippedLinesAndSections) {
    mav::PropertyReader r = readText(
        "key=\n[]\n[abc\n; c=1\n# c=1\n// c=1\n=v\n]x=1\na\nb=c=\n"
        "[section]\nin=1\n[x]tail\n/x=1\n");
    std::map<std::string, std::string> expected = {{"in", "1"}, {"/x", "1"}};
    EXPECT_EQ(r.getMap(), expected);
    EXPECT_EQ(r.get_string("key", "d"), "d");
    EXPECT_EQ(r.get_string("section.in", "d"), "d");
}

TEST(PropertyReader, FirstOccurrenceWinsAndRegistrationsComeFromRecords) {
    mav::PropertyReader r = readText(
        "x=1\nx=2\n"
        "mav.profile.B=B\nmav.profile.A=A\nmav.profile.B=B\n"
        "mav.profile.C=D\nmav.profile.x.y=x.y\nmav.profileZ=Z\n");
    EXPECT_EQ(r.get_string("x", ""), "1");
    EXPECT_EQ(r.getKeys("mav.profile"), (std::vector<std::string>{"B", "A", "B", "x.y"}));
    EXPECT_TRUE(r.getKeys("mav.group").empty());
}

TEST(PropertyReader, CarriageReturnsStayAndNulEndsTheBuffer) {
    mav::PropertyReader crlf = readText("a=1\r\nb=2\r\n");
    EXPECT_EQ(crlf.get_string("a", ""), "1\r");
    EXPECT_EQ(crlf.get_string("b", ""), "2\r");

    const char text[] = "a=1\nb=2\0c=3\n";
    mav::PropertyReader nul;
    EXPECT_TRUE(nul.readbuffer(text, sizeof text - 1));
    EXPECT_EQ(nul.get_string("b", ""), "2");
    EXPECT_EQ(nul.get_string("c", "absent"), "absent");
}

TEST(PropertyReader, ResultOfTheReads) {
    TempDir dir;
    const std::string comments = "; one\n# two\n";
    std::string file = dir.write("c.properties", comments);
    mav::PropertyReader r;
    EXPECT_FALSE(r.readbuffer(comments.data(), comments.size()));
    EXPECT_TRUE(r.readfile(file));
    EXPECT_FALSE(r.readfile(dir.path + "/missing.properties"));
    EXPECT_FALSE(r.readbuffer("", 0));

    mav::PropertyReader fromFile(dir.write("k.properties", "k=v"));
    EXPECT_EQ(fromFile.get_string("k", ""), "v");
    mav::PropertyReader missing(dir.path + "/missing");
    EXPECT_TRUE(missing.getMap().empty());
}

TEST(PropertyReader, SecondReadAddsButKeepsEarlierValues) {
    mav::PropertyReader r = readText("a=1\nmav.group.G=G\n");
    r.readbuffer("a=2\nb=2\nmav.group.H=H\n", 23);
    EXPECT_EQ(r.get_string("a", ""), "1");
    EXPECT_EQ(r.get_string("b", ""), "2");
    EXPECT_EQ(r.getKeys("mav.group"), std::vector<std::string>{"H"});
    // A failed file read empties the records but keeps the map.
    EXPECT_FALSE(r.readfile("/nonexistent/mav.properties"));
    EXPECT_TRUE(r.getKeys("mav.group").empty());
    EXPECT_EQ(r.get_string("a", ""), "1");
}

// ---- Allocation hooks -----------------------------------------------------------------

size_t gAllocs = 0;
size_t gLastSize = 0;
bool gFail = false;
void* countingAlloc(size_t size, int clean, const char* tag) {
    if (gFail) return nullptr;
    ++gAllocs;
    gLastSize = size;
    return MavPXAlloc(size, clean, tag);
}

struct HookGuard {
    HookGuard() { MavRegisterMmCallbacks(countingAlloc, MavPXRealloc, MavPXFree); }
    ~HookGuard() {
        gFail = false;
        MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);
    }
};

TEST(PropertyReader, WorkingCopyAndDecodedTextsUseTheHooks) {
    HookGuard guard;
    gAllocs = 0;
    mav::PropertyReader r;
    EXPECT_TRUE(r.readbuffer("k=v\n", 4));
    EXPECT_EQ(gAllocs, 1u);
    EXPECT_EQ(gLastSize, 5u);
    char* s = convertFromHexString("abc");
    EXPECT_EQ(gLastSize, 4u);
    MavIFree(s);

    gFail = true;
    EXPECT_FALSE(r.readbuffer("k=w\n", 4));
    EXPECT_EQ(convertFromHexString("abc"), nullptr);
    EXPECT_EQ(convertFromHexPath("abc"), nullptr);
}

// ---- Escapes -----------------------------------------------------------------------------

std::string decoded(char* s) {
    std::string r = s != nullptr ? s : "<null>";
    MavIFree(s);
    return r;
}

TEST(HexEscapes, Encoding) {
    EXPECT_EQ(convertToHexString("abc"), "abc");
    EXPECT_EQ(convertToHexString("\xC3\xA4 \\u"), "\\u00C3\\u00A4 \\u");
    EXPECT_EQ(convertToHexString(nullptr), "");
    EXPECT_EQ(convertToHexString(""), "");
    EXPECT_EQ(mav::ToHex("x\xFF"), "x\\u00FF");
}

TEST(HexEscapes, DecodingToCStrings) {
    EXPECT_EQ(decoded(convertFromHexString("\\u00C3\\u00A4")), "\xC3\xA4");
    EXPECT_EQ(convertFromHexString(""), nullptr);
    EXPECT_EQ(decoded(convertFromHexString("\\u0041")), "A");
    EXPECT_EQ(decoded(convertFromHexString("\\u41")), "A");
    // The parse runs on past four digits and the walk still jumps six.
    EXPECT_EQ(decoded(convertFromHexString("\\u00E4F")), "OF");
    EXPECT_EQ(decoded(convertFromHexString("x\\u41yz")), "xA");
    EXPECT_EQ(decoded(convertFromHexString("\\uzz")), "");
    EXPECT_EQ(decoded(convertFromHexString("a\\b")), "a\\b");
}

TEST(HexEscapes, DecodingPaths) {
    EXPECT_EQ(decoded(convertFromHexPath("C\\:\\\\dir\\\\x")), "C:\\dir\\x");
    EXPECT_EQ(decoded(convertFromHexPath("a\\b")), "a\\b");
    EXPECT_EQ(decoded(convertFromHexPath("end\\")), "end\\");
    EXPECT_EQ(decoded(convertFromHexPath("\\u002Fx\\:")), "/x:");
    EXPECT_EQ(decoded(convertFromHexString("C\\:")), "C\\:");
}

TEST(HexEscapes, DecodingToStrings) {
    EXPECT_EQ(mav::FromHex(""), "");
    EXPECT_EQ(mav::FromHex("\\u00E4F"), "OF");
    EXPECT_EQ(mav::FromHex("\\u00C3\\u00A4!"), "\xC3\xA4!");
    const std::string bytes = "plain \xC3\xA4\xE2\x82\xAC\\x/\x7F";
    EXPECT_EQ(mav::FromHex(mav::ToHex(bytes)), bytes);
    EXPECT_EQ(decoded(convertFromHexString(convertToHexString(bytes.c_str()))), bytes);
}

}  // namespace
