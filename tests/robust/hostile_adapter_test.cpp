// Broken and hostile adapters, scripted through the test adapter: missing entry
// points, failing entry points, result records whose counts do not match their
// arrays, texts that are not UTF-8 or are very long, unknown callback
// messages, answers that change between calls; and handles that are stale or
// not handles at all. Every case must give a documented code and, where the
// library keeps one, a readable text; no crash, no leak (the fixture checks).
#include <cstring>
#include <string>
#include <vector>

#include "mavxxi.h"
#include "robust_env.h"

namespace robust {
namespace {

const std::string kMegaText(1 << 20, 'A');
const char kBadUtf8[] = "bad \xff\xfe utf-8 \xc3\x28";

bool Readable(MAV_RC rc) {
    return KnownCode(rc) && std::strcmp(MavErrorDescription(rc), "Unknown ERROR") != 0 &&
           std::strcmp(MavErrorName(rc), "Unknown ERROR") != 0;
}

// The latest failure text of a handle (empty when there is none).
std::string ErrorText(void* h) {
    size_t len = 0;
    if (MavAdapterErrorText(h, nullptr, &len) != MAV_OK) return "";
    std::vector<char> buf(len + 2, 0);
    char* p = buf.data();
    size_t size = buf.size();
    if (MavAdapterErrorText(h, &p, &size) != MAV_OK) return "";
    std::string text(p, strnlen(p, len + 1));
    if (p != buf.data()) CountingHooks::Release(p);
    return text;
}

// Every public call on something that is not a usable handle: each gives a
// documented code, those that need an adapter fail, and nothing crashes.
void CallEverything(void* h, const char* what) {
    SCOPED_TRACE(what);
    char buf[64];
    size_t len = sizeof buf;
    int32_t type = 0;
    uint32_t u32 = 0;
    uint16_t u16 = 0;
    uint64_t u64 = 0;
    uint8_t u8 = 0;
    unsigned char bytes[4] = {1, 2, 3, 4};
    size_t blen = sizeof bytes;
    MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
    MAV_INST inst = nullptr;
    const MAV_EVENTS events = {};
    KORMO_CHAR* text = nullptr;
    // A handle whose start-up failed is still a handle record: it can be
    // named and given a pool size (and anything else is "nothing done").
    // Its adapter's configuration record may exist and be read.
    const MAV_RC anyCodes[] = {
        MavSetPoolSize(h, 3),
        MavSetHandleName(h, "x", 1),
        MavGetPelInfo(h, &u32, &u32, &u32, buf, &len, buf, &len),
        MavGetPelTechInfo(h, &u32, &u32, &u16, &u32, &u32, &u32),
    };
    for (MAV_RC rc : anyCodes) EXPECT_TRUE(KnownCode(rc)) << rc;
    const MAV_RC codes[] = {
        MavCreateInstance(h, &inst),
        MavLoadPool(h, 2, 1),
        MavGetParameter(h, "SCANLIMIT", &type, buf, &len),
        MavSetParameter(h, "SCANLIMIT", VS_TYPE_LONG, "1"),
        MavSetParameter(h, "CUST_CLEAN", VS_TYPE_BOOL, "1"),
        MavEnumParameters(h, 0, buf, &len, &type, buf, &len),
        MavSetDefaultConfig(h),
        MavRegisterEvents(h, &events, nullptr),
        MavRegisterSingleEventHandler(h, nullptr, VS_M_VIRUS, nullptr),
        MavScanFile(h, SampleFile().c_str(), 1, &si),
        MavCleanFile(h, SampleFile().c_str(), 1, &si),
        MavScanBytes(h, "b", bytes, sizeof bytes, 1, &si),
        MavCleanBytes(h, "b", bytes, &blen, 1, &si),
        MavEnumInfections(h, 0, &u8, &u32, buf, &len, buf, &len, &u64, buf, &len),
        MavEnumScanErrors(h, 0, &u32, buf, &len, buf, &len, &u64),
        MavEnumDriverInfo(h, 0, &u32, buf, &len, &u64, &u32),
        MavGetEngineInfo(h, &u32, buf, &len, &u64, &u32, &u16),
    };
    for (size_t i = 0; i < sizeof codes / sizeof codes[0]; ++i) {
        EXPECT_TRUE(KnownCode(codes[i])) << "call " << i << " gave " << codes[i];
        EXPECT_NE(MAV_OK, codes[i]) << "call " << i << " succeeded";
    }
    EXPECT_EQ(nullptr, inst);
    EXPECT_EQ(nullptr, MavGetInstance(h));
    EXPECT_EQ(0xFFFFFFFFu, MavAdapterErrorCode(h));
    len = 0;
    MAV_RC rc = MavAdapterErrorText(h, &text, &len);
    EXPECT_TRUE(KnownCode(rc));
    if (text != nullptr) CountingHooks::Release(text);
    // Content info without results is either refused or cleared.
    rc = MavEnumContentInfo(h, 0, &u32, buf, &len, buf, &len, buf, &len, &u64);
    EXPECT_TRUE(KnownCode(rc));
}

class HostileAdapter : public RobustTest {
  protected:
    MAV_HANDLE Start(const char* path = nullptr) {
        MAV_HANDLE h = nullptr;
        EXPECT_EQ(MAV_OK, MavInit(path != nullptr ? path : pel.path(), &h));
        return h;
    }
    void End(MAV_HANDLE* h) {
        EXPECT_EQ(MAV_OK, MavEnd(h));
        EXPECT_EQ(nullptr, *h);
    }
    MAV_INST Instance(MAV_HANDLE h) {
        MAV_INST i = nullptr;
        EXPECT_EQ(MAV_OK, MavCreateInstance(h, &i));
        return i;
    }
    MAV_RC ScanBytes(MAV_INST i, MAV_SCANINFO* si = nullptr) {
        unsigned char bytes[32];
        memset(bytes, 'x', sizeof bytes);
        MAV_SCANINFO local = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        return MavScanBytes(i, "object", bytes, sizeof bytes, 1, si != nullptr ? si : &local);
    }
};

// ---- Start-up ---------------------------------------------------------------------

TEST_F(HostileAdapter, FailedStartUpsGiveCodeTextAndAnEndableHandle) {
    TestPel noCleanup("libtestpel_nocleanup.so");
    TestPel v3("libtestpel_v3.so");
    const std::string missing = DefaultTmpDir() + "/no-such-adapter.so";
    struct Case {
        const char* name;
        std::string path;
        int failEntry;  // -1: none
        MAV_RC rc;
        const char* text;  // part of the error text
    } cases[] = {
        {"adapter without PelCleanup", noCleanup.path(), -1, MAV_E_PEL_LOAD_FAILED,
         "No PEL functions available in library"},
        {"interface version 3", v3.path(), -1, MAV_E_NOT_SUPPORTED,
         "Supported adapter version not compatible to Rondo-MAV 2.00 version"},
        {"missing file", missing, -1, MAV_E_PEL_LOAD_FAILED, "no-such-adapter.so"},
        {"PelStartup fails", pel.path(), TPEL_STARTUP, MAV_E_LOAD_FAILED,
         "Global adapter initialization in PelStartup failed. Please contact PEL vendor."},
        {"PelGetConfig fails", pel.path(), TPEL_GETCONFIG, MAV_E_DRIVER_FAILED,
         "Adapter function PelGetConfig failed. Please contact PEL vendor."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        pel.reset();
        if (c.failEntry >= 0) pel.fail(c.failEntry, c.rc, nullptr);
        MAV_HANDLE h = nullptr;
        MAV_RC rc = MavInit(c.path.c_str(), &h);
        EXPECT_EQ(c.rc, rc);
        EXPECT_TRUE(Readable(rc));
        ASSERT_NE(nullptr, h) << "the failed handle is handed out for its error text";
        EXPECT_NE(std::string::npos, ErrorText(h).find(c.text)) << ErrorText(h);
        CallEverything(h, c.name);
        End(&h);
        EXPECT_EQ(MAV_OK, MavEnd(&h)) << "ending twice is harmless";
        pel.fail(c.failEntry >= 0 ? c.failEntry : 0, 0, nullptr);
    }
    EXPECT_EQ(0, v3.live_inits());
    EXPECT_EQ(0u, noCleanup.calls(TPEL_INIT));
}

TEST_F(HostileAdapter, UnusableParameterListsAreRefusedOrIgnored) {
    // A parameter type the library does not know: start-up is refused.
    pel.add_param(0, 107, 99, "1");
    MAV_HANDLE h = nullptr;
    MAV_RC rc = MavInit(pel.path(), &h);
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, rc);
    ASSERT_NE(nullptr, h);
    End(&h);

    // Unknown codes are skipped; null lists mean no parameters.
    pel.reset();
    pel.add_param(1, 77, VS_TYPE_INT, "5");
    pel.add_param(0, 999, VS_TYPE_CHAR, "x");
    h = Start();
    char name[64];
    size_t nameLen = sizeof name;
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumParameters(h, 0, name, &nameLen, nullptr, nullptr, nullptr));
    End(&h);
    pel.reset();
    pel.add_param(0, 107, VS_TYPE_LONG, "5");
    pel.set_null_param_lists(1);
    h = Start();
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavSetParameter(h, "SCANLIMIT", VS_TYPE_LONG, "1"));
    nameLen = sizeof name;
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumParameters(h, 0, name, &nameLen, nullptr, nullptr, nullptr));
    MAV_INST i = Instance(h);
    EXPECT_EQ(MAV_OK, ScanBytes(i));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    End(&h);
}

