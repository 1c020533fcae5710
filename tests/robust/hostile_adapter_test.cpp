// Broken and hostile adapters, scripted through the test adapter: missing or
// failing entry points, result records whose counts do not match their
// arrays, texts that are not UTF-8 or are huge, unknown callback messages,
// answers that change between handles; and things that are not (or no
// longer) handles. Every case gives a documented code and, where the library
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

// The latest failure text of a handle (empty when there is none).
std::string ErrorText(void* h) {
    size_t len = 0;
    if (MavAdapterErrorText(h, nullptr, &len) != MAV_OK) return "";
    std::vector<char> buf(len + 2, 0);
    char* p = buf.data();
    size_t size = buf.size();
    if (MavAdapterErrorText(h, &p, &size) != MAV_OK) return "";
    std::string text(p, strnlen(p, len + 1));
    if (p != buf.data()) Release(p);
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
    for (MAV_RC rc : {MavSetPoolSize(h, 3), MavSetHandleName(h, "x", 1),
                      MavGetPelInfo(h, &u32, &u32, &u32, b, &n, b, &n),
                      MavGetPelTechInfo(h, &u32, &u32, &u16, &u32, &u32, &u32),
                      MavAdapterErrorText(h, &text, &n),
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
                              MavScanFile(h, SampleFile().c_str(), 1, &si),
                              MavCleanFile(h, SampleFile().c_str(), 1, &si),
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
    MAV_RC Scan(MAV_INST i, MAV_SCANINFO* si = nullptr) {
        unsigned char bytes[32] = {0};
        MAV_SCANINFO local = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        return MavScanBytes(i, "object", bytes, sizeof bytes, 1, si != nullptr ? si : &local);
    }
    void End(MAV_INST i, MAV_HANDLE h) {
        EXPECT_TRUE(i == nullptr || MavFreeInstance(&i) == MAV_OK);
        EXPECT_EQ(MAV_OK, MavEnd(&h));
    }
};

TEST_F(HostileAdapter, FailedStartUpsGiveCodeTextAndAnEndableHandle) {
    TestPel noCleanup("libtestpel_nocleanup.so"), v3("libtestpel_v3.so");
    const std::string missing = DefaultTmpDir() + "/no-such-adapter.so";
    struct {
        std::string path;
        int failEntry;  // -1: none; TPEL_ENTRY_COUNT: a parameter of an unknown type
        MAV_RC rc;
        const char* text;  // part of the error text
    } cases[] = {
        {noCleanup.path(), -1, MAV_E_PEL_LOAD_FAILED, "No PEL functions available in library"},
        {v3.path(), -1, MAV_E_NOT_SUPPORTED,
         "Supported adapter version not compatible to Rondo-MAV 2.00 version"},
        {missing, -1, MAV_E_PEL_LOAD_FAILED, "no-such-adapter.so"},
        {pel.path(), TPEL_STARTUP, MAV_E_LOAD_FAILED,
         "Global adapter initialization in PelStartup failed. Please contact PEL vendor."},
        {pel.path(), TPEL_GETCONFIG, MAV_E_DRIVER_FAILED,
         "Adapter function PelGetConfig failed. Please contact PEL vendor."},
        {pel.path(), TPEL_ENTRY_COUNT, MAV_E_INVALID_PARAM_TYPE, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + " " + std::to_string(c.failEntry));
        pel.reset();
        if (c.failEntry == TPEL_ENTRY_COUNT) pel.add_param(0, 107, 99, "1");
        if (c.failEntry >= 0 && c.failEntry != TPEL_ENTRY_COUNT)
            pel.fail(c.failEntry, c.rc, nullptr);
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(c.rc, MavInit(c.path.c_str(), &h));
        EXPECT_STRNE("Unknown ERROR", MavErrorDescription(c.rc));
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

TEST_F(HostileAdapter, ParameterListsWithUnknownCodesOrNone) {
    pel.add_param(1, 77, VS_TYPE_INT, "5");
    pel.add_param(0, 999, VS_TYPE_CHAR, "x");
    for (int nullLists : {0, 1}) {
        pel.set_null_param_lists(nullLists);
        MAV_HANDLE h = Start();
        EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
                  MavEnumParameters(h, 0, nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavSetParameter(h, "SCANLIMIT", VS_TYPE_LONG, "1"));
        MAV_INST i = Instance(h);
        EXPECT_EQ(MAV_OK, Scan(i));
        End(i, h);
    }
}

TEST_F(HostileAdapter, FailingEntryPointsLeaveEverythingRetryable) {
    MAV_HANDLE h = Start();
    ASSERT_EQ(MAV_OK, MavLoadPool(h, 1, 0));
    MAV_INST i = nullptr, j = nullptr;
    pel.fail(TPEL_INIT, MAV_E_EXPIRED, "licence expired");
    EXPECT_EQ(MAV_OK, MavCreateInstance(h, &i)) << "the pooled one needs no PelInit";
    EXPECT_EQ(MAV_E_EXPIRED, MavCreateInstance(h, &j));
    EXPECT_EQ(nullptr, j);
    EXPECT_EQ("licence expired", ErrorText(h));
    EXPECT_EQ(MAV_E_EXPIRED, MavLoadPool(h, 3, 0));
    EXPECT_EQ(MAV_E_IN_PROGRESS, MavReload(h)) << "an instance is out";
    pel.fail(TPEL_INIT, 0, nullptr);
    pel.fail(TPEL_SCAN, MAV_E_SCAN_FAILED, nullptr);
    EXPECT_EQ(MAV_E_SCAN_FAILED, Scan(i));
    EXPECT_EQ(MAV_E_NO_SCANINFO, Infection(i, 0));
    pel.fail(TPEL_SCAN, 0, nullptr);
    EXPECT_EQ(MAV_OK, Scan(i));
    // The held result cannot be released: the next scan and the free say so.
    pel.fail(TPEL_RELEASESCAN, MAV_E_CIO_FAILED, nullptr);
    EXPECT_EQ(MAV_E_CIO_FAILED, Scan(i));
    EXPECT_EQ(MAV_E_CIO_FAILED, MavFreeInstance(&i));
    EXPECT_EQ(MAV_E_IN_PROGRESS, MavEnd(&h));
    pel.fail(TPEL_RELEASESCAN, 0, nullptr);
    ASSERT_EQ(MAV_OK, MavFreeInstance(&i));
    // PelEnd and PelCleanup failures leave the handle to be ended again.
    for (int entry : {TPEL_END, TPEL_CLEANUP}) {
        pel.fail(entry, MAV_E_END_FAILED, nullptr);
        EXPECT_EQ(MAV_E_END_FAILED, MavEnd(&h));
        ASSERT_NE(nullptr, h);
        pel.fail(entry, 0, nullptr);
    }
    End(nullptr, h);
}

// Result records the library cannot trust: fewer or more counted entries than
// given, counts with null arrays (also dumped by the trace), no record.
TEST_F(HostileAdapter, ResultCountsDecideWhatExistsAndNullArraysAreNeverFollowed) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    struct {
        uint32_t infections, errors;
        int nullArrays, noRecord;
        MAV_RC first;  // the infection at index 0
    } cases[] = {{1, 0, 0, 0, MAV_OK},
                 {9, 0, 0, 0, MAV_OK},
                 {3, 2, 1, 0, MAV_E_INVALID_ENUM_INDEX},
                 {1, 0, 0, 1, MAV_E_NO_SCANINFO}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.infections);
        pel.script_clear();
        pel.script_rc(MAV_E_VIRUS_FOUND);
        pel.script_infection("first<", "o1", 1, 0, 1, nullptr);
        pel.script_infection("second", "o2", 2, 0, 1, nullptr);
        pel.script_counts(5, 0, 0, c.infections, c.errors);
        pel.script_null_arrays(c.nullArrays);
        pel.script_no_scaninfo(c.noRecord);
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 77, 0, 0, 0, 0, 0};
        // Record dumps too, unless a count is larger than a real array (the
        // dump reads every counted entry).
        MavSetTraceLevel(c.infections == 9 ? 0 : 0x7FFE);
        EXPECT_EQ(MAV_E_VIRUS_FOUND, Scan(i, &si));
        MavSetTraceLevel(0);
        EXPECT_EQ(c.noRecord ? 0u : c.infections, si.uiInfections);
        EXPECT_EQ(c.noRecord ? 77u : 1u, si.uiJobID) << "no record, no summary";
        char name[16];
        size_t len = sizeof name;
        EXPECT_EQ(c.first, Infection(i, 0, name, &len));
        EXPECT_EQ(c.first == MAV_OK ? "first_" : "",
                  std::string(name, c.first == MAV_OK ? len : 0));
        const MAV_RC beyond = c.noRecord ? MAV_E_NO_SCANINFO : MAV_E_INVALID_ENUM_INDEX;
        EXPECT_EQ(beyond, Infection(i, c.infections));
        EXPECT_EQ(beyond, MavEnumScanErrors(i, c.errors, nullptr, nullptr, nullptr, nullptr,
                                            nullptr, nullptr));
        char ext[8] = "zzz";
        size_t extLen = sizeof ext;
        if (c.nullArrays) {  // content info without entries is cleared
            EXPECT_EQ(MAV_OK, MavEnumContentInfo(i, 4, nullptr, ext, &extLen, nullptr, nullptr,
                                                 nullptr, nullptr, nullptr));
            EXPECT_EQ(0u, extLen);
        }
    }
    End(i, h);
}

TEST_F(HostileAdapter, TextsThatAreNotUtf8OrHuge) {
    pel.set_adapter_info(4711, 0, 2, 1, 0, kMega.c_str(), kBadUtf8);
    MAV_HANDLE h = Start();
    std::vector<char> big(3 * kMega.size() + 3);
    char small[64];
    size_t smallLen = sizeof small, bigLen = big.size();
    EXPECT_EQ(MAV_E_CONVERSION_FAILED,
              MavGetPelInfo(h, nullptr, nullptr, nullptr, small, &smallLen, big.data(), &bigLen));
    EXPECT_EQ(0u, smallLen);
    EXPECT_EQ(kMega.size(), bigLen);
    // Vendor texts of a failing PelInit are kept as given (bytes, not converted).
    for (const std::string& text : {std::string(kBadUtf8), kMega}) {
        pel.fail(TPEL_INIT, MAV_E_DRIVER_FAILED, text.c_str());
        MAV_INST j = nullptr;
        EXPECT_EQ(MAV_E_DRIVER_FAILED, MavCreateInstance(h, &j));
        EXPECT_EQ(text, ErrorText(h));
    }
    pel.fail(TPEL_INIT, 0, nullptr);
    // Result texts: one that is not UTF-8 fails and is emptied, the others are
    // filled; a buffer one character short of the huge one gets nothing.
    MAV_INST i = Instance(h);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection(kBadUtf8, kMega.c_str(), 1, 0, 1, "free");
    MavSetTraceLevel(0x7FFE);  // the dump meets the same texts
    EXPECT_EQ(MAV_E_VIRUS_FOUND, Scan(i));
    MavSetTraceLevel(0);
    char freeText[16];
    size_t freeLen = sizeof freeText;
    smallLen = sizeof small;
    bigLen = big.size();
    EXPECT_EQ(MAV_E_CONVERSION_FAILED,
              MavEnumInfections(i, 0, nullptr, nullptr, small, &smallLen, big.data(), &bigLen,
                                nullptr, freeText, &freeLen));
    EXPECT_EQ(0u, smallLen);
    EXPECT_EQ(kMega.size(), bigLen);
    EXPECT_EQ("free", std::string(freeText, freeLen));
    bigLen = kMega.size();
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT,
              MavEnumInfections(i, 0, nullptr, nullptr, nullptr, nullptr, big.data(), &bigLen,
                                nullptr, nullptr, nullptr));
    EXPECT_EQ(0u, bigLen);
    End(i, h);
}

