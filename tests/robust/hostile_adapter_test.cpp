// Broken and hostile adapters, scripted through the test adapter: missing or
// failing entry points, parameter lists with unknown codes or none, result
// records whose counts do not match their arrays, texts that are not UTF-8 or
// are huge, unknown callback messages; and things that are not (or no longer)
// handles. Every case gives a documented code and, where the library
// keeps one, a readable text; no crash, no leak (the fixture checks).
#include <cstring>
#include <string>
#include <vector>

#include "mavxxi.h"
#include "robust_env.h"

namespace robust {
namespace {

const std::string kMega(1 << 20, 'A');
const char kBadUtf8[] = "bad \xff\xfe utf-8 \xc3\x28";

// The latest failure text of a handle, in a buffer the library hands out
// (empty when there is none).
std::string ErrorText(void* h) {
    KORMO_CHAR* p = nullptr;
    size_t len = 0;
    const char* s = MavAdapterErrorText(h, &p, &len) == MAV_OK && p != nullptr ? p : "";
    std::string text(s, strnlen(s, len + 1));
    Release(p);
    return text;
}

// MavEnumInfections asking for the name only, or for nothing.
MAV_RC Infection(MAV_INST i, uint32_t index, char* name = nullptr, size_t* len = nullptr) {
    return MavEnumInfections(i, index, nullptr, nullptr, name, len, nullptr, nullptr, nullptr,
                             nullptr, nullptr);
}

// Every public call on something that is not a usable handle: a documented
// code from each, and those that need a working adapter fail. A handle whose
// start-up failed is still a handle: it can be named, given a pool size and
// asked for its adapter's configuration.
void CallEverything(void* h, const char* what) {
    SCOPED_TRACE(what);
    char b[64];
    size_t n = sizeof b, blen = 4;
    int32_t type = 0;
    uint32_t u32 = 0;
    uint16_t u16 = 0;
    uint64_t u64 = 0;
    unsigned char bytes[4] = {1, 2, 3, 4};
    MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
    MAV_INST inst = nullptr;
    const MAV_EVENTS events = {};
    KORMO_CHAR* text = nullptr;
    for (MAV_RC rc :
         {MavSetPoolSize(h, 3), MavSetHandleName(h, "x", 1),
          MavGetPelInfo(h, &u32, &u32, &u32, b, &n, b, &n), MavAdapterErrorText(h, &text, &n),
          MavEnumContentInfo(h, 0, &u32, b, &n, b, &n, b, &n, &u64)})
        EXPECT_TRUE(KnownCode(rc)) << rc;
    if (text != nullptr) Release(text);
    const MAV_RC refused[] = {MavCreateInstance(h, &inst),
                              MavLoadPool(h, 2, 1),
                              MavGetParameter(h, "SCANLIMIT", &type, b, &n),
                              MavSetParameter(h, "SCANLIMIT", VS_TYPE_LONG, "1"),
                              MavSetParameter(h, "CUST_CLEAN", VS_TYPE_BOOL, "1"),
                              MavEnumParameters(h, 0, b, &n, &type, b, &n),
                              MavSetDefaultConfig(h),
                              MavRegisterEvents(h, &events, nullptr),
                              MavRegisterSingleEventHandler(h, nullptr, VS_M_VIRUS, nullptr),
                              MavScanFile(h, paths.sample.c_str(), 1, &si),
                              MavCleanFile(h, paths.sample.c_str(), 1, &si),
                              MavScanBytes(h, "b", bytes, sizeof bytes, 1, &si),
                              MavCleanBytes(h, "b", bytes, &blen, 1, &si),
                              MavEnumInfections(h, 0, nullptr, &u32, b, &n, b, &n, &u64, b, &n),
                              MavEnumScanErrors(h, 0, &u32, b, &n, b, &n, &u64),
                              MavEnumDriverInfo(h, 0, &u32, b, &n, &u64, &u32),
                              MavGetEngineInfo(h, &u32, b, &n, &u64, &u32, &u16)};
    for (size_t i = 0; i < sizeof refused / sizeof refused[0]; ++i)
        EXPECT_TRUE(KnownCode(refused[i]) && refused[i] != MAV_OK) << i << ": " << refused[i];
    EXPECT_EQ(nullptr, inst);
    EXPECT_EQ(nullptr, MavGetInstance(h));
    EXPECT_EQ(0xFFFFFFFFu, MavAdapterErrorCode(h));
}

class HostileAdapter : public RobustTest {
  protected:
    MAV_HANDLE Start() {
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_OK, MavInit(pel.path(), &h));
        return h;
    }
    MAV_INST Instance(MAV_HANDLE h) {
        MAV_INST i = nullptr;
        EXPECT_EQ(MAV_OK, MavCreateInstance(h, &i));
        return i;
    }
    MAV_RC Scan(MAV_INST i, MAV_SCANINFO* si) {
        unsigned char bytes[32] = {0};
        return MavScanBytes(i, "object", bytes, sizeof bytes, 1, si);
    }
};

TEST_F(HostileAdapter, FailedStartUpsGiveCodeTextAndAnEndableHandle) {
    TestPel noCleanup("libtestpel_nocleanup.so"), v3("libtestpel_v3.so");
    const std::string missing = paths.defaultTmp + "/no-such-adapter.so";
    struct {
        std::string path;
        int failEntry;  // -1: none; TPEL_ENTRY_COUNT: a parameter of an unknown type
        MAV_RC rc;
        const char* text;  // part of the error text
    } cases[] = {{noCleanup.path(), -1, MAV_E_PEL_LOAD_FAILED, "No PEL functions available"},
                 {v3.path(), -1, MAV_E_NOT_SUPPORTED, "not compatible to Rondo-MAV 2.00"},
                 {missing, -1, MAV_E_PEL_LOAD_FAILED, "no-such-adapter.so"},
                 {pel.path(), TPEL_STARTUP, MAV_E_LOAD_FAILED, "in PelStartup failed"},
                 {pel.path(), TPEL_GETCONFIG, MAV_E_DRIVER_FAILED, "PelGetConfig failed"},
                 {pel.path(), TPEL_ENTRY_COUNT, MAV_E_INVALID_PARAM_TYPE, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + " " + std::to_string(c.failEntry));
        pel.reset();
        if (c.failEntry == TPEL_ENTRY_COUNT) pel.add_param(0, 107, 99, "1");
        pel.fail(c.failEntry, c.rc, nullptr);  // (no entry point: ignored)
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(c.rc, MavInit(c.path.c_str(), &h));
        ASSERT_NE(nullptr, h) << "the failed handle is handed out for its error text";
        EXPECT_NE(std::string::npos, ErrorText(h).find(c.text)) << ErrorText(h);
        CallEverything(h, "failed start-up");
        EXPECT_EQ(MAV_OK, MavEnd(&h));
        EXPECT_EQ(MAV_OK, MavEnd(&h)) << "ending twice is harmless";
    }
    pel.reset();
    EXPECT_EQ(0, v3.live_inits());
    EXPECT_EQ(0u, noCleanup.calls(TPEL_INIT));
}

// Counts the calls of a single handler (seen[0]) and those with null data or
// a virus record without a name (seen[1]); reads every text it is given.
VS_CALLRC Single(MAV_INST, uint32_t message, void* data, void* user) {
    int* seen = static_cast<int*>(user);
    const MAV_VIRUSINFO* v =
        message == VS_M_VIRUS ? static_cast<const MAV_VIRUSINFO*>(data) : nullptr;
    const char* text = v != nullptr ? v->pszObjectName : static_cast<const char*>(data);
    seen[0]++;
    seen[1] += data == nullptr || (v != nullptr && v->pszVirusName == nullptr) ? 1 : 0;
    volatile size_t length = text != nullptr ? strlen(text) : 0;
    (void)length;
    return 0;
}

// Scripts an infection "first<" and a second one, with these counts.
void TwoInfections(TestPel& p, uint32_t counted, uint32_t errors) {
    p.script_rc(MAV_E_VIRUS_FOUND);
    p.script_infection("first<", "o1", 1, 0, 1, nullptr);
    p.script_infection("second", "o2", 2, 0, 1, nullptr);
    p.script_counts(0, 0, 0, counted, errors);
}

// A hostile adapter: scripted before start-up; failEntry fails, with failRc
// and failText, from the step that first needs it (PelInit: a listed
// instance; PelScan and PelReleaseScan: the scan and the free; PelEnd and
// PelCleanup: the end). Then what the scan, the first infection and the
// single handler must see.
struct Case {
    const char* name;
    void (*script)(TestPel&);
    int failEntry = -1;
    MAV_RC failRc = MAV_OK;
    const char* failText = nullptr;  // kept as given
    MAV_RC scan = MAV_OK, first = MAV_E_INVALID_ENUM_INDEX;
    int calls = 0, nulls = 0;  // of the single handler
    MAV_RC events = MAV_OK;    // registering the handler
};

// Start-up and a pool of one; the pooled instance registers a handler; a
// listed one is asked for; the pooled one scans and its results are read;
// everything is freed and ended. A failure that leaves something held leaves
// it to be freed or ended again.
TEST_F(HostileAdapter, HostileAnswersGiveDocumentedCodesAndNothingHeld) {
    const Case cases[] = {
        {"unknown parameter codes", [](TestPel& p) { p.add_param(1, 77, VS_TYPE_INT, "5"); }},
        {"no parameter lists", [](TestPel& p) { p.set_null_param_lists(1); }},
        {"PelInit fails", nullptr, TPEL_INIT, MAV_E_EXPIRED, "licence expired"},
        {"PelInit text not UTF-8", nullptr, TPEL_INIT, MAV_E_DRIVER_FAILED, kBadUtf8},
        {"PelInit text huge", nullptr, TPEL_INIT, MAV_E_DRIVER_FAILED, kMega.c_str()},
        {"PelScan fails", nullptr, TPEL_SCAN, MAV_E_SCAN_FAILED, nullptr, MAV_OK,
         MAV_E_NO_SCANINFO},
        {"PelReleaseScan fails", nullptr, TPEL_RELEASESCAN, MAV_E_CIO_FAILED},
        {"PelEnd fails", nullptr, TPEL_END, MAV_E_END_FAILED},
        {"PelCleanup fails", nullptr, TPEL_CLEANUP, MAV_E_END_FAILED},
        {"fewer counted than given", [](TestPel& p) { TwoInfections(p, 1, 0); }, -1, MAV_OK,
         nullptr, MAV_E_VIRUS_FOUND, MAV_OK},
        {"counts with null arrays",
         [](TestPel& p) {
             TwoInfections(p, 3, 2);
             p.script_null_arrays(1);
         },
         -1, MAV_OK, nullptr, MAV_E_VIRUS_FOUND},
        {"no result record",
         [](TestPel& p) {
             TwoInfections(p, 2, 0);
             p.script_no_scaninfo(1);
         },
         -1, MAV_OK, nullptr, MAV_E_VIRUS_FOUND, MAV_E_NO_SCANINFO},
        {"texts not UTF-8 or huge",
         [](TestPel& p) {
             p.set_adapter_info(4711, 0, 2, 1, 0, kMega.c_str(), kBadUtf8);
             p.script_rc(MAV_E_VIRUS_FOUND);
             p.script_infection(kBadUtf8, kMega.c_str(), 1, 0, 1, "free");
         },
         -1, MAV_OK, nullptr, MAV_E_VIRUS_FOUND, MAV_E_CONVERSION_FAILED},
        {"unknown messages and bad event data",
         [](TestPel& p) {
             p.script_infection(kBadUtf8, kMega.c_str(), 1, 0, 1, nullptr);
             p.script_event(0x4000, 0, nullptr, 1, 1);             // unknown message
             p.script_event(0x80000000u, 0, nullptr, 2, 1);        // unknown message
             p.script_event(VS_M_SCANPROGRESS, 0, nullptr, 3, 1);  // not registered
             p.script_event(VS_M_VIRUS, 5, nullptr, 0, 0);         // no such record: null
             p.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);         // name not UTF-8: null
             p.script_event(VS_M_OBJECTFOUND, 0, kBadUtf8, 0, 0);  // not UTF-8: null
             p.script_event(VS_M_ERROR, 0, kMega.c_str(), 0, 0);
             p.script_event(VS_M_OBJECTFOUND, 0, nullptr, 0, 0);  // null
         },
         -1, MAV_OK, nullptr, MAV_OK, MAV_E_CONVERSION_FAILED, 5, 4},
        {"no events at all", [](TestPel& p) { p.set_flags(0x3, 0x19, 0, 0); }, -1, MAV_OK, nullptr,
         MAV_OK, MAV_E_INVALID_ENUM_INDEX, 0, 0, MAV_E_NOT_SUPPORTED}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto failing = [&c](int entry) { return c.failEntry == entry ? c.failRc : MAV_OK; };
        pel.reset();
        if (c.script != nullptr) c.script(pel);
        MAV_HANDLE h = Start();
        ASSERT_EQ(MAV_OK, MavLoadPool(h, 1, 0));
        MAV_INST i = Instance(h), j = nullptr;
        int seen[2] = {0, 0};
        const uint32_t mask = VS_M_VIRUS | VS_M_OBJECTFOUND | VS_M_ERROR;
        EXPECT_EQ(c.events, MavRegisterSingleEventHandler(i, Single, mask, seen));
        if (c.failEntry < TPEL_END) pel.fail(c.failEntry, c.failRc, c.failText);
        EXPECT_EQ(failing(TPEL_INIT), MavCreateInstance(h, &j));
        EXPECT_EQ(failing(TPEL_INIT) == MAV_OK, j != nullptr);
        EXPECT_EQ(c.failText != nullptr ? c.failText : "", c.failText ? ErrorText(h) : "");
        EXPECT_EQ(MAV_E_IN_PROGRESS, MavReload(h)) << "an instance is out";
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        MavSetTraceLevel(0x7FFE);  // record dumps too
        const MAV_RC scanned = c.failEntry == TPEL_SCAN ? c.failRc : c.scan;
        EXPECT_EQ(scanned, Scan(i, &si));
        MavSetTraceLevel(0);
        char name[16];
        size_t len = sizeof name;
        EXPECT_EQ(c.first, Infection(i, 0, name, &len));
        EXPECT_EQ(c.first == MAV_OK ? "first_" : "", std::string(name, c.first ? 0 : len));
        EXPECT_NE(MAV_OK, Infection(i, si.uiInfections)) << "counted entries only";
        EXPECT_EQ(c.calls, seen[0]);
        EXPECT_EQ(c.nulls, seen[1]);
        int32_t answers[16];
        for (int k = 0, n = pel.event_results(answers, 16); k < n; ++k)
            EXPECT_EQ(0, answers[k]) << "event " << k;
        // The next scan first gives the held result back.
        EXPECT_EQ(c.failEntry == TPEL_RELEASESCAN ? c.failRc : scanned, Scan(i, &si));
        EXPECT_TRUE(j == nullptr || MavFreeInstance(&j) == MAV_OK);
        const MAV_RC freed = failing(TPEL_RELEASESCAN);
        EXPECT_EQ(freed, MavFreeInstance(&i));
        if (freed != MAV_OK) {
            EXPECT_EQ(MAV_E_IN_PROGRESS, MavEnd(&h)) << "the held instance keeps its handle";
        }
        // Earlier failures end here; PelEnd and PelCleanup fail from here.
        pel.fail(c.failEntry, c.failEntry < TPEL_END ? MAV_OK : c.failRc, nullptr);
        EXPECT_TRUE(freed == MAV_OK || MavFreeInstance(&i) == MAV_OK);
        EXPECT_EQ(c.failEntry >= TPEL_END ? c.failRc : MAV_OK, MavEnd(&h));
        pel.fail(c.failEntry, MAV_OK, nullptr);
        EXPECT_TRUE(h == nullptr || MavEnd(&h) == MAV_OK) << "ended again";
    }
}