// ---- Engine instances ----------------------------------------------------------------

TEST_F(HostileAdapter, FailingPelInitKeepsTheHandleUsable) {
    MAV_HANDLE h = Start();
    ASSERT_EQ(MAV_OK, MavLoadPool(h, 1, 0));
    pel.fail(TPEL_INIT, MAV_E_EXPIRED, "licence expired");
    MAV_INST i = nullptr;
    MAV_RC rc = MavCreateInstance(h, &i);  // the pooled one is free: no PelInit needed
    EXPECT_EQ(MAV_OK, rc);
    MAV_INST j = nullptr;
    rc = MavCreateInstance(h, &j);
    EXPECT_EQ(MAV_E_EXPIRED, rc);
    EXPECT_TRUE(Readable(rc));
    EXPECT_EQ(nullptr, j);
    EXPECT_EQ("licence expired", ErrorText(h));
    EXPECT_EQ(MAV_E_EXPIRED, MavLoadPool(h, 3, 0)) << "growing the pool meets the same failure";
    // Without a vendor text there is no engine record at all.
    pel.fail(TPEL_INIT, MAV_E_LOAD_FAILED, nullptr);
    EXPECT_EQ(MAV_E_LOAD_FAILED, MavCreateInstance(h, &j));
    EXPECT_EQ(MAV_E_IN_PROGRESS, MavReload(h)) << "an instance is out";
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    EXPECT_EQ(MAV_E_LOAD_FAILED, MavReload(h));
    pel.fail(TPEL_INIT, 0, nullptr);
    EXPECT_EQ(MAV_OK, MavReload(h));
    i = MavGetInstance(h);
    ASSERT_NE(nullptr, i);
    EXPECT_EQ(MAV_OK, ScanBytes(i));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    End(&h);
}

