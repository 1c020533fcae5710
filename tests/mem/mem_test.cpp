// Memory hooks, the text conversions and the caller-buffer rule.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "krncp.h"
#include "mavxxi.h"

namespace {

struct HookLog {
    int allocs = 0, reallocs = 0, frees = 0, cleanAllocs = 0;
    std::vector<std::string> tags;
    bool failAlloc = false;
};
HookLog hookLog;

void* CountAlloc(size_t size, int clean, const char* tag) {
    hookLog.allocs++;
    if (clean) hookLog.cleanAllocs++;
    hookLog.tags.push_back(tag != nullptr ? tag : "(null)");
    if (hookLog.failAlloc) return nullptr;
    return clean ? calloc(1, size) : malloc(size);
}
void* CountRealloc(void* p, size_t size, const char* tag) {
    hookLog.reallocs++;
    hookLog.tags.push_back(tag != nullptr ? tag : "(null)");
    return realloc(p, size);
}
void CountFree(void* p) {
    hookLog.frees++;
    free(p);
}

struct TraceLine {
    std::string file, func, text;
    uint32_t level;
};
std::vector<TraceLine> traced;

int Capture(const char* file, const char* func, int, uint32_t level, const char* text) {
    traced.push_back({file, func, text, level});
    return 0;
}

class Mem : public ::testing::Test {
  protected:
    void SetUp() override {
        hookLog = HookLog();
        traced.clear();
        ASSERT_EQ(0, SetProcessCodePageFromEnv("1208"));
    }
    void TearDown() override {
        MavSetTraceHandler(nullptr);
        MavSetTraceLevel(0);
        MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);
        SetProcessCodePageFromEnv("1208");
    }
    void UseCountingHooks() {
        ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(CountAlloc, CountRealloc, CountFree));
    }
};

TEST_F(Mem, InternalAllocationsGoThroughTheHooksWithTagMav) {
    UseCountingHooks();
    void* p = MavIAlloc(16, true);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0, memcmp(p, std::string(16, '\0').data(), 16));
    p = MavIRealloc(p, 64);
    MavIFree(p);
    MavIFree(nullptr);  // not handed to the hook
    EXPECT_EQ(1, hookLog.allocs);
    EXPECT_EQ(1, hookLog.cleanAllocs);
    EXPECT_EQ(1, hookLog.reallocs);
    EXPECT_EQ(1, hookLog.frees);
    EXPECT_EQ((std::vector<std::string>{"mav", "mav"}), hookLog.tags);
}

TEST_F(Mem, OneNullHookIsRefusedAndTheOldTableKept) {
    UseCountingHooks();
    EXPECT_EQ(MAV_E_NULL_PARAM, MavRegisterMmCallbacks(nullptr, MavPXRealloc, MavPXFree));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavRegisterMmCallbacks(MavPXAlloc, nullptr, MavPXFree));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, nullptr));
    MavIFree(MavIAlloc(8, false));
    EXPECT_EQ(1, hookLog.allocs);
    EXPECT_EQ(1, hookLog.frees);
}

TEST_F(Mem, DefaultHooksTraceAtMemoryLevelAndFreeOfNullIsSilent) {
    MavSetTraceHandler(Capture);
    MavSetTraceLevel(MAV_TRC_MEMORY);
    MavPXFree(nullptr);
    EXPECT_TRUE(traced.empty());

    void* p = MavPXAlloc(10, 0x101, "x");  // only the low byte of clean counts
    ASSERT_NE(nullptr, p);
    MavPXFree(p);
    ASSERT_EQ(2u, traced.size());
    char expect[128];
    snprintf(expect, sizeof expect, "MavPXAlloc alloc (ptr=%p,size=10,clean=257)\n", p);
    EXPECT_EQ(expect, traced[0].text);
    EXPECT_EQ(MAV_TRC_MEMORY, traced[0].level);
    snprintf(expect, sizeof expect, "memy free (ptr=%p)\n", p);
    EXPECT_EQ(expect, traced[1].text);

    traced.clear();
    MavSetTraceLevel(MAV_TRC_PEL);  // memory bit off: nothing
    MavPXFree(MavPXAlloc(4, 0, "x"));
    EXPECT_TRUE(traced.empty());
}

TEST_F(Mem, CleanAllocationIsZeroed) {
    unsigned char* p = static_cast<unsigned char*>(MavPXAlloc(256, 1, "x"));
    ASSERT_NE(nullptr, p);
    for (int i = 0; i < 256; i++) ASSERT_EQ(0, p[i]);
    MavPXFree(p);
}

TEST_F(Mem, TraceWriterDoesNotTraceItsOwnHookCalls) {
    // With the memory bit on, the handler path allocates through the default
    // hooks; their own lines must not recurse into the writer.
    MavSetTraceHandler(Capture);
    MavSetTraceLevel(0xFFFF);
    MavPPrintTrace(MAV_TRC_PEL, "a/b.cpp", "Fn", 1, "one %d\n", 1);
    ASSERT_EQ(1u, traced.size());
    EXPECT_EQ("one 1\n", traced[0].text);
    // Other threads' lines are unaffected: the level is left as it was.
    EXPECT_EQ(0xFFFFu, MavGetTraceLevel());
}