TEST_F(HostileAdapter, StaleForeignAndDamagedHandlesAreRefused) {
    std::string zeroes(512, '\0'), junk(512, 'j');
    MAV_HANDLE h = Start();
    MAV_INST freed = Instance(h), stale = freed;
    MAV_HANDLE ended = h;
    EXPECT_EQ(MAV_OK, MavFreeInstance(&freed));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    for (void* p : {static_cast<void*>(&zeroes[0]), static_cast<void*>(&junk[0]), ended, stale})
        CallEverything(p, "not a handle");
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnd(&ended));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavFreeInstance(&stale));
    // A live instance with one mark or its engine pointer damaged is no
    // instance: no scan or question reaches the adapter.
    h = Start();
    MAV_INST live = Instance(h);
    MAV_INST_REC* rec = static_cast<MAV_INST_REC*>(live);
    const MAV_INST_REC kept = *rec;
    for (int part = 0; part < 3; ++part) {
        SCOPED_TRACE(part);
        rec->uiHeadMark = part == 0 ? 0 : kept.uiHeadMark;
        rec->uiTailMark = part == 1 ? 0 : kept.uiTailMark;
        rec->pPelInit = part == 2 ? nullptr : kept.pPelInit;
        uint32_t scans = pel.calls(TPEL_SCAN);
        EXPECT_EQ(MAV_E_INVALID_HANDLE, Scan(live, nullptr));
        EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, Infection(live, 0));
        MAV_INST probe = live;  // an instance whose engine failed may still be freed
        EXPECT_TRUE(part == 2 || MavFreeInstance(&probe) == MAV_E_INVALID_HANDLE);
    }
    rec->pPelInit = kept.pPelInit;
    EXPECT_EQ(MAV_OK, MavFreeInstance(&live));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

}  // namespace
}  // namespace robust