// The first instance record of a process is new memory: when it is refused
// there is no instance (later records are recycled blocks, which the sweeps
// cannot refuse).
TEST_F(HostileAdapter, VendorTextsThatAreNotUtf8OrHuge) {
    MAV_HANDLE h = Start();
    for (const std::string& text : {std::string(kBadUtf8), kMegaText}) {
        pel.fail(TPEL_INIT, MAV_E_DRIVER_FAILED, text.c_str());
        MAV_INST i = nullptr;
        EXPECT_EQ(MAV_E_DRIVER_FAILED, MavCreateInstance(h, &i));
        // Kept as the adapter gave it (bytes, not converted).
        EXPECT_EQ(text, ErrorText(h));
    }
    // A buffer too small is replaced by one of the library's.
    char small[4] = {0};
    char* p = small;
    size_t len = sizeof small;
    EXPECT_EQ(MAV_OK, MavAdapterErrorText(h, &p, &len));
    ASSERT_NE(small, p);
    EXPECT_EQ(kMegaText.size() + 1, len);
    EXPECT_EQ(0, memcmp(p, kMegaText.data(), kMegaText.size()));
    CountingHooks::Release(p);
    pel.fail(TPEL_INIT, 0, nullptr);
    End(&h);
}

// ---- Scans and releases ----------------------------------------------------------------

