// Thread stress: 8 threads mix every kind of call at once on three handles
// (one scanning memory with an instance each and a growing pool, one scanning
// through temporary files with a shared engine and a full pool, and handles
// of their own) and on profile instances: start-up and shutdown, instances
// and pools, reloads of one and of all handles, name lookups, scans with
// their own events and parameters while the handle's values, registrations
// and the trace level change, and the engine and parameter readers during
// reloads. Checks what each call returns, that each event reaches the handler
// of the instance that scanned, and that nothing is left afterwards. Bounded
// in count and time; KORMO_SOAK_SECONDS / KORMO_SOAK_ROUNDS lengthen it
// (scripts/stress.sh). scripts/tsan.sh runs it under ThreadSanitizer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kormomav.h"
#include "mavxxi.h"
#include "runtime_text.h"
#include "temp_dir.h"
#include "testpel_client.h"

namespace {

enum Op {
    kOwnScan, kFallbackScan, kPooledScan, kProfileScan, kOwnHandle, kPool, kReload,
    kHandleEvents, kTraceLevel, kReaders, kOpCount
};
std::atomic<uint64_t> opsDone[kOpCount];
std::atomic<uint64_t> traceLines{0};
std::mutex failLock;
std::vector<std::string> failures;

void Fail(const std::string& what) {
    std::lock_guard<std::mutex> g(failLock);
    if (failures.size() < 30) failures.push_back(what);
}
void Expect(bool ok, const char* what, MAV_RC rc) {
    if (!ok) Fail(std::string(what) + " gave " + MavErrorName(rc));
}
bool OkOr(MAV_RC rc, MAV_RC other) { return rc == MAV_OK || rc == other; }

int CountTrace(const char*, const char*, int, uint32_t, const char*) {
    traceLines.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

uint64_t EnvNumber(const char* name, uint64_t fallback) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? std::strtoull(v, nullptr, 10) : fallback;
}

// Events of one scan, counted by the handler of the instance that scans.
struct ScanEvents {
    MAV_INST expected = nullptr;
    int virus = 0, object = 0, progress = 0, foreign = 0;
};
ScanEvents* Seen(MAV_INST inst, void* user) {
    ScanEvents* e = static_cast<ScanEvents*>(user);
    if (inst != e->expected) ++e->foreign;
    return e;
}
VS_CALLRC OnVirus(MAV_INST inst, void* user, void* data) {
    const MAV_VIRUSINFO* v = static_cast<const MAV_VIRUSINFO*>(data);
    Seen(inst, user)->virus += v != nullptr && strcmp(v->pszVirusName, "Stress-Virus") == 0;
    return 0;
}
VS_CALLRC OnObject(MAV_INST inst, void* user, void* data) {
    Seen(inst, user)->object += data != nullptr && strcmp(static_cast<char*>(data), "inner") == 0;
    return 0;
}
VS_CALLRC OnProgress(MAV_INST inst, void* user, void*) {
    ++Seen(inst, user)->progress;
    return 0;
}
VS_CALLRC OnHandleEvent(MAV_INST inst, uint32_t, void*, void*) {
    if (MavGetHandle(inst) == nullptr) Fail("handle-level event for no instance");
    return 0;
}

struct Shared {
    MAV_HANDLE memory;    // scans memory, one engine per instance, pool grows and shrinks
    MAV_HANDLE fallback;  // scans files only, one shared engine, full pool
    std::string file, path;
};

// One scan on a new instance with its own events and parameters.
void OwnScan(MAV_HANDLE h, const Shared& s, bool file, std::mt19937& rng, int id) {
    MAV_INST inst = nullptr;
    MAV_RC rc = MavCreateInstance(h, &inst);
    Expect(rc == MAV_OK, "MavCreateInstance", rc);
    if (inst == nullptr) return;
    ScanEvents events;
    events.expected = inst;
    MAV_EVENTS table = {};
    table.OnVirusFound = OnVirus;
    table.OnObjectFound = OnObject;
    table.ScanProgress = OnProgress;
    rc = MavRegisterEvents(inst, &table, &events);
    Expect(rc == MAV_OK, "MavRegisterEvents (instance)", rc);
    rc = MavSetParameter(inst, "SCANLIMIT", VS_TYPE_LONG, std::to_string(rng() % 9999).c_str());
    Expect(rc == MAV_OK, "MavSetParameter (instance)", rc);
    const std::string ext = "ext" + std::to_string(id);
    rc = MavSetParameter(inst, "SCANEXTENSIONS", VS_TYPE_CHAR, ext.c_str());
    Expect(rc == MAV_OK, "MavSetParameter CHAR (instance)", rc);

    MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
    unsigned char bytes[256];
    memset(bytes, 'a' + id, sizeof bytes);
    rc = file ? MavScanFile(inst, s.file.c_str(), rng(), &si)
              : MavScanBytes(inst, "object", bytes, sizeof bytes, rng(), &si);
    Expect(rc == MAV_E_VIRUS_FOUND && si.uiInfections == 1, "scan", rc);
    if (events.virus != 1 || events.object != 1 || events.progress != 1 || events.foreign != 0)
        Fail("events of a scan: " + std::to_string(events.virus) + " " +
             std::to_string(events.object) + " " + std::to_string(events.progress) + " foreign " +
             std::to_string(events.foreign));
    char text[64];
    size_t len = sizeof text;
    rc = MavEnumInfections(inst, 0, nullptr, nullptr, text, &len, nullptr, nullptr, nullptr,
                           nullptr, nullptr);
    Expect(rc == MAV_OK && std::string(text, len) == "Stress-Virus", "MavEnumInfections", rc);
    len = sizeof text;
    rc = MavGetParameter(inst, "SCANEXTENSIONS", nullptr, text, &len);
    Expect(rc == MAV_OK && std::string(text, len) == ext, "MavGetParameter (instance)", rc);
    rc = MavFreeInstance(&inst);
    Expect(rc == MAV_OK, "MavFreeInstance", rc);
}

void Step(Op op, const Shared& s, std::mt19937& rng, int id, uint64_t round) {
    MAV_RC rc = MAV_OK;
    switch (op) {
        case kOwnScan: OwnScan(s.memory, s, round % 2, rng, id); break;
        case kFallbackScan: OwnScan(s.fallback, s, false, rng, id); break;
        case kPooledScan: {
            // The handle's values and flags change on other threads meanwhile.
            MAV_INST i = MavGetInstance(s.fallback);
            rc = MavSetParameter(s.fallback, "SCANLIMIT", VS_TYPE_LONG, std::to_string(round).c_str());
            Expect(rc == MAV_OK, "MavSetParameter (handle)", rc);
            MavSetParameter(s.fallback, "CUST_NOT_SCANNED_AS_WARNING", VS_TYPE_BOOL, round % 2 ? "1" : "0");
            if (i == nullptr) break;
            unsigned char bytes[8] = {'s'};
            rc = MavScanBytes(i, "pooled", bytes, sizeof bytes, 0, nullptr);
            Expect(rc == MAV_E_VIRUS_FOUND, "MavScanBytes (pooled)", rc);
            rc = MavFreeInstance(&i);
            Expect(rc == MAV_OK, "MavFreeInstance (pooled)", rc);
            break;
        }
        case kProfileScan: {
            MAV_INST p = nullptr;
            rc = MavGetProfileInstance("STRESS", &p);
            Expect(rc == MAV_OK && p != nullptr, "MavGetProfileInstance", rc);
            if (p == nullptr) break;
            unsigned char bytes[64] = {0};
            rc = MavScanBytes(p, "profile", bytes, sizeof bytes, 1, nullptr);
            Expect(rc == MAV_E_VIRUS_FOUND, "profile scan", rc);
            rc = MavFreeInstance(&p);
            Expect(rc == MAV_OK, "MavFreeInstance (profile)", rc);
            break;
        }
        case kOwnHandle: {
            MAV_HANDLE h = nullptr;
            rc = MavInit(s.path.c_str(), &h);
            Expect(rc == MAV_OK, "MavInit", rc);
            const std::string name = "stress" + std::to_string(id);
            rc = MavSetHandleName(h, name.c_str(), name.size());
            Expect(rc == MAV_OK, "MavSetHandleName", rc);
            if (round % 3 == 0) MavSetPoolSize(h, 1);
            MAV_INST a = nullptr, b = nullptr;
            Expect(MavCreateInstance(h, &a) == MAV_OK && MavCreateInstance(h, &b) == MAV_OK &&
                       MavGetHandle(b) == h, "MavCreateInstance (own)", MAV_OK);
            Expect(MavFreeInstance(&b) == MAV_OK && MavFreeInstance(&a) == MAV_OK,
                   "MavFreeInstance (own)", MAV_OK);
            rc = MavEnd(&h);
            Expect(rc == MAV_OK && h == nullptr, "MavEnd (own)", rc);
            break;
        }
        case kPool:
            switch (rng() % 3) {
                case 0:
                    rc = MavSetPoolSize(s.memory, rng() % 5);
                    Expect(rc == MAV_OK && MavGetPoolSize(s.memory) <= 5, "MavSetPoolSize", rc);
                    break;
                case 1:
                    rc = MavLoadPool(s.memory, 1 + rng() % 4, round % 2);
                    Expect(OkOr(rc, MAV_E_INVALID_PARAM), "MavLoadPool", rc);
                    break;
                default:
                    rc = MavFreePool(s.memory);
                    Expect(OkOr(rc, MAV_E_IN_PROGRESS), "MavFreePool", rc);
            }
            break;
        case kReload: {
            MAV_HANDLE which[] = {s.memory, s.fallback, nullptr};
            rc = MavReload(which[rng() % 3]);
            Expect(OkOr(rc, MAV_E_IN_PROGRESS), "MavReload", rc);
            break;
        }
        case kHandleEvents: {
            MAV_HANDLE h = rng() % 2 ? s.memory : s.fallback;
            rc = rng() % 2 ? MavRegisterSingleEventHandler(h, OnHandleEvent, VS_M_VIRUS, nullptr)
                           : MavRegisterSingleEventHandler(h, nullptr, 0, nullptr);
            Expect(rc == MAV_OK, "MavRegisterSingleEventHandler (handle)", rc);
            break;
        }
        case kTraceLevel: {
            const uint32_t levels[] = {0, MAV_TRC_ERROR, MAV_TRC_ERROR | MAV_TRC_EVENT, 0x7FFE};
            rc = MavSetTraceLevel(levels[rng() % 4]);
            Expect(rc == MAV_OK, "MavSetTraceLevel", rc);
            break;
        }
        case kReaders: {
            char text[128];
            size_t len = sizeof text;
            rc = MavGetPelInfo(s.fallback, nullptr, nullptr, nullptr, text, &len, nullptr, nullptr);
            Expect(rc == MAV_OK && std::string(text, len) == "testpel", "MavGetPelInfo", rc);
            len = sizeof text;
            MavGetEngineInfo(s.fallback, nullptr, text, &len, nullptr, nullptr, nullptr);
            len = sizeof text;
            MavEnumDriverInfo(s.fallback, 0, nullptr, text, &len, nullptr, nullptr);
            MavAdapterErrorCode(s.fallback);
            char* err = text;
            len = sizeof text;
            MavAdapterErrorText(s.fallback, &err, &len);
            if (err != text) MavIFree(err);
            len = sizeof text;
            rc = MavGetParameter(s.fallback, "SCANLIMIT", nullptr, text, &len);
            Expect(rc == MAV_OK, "MavGetParameter", rc);
            MavGetHandleByName("stress", 6);
            MavIXGetHdlSizeByName("stress", 6, 100);
            Expect(MavGetHandleByName("shared-full", 11) == s.fallback, "MavGetHandleByName", MAV_OK);
            break;
        }
        default: break;
    }
}

void Worker(int id, const Shared& s, uint64_t rounds, std::chrono::steady_clock::time_point end) {
    std::mt19937 rng(4321u + static_cast<unsigned>(id));
    for (uint64_t round = 0; round < rounds && std::chrono::steady_clock::now() < end; ++round) {
        Op op = static_cast<Op>(rng() % kOpCount);
        Step(op, s, rng, id, round);
        opsDone[op].fetch_add(1, std::memory_order_relaxed);
    }
}

std::string RuntimeConfig(const std::string& adapter) {
    RuntimeText c;
    c.line("mav.defaults.profile=STRESS").profile("STRESS").step("STRESS", "0", "0", "G");
    c.group("G").provider("STRESSP", "G", adapter, "4");
    return c.text;
}

TEST(Stress, EveryKindOfCallOnEightThreads) {
    constexpr int kThreads = 8;
    const uint64_t seconds = EnvNumber("KORMO_SOAK_SECONDS", 10);
    const uint64_t rounds = EnvNumber("KORMO_SOAK_ROUNDS", 2000);
    TestPel pel;
    TempDir dir;
    MavSetTraceHandler(CountTrace);
    pel.add_param(1, VS_P_INITTIMEOUT, VS_TYPE_INT, "30");
    pel.add_param(0, 104, VS_TYPE_CHAR, "exe,com");  // SCANEXTENSIONS
    pel.add_param(0, VS_P_SCANLIMIT, VS_TYPE_LONG, "1000");
    pel.set_engine(1, 2, "stress engine", 1700000000, 42);
    pel.add_driver("stress driver", 1, 0, 1700000000, 42, 1, 0);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection("Stress-Virus", "object", 7, 0, TPEL_SIZE_OF_OBJECT, nullptr);
    pel.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);
    pel.script_event(VS_M_OBJECTFOUND, 0, "inner", 0, 0);
    pel.script_event(VS_M_SCANPROGRESS, 0, nullptr, 100, 0);
    Shared s{nullptr, nullptr, dir.write("sample.bin", "stress sample"), pel.path()};

