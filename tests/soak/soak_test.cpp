// Thread soak: 8 threads scan files and buffers on instances of two handles
// (one scanning memory, one through temporary files with a shared engine) and
// on profile instances, register events and change parameters on their
// instances, read results, reload handles, change and read the handles'
// parameters and registrations, and switch the trace level, all at once.
// Checks what each call returns, that every event reaches the handler of the
// instance that scanned, and that nothing is left afterwards. Bounded in
// count and time and self-stopping; KORMO_SOAK_SECONDS / KORMO_SOAK_ROUNDS
// lengthen it for long runs (scripts/stress.sh). Runs under ThreadSanitizer
// through scripts/tsan.sh.
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
#include "testpel_client.h"

namespace {

constexpr int kThreads = 8;

enum Op {
    kScanBytes,
    kScanFile,
    kScanFallback,
    kScanShared,
    kProfileScan,
    kReload,
    kHandleParams,
    kHandleEvents,
    kTraceLevel,
    kInformation,
    kOpCount
};
const char* const kOpNames[kOpCount] = {
    "scan bytes (own events, params)", "scan file (own events, params)", "scan via temporary file",
    "scan with the handle's events",   "profile instance scan",          "reload one or all",
    "handle parameter set+get",        "handle event registration",      "trace level change",
    "adapter/engine information"};

std::atomic<uint64_t> opsDone[kOpCount];
std::atomic<uint64_t> eventsSeen{0};
std::atomic<uint64_t> handleEvents{0};
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

int CountTrace(const char*, const char*, int, uint32_t, const char* text) {
    if (text != nullptr) traceLines.fetch_add(1, std::memory_order_relaxed);
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

VS_CALLRC OnVirus(MAV_INST inst, void* user, void* data) {
    ScanEvents* e = static_cast<ScanEvents*>(user);
    if (inst != e->expected) ++e->foreign;
    const MAV_VIRUSINFO* v = static_cast<const MAV_VIRUSINFO*>(data);
    if (v != nullptr && v->pszVirusName != nullptr && strcmp(v->pszVirusName, "Soak-Virus") == 0)
        ++e->virus;
    return 0;
}
VS_CALLRC OnObject(MAV_INST inst, void* user, void* data) {
    ScanEvents* e = static_cast<ScanEvents*>(user);
    if (inst != e->expected) ++e->foreign;
    if (data != nullptr && strcmp(static_cast<const char*>(data), "soak/inner") == 0) ++e->object;
    return 0;
}
VS_CALLRC OnProgress(MAV_INST inst, void* user, void*) {
    ScanEvents* e = static_cast<ScanEvents*>(user);
    if (inst != e->expected) ++e->foreign;
    ++e->progress;
    return 0;
}
// Handle-level registration: instances that never registered their own.
VS_CALLRC OnHandleEvent(MAV_INST inst, uint32_t, void*, void*) {
    if (MavGetHandle(inst) == nullptr) Fail("handle-level event for no instance");
    handleEvents.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

struct Shared {
    MAV_HANDLE memory;    // scans memory, one engine per instance
    MAV_HANDLE fallback;  // scans files only, one shared engine
    std::string file;
};

// One scan on an instance with its own events and parameters.
void OwnScan(MAV_HANDLE h, const Shared& s, Op op, std::mt19937& rng, int id) {
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
    const std::string limit = std::to_string(rng() % 100000);
    rc = MavSetParameter(inst, "SCANLIMIT", VS_TYPE_LONG, limit.c_str());
    Expect(rc == MAV_OK, "MavSetParameter (instance)", rc);
    const std::string ext = "ext" + std::to_string(id);
    rc = MavSetParameter(inst, "SCANEXTENSIONS", VS_TYPE_CHAR, ext.c_str());
    Expect(rc == MAV_OK, "MavSetParameter CHAR (instance)", rc);

    MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
    const uint32_t job = rng();
    if (op == kScanFile) {
        rc = MavScanFile(inst, s.file.c_str(), job, &si);
    } else {
        unsigned char bytes[256];
        memset(bytes, 'a' + id, sizeof bytes);
        rc = MavScanBytes(inst, "soak/object", bytes, sizeof bytes, job, &si);
    }
    Expect(rc == MAV_E_VIRUS_FOUND, "scan", rc);
    if (events.virus != 1 || events.object != 1 || events.progress != 1 || events.foreign != 0)
        Fail("events of a scan: virus " + std::to_string(events.virus) + " object " +
             std::to_string(events.object) + " progress " + std::to_string(events.progress) +
             " foreign " + std::to_string(events.foreign));
    eventsSeen.fetch_add(static_cast<uint64_t>(events.virus + events.object + events.progress),
                         std::memory_order_relaxed);
    if (si.uiInfections != 1) Fail("summary of a scan");

    char name[64];
    size_t len = sizeof name;
    rc = MavEnumInfections(inst, 0, nullptr, nullptr, name, &len, nullptr, nullptr, nullptr,
                           nullptr, nullptr);
    Expect(rc == MAV_OK && std::string(name, len) == "Soak-Virus", "MavEnumInfections", rc);
    char value[32];
    len = sizeof value;
    rc = MavGetParameter(inst, "SCANEXTENSIONS", nullptr, value, &len);
    Expect(rc == MAV_OK && std::string(value, len) == ext, "MavGetParameter (instance)", rc);
    // A pooled instance keeps its registration for the next user: cleared
    // here, since it points into this stack frame.
    const MAV_EVENTS none = {};
    rc = MavRegisterEvents(inst, &none, nullptr);
    Expect(rc == MAV_OK, "MavRegisterEvents (clear)", rc);
    rc = MavFreeInstance(&inst);
    Expect(rc == MAV_OK, "MavFreeInstance", rc);
}

void ProfileScan() {
    MAV_INST pinst = nullptr;
    MAV_RC rc = MavGetProfileInstance("SOAK", &pinst);
    Expect(rc == MAV_OK && pinst != nullptr, "MavGetProfileInstance", rc);
    if (pinst == nullptr) return;
    unsigned char bytes[64] = {0};
    MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
    rc = MavScanBytes(pinst, "profile", bytes, sizeof bytes, 1, &si);
    Expect(rc == MAV_E_VIRUS_FOUND, "profile scan", rc);
    size_t len = 0;
    rc = MavEnumInfections(pinst, 0, nullptr, nullptr, nullptr, &len, nullptr, nullptr, nullptr,
                           nullptr, nullptr);
    Expect(rc == MAV_OK && len == 3 * strlen("Soak-Virus") + 3, "profile results", rc);
    rc = MavFreeInstance(&pinst);
    Expect(rc == MAV_OK, "MavFreeInstance (profile)", rc);
}

void Worker(int id, const Shared& s, uint64_t rounds, std::chrono::steady_clock::time_point end) {
    std::mt19937 rng(4321u + static_cast<unsigned>(id));
    std::uniform_int_distribution<int> pick(0, kOpCount - 1);
    for (uint64_t round = 0; round < rounds; ++round) {
        if (std::chrono::steady_clock::now() > end) break;
        Op op = static_cast<Op>(pick(rng));
        MAV_RC rc = MAV_OK;
        switch (op) {
            case kScanBytes:
            case kScanFile:
                OwnScan(s.memory, s, op, rng, id);
                break;
            case kScanFallback:
                OwnScan(s.fallback, s, kScanBytes, rng, id);
                break;
            case kScanShared: {
                // A new instance reads the handle's registration, which other
                // threads change meanwhile.
                MAV_INST inst = nullptr;
                rc = MavCreateInstance(s.fallback, &inst);
                Expect(rc == MAV_OK, "MavCreateInstance (shared)", rc);
                unsigned char bytes[32] = {0};
                rc = MavScanBytes(inst, "shared", bytes, sizeof bytes, 2, nullptr);
                Expect(rc == MAV_E_VIRUS_FOUND, "scan (shared)", rc);
                rc = MavFreeInstance(&inst);
                Expect(rc == MAV_OK, "MavFreeInstance (shared)", rc);
                break;
            }
            case kProfileScan:
                ProfileScan();
                break;
            case kReload: {
                MAV_HANDLE which[] = {s.memory, s.fallback, nullptr};
                rc = MavReload(which[rng() % 3]);
                Expect(rc == MAV_OK || rc == MAV_E_IN_PROGRESS, "MavReload", rc);
                break;
            }
            case kHandleParams: {
                const std::string v = "h" + std::to_string(rng() % 1000);
                rc = MavSetParameter(s.memory, "SCANEXTENSIONS", VS_TYPE_CHAR, v.c_str());
                Expect(rc == MAV_OK, "MavSetParameter (handle)", rc);
                char value[32];
                size_t len = sizeof value;
                rc = MavGetParameter(s.memory, "SCANEXTENSIONS", nullptr, value, &len);
                Expect(rc == MAV_OK && len >= 2 && value[0] == 'h', "MavGetParameter (handle)", rc);
                rc = MavSetParameter(s.memory, "INITTIMEOUT", VS_TYPE_INT,
                                     std::to_string(rng() % 600).c_str());
                Expect(rc == MAV_OK, "MavSetParameter INT (handle)", rc);
                break;
            }
            case kHandleEvents: {
                MAV_HANDLE h = rng() % 2 ? s.memory : s.fallback;
                rc = rng() % 2
                         ? MavRegisterSingleEventHandler(h, OnHandleEvent, VS_M_VIRUS, nullptr)
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
            case kInformation: {
                char text[64];
                size_t len = sizeof text;
                uint32_t version = 0;
                rc = MavGetPelInfo(s.fallback, &version, nullptr, nullptr, text, &len, nullptr,
                                   nullptr);
                Expect(rc == MAV_OK && std::string(text, len) == "testpel", "MavGetPelInfo", rc);
                MAV_INST i = MavGetInstance(s.fallback);
                if (i != nullptr) {
                    len = sizeof text;
                    rc = MavGetEngineInfo(i, &version, text, &len, nullptr, nullptr, nullptr);
                    Expect(rc == MAV_OK, "MavGetEngineInfo", rc);
                    rc = MavFreeInstance(&i);
                    Expect(rc == MAV_OK, "MavFreeInstance (information)", rc);
                }
                break;
            }
            default:
                break;
        }
        opsDone[op].fetch_add(1, std::memory_order_relaxed);
    }
}

std::string RuntimeConfig(const std::string& adapter) {
    const std::string p = "mav.provider.Pelmark.Adapters.SOAKP";
    return "mav.defaults.profile=SOAK\n"
           "mav.profile.SOAK=SOAK\n"
           "mav.profile.SOAK.Active=true\n"
           "mav.profile.SOAK.ProfileSteps.0=0\n"
           "mav.profile.SOAK.ProfileSteps.0.ProfileEntryType=0\n"
           "mav.profile.SOAK.ProfileSteps.0.ProfileEntryValue=SOAKG\n"
           "mav.group.SOAKG=SOAKG\n" +
           p + "=SOAKP\n" + p + ".Active=true\n" + p + ".Group=SOAKG\n" + p +
           ".PoolMaxInstances=4\n" + p + ".AdapterPath=" + adapter + "\n";
}

TEST(Soak, ScansEventsParametersReloadsAndTraceOnEightThreads) {
    const uint64_t seconds = EnvNumber("KORMO_SOAK_SECONDS", 8);
    const uint64_t rounds = EnvNumber("KORMO_SOAK_ROUNDS", 1500);
    TestPel pel;
    MavSetTraceHandler(CountTrace);
    pel.add_param(1, VS_P_INITTIMEOUT, VS_TYPE_INT, "30");
    pel.add_param(0, 104, VS_TYPE_CHAR, "exe,com");  // SCANEXTENSIONS
    pel.add_param(0, 107, VS_TYPE_LONG, "1000");     // SCANLIMIT
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection("Soak-Virus", "soak/object", 7, 0, TPEL_SIZE_OF_OBJECT, nullptr);
    pel.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);
    pel.script_event(VS_M_OBJECTFOUND, 0, "soak/inner", 0, 0);
    pel.script_event(VS_M_SCANPROGRESS, 0, nullptr, 100, 0);

    char dir[] = "/tmp/kormo_soak_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    Shared s{nullptr, nullptr, std::string(dir) + "/sample.bin"};
    FILE* fp = fopen(s.file.c_str(), "wb");
    ASSERT_NE(nullptr, fp);
    fputs("soak sample", fp);
    fclose(fp);

    ASSERT_EQ(MAV_OK, MavInit(pel.path(), &s.memory));
    ASSERT_EQ(MAV_OK, MavLoadPool(s.memory, 4, 1));
    pel.set_adapter_info(4711, 1, 2, 1, 0, "Kormo Test", "testpel");
    pel.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_ALL, 0);
    ASSERT_EQ(MAV_OK, MavInit(pel.path(), &s.fallback));
    pel.set_adapter_info(4711, 0, 2, 1, 0, "Kormo Test", "testpel");
    pel.set_flags(0x3, 0x19, VS_M_ALL, 0);
    ASSERT_EQ(MAV_OK, MavSetParameter(s.fallback, "INITTIMEOUT", VS_TYPE_INT, "5"));
    ASSERT_EQ(MAV_OK, MavLoadPool(s.fallback, 2, 0));
    const std::string config = RuntimeConfig(pel.path());
    ASSERT_EQ(MAV_OK, MavStartRuntime(config.data(), config.size()));

    auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(Worker, t, std::cref(s), rounds,
                             start + std::chrono::seconds(seconds));
    for (std::thread& t : threads) t.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    MavSetTraceLevel(0);

    uint64_t total = 0;
    std::printf("soak: %d threads, %.2f s (limits: %llu rounds per thread, %llu s)\n", kThreads,
                secs, static_cast<unsigned long long>(rounds),
                static_cast<unsigned long long>(seconds));
    for (int op = 0; op < kOpCount; ++op) {
        std::printf("  %-34s %8llu\n", kOpNames[op],
                    static_cast<unsigned long long>(opsDone[op].load()));
        total += opsDone[op].load();
    }
    std::printf("  %-34s %8llu\n  %-34s %8llu\n  %-34s %8llu\n  %-34s %8u\n  %-34s %8llu\n",
                "total operations", static_cast<unsigned long long>(total),
                "events checked per instance", static_cast<unsigned long long>(eventsSeen.load()),
                "events through handle handlers",
                static_cast<unsigned long long>(handleEvents.load()), "most scans at once",
                pel.max_concurrent_scans(), "trace lines",
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
    EXPECT_GT(total, 0u);
    unlink(s.file.c_str());
    rmdir(dir);
    MavSetTraceHandler(nullptr);
}

}  // namespace