TEST_F(HostileAdapter, FailingScanReleaseEndAndCleanupCanBeRetried) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    pel.fail(TPEL_SCAN, MAV_E_SCAN_FAILED, nullptr);
    EXPECT_EQ(MAV_E_SCAN_FAILED, ScanBytes(i));
    EXPECT_EQ(MAV_E_NO_SCANINFO, MavEnumInfections(i, 0, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr, nullptr, nullptr));
    pel.fail(TPEL_SCAN, 0, nullptr);
    EXPECT_EQ(MAV_OK, ScanBytes(i));
    EXPECT_EQ(1, pel.live_scaninfos());

    // The held result cannot be released: the next scan and the free say so.
    pel.fail(TPEL_RELEASESCAN, MAV_E_CIO_FAILED, nullptr);
    EXPECT_EQ(MAV_E_CIO_FAILED, ScanBytes(i));
    EXPECT_EQ(MAV_E_CIO_FAILED, MavFreeInstance(&i));
    EXPECT_EQ(MAV_E_IN_PROGRESS, MavEnd(&h));
    pel.fail(TPEL_RELEASESCAN, 0, nullptr);
    ASSERT_NE(nullptr, i);
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));

    // PelEnd and PelCleanup failures leave the handle to be ended again.
    pel.fail(TPEL_END, MAV_E_END_FAILED, nullptr);
    EXPECT_EQ(MAV_E_END_FAILED, MavEnd(&h));
    ASSERT_NE(nullptr, h);
    pel.fail(TPEL_END, 0, nullptr);
    pel.fail(TPEL_CLEANUP, MAV_E_END_FAILED, nullptr);
    EXPECT_EQ(MAV_E_END_FAILED, MavEnd(&h));
    ASSERT_NE(nullptr, h);
    pel.fail(TPEL_CLEANUP, 0, nullptr);
    End(&h);
}

// ---- Result records ----------------------------------------------------------------------

TEST_F(HostileAdapter, ResultCountsWithNullArraysAreNeverFollowed) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection("V", "o", 1, 0, 1, nullptr);
    pel.script_scan_error("o", 1, "e", 1);
    pel.script_counts(5, 1, 0, 3, 2);
    pel.script_null_arrays(1);
    for (uint32_t level : {0u, 0x7FFEu}) {  // also with record dumps
        SCOPED_TRACE(level);
        MavSetTraceLevel(level);
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(i, &si));
        MavSetTraceLevel(0);
        EXPECT_EQ(3u, si.uiInfections);
        EXPECT_EQ(2u, si.uiScanErrors);
        uint32_t code = 7;
        EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
                  MavEnumInfections(i, 0, nullptr, &code, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr, nullptr));
        EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
                  MavEnumScanErrors(i, 0, &code, nullptr, nullptr, nullptr, nullptr, nullptr));
        char ext[8] = "zzz";
        size_t extLen = sizeof ext;
        uint64_t reserved = 9;
        EXPECT_EQ(MAV_OK, MavEnumContentInfo(i, 4, &code, ext, &extLen, nullptr, nullptr, nullptr,
                                             nullptr, &reserved));
        EXPECT_EQ(0u, code);
        EXPECT_EQ(0u, extLen);
        EXPECT_EQ('\0', ext[0]);
        EXPECT_EQ(0u, reserved);
    }
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    End(&h);
}

