// Thread stress of the adapter lifecycle: 8 threads mix start-up and
// shutdown, instance creation and release, pool calls, reloads of one and of
// all handles, handle-name lookups, scans while the handle's parameters and
// policy flags change, and engine and parameter readers during reloads. Bounded in count and time; stops by
// itself and prints what it did. Run under ThreadSanitizer by scripts/tsan.sh.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kormomav.h"
#include "mavxxi.h"
#include "testpel_client.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRoundsPerThread = 2000;
constexpr auto kTimeLimit = std::chrono::seconds(30);

enum Op {
    kInitEnd,
    kCreateFree,
    kGetFree,
    kSetPoolSize,
    kLoadPool,
    kFreePool,
    kReloadOne,
    kReloadAll,
    kNameLookup,
    kScanWhileSetting,
    kReadMetadata,
    kOpCount
};
const char* const kOpNames[kOpCount] = {"init+name+instances+end",
                                        "create+free (pool handle)",
                                        "get+free (full pool)",
                                        "set pool size",
                                        "load pool",
                                        "free pool",
                                        "reload one handle",
                                        "reload all handles",
                                        "handle-name lookup",
                                        "scan while setting",
                                        "metadata readers"};

std::atomic<uint64_t> opsDone[kOpCount];
std::atomic<uint64_t> traceLines{0};
std::mutex failLock;
std::vector<std::string> failures;

