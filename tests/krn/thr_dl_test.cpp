// Critical sections, thread ids and dynamic loading.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "krndl.h"
#include "krnthr.h"

namespace {

#if defined(__SANITIZE_THREAD__)
#define KRN_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KRN_TSAN 1
#endif
#endif

TEST(ThrCS, MisuseIsRefused) {
#ifdef KRN_TSAN
    GTEST_SKIP() << "ThreadSanitizer reports the deliberate misuse itself";
#endif
    THR_CRIT_SEC cs{};
    ASSERT_EQ(ThrCSInit2(&cs), THR_RC_OK);
    ASSERT_EQ(ThrCSLock(&cs), THR_RC_OK);
    EXPECT_EQ(ThrCSDelete(&cs), THR_RC_INVALID);  // held: stays created
    int otherUnlock = -1;
    std::thread([&] { otherUnlock = ThrCSUnlock(&cs); }).join();
    EXPECT_EQ(otherUnlock, THR_RC_INVALID);  // not the owner
    ASSERT_EQ(ThrCSUnlock(&cs), THR_RC_OK);
    EXPECT_EQ(ThrCSDelete(&cs), THR_RC_OK);
}

TEST(ThrCS, ExcludesOtherThreads) {
    THR_CRIT_SEC cs{};
    ASSERT_EQ(ThrCSInit2(&cs), THR_RC_OK);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                ThrCSLock(&cs);
                ThrCSLock(&cs);
                long v = counter;
                counter = v + 1;
                ThrCSUnlock(&cs);
                ThrCSUnlock(&cs);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(counter, 80000);
    EXPECT_EQ(ThrCSDelete(&cs), THR_RC_OK);
}

TEST(Dl, MissingFileKeepsTheLoaderText) {
    ErrClear();
    int h = 7;
    EXPECT_EQ(DlLoadLib("/nonexistent/libkrn_missing.so", &h), DL_RC_LOAD_FAILED);
    EXPECT_EQ(h, -1);
    EXPECT_NE(std::string(ErrGetLastText()).find("libkrn_missing.so"), std::string::npos);
    std::string otherText = "unset";
    std::thread([&] { otherText = ErrGetLastText(); }).join();
    EXPECT_EQ(otherText, "");  // the store is per thread
    ErrClear();
    EXPECT_STREQ(ErrGetLastText(), "");
    EXPECT_EQ(DlLoadLib(nullptr, &h), DL_RC_INVALID);
    EXPECT_EQ(DlLoadLib("libm.so.6", nullptr), DL_RC_INVALID);
}

TEST(Dl, ResolvesUnloadsAndReusesSlots) {
    int m = -1;
    ASSERT_EQ(DlLoadLib("libm.so.6", &m), DL_RC_OK);
    ASSERT_GE(m, 0);
    void* fn = nullptr;
    ASSERT_EQ(DlLoadFunc(m, "cos", &fn), DL_RC_OK);
    ASSERT_NE(fn, nullptr);
    EXPECT_EQ(reinterpret_cast<double (*)(double)>(fn)(0.0), 1.0);
    fn = &m;
    EXPECT_EQ(DlLoadFunc(m, "krn_no_such_symbol", &fn), DL_RC_NOT_FOUND);
    EXPECT_EQ(fn, nullptr);
    EXPECT_NE(std::string(ErrGetLastText()).find("krn_no_such_symbol"), std::string::npos);

    int second = -1;
    ASSERT_EQ(DlLoadLib("libm.so.6", &second), DL_RC_OK);
    EXPECT_NE(second, m);
    const int first = m;
    EXPECT_EQ(DlUnloadLib(&m), DL_RC_OK);
    EXPECT_EQ(m, -1);
    int stale = first;
    EXPECT_EQ(DlUnloadLib(&stale), DL_RC_INVALID);
    EXPECT_EQ(DlLoadFunc(first, "cos", &fn), DL_RC_INVALID);
    int third = -1;
    ASSERT_EQ(DlLoadLib("libm.so.6", &third), DL_RC_OK);
    EXPECT_EQ(third, first);  // the freed slot is taken again
    EXPECT_EQ(DlUnloadLib(&third), DL_RC_OK);
    EXPECT_EQ(DlUnloadLib(&second), DL_RC_OK);
    EXPECT_EQ(DlUnloadLib(nullptr), DL_RC_INVALID);
}

}  // namespace
