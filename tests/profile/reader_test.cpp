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

}  // namespace
