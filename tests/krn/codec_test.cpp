// UTF-8 codec and process code page.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "krncp.h"

namespace {

using Fn = int (*)(char*, size_t, size_t*, const char*);

struct Result {
    int rc;
    std::string out;
    size_t length;
};

// Converts into a heap buffer of exactly destSize bytes, so that ASan sees any
// write past it.
Result Convert(Fn fn, const std::string& in, size_t destSize) {
    std::unique_ptr<char[]> d(new char[destSize]);  // size 0 still gives a distinct pointer
    size_t length = in.size();
    int rc = fn(d.get(), destSize, &length, in.c_str());
    std::string out = rc == CP_RC_OK ? std::string(d.get(), length) : std::string();
    if (rc == CP_RC_OK) {
        EXPECT_EQ(d[length], '\0');
    }
    return {rc, out, length};
}

Result ToCp(const std::string& in, size_t destSize = 512) {
    return Convert(Utf8sToUcs, in, destSize);
}
Result ToUtf8(const std::string& in, size_t destSize = 512) {
    return Convert(UcsToUtf8s, in, destSize);
}

class CodePage : public ::testing::Test {
  protected:
    void Use(const char* cp) { ASSERT_EQ(SetProcessCodePageFromEnv(cp), CP_RC_OK); }
    void TearDown() override { SetProcessCodePageFromEnv("1208"); }
};

// clang-format off
// Boundaries of every sequence length, and a mixed text past the fast path.
const char* const kValid[] = {
    "A", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF",
    "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF",
    "Gr\xC3\xBC\xC3\x9F" "e, \xE2\x82\xAC 5 \xF0\x9F\x98\x80 and a long ASCII tail...."};

// Stray continuations; overlong two-, three- and four-byte forms; surrogates;
// above U+10FFFF; truncated; bad continuations.
const char* const kInvalid[] = {
    "\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xE0\x9F\xBF", "\xF0\x80\x80\x80",
    "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
    "\xFF", "\xFE", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xC3\x28", "\xE2\x28\xA1",
    "\xF0\x9F\x28\x80"};
// clang-format on

TEST_F(CodePage, Utf8PageCopiesEveryValidFormBothWays) {
    Use("1208");
    for (const char* s : kValid) {
        EXPECT_EQ(ToCp(s).out, s);
        EXPECT_EQ(ToUtf8(s).out, s);
        EXPECT_EQ(ToCp(s).length, strlen(s));
    }
}

TEST_F(CodePage, EveryClassOfMalformedInputIsRefusedAtAnyPosition) {
    const std::string pads[] = {"", "abc", "0123456789abcdef0"};  // fast path and tail
    for (const char* cp : {"1208", "0819", "1252"}) {
        Use(cp);
        for (const char* bad : kInvalid) {
            for (const std::string& pad : pads) {
                std::string in = pad + bad + pad;
                EXPECT_EQ(ToCp(in).rc, CP_RC_INVALID_INPUT)
                    << cp << " " << testing::PrintToString(in);
                // Bad input wins over a buffer that is too small.
                EXPECT_EQ(ToCp(in, 1).rc, CP_RC_INVALID_INPUT);
            }
        }
    }
    Use("1208");
    for (const char* bad : kInvalid) EXPECT_EQ(ToUtf8(bad).rc, CP_RC_INVALID_INPUT);
}

TEST_F(CodePage, OutputAndNulMustFitExactly) {
    struct Case {
        const char* cp;
        Fn fn;
        std::string in, out;
    } cases[] = {
        {"1208", Utf8sToUcs, "0123456789abcdefghij", "0123456789abcdefghij"},
        {"1208", UcsToUtf8s, "ab\xF0\x9F\x98\x80-cdefghijk", "ab\xF0\x9F\x98\x80-cdefghijk"},
        {"0819", Utf8sToUcs, "x\xC3\xA9yz0123456789", "x\xE9yz0123456789"},
        {"0819", UcsToUtf8s, "0123456789\xE9\xFF", "0123456789\xC3\xA9\xC3\xBF"},
    };
    for (const Case& c : cases) {
        Use(c.cp);
        const size_t need = c.out.size() + 1;
        for (size_t size = 0; size < need; ++size)
            EXPECT_EQ(Convert(c.fn, c.in, size).rc, CP_RC_BUFFER_TOO_SMALL)
                << c.cp << " size " << size;
        Result fit = Convert(c.fn, c.in, need);
        EXPECT_EQ(fit.rc, CP_RC_OK);
        EXPECT_EQ(fit.out, c.out);
    }
}

TEST_F(CodePage, NonAsciiAtEveryOffsetOfTheFastPath) {
    for (const char* cp : {"1208", "0819"}) {
        Use(cp);
        for (size_t at = 0; at < 24; ++at) {
            std::string utf8(24, 'a'), page(24, 'a');
            utf8.replace(at, 1, "\xC3\xA9");
            page[at] = '\xE9';
            if (std::string(cp) == "1208") page = utf8;
            EXPECT_EQ(ToCp(utf8).out, page) << cp << " at " << at;
            EXPECT_EQ(ToUtf8(page).out, utf8) << cp << " at " << at;
        }
    }
}

}  // namespace