TEST_F(HostileAdapter, CountsDecideWhichEntriesExist) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection("first<", "o1", 1, 0, 1, nullptr);
    pel.script_infection("second<", "o2", 2, 0, 1, nullptr);
    // Fewer counted than given: the rest does not exist for the caller.
    pel.script_counts(1, 0, 0, 1, 0);
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(i));
    uint32_t id = 0;
    EXPECT_EQ(MAV_OK, MavEnumInfections(i, 0, nullptr, &id, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, nullptr));
    EXPECT_EQ(1u, id);
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumInfections(i, 1, nullptr, &id, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr));
    // More counted than given (an adapter bug the library cannot see): the
    // scan itself touches only the first entry, so it stays in bounds.
    pel.script_clear();
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection("only<one>", "o", 3, 0, 1, nullptr);
    pel.script_counts(9, 0, 0, 9, 0);
    MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(i, &si));
    EXPECT_EQ(9u, si.uiInfections);
    char name[32];
    size_t len = sizeof name;
    EXPECT_EQ(MAV_OK, MavEnumInfections(i, 0, nullptr, nullptr, name, &len, nullptr, nullptr,
                                        nullptr, nullptr, nullptr));
    EXPECT_EQ("only_one_", std::string(name, len));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    End(&h);
}

TEST_F(HostileAdapter, NoResultRecordMeansNoResults) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_no_scaninfo(1);
    MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 77, 0, 0, 0, 0, 0};
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(i, &si));
    EXPECT_EQ(77u, si.uiJobID) << "no record, no summary";
    EXPECT_EQ(MAV_E_NO_SCANINFO, MavEnumInfections(i, 0, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    End(&h);
}

TEST_F(HostileAdapter, ResultTextsThatAreNotUtf8OrHuge) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    pel.script_infection(kBadUtf8, kMegaText.c_str(), 1, 0, 1, "free");
    pel.script_scan_error(kBadUtf8, 5, kMegaText.c_str(), 1);
    MavSetTraceLevel(0x7FFE);  // the dump meets the same texts
    ResetTraceLines();
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(i));
    MavSetTraceLevel(0);
    EXPECT_GT(TraceLines(), 0u);

    // Invalid UTF-8: that text fails and is emptied, the others are filled.
    std::vector<char> big(3 * kMegaText.size() + 3);
    char name[64] = "untouched";
    size_t nameLen = sizeof name, objLen = 0, freeLen = 16;
    char freeText[16];
    EXPECT_EQ(MAV_OK, MavEnumInfections(i, 0, nullptr, nullptr, nullptr, nullptr, nullptr, &objLen,
                                        nullptr, nullptr, nullptr));
    EXPECT_EQ(big.size(), objLen) << "size asked: 3 x length + 3";
    objLen = big.size();
    EXPECT_EQ(MAV_E_CONVERSION_FAILED,
              MavEnumInfections(i, 0, nullptr, nullptr, name, &nameLen, big.data(), &objLen,
                                nullptr, freeText, &freeLen));
    EXPECT_EQ('\0', name[0]);
    EXPECT_EQ(0u, nameLen);
    EXPECT_EQ(kMegaText.size(), objLen);
    EXPECT_EQ(0, memcmp(big.data(), kMegaText.data(), kMegaText.size()));
    EXPECT_EQ("free", std::string(freeText, freeLen));
    // A buffer one character short of a huge text.
    objLen = kMegaText.size();
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT,
              MavEnumInfections(i, 0, nullptr, nullptr, nullptr, nullptr, big.data(), &objLen,
                                nullptr, nullptr, nullptr));
    EXPECT_EQ(0u, objLen);
    size_t errLen = big.size();
    nameLen = sizeof name;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED,
              MavEnumScanErrors(i, 0, nullptr, big.data(), &errLen, name, &nameLen, nullptr));
    EXPECT_EQ(kMegaText.size(), errLen);
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    End(&h);
}

