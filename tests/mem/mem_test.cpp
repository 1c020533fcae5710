// The text conversions and the caller-buffer rule (refused allocations:
// tests/robust's sweep).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "krncp.h"
#include "mavxxi.h"

namespace {

class Mem : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, SetProcessCodePageFromEnv("1208")); }
    void TearDown() override { SetProcessCodePageFromEnv("1208"); }
};

// The codec's own cases are fuzz_utf8_codec's corpus; here the library's wrappers: codes
// mapped, null arguments refused, the allocating forms in both directions.
TEST_F(Mem, ConversionsValidateAndMapCodes) {
    EXPECT_EQ(0, MavSetProcessCodePage("120"));  // code page names have four characters
    ASSERT_EQ(0, SetProcessCodePageFromEnv("0819"));
    const char* utf8 = "Gr\xC3\xBC\xC3\x9F" "e";  // 7 bytes of UTF-8, 5 of ISO-8859-1
    char buf[32];
    size_t len = 7;
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavIUtf8sToUcs(buf, 5, &len, utf8));
    len = 2;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavIUtf8sToUcs(buf, sizeof buf, &len, "\xC3\x28"));
    len = 3;  // the euro sign has no place in ISO-8859-1
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavIUtf8sToUcs(buf, sizeof buf, &len, "\xE2\x82\xAC"));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIUtf8sToUcs(nullptr, 8, &len, "abc"));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIUtf8sToUcs(buf, 8, &len, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIUcsToUtf8s(nullptr, 8, &len, "abc"));
    char* k = nullptr;
    char* u = nullptr;
    EXPECT_EQ(5u, MavICharToKORMO(&k, utf8));
    EXPECT_STREQ("Gr\xFC\xDF" "e", k);
    EXPECT_EQ(7u, MavIKORMOToChar(&u, k));
    EXPECT_STREQ(utf8, u);
    MavIFree(k);
    MavIFree(u);
}

// The raw copy takes length + 1 bytes and stops at a NUL; a refused
// allocation is MAV_E_NO_SPACE, not a write through a null pointer.
TEST_F(Mem, RawCopy) {
    char* raw = nullptr;
    EXPECT_EQ(MAV_OK, MavIKORMO_CHAR2RAW(&raw, "file.txt and more", 8));
    EXPECT_STREQ("file.txt", raw);
    EXPECT_EQ(MAV_OK, MavIKORMO_CHAR2RAW(&raw, "a\0b", 3));
    EXPECT_STREQ("a", raw);
    MavIFree(raw);
    raw = nullptr;
    MavRegisterMmCallbacks([](size_t, int, const char*) -> void* { return nullptr; },
                           [](void*, size_t, const char*) -> void* { return nullptr; }, free);
    EXPECT_EQ(MAV_E_NO_SPACE, MavIKORMO_CHAR2RAW(&raw, "ab", 2));
    MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);
    EXPECT_EQ(nullptr, raw);
}

TEST_F(Mem, CallerBufferRule) {
    const char* text = "EICAR-Test";  // 10 bytes
    size_t size = 0;
    EXPECT_EQ(MAV_OK, MavIPutText(text, nullptr, &size));
    EXPECT_EQ(33u, size);  // 3 x 10 + 3
    EXPECT_EQ(MAV_OK, MavIPutText(nullptr, nullptr, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(MAV_OK, MavIPutText(text, nullptr, nullptr));  // skipped
    // Exact fit; one too small; not UTF-8; no text: size and buffer after.
    const struct {
        const char* text;
        size_t size;
        MAV_RC rc;
        size_t after;
        const char* content;
    } cases[] = {{text, 11, MAV_OK, 10, text},
                 {text, 10, MAV_E_BUFFER_TOO_SHORT, 0, ""},
                 {"a\xFF", 16, MAV_E_CONVERSION_FAILED, 0, ""},
                 {nullptr, 16, MAV_OK, 0, ""}};
    for (const auto& c : cases) {
        char buf[16];
        memset(buf, 'x', sizeof buf - 1);
        buf[15] = '\0';
        size = c.size;
        EXPECT_EQ(c.rc, MavIPutText(c.text, buf, &size)) << c.size;
        EXPECT_EQ(c.after, size);
        EXPECT_STREQ(c.content, buf);
    }
    char buf[1] = {'x'};
    size = 0;  // nothing may be written into a zero-size buffer
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavIPutText(text, buf, &size));
    EXPECT_EQ('x', buf[0]);
}

}  // namespace