// Counts what a single handler is given: calls, null data (or a virus record
// without a name), the longest text.
struct Seen {
    int calls = 0, nulls = 0;
    size_t longest = 0;
    VS_CALLRC answer = 0;
};
VS_CALLRC Single(MAV_INST, uint32_t message, void* data, void* user) {
    Seen* seen = static_cast<Seen*>(user);
    const char* text = static_cast<const char*>(data);
    if (data != nullptr && message == VS_M_VIRUS) {
        seen->nulls += static_cast<const MAV_VIRUSINFO*>(data)->pszVirusName == nullptr ? 1 : 0;
        text = static_cast<const MAV_VIRUSINFO*>(data)->pszObjectName;
    }
    seen->calls++;
    seen->nulls += data == nullptr ? 1 : 0;
    seen->longest = std::max(seen->longest, text != nullptr ? strlen(text) : 0);
    return seen->answer;
}

TEST_F(HostileAdapter, CallbacksWithUnknownMessagesAndBadDataAreAnswered) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    Seen seen;
    ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(
                          i, Single, VS_M_VIRUS | VS_M_OBJECTFOUND | VS_M_ERROR, &seen));
    pel.script_infection(kBadUtf8, kMega.c_str(), 1, 0, 1, nullptr);
    pel.script_event(0x4000, 0, nullptr, 1, 1);             // unknown message
    pel.script_event(0x80000000u, 0, nullptr, 2, 1);        // unknown message
    pel.script_event(VS_M_SCANPROGRESS, 0, nullptr, 3, 1);  // not registered
    pel.script_event(VS_M_VIRUS, 5, nullptr, 0, 0);         // no such record: null data
    pel.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);         // name not UTF-8
    pel.script_event(VS_M_OBJECTFOUND, 0, kBadUtf8, 0, 0);  // not UTF-8: null text
    pel.script_event(VS_M_ERROR, 0, kMega.c_str(), 0, 0);
    pel.script_event(VS_M_OBJECTFOUND, 0, nullptr, 0, 0);
    EXPECT_EQ(MAV_OK, Scan(i));
    int32_t results[16];
    ASSERT_EQ(8, pel.event_results(results, 16));
    EXPECT_EQ(std::vector<int32_t>(8, 0), std::vector<int32_t>(results, results + 8));
    EXPECT_EQ(5, seen.calls);
    EXPECT_EQ(4, seen.nulls);
    EXPECT_EQ(kMega.size(), seen.longest);
    // A handler that says stop ends the scan; the instance stays usable.
    seen.answer = 1;
    EXPECT_EQ(MAV_E_CBC_TERMINATED, Scan(i));
    EXPECT_EQ(MAV_E_NO_SCANINFO, Infection(i, 0));
    seen.answer = 0;
    EXPECT_EQ(MAV_OK, Scan(i));
    End(i, h);
    // An adapter that sends no event at all cannot be asked for one.
    pel.set_flags(0x3, 0x19, 0, 0);
    h = Start();
    i = Instance(h);
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, MavRegisterSingleEventHandler(i, Single, VS_M_VIRUS, &seen));
    End(i, h);
}