TEST_F(Mem, Utf8ConversionValidatesAndMapsCodes) {
    char buf[32];
    const char* text =
        "Gr\xC3\xBC\xC3\x9F"
        "e";  // 7 bytes of UTF-8
    size_t len = strlen(text);
    EXPECT_EQ(MAV_OK, MavIUtf8sToUcs(buf, sizeof buf, &len, text));
    EXPECT_EQ(7u, len);
    EXPECT_STREQ(text, buf);

    len = 2;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavIUtf8sToUcs(buf, sizeof buf, &len, "\xC3\x28"));
    len = 2;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavIUtf8sToUcs(buf, sizeof buf, &len, "\xC0\xAF"));

    len = 7;  // needs 8 bytes with the terminator
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavIUtf8sToUcs(buf, 7, &len, text));
    len = 7;
    EXPECT_EQ(MAV_OK, MavIUtf8sToUcs(buf, 8, &len, text));

    len = 3;
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIUtf8sToUcs(nullptr, 8, &len, "abc"));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIUtf8sToUcs(buf, 8, &len, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIUcsToUtf8s(nullptr, 8, &len, "abc"));

    len = 3;
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavIUcsToUtf8s(buf, 3, &len, "abc"));
}

TEST_F(Mem, Latin1ProcessCodePageRoundTrip) {
    ASSERT_EQ(0, SetProcessCodePageFromEnv("0819"));
    const char* utf8 =
        "Gr\xC3\xBC\xC3\x9F"
        "e";
    char latin[16];
    size_t len = strlen(utf8);
    ASSERT_EQ(MAV_OK, MavIUtf8sToUcs(latin, sizeof latin, &len, utf8));
    EXPECT_EQ(5u, len);
    EXPECT_STREQ(
        "Gr\xFC\xDF"
        "e",
        latin);

    char back[16];
    len = 5;
    ASSERT_EQ(MAV_OK, MavIUcsToUtf8s(back, sizeof back, &len, latin));
    EXPECT_EQ(7u, len);
    EXPECT_STREQ(utf8, back);

    // The euro sign has no place in ISO-8859-1.
    len = 3;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavIUtf8sToUcs(latin, sizeof latin, &len, "\xE2\x82\xAC"));

    // The allocating forms.
    char* k = nullptr;
    EXPECT_EQ(5u, MavICharToKORMO(&k, utf8));
    EXPECT_STREQ(
        "Gr\xFC\xDF"
        "e",
        k);
    char* u = nullptr;
    EXPECT_EQ(7u, MavIKORMOToChar(&u, k));
    EXPECT_STREQ(utf8, u);
    MavIFree(k);
    MavIFree(u);
}

TEST_F(Mem, AllocatingConversionsGrowAndFreeOnFailure) {
    UseCountingHooks();
    char* k = nullptr;
    EXPECT_EQ(3u, MavICharToKORMO(&k, "abc"));
    EXPECT_STREQ("abc", k);
    EXPECT_EQ(11u, MavICharToKORMO(&k, "longer text"));  // grown, not leaked
    EXPECT_STREQ("longer text", k);
    EXPECT_EQ(1, hookLog.allocs);
    EXPECT_EQ(1, hookLog.reallocs);

    EXPECT_EQ(0u, MavICharToKORMO(&k, "bad \xFF"));
    EXPECT_EQ(nullptr, k);
    EXPECT_EQ(1, hookLog.frees);

    EXPECT_EQ(0u, MavICharToKORMO(nullptr, "abc"));
    EXPECT_EQ(0u, MavIKORMOToChar(&k, nullptr));

    hookLog.failAlloc = true;
    EXPECT_EQ(0u, MavICharToKORMO(&k, "abc"));
    EXPECT_EQ(nullptr, k);
}

TEST_F(Mem, RawCopyAllocatesLengthPlusOne) {
    char* raw = nullptr;
    EXPECT_EQ(MAV_OK, MavIKORMO_CHAR2RAW(&raw, "file.txt and more", 8));
    EXPECT_STREQ("file.txt", raw);
    EXPECT_EQ(MAV_OK, MavIKORMO_CHAR2RAW(&raw, "ab", 2));
    EXPECT_STREQ("ab", raw);
    MavIFree(raw);
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIKORMO_CHAR2RAW(nullptr, "ab", 2));
    raw = nullptr;
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIKORMO_CHAR2RAW(&raw, nullptr, 2));

    UseCountingHooks();
    hookLog.failAlloc = true;
    EXPECT_EQ(MAV_E_NO_SPACE, MavIKORMO_CHAR2RAW(&raw, "ab", 2));
}

TEST_F(Mem, CallerBufferRule) {
    const char* text = "EICAR-Test";  // 10 bytes
    size_t size = 0;
    EXPECT_EQ(MAV_OK, MavIPutText(text, nullptr, &size));
    EXPECT_EQ(33u, size);  // 3 x 10 + 3
    EXPECT_EQ(MAV_OK, MavIPutText(nullptr, nullptr, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(MAV_OK, MavIPutText(text, nullptr, nullptr));  // skipped

    char buf[16];
    memset(buf, 'x', sizeof buf);
    size = 11;  // exact fit with the terminator
    EXPECT_EQ(MAV_OK, MavIPutText(text, buf, &size));
    EXPECT_EQ(10u, size);
    EXPECT_STREQ(text, buf);

    memset(buf, 'x', sizeof buf);
    size = 10;  // one too small
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavIPutText(text, buf, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ('\0', buf[0]);

    memset(buf, 'x', sizeof buf);
    size = sizeof buf;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavIPutText("a\xFF", buf, &size));
    EXPECT_EQ(0u, size);
    EXPECT_EQ('\0', buf[0]);

    size = sizeof buf;
    EXPECT_EQ(MAV_OK, MavIPutText(nullptr, buf, &size));  // no text
    EXPECT_EQ(0u, size);

    buf[0] = 'x';
    size = 0;  // nothing may be written into a zero-size buffer
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavIPutText(text, buf, &size));
    EXPECT_EQ('x', buf[0]);
}

}  // namespace