TEST_F(HostileAdapter, ConfigurationTextsThatAreNotUtf8OrHuge) {
    pel.set_adapter_info(4711, 0, 2, 1, 0, kMegaText.c_str(), kBadUtf8);
    pel.set_engine(3, 1, kBadUtf8, 0, 1);
    pel.add_param(0, 104, VS_TYPE_CHAR, kBadUtf8);           // SCANEXTENSIONS
    pel.add_param(0, 118, VS_TYPE_CHAR, kMegaText.c_str());  // SCANMIMETYPES
    MAV_HANDLE h = Start();
    std::vector<char> big(3 * kMegaText.size() + 3);
    char name[64];
    size_t nameLen = sizeof name, vendorLen = big.size();
    EXPECT_EQ(MAV_E_CONVERSION_FAILED,
              MavGetPelInfo(h, nullptr, nullptr, nullptr, name, &nameLen, big.data(), &vendorLen));
    EXPECT_EQ(0u, nameLen);
    EXPECT_EQ(kMegaText.size(), vendorLen);

    size_t valueLen = sizeof name;
    int32_t type = -1;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED,
              MavGetParameter(h, "SCANEXTENSIONS", &type, name, &valueLen));
    EXPECT_EQ(VS_TYPE_CHAR, type);
    EXPECT_EQ(0u, valueLen);
    // A buffer shorter than the value gets nothing (and no error).
    valueLen = sizeof name;
    EXPECT_EQ(MAV_OK, MavGetParameter(h, "SCANMIMETYPES", nullptr, name, &valueLen));
    EXPECT_EQ(0u, valueLen);
    valueLen = big.size();
    EXPECT_EQ(MAV_OK, MavGetParameter(h, "SCANMIMETYPES", nullptr, big.data(), &valueLen));
    EXPECT_EQ(kMegaText.size(), valueLen);
    // A huge value set by the caller goes to the adapter whole.
    EXPECT_EQ(MAV_OK, MavSetParameter(h, "SCANEXTENSIONS", VS_TYPE_CHAR, kMegaText.c_str()));
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavSetParameter(h, "SCANMIMETYPES", VS_TYPE_CHAR, kBadUtf8));
    MAV_INST i = Instance(h);
    EXPECT_EQ(MAV_OK, ScanBytes(i));
    size_t textLen = 0;
    int64_t number = 0;
    ASSERT_EQ(1, pel.last_param(1, 104, nullptr, &textLen, &number, nullptr, 0));
    EXPECT_EQ(kMegaText.size(), textLen);
    nameLen = sizeof name;
    EXPECT_EQ(MAV_E_CONVERSION_FAILED,
              MavGetEngineInfo(i, nullptr, name, &nameLen, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    End(&h);
}

// ---- Callbacks ----------------------------------------------------------------------------

struct Seen {
    int calls = 0;
    int nullData = 0;
    size_t longest = 0;
    VS_CALLRC answer = 0;
};

VS_CALLRC Single(MAV_INST, uint32_t message, void* data, void* user) {
    Seen* seen = static_cast<Seen*>(user);
    ++seen->calls;
    if (data == nullptr) {
        ++seen->nullData;
    } else if (message == VS_M_OBJECTFOUND || message == VS_M_ERROR) {
        seen->longest = std::max(seen->longest, strlen(static_cast<const char*>(data)));
    } else if (message == VS_M_VIRUS) {
        const MAV_VIRUSINFO* v = static_cast<const MAV_VIRUSINFO*>(data);
        if (v->pszVirusName == nullptr) ++seen->nullData;
        if (v->pszObjectName != nullptr)
            seen->longest = std::max(seen->longest, strlen(v->pszObjectName));
    }
    return seen->answer;
}

TEST_F(HostileAdapter, CallbacksWithUnknownMessagesAndBadDataAreAnswered) {
    MAV_HANDLE h = Start();
    MAV_INST i = Instance(h);
    Seen seen;
    ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(
                          i, Single, VS_M_VIRUS | VS_M_OBJECTFOUND | VS_M_ERROR, &seen));
    pel.script_infection(kBadUtf8, kMegaText.c_str(), 1, 0, 1, nullptr);
    pel.script_event(0x4000, 0, nullptr, 1, 1);             // unknown message
    pel.script_event(0x80000000u, 0, nullptr, 2, 1);        // unknown message
    pel.script_event(VS_M_SCANPROGRESS, 0, nullptr, 3, 1);  // not registered
    pel.script_event(VS_M_VIRUS, 5, nullptr, 0, 0);         // no such record: null data
    pel.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);         // name not UTF-8
    pel.script_event(VS_M_OBJECTFOUND, 0, kBadUtf8, 0, 0);  // not UTF-8: null text
    pel.script_event(VS_M_ERROR, 0, kMegaText.c_str(), 0, 0);
    pel.script_event(VS_M_OBJECTFOUND, 0, nullptr, 0, 0);
    EXPECT_EQ(MAV_OK, ScanBytes(i));
    int32_t results[16];
    ASSERT_EQ(8, pel.event_results(results, 16));
    for (int k = 0; k < 8; ++k) EXPECT_EQ(0, results[k]) << "event " << k;
    EXPECT_EQ(5, seen.calls);
    EXPECT_EQ(4, seen.nullData);
    EXPECT_EQ(kMegaText.size(), seen.longest);

    // A handler that says stop ends the scan; the instance stays usable.
    seen.answer = 1;
    EXPECT_EQ(MAV_E_CBC_TERMINATED, ScanBytes(i));
    EXPECT_EQ(MAV_E_NO_SCANINFO, MavEnumInfections(i, 0, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr, nullptr, nullptr));
    seen.answer = 0;
    EXPECT_EQ(MAV_OK, ScanBytes(i));
    // An adapter that sends no event at all cannot be asked for one.
    EXPECT_EQ(MAV_OK, MavFreeInstance(&i));
    pel.set_flags(0x3, 0x19, 0, 0);
    MAV_HANDLE quiet = Start();
    MAV_INST q = Instance(quiet);
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, MavRegisterSingleEventHandler(q, Single, VS_M_VIRUS, &seen));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&q));
    End(&quiet);
    End(&h);
}