int CountTrace(const char*, const char*, int, uint32_t, const char*) {
    traceLines.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void Expect(bool ok, const char* what, MAV_RC rc) {
    if (ok) return;
    std::lock_guard<std::mutex> g(failLock);
    if (failures.size() < 20) failures.push_back(std::string(what) + " gave " + MavErrorName(rc));
}

bool OkOr(MAV_RC rc, MAV_RC other) {
    return rc == MAV_OK || rc == other;
}

struct Shared {
    const char* path;
    MAV_HANDLE pool;  // pool that grows and shrinks (thread model 0)
    MAV_HANDLE full;  // full pool of a shared engine (thread model 1)
};

void Worker(int id, const Shared& s, std::chrono::steady_clock::time_point deadline) {
    std::mt19937 rng(1234u + static_cast<unsigned>(id));
    std::uniform_int_distribution<int> pick(0, kOpCount - 1);
    std::uniform_int_distribution<int> small(0, 4);
    const std::string name = "stress" + std::to_string(id);
    for (int round = 0; round < kRoundsPerThread; ++round) {
        if (std::chrono::steady_clock::now() > deadline) break;
        Op op = static_cast<Op>(pick(rng));
        MAV_RC rc = MAV_OK;
        switch (op) {
            case kInitEnd: {
                MAV_HANDLE h = nullptr;
                rc = MavInit(s.path, &h);
                Expect(rc == MAV_OK, "MavInit", rc);
                rc = MavSetHandleName(h, name.c_str(), name.size());
                Expect(rc == MAV_OK, "MavSetHandleName", rc);
                if (small(rng) < 2) MavSetPoolSize(h, 1);
                MAV_INST a = nullptr, b = nullptr;
                rc = MavCreateInstance(h, &a);
                Expect(rc == MAV_OK, "MavCreateInstance (own)", rc);
                rc = MavCreateInstance(h, &b);
                Expect(rc == MAV_OK, "MavCreateInstance (own)", rc);
                Expect(MavGetHandle(b) == h, "MavGetHandle (own)", MAV_OK);
                rc = MavFreeInstance(&b);
                Expect(rc == MAV_OK, "MavFreeInstance (own)", rc);
                rc = MavFreeInstance(&a);
                Expect(rc == MAV_OK, "MavFreeInstance (own)", rc);
                rc = MavEnd(&h);
                Expect(rc == MAV_OK && h == nullptr, "MavEnd (own)", rc);
                break;
            }
            case kCreateFree: {
                MAV_INST i = nullptr;
                rc = MavCreateInstance(s.pool, &i);
                Expect(rc == MAV_OK, "MavCreateInstance", rc);
                Expect(MavGetHandle(i) == s.pool, "MavGetHandle", MAV_OK);
                std::this_thread::yield();
                rc = MavFreeInstance(&i);
                Expect(rc == MAV_OK, "MavFreeInstance", rc);
                break;
            }
            case kGetFree: {
                MAV_INST i = MavGetInstance(s.full);
                if (i != nullptr) {
                    rc = MavFreeInstance(&i);
                    Expect(rc == MAV_OK, "MavFreeInstance (full pool)", rc);
                }
                break;
            }
            case kSetPoolSize:
                rc = MavSetPoolSize(s.pool, static_cast<size_t>(small(rng)));
                Expect(rc == MAV_OK, "MavSetPoolSize", rc);
                Expect(MavGetPoolSize(s.pool) <= 5, "MavGetPoolSize", MAV_OK);
                break;
            case kLoadPool:
                rc = MavLoadPool(s.pool, static_cast<size_t>(1 + small(rng)), round % 2);
                Expect(OkOr(rc, MAV_E_INVALID_PARAM), "MavLoadPool", rc);
                break;
            case kFreePool:
                rc = MavFreePool(s.pool);
                Expect(OkOr(rc, MAV_E_IN_PROGRESS), "MavFreePool", rc);
                break;
            case kReloadOne:
                rc = MavReload(round % 2 ? s.pool : s.full);
                Expect(OkOr(rc, MAV_E_IN_PROGRESS), "MavReload (one)", rc);
                break;
            case kReloadAll:
                rc = MavReload(nullptr);
                Expect(OkOr(rc, MAV_E_IN_PROGRESS), "MavReload (all)", rc);
                break;
            case kNameLookup: {
                MavGetHandleByName("stress", 6);
                MavIXGetHdlSizeByName("stress", 6, 100);
                Expect(MavGetHandleByName("shared-full", 11) == s.full, "MavGetHandleByName",
                       MAV_OK);
                Expect(MavIXGetHdlSize() >= 2, "MavIXGetHdlSize", MAV_OK);
                break;
            }
            case kScanWhileSetting: {
                // Scans on a pooled instance while the handle's values and
                // flags change on other threads (read without the lock).
                MAV_INST i = MavGetInstance(s.full);
                std::string limit = std::to_string(round);
                rc = MavSetParameter(s.full, "SCANLIMIT", VS_TYPE_LONG, limit.c_str());
                Expect(rc == MAV_OK, "MavSetParameter (handle)", rc);
                MavSetParameter(s.full, "CUST_NOT_SCANNED_AS_WARNING", VS_TYPE_BOOL,
                                round % 2 ? "1" : "0");
                MavSetParameter(s.full, "CUST_CLEAN", VS_TYPE_BOOL, round % 3 ? "1" : "0");
                if (i != nullptr) {
                    unsigned char bytes[8] = {'s', 't', 'r', 'e', 's', 's', 0, 0};
                    rc = MavScanBytes(i, "stress", bytes, sizeof bytes, 0, nullptr);
                    Expect(rc == MAV_OK, "MavScanBytes (pooled)", rc);
                    rc = MavFreeInstance(&i);
                    Expect(rc == MAV_OK, "MavFreeInstance (scanned)", rc);
                }
                break;
            }
            case kReadMetadata: {
                char text[128];
                size_t len = sizeof text;
                MavGetEngineInfo(s.full, nullptr, text, &len, nullptr, nullptr, nullptr);
                len = sizeof text;
                MavEnumDriverInfo(s.full, 0, nullptr, text, &len, nullptr, nullptr);
                MavAdapterErrorCode(s.full);
                char* err = text;
                len = sizeof text;
                MavAdapterErrorText(s.full, &err, &len);
                if (err != text) MavIFree(err);
                len = sizeof text;
                rc = MavGetParameter(s.full, "SCANLIMIT", nullptr, text, &len);
                Expect(rc == MAV_OK, "MavGetParameter", rc);
                break;
            }
            default:
                break;
        }
        opsDone[op].fetch_add(1, std::memory_order_relaxed);
    }
}

TEST(Stress, MixedLifecycleCallsOnEightThreads) {
    TestPel pel;
    MavSetTraceHandler(CountTrace);
    Shared s{pel.path(), nullptr, nullptr};
    pel.add_param(0, VS_P_SCANLIMIT, VS_TYPE_LONG, "100");
    pel.set_engine(1, 2, "stress engine", 1700000000, 42);
    pel.add_driver("stress driver", 1, 0, 1700000000, 42, 1, 0);
    ASSERT_EQ(MAV_OK, MavInit(s.path, &s.pool));
    pel.set_adapter_info(4711, 1, 2, 1, 0, "Kormo Test", "testpel");
    ASSERT_EQ(MAV_OK, MavInit(s.path, &s.full));
    pel.set_adapter_info(4711, 0, 2, 1, 0, "Kormo Test", "testpel");
    ASSERT_EQ(MAV_OK, MavSetHandleName(s.full, "shared-full", 11));
    ASSERT_EQ(MAV_OK, MavLoadPool(s.full, 4, 0));

    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(Worker, t, std::cref(s), start + kTimeLimit);
    for (std::thread& t : threads) t.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    uint64_t total = 0;
    std::printf("stress: %d threads, %.2f s\n", kThreads, secs);
    for (int op = 0; op < kOpCount; ++op) {
        std::printf("  %-26s %8llu\n", kOpNames[op],
                    static_cast<unsigned long long>(opsDone[op].load()));
        total += opsDone[op].load();
    }
    std::printf("  %-26s %8llu\n  %-26s %8llu\n", "total operations",
                static_cast<unsigned long long>(total), "trace lines",
                static_cast<unsigned long long>(traceLines.load()));
    std::fflush(stdout);

    for (const std::string& f : failures) ADD_FAILURE() << f;
    EXPECT_EQ(MAV_OK, MavEnd(&s.pool));
    EXPECT_EQ(MAV_OK, MavEnd(&s.full));
    EXPECT_EQ(0u, MavIXGetHdlSize());
    EXPECT_EQ(0, pel.live_inits());
    EXPECT_EQ(0u, pel.bad_releases());
    EXPECT_GT(total, 0u);
    MavSetTraceHandler(nullptr);
}

}  // namespace