    ASSERT_EQ(MAV_OK, MavInit(pel.path(), &s.memory));
    ASSERT_EQ(MAV_OK, MavLoadPool(s.memory, 4, 1));
    pel.set_adapter_info(4711, 1, 2, 1, 0, "Kormo Test", "testpel");
    pel.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_ALL, 0);
    ASSERT_EQ(MAV_OK, MavInit(pel.path(), &s.fallback));
    pel.set_adapter_info(4711, 0, 2, 1, 0, "Kormo Test", "testpel");
    pel.set_flags(0x3, 0x19, VS_M_ALL, 0);
    ASSERT_EQ(MAV_OK, MavSetHandleName(s.fallback, "shared-full", 11));
    ASSERT_EQ(MAV_OK, MavLoadPool(s.fallback, 4, 0));
    const std::string config = RuntimeConfig(pel.path());
    ASSERT_EQ(MAV_OK, MavStartRuntime(config.data(), config.size()));

    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(Worker, t, std::cref(s), rounds, start + std::chrono::seconds(seconds));
    for (std::thread& t : threads) t.join();
    MavSetTraceLevel(0);
    uint64_t total = 0;
    for (const auto& n : opsDone) {
        total += n.load();
        EXPECT_GT(n.load(), 0u) << "an operation never ran";
    }
    // scripts/stress.sh sums the "total operations" lines of its runs.
    std::printf("stress: %d threads, %.2f s\n  total operations %llu\n  trace lines %llu\n", kThreads,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                static_cast<unsigned long long>(total),
                static_cast<unsigned long long>(traceLines.load()));
    std::fflush(stdout);
    RecordProperty("operations", static_cast<int>(total));

    for (const std::string& f : failures) ADD_FAILURE() << f;
    EXPECT_EQ(MAV_OK, MavStopRuntime());
    EXPECT_EQ(MAV_OK, MavEnd(&s.memory));
    EXPECT_EQ(MAV_OK, MavEnd(&s.fallback));
    EXPECT_EQ(0u, MavIXGetHdlSize());
    EXPECT_EQ(0, pel.live_inits());
    EXPECT_EQ(0, pel.live_scaninfos());
    EXPECT_EQ(0u, pel.bad_releases());
    EXPECT_GT(pel.max_concurrent_scans(), 1u) << "scans never overlapped";
    MavSetTraceHandler(nullptr);
}

}  // namespace