// ---- Answers that change between calls ---------------------------------------------------

TEST_F(HostileAdapter, AnswersThatChangeBetweenHandles) {
    // Same adapter file, different identity, thread model and parameter types.
    pel.add_param(0, 107, VS_TYPE_LONG, "1");
    MAV_HANDLE a = Start();
    pel.clear_params();
    pel.add_param(0, 107, VS_TYPE_CHAR, "one");
    pel.set_adapter_info(4712, 1, 2, 1, 0, "other vendor", "other");
    MAV_HANDLE b = Start();
    EXPECT_EQ(MAV_OK, MavSetParameter(a, "SCANLIMIT", VS_TYPE_LONG, "5"));
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, MavSetParameter(b, "SCANLIMIT", VS_TYPE_LONG, "5"));
    EXPECT_EQ(MAV_OK, MavSetParameter(b, "SCANLIMIT", VS_TYPE_CHAR, "five"));
    ASSERT_EQ(MAV_OK, MavLoadPool(a, 2, 1));
    ASSERT_EQ(MAV_OK, MavLoadPool(b, 2, 1));
    MAV_INST ia = MavGetInstance(a);
    MAV_INST ib = MavGetInstance(b);
    ASSERT_NE(nullptr, ia);
    ASSERT_NE(nullptr, ib);

    // The scan outcome changes from call to call.
    const MAV_RC outcomes[] = {MAV_OK, MAV_E_VIRUS_FOUND, MAV_E_SCAN_FAILED, MAV_E_NOT_SCANNED,
                               MAV_E_CLEAN_FAILED};
    for (MAV_RC rc : outcomes) {
        pel.script_clear();
        pel.script_rc(rc);
        if (rc < 0) pel.script_infection("V", "o", 1, 0, 1, nullptr);
        pel.script_no_scaninfo(rc == MAV_E_SCAN_FAILED ? 1 : 0);
        EXPECT_EQ(rc, ScanBytes(ia));
        EXPECT_EQ(rc, ScanBytes(ib));
        EXPECT_EQ(rc < 0                    ? MAV_OK
                  : rc == MAV_E_SCAN_FAILED ? MAV_E_NO_SCANINFO
                                            : MAV_E_INVALID_ENUM_INDEX,
                  MavEnumInfections(ib, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr, nullptr));
    }
    EXPECT_EQ(MAV_OK, MavFreeInstance(&ia));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&ib));
    EXPECT_EQ(MAV_OK, MavReload(nullptr));

    // Ending the only handle with identity 4711 runs PelCleanup although the
    // file is still in use by b; b's configuration was never handed back and
    // stays valid.
    End(&a);
    ib = MavGetInstance(b);
    ASSERT_NE(nullptr, ib);
    pel.script_clear();
    EXPECT_EQ(MAV_OK, ScanBytes(ib));
    char value[16];
    size_t len = sizeof value;
    EXPECT_EQ(MAV_OK, MavGetParameter(b, "SCANLIMIT", nullptr, value, &len));
    EXPECT_EQ("five", std::string(value, len));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&ib));
    End(&b);
}