TEST_F(HostileAdapter, AnswersThatChangeBetweenHandles) {
    // Same adapter file, another identity, thread model and parameter type.
    pel.add_param(0, 107, VS_TYPE_LONG, "1");
    MAV_HANDLE a = Start();
    pel.clear_params();
    pel.add_param(0, 107, VS_TYPE_CHAR, "one");
    pel.set_adapter_info(4712, 1, 2, 1, 0, "other vendor", "other");
    MAV_HANDLE b = Start();
    EXPECT_EQ(MAV_OK, MavSetParameter(a, "SCANLIMIT", VS_TYPE_LONG, "5"));
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, MavSetParameter(b, "SCANLIMIT", VS_TYPE_LONG, "5"));
    EXPECT_EQ(MAV_OK, MavSetParameter(b, "SCANLIMIT", VS_TYPE_CHAR, "five"));
    // Ending the only handle of identity 4711 runs PelCleanup although b still
    // uses the file; b's configuration was never handed back and stays valid.
    EXPECT_EQ(MAV_OK, MavEnd(&a));
    MAV_INST i = Instance(b);
    EXPECT_EQ(MAV_OK, Scan(i));
    char value[16];
    size_t len = sizeof value;
    EXPECT_EQ(MAV_OK, MavGetParameter(b, "SCANLIMIT", nullptr, value, &len));
    EXPECT_EQ("five", std::string(value, len));
    End(i, b);
}

TEST_F(HostileAdapter, StaleForeignAndDamagedHandlesAreRefused) {
    std::vector<unsigned char> zeroes(512, 0);
    std::string junk(512, 'j');
    MAV_HANDLE h = Start();
    MAV_INST freed = Instance(h), stale = freed;
    MAV_HANDLE ended = h;
    EXPECT_EQ(MAV_OK, MavFreeInstance(&freed));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
    for (void* p : {static_cast<void*>(zeroes.data()), static_cast<void*>(&junk[0]), ended, stale})
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
        EXPECT_EQ(MAV_E_INVALID_HANDLE, Scan(live));
        EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, Infection(live, 0));
        MAV_INST probe = live;  // an instance whose engine failed may still be freed
        EXPECT_TRUE(part == 2 || MavFreeInstance(&probe) == MAV_E_INVALID_HANDLE);
    }
    rec->pPelInit = kept.pPelInit;
    End(live, h);
}

}  // namespace
}  // namespace robust
