// reader_test.cpp - the properties reader and the \u escapes.
#include <unistd.h>

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

TEST(PropertyReader, BlanksSemicolonsSkippedLinesAndSections) {
    mav::PropertyReader r = readText(
        "  key = va lue  \nk1=a;b\nkv2=value;comment\nab=;c\na=b=c\nsemi;first=xyz\n"
        "tab\tbed=\tx\t\n");
    // The ';' at position 4 of "semi;first" cuts its value to 4 characters.
    const std::pair<const char*, const char*> values[] = {
        {"key", "value"}, {"k1", "a;b"},         {"kv2", "value;com"}, {"ab", ";c"},
        {"a", "b=c"},     {"semi;first", "xyz"}, {"tabbed", "x"},      {"key ", "d"}};
    for (const auto& v : values) EXPECT_EQ(r.get_string(v.first, "d"), v.second) << v.first;

    r = readText(
        "key=\n[]\n[abc\n; c=1\n# c=1\n// c=1\n=v\n]x=1\na\nb=c=\n[section]\nin=1\n[x]tail\n"
        "/x=1\n");
    std::map<std::string, std::string> expected = {{"in", "1"}, {"/x", "1"}};
    EXPECT_EQ(r.getMap(), expected);
}

TEST(PropertyReader, FirstOccurrenceWinsAndRegistrationsComeFromRecords) {
    mav::PropertyReader r = readText(
        "x=1\nx=2\nmav.profile.B=B\nmav.profile.A=A\nmav.profile.B=B\n"
        "mav.profile.C=D\nmav.profile.x.y=x.y\nmav.profileZ=Z\n");
    EXPECT_EQ(r.get_string("x", ""), "1");
    EXPECT_EQ(r.getKeys("mav.profile"), (std::vector<std::string>{"B", "A", "B", "x.y"}));
    EXPECT_TRUE(r.getKeys("mav.group").empty());

    // A second read adds keys but keeps earlier values; its records replace
    // the first read's; a failed file read empties the records only.
    r = readText("a=1\nmav.group.G=G\n");
    r.readbuffer("a=2\nb=2\nmav.group.H=H\n", 23);
    EXPECT_EQ(r.get_string("a", ""), "1");
    EXPECT_EQ(r.get_string("b", ""), "2");
    EXPECT_EQ(r.getKeys("mav.group"), std::vector<std::string>{"H"});
    EXPECT_FALSE(r.readfile("/nonexistent/mav.properties"));
    EXPECT_TRUE(r.getKeys("mav.group").empty());
    EXPECT_EQ(r.get_string("a", ""), "1");
}

TEST(PropertyReader, CarriageReturnsStayNulEndsTheBufferAndReadResults) {
    mav::PropertyReader crlf = readText("a=1\r\nb=2\r\n");
    EXPECT_EQ(crlf.get_string("a", ""), "1\r");
    EXPECT_EQ(crlf.get_string("b", ""), "2\r");
    const char text[] = "a=1\nb=2\0c=3\n";
    mav::PropertyReader nul;
    EXPECT_TRUE(nul.readbuffer(text, sizeof text - 1));
    EXPECT_EQ(nul.get_string("b", ""), "2");
    EXPECT_EQ(nul.get_string("c", "absent"), "absent");

    TempDir dir;
    const std::string comments = "; one\n# two\n";
    mav::PropertyReader r;
    EXPECT_FALSE(r.readbuffer(comments.data(), comments.size()));
    EXPECT_TRUE(r.readfile(dir.write("c.properties", comments)));  // a readable file counts
    EXPECT_FALSE(r.readfile(dir.file("missing.properties")));
    EXPECT_FALSE(r.readbuffer("", 0));
    EXPECT_EQ(mav::PropertyReader(dir.write("k.properties", "k=v")).get_string("k", ""), "v");
    EXPECT_TRUE(mav::PropertyReader(dir.file("missing")).getMap().empty());
}

}  // namespace