// ---- Handles that are not (or no longer) handles --------------------------------------------

TEST_F(HostileAdapter, StaleAndForeignHandlesAreRefused) {
    // Memory that is no record: zeroes, and bytes of a string.
    std::vector<unsigned char> zeroes(512, 0);
    CallEverything(zeroes.data(), "zeroed memory");
    std::string junk(512, 'j');
    CallEverything(&junk[0], "text");

    // An ended handle and the instances that were freed with it.
    MAV_HANDLE h = Start();
    MAV_INST listed = Instance(h);
    MAV_HANDLE staleHandle = h;
    MAV_INST staleInstance = listed;
    EXPECT_EQ(MAV_OK, MavFreeInstance(&listed));
    End(&h);
    CallEverything(staleHandle, "ended handle");
    CallEverything(staleInstance, "freed instance");
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnd(&staleHandle));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavFreeInstance(&staleInstance));

    // A live instance with one mark or its engine pointer damaged is no
    // instance: no scan or question reaches the adapter.
    h = Start();
    MAV_INST live = Instance(h);
    auto* rec = static_cast<MAV_INST_REC*>(live);
    unsigned char bytes[4] = {1, 2, 3, 4};
    for (int part = 0; part < 3; ++part) {
        SCOPED_TRACE(part);
        uint32_t* mark = part == 0 ? &rec->uiHeadMark : &rec->uiTailMark;
        uint32_t keptMark = *mark;
        PEL_INIT* keptInit = rec->pPelInit;
        if (part < 2) {
            *mark = 0;
        } else {
            rec->pPelInit = nullptr;
        }
        uint32_t scans = pel.calls(TPEL_SCAN);
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanBytes(live, "b", bytes, sizeof bytes, 1, nullptr));
        EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavEnumInfections(live, 0, nullptr, nullptr, nullptr,
                                                          nullptr, nullptr, nullptr, nullptr,
                                                          nullptr, nullptr));
        MAV_INST probe = live;  // an instance whose engine failed may still be freed
        EXPECT_TRUE(part == 2 || MavFreeInstance(&probe) == MAV_E_INVALID_HANDLE);
        *mark = keptMark;
        rec->pPelInit = keptInit;
    }
    EXPECT_EQ(MAV_OK, MavFreeInstance(&live));
    End(&h);
}

}  // namespace
}  // namespace robust
