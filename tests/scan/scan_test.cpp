// Scan pipeline: file and byte scans, the temporary-file fallback, clean
// calls, the summary record, result release, traces and concurrency.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mav_fixture.h"
#include "mavxxi.h"
#include "temp_dir.h"

namespace {

MAV_SCANINFO Summary() {
    MAV_SCANINFO si;
    memset(&si, 0xee, sizeof si);
    si.struct_size = sizeof si;
    return si;
}

std::string Tail(const std::string& s, size_t n) {
    return s.size() < n ? s : s.substr(s.size() - n);
}

class Scan : public MavFixture {
  protected:
    // Starts with an adapter that cannot scan memory and the test's own
    // directory as INITTEMP_PATH.
    void StartFallback() {
        pel.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_VIRUS | VS_M_CLEAN, 0);
        pel.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "");
        Start();
        ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, dir_.path.c_str()));
    }
    MAV_RC Bytes(const char* name, MAV_SCANINFO* si = nullptr) {
        unsigned char buf[4] = {1, 2, 3, 4};
        return MavScanBytes(inst, name, buf, sizeof buf, 1, si);
    }
    std::string LastName() { return pel.lastScan().szObjectName; }
    TempDir dir_;
};

TEST_F(Scan, RequestsCarryNameJobActionAndSummary) {
    Start();
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/etc/hostname", 7, &si));
    TPEL_LAST_SCAN last = pel.lastScan();
    EXPECT_EQ(VS_SC_FILE, last.uiScanCode);
    EXPECT_EQ(MAV_DEFAULT_ACTION, last.uiActionCode);
    EXPECT_EQ(7u, last.uiJobID);
    EXPECT_STREQ("/etc/hostname", last.szObjectName);
    EXPECT_EQ(strlen("/etc/hostname"), last.lLength);
    EXPECT_FALSE(last.bHadBytes);
    EXPECT_TRUE(last.bHadScanInfoPtr);
    EXPECT_EQ(static_cast<MAV_INST_REC*>(inst)->pPelInit, last.pInit);
    const MAV_SCANINFO want = {32, 7, 1, 0, 1, 0, 0};
    EXPECT_EQ(0, memcmp(&want, &si, sizeof si));

    // The UTF-8 name wins when it is not empty.
    ASSERT_EQ(MAV_OK,
              MavScanClean(inst, VS_SC_FILE, 0, "/utf8", "/kormo", nullptr, nullptr, 1, nullptr));
    EXPECT_EQ("/utf8", LastName());
    ASSERT_EQ(MAV_OK,
              MavScanClean(inst, VS_SC_FILE, 0x12, "", "/kormo", nullptr, nullptr, 1, nullptr));
    EXPECT_EQ("/kormo", LastName());
    EXPECT_EQ(0x12u, pel.lastScan().uiActionCode);

    // Bytes go straight to an adapter that scans memory; without a summary
    // no result record is asked for or kept.
    unsigned char buf[100];
    for (int i = 0; i < 100; ++i) buf[i] = static_cast<unsigned char>(i);
    ASSERT_EQ(MAV_OK, MavScanBytes(inst, "mem.bin", buf, sizeof buf, 3, nullptr));
    last = pel.lastScan();
    EXPECT_EQ(VS_SC_BYTES, last.uiScanCode);
    EXPECT_TRUE(last.bHadBytes);
    EXPECT_EQ(sizeof buf, last.lLength);
    EXPECT_EQ(0, memcmp(buf, last.abBytes, sizeof buf));
    EXPECT_STREQ("mem.bin", last.szObjectName);
    EXPECT_FALSE(last.bHadScanInfoPtr);
    EXPECT_EQ(nullptr, static_cast<MAV_INST_REC*>(inst)->pScanInfo);
    uint32_t type = 0;
    EXPECT_EQ(MAV_E_NO_SCANINFO, MavEnumContentInfo(inst, 0, &type, nullptr, nullptr, nullptr,
                                                    nullptr, nullptr, nullptr, nullptr));
    ASSERT_EQ(MAV_OK, MavScanBytes(inst, nullptr, buf, sizeof buf, 3, nullptr));
    EXPECT_FALSE(pel.lastScan().bHadObjectName);
    EXPECT_EQ(MAV_E_NULL_PARAM, MavScanBytes(inst, "x", nullptr, 5, 3, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM,
              MavScanClean(inst, VS_SC_BYTES, 0, nullptr, "x", buf, nullptr, 3, nullptr));
}

TEST_F(Scan, ObjectNamesAreConvertedFileNamesHandedOnAsTheyStand) {
    Start();
    ASSERT_EQ(1, MavSetProcessCodePage("0819"));
    MAV_RC rc = Bytes("\xe4.bin");
    std::string objectName = LastName();
    MAV_RC frc = MavScanFile(inst, "/tmp/\xe4", 1, nullptr);
    std::string fileName = LastName();
    MavSetProcessCodePage("1208");
    EXPECT_EQ(MAV_OK, rc);
    EXPECT_EQ("\xc3\xa4.bin", objectName);
    EXPECT_EQ(MAV_OK, frc);  // a file name is the file system's bytes
    EXPECT_EQ("/tmp/\xe4", fileName);

    // A name that does not convert, or converts to nothing, fails the bytes
    // scan before the adapter is called; a file name is not converted.
    uint32_t scans = pel.calls(TPEL_SCAN);
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, Bytes("\xe4.bin"));
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, Bytes(""));
    EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/tmp/\xe4", 1, nullptr));
    EXPECT_EQ("/tmp/\xe4", LastName());
}

// Names of every length up to 40 in exactly sized heap blocks, with a
// non-ASCII or invalid byte at every position, and names that end right
// before an unmapped page: read exactly, never beyond.
TEST_F(Scan, ObjectNamesAreReadExactly) {
    Start();
    for (size_t len = 1; len <= 40; ++len) {
        std::vector<char> name(len + 1, 'n');
        name[len] = '\0';
        ASSERT_EQ(MAV_OK, Bytes(name.data())) << len;
        EXPECT_EQ(std::string(name.data()), LastName());
        for (size_t pos = 0; pos < len; ++pos) {
            std::vector<char> bad(name);
            bad[pos] = '\xff';
            EXPECT_EQ(MAV_E_CONVERSION_FAILED, Bytes(bad.data())) << len << " " << pos;
            if (pos + 1 < len) {
                std::vector<char> good(name);
                good[pos] = '\xc3';
                good[pos + 1] = '\xa4';
                ASSERT_EQ(MAV_OK, Bytes(good.data())) << len << " " << pos;
                EXPECT_EQ(std::string(good.data()), LastName());
            }
        }
    }
    long page = sysconf(_SC_PAGESIZE);
    char* map = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, map);
    ASSERT_EQ(0, mprotect(map + page, page, PROT_NONE));
    for (int len = 0; len < 12; ++len) {
        char* name = map + page - len - 1;
        memset(name, 'p', len);
        name[len] = '\0';
        EXPECT_EQ(len == 0 ? MAV_E_CONVERSION_FAILED : MAV_OK, Bytes(name)) << len;
    }
    munmap(map, 2 * page);
}

TEST_F(Scan, CleanCallsAddTheCleanBitToTheDefaultAction) {
    Start();
    ASSERT_EQ(MAV_OK, MavCleanFile(inst, "/dev/null", 1, nullptr));
    EXPECT_EQ(MAV_DEFAULT_ACTION | VS_A_CLEAN, pel.lastScan().uiActionCode);
    ASSERT_EQ(MAV_OK, MavSetParameter(inst, "CUST_ACTIVE_CONTENT", VS_TYPE_BOOL, "1"));
    unsigned char buf[10];
    memset(buf, 'X', sizeof buf);
    size_t len = sizeof buf;
    pel.script_cleaned("CLEAN", 5);
    pel.script_rc(MAV_E_CLEAN_OK);
    EXPECT_EQ(MAV_E_CLEAN_OK, MavCleanBytes(inst, "obj", buf, &len, 1, nullptr));
    EXPECT_EQ(MAV_DEFAULT_ACTION | VS_A_CLEAN | VS_A_ACTIVE_CONTENT, pel.lastScan().uiActionCode);
    EXPECT_EQ(VS_SC_BYTES, pel.lastScan().uiScanCode);
    EXPECT_EQ(0, memcmp("CLEANXXXXX", buf, 10));
    EXPECT_EQ(sizeof buf, len);
    // The plain calls leave the action to the configured default.
    ASSERT_EQ(MAV_E_CLEAN_OK, MavScanBytes(inst, "obj", buf, sizeof buf, 1, nullptr));
    EXPECT_EQ(MAV_DEFAULT_ACTION | VS_A_ACTIVE_CONTENT, pel.lastScan().uiActionCode);
}

TEST_F(Scan, FallbackWritesBytesToAPrivateFileAndRemovesIt) {
    StartFallback();
    TraceCapture trace(MAV_TRC_INFO);
    unsigned char buf[300];
    for (int i = 0; i < 300; ++i) buf[i] = static_cast<unsigned char>(i * 7);
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_OK, MavScanBytes(inst, nullptr, buf, sizeof buf, 9, &si));
    TPEL_LAST_SCAN last = pel.lastScan();
    EXPECT_EQ(VS_SC_FILE, last.uiScanCode);
    EXPECT_FALSE(last.bHadBytes);
    EXPECT_TRUE(last.bFileExisted);
    EXPECT_EQ(sizeof buf, last.lFileSize);
    EXPECT_EQ(0, memcmp(buf, last.abBytes, sizeof last.abBytes));
    std::string name = last.szObjectName, prefix = dir_.path + "/";
    EXPECT_EQ(name.size(), last.lLength);
    ASSERT_EQ(prefix.size() + 6 + strlen("mavlib.bin"), name.size()) << name;
    EXPECT_EQ(prefix, name.substr(0, prefix.size()));
    EXPECT_EQ("mavlib.bin", Tail(name, 10));
    EXPECT_TRUE(dir_.entries().empty());
    EXPECT_TRUE(trace.HasFrom(
        "MavScanClean",
        "This PEL does not support scanning bytes - copy bytes to file and scan this\n"));
    EXPECT_EQ(9u, si.uiJobID);

    // Slashes in the object name become '~'; the caller's text is left alone.
    ASSERT_EQ(MAV_OK, Bytes("a/b\\c"));
    EXPECT_EQ("a~b~c", Tail(LastName(), 5));
    char utf8[] = "x/y.doc";
    size_t len = sizeof buf;
    ASSERT_EQ(MAV_OK, MavScanClean(inst, VS_SC_BYTES, 0, utf8, "ignored", buf, &len, 1, nullptr));
    EXPECT_EQ("x~y.doc", Tail(LastName(), 7));
    EXPECT_STREQ("x/y.doc", utf8);

    // A clean request's length is the temporary path's: what lies beyond it in
    // the caller's buffer is cleared, the rest kept.
    memset(buf, 'B', sizeof buf);
    len = sizeof buf;
    pel.script_rc(MAV_E_CLEAN_OK);
    ASSERT_EQ(MAV_E_CLEAN_OK, MavCleanBytes(inst, "obj", buf, &len, 1, nullptr));
    size_t pathLen = pel.lastScan().lLength;
    ASSERT_LT(pathLen, sizeof buf);
    EXPECT_EQ(std::string(pathLen, 'B'), std::string(buf, buf + pathLen));
    EXPECT_EQ(std::string(sizeof buf - pathLen, '\0'), std::string(buf + pathLen, buf + 300));
    EXPECT_EQ(sizeof buf, len);
    EXPECT_TRUE(dir_.entries().empty());
}

TEST(TempFile, CreatedExclusivelyWithMode0600UnderTheObjectName) {
    TempDir dir;
    const unsigned char bytes[] = "hello";
    char* a = nullptr;
    char* b = nullptr;
    char name[] = "n/m";
    ASSERT_EQ(MAV_OK, MavPXBytesToTempFile(bytes, 5, dir.path.c_str(), name, &a));
    ASSERT_EQ(MAV_OK, MavPXBytesToTempFile(bytes, 5, dir.path.c_str(), nullptr, &b));
    EXPECT_STREQ("n~m", name);
    struct stat st;
    ASSERT_EQ(0, stat(a, &st));
    EXPECT_EQ(0600u, st.st_mode & 0777u);
    EXPECT_EQ(5, st.st_size);
    EXPECT_EQ("n~m", Tail(a, 3));
    EXPECT_EQ("mav.com", Tail(b, 7));
    EXPECT_STRNE(a, b);
    unsigned char back[16] = {};
    size_t len = sizeof back;
    EXPECT_EQ(MAV_OK, MavPXBytesFromTempFile(a, back, &len));
    EXPECT_EQ(5u, len);
    EXPECT_EQ(0, memcmp("hello", back, 5));
    MavIFree(a);
    MavIFree(b);
    EXPECT_EQ(MAV_E_SCAN_FAILED, MavPXBytesFromTempFile("/nonexistent/x", back, &len));

    // A directory that does not exist: nothing created, an empty path left.
    TraceCapture trace(MAV_TRC_ERROR);
    char* c = nullptr;
    EXPECT_EQ(MAV_E_SCAN_FAILED,
              MavPXBytesToTempFile(bytes, 5, dir.file("missing").c_str(), nullptr, &c));
    ASSERT_NE(nullptr, c);
    EXPECT_STREQ("", c);
    MavIFree(c);
    EXPECT_TRUE(trace.Has("fdopenU return -1, mkstemp failed\n"));
    EXPECT_EQ(2u, dir.entries().size());
}

// The default directory is worked out once per process: each case runs in a
// child process of its own.
[[noreturn]] void ChildCheckTmpPath(const char* const values[4], const char* expected) {
    const char* names[] = {"PEL_TMP", "TMP", "TEMP", "TMPDIR"};
    for (int i = 0; i < 4; ++i) {
        if (values[i] != nullptr) {
            setenv(names[i], values[i], 1);
        } else {
            unsetenv(names[i]);
        }
    }
    bool ok = strcmp(MavPXGetDefaultTmpPath(), expected) == 0;
    setenv("PEL_TMP", "/changed", 1);  // a later change of the environment is not seen
    ok = ok && strcmp(MavPXGetDefaultTmpPath(), expected) == 0;
    _exit(ok ? 0 : 1);
}

TEST(TempFileDeathTest, DefaultDirectoryFollowsTheEnvironmentOrder) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* const cases[][5] = {
        {"/p", "/t", "/te", "/td", "/p"},
        {nullptr, "/t", "/te", "/td", "/t"},
        {nullptr, nullptr, "/te", "/td", "/te"},
        {nullptr, nullptr, nullptr, "/td", "/td"},
        {nullptr, nullptr, nullptr, nullptr, "/tmp"},
        {"", "/t", "/te", "/td", "/t"},  // an empty value counts as unset
        {"", "", "", "", "/tmp"}};
    for (const auto& c : cases) {
        EXPECT_EXIT(ChildCheckTmpPath(c, c[4]), ::testing::ExitedWithCode(0), "") << c[4];
    }
}

TEST_F(Scan, ThousandFallbackScansWithFailuresLeaveNoFileBehind) {
    StartFallback();
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &old);
    struct rlimit saved, small;
    getrlimit(RLIMIT_FSIZE, &saved);
    small = saved;
    small.rlim_cur = 1024;
    std::vector<unsigned char> buf(4096, 'z');
    int ok = 0, adapterFailed = 0, writeFailed = 0;
    for (int i = 0; i < 1000; ++i) {
        bool adapterFails = i % 7 == 3, writeFails = i % 11 == 5;
        pel.fail(TPEL_SCAN, adapterFails ? MAV_E_SCAN_FAILED : 0, nullptr);
        if (writeFails) setrlimit(RLIMIT_FSIZE, &small);
        uint32_t scansBefore = pel.calls(TPEL_SCAN);
        const char* name = i % 3 == 0 ? "dir/obj.bin" : i % 3 == 1 ? nullptr : "a\\b";
        MAV_SCANINFO si = Summary();
        MAV_RC rc = MavScanBytes(inst, name, buf.data(), buf.size(), i, &si);
        if (writeFails) {
            setrlimit(RLIMIT_FSIZE, &saved);
            EXPECT_EQ(MAV_E_SCAN_FAILED, rc) << i;
            EXPECT_EQ(scansBefore, pel.calls(TPEL_SCAN)) << i;
            ++writeFailed;
        } else if (adapterFails) {
            EXPECT_EQ(MAV_E_SCAN_FAILED, rc) << i;
            ++adapterFailed;
        } else {
            EXPECT_EQ(MAV_OK, rc) << i;
            EXPECT_EQ(buf.size(), pel.lastScan().lFileSize) << i;
            ++ok;
        }
        ASSERT_TRUE(dir_.entries().empty()) << "scan " << i << " left a file";
    }
    sigaction(SIGXFSZ, &old, nullptr);
    pel.fail(TPEL_SCAN, 0, nullptr);
    EXPECT_EQ(1000, ok + adapterFailed + writeFailed);
    EXPECT_GT(adapterFailed, 100);
    EXPECT_GT(writeFailed, 50);
}

TEST_F(Scan, SummaryMustBe32BytesAndIsCheckedBeforeAnyAdapterCall) {
    StartFallback();
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_OK, Bytes("x", &si));
    ASSERT_NE(nullptr, static_cast<MAV_INST_REC*>(inst)->pScanInfo);
    uint32_t scans = pel.calls(TPEL_SCAN), releases = pel.calls(TPEL_RELEASESCAN);
    for (size_t size : {size_t{31}, size_t{33}, size_t{0}}) {
        si.struct_size = size;
        EXPECT_EQ(MAV_E_INVALID_HANDLE, Bytes("x", &si));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanFile(inst, "/dev/null", 2, &si));
    }
    EXPECT_EQ(1u, si.uiJobID);  // the summary is left as it was
    EXPECT_TRUE(dir_.entries().empty());
    // The scan code and the names are checked first.
    si.struct_size = 31;
    EXPECT_EQ(MAV_E_SCANPAR_UNSUPPORTED,
              MavScanClean(inst, 3, 0, "x", nullptr, nullptr, nullptr, 1, &si));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavScanFile(inst, nullptr, 1, &si));
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, Bytes("\xff", &si));
    EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
    EXPECT_EQ(releases, pel.calls(TPEL_RELEASESCAN));
}

TEST_F(Scan, PreviousResultIsReleasedBeforeTheNextScan) {
    Start();
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 1, &si));
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 2, &si));
    EXPECT_EQ(1, pel.live_scaninfos());
    EXPECT_EQ(1u, pel.calls(TPEL_RELEASESCAN));
    // A failing release is the result, and the scan does not happen.
    pel.fail(TPEL_RELEASESCAN, MAV_E_INVALID_PARAM, nullptr);
    uint32_t scans = pel.calls(TPEL_SCAN);
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavScanFile(inst, "/dev/null", 3, &si));
    EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
    pel.fail(TPEL_RELEASESCAN, 0, nullptr);
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 4, &si));
    EXPECT_EQ(1, pel.live_scaninfos());
}

TEST_F(Scan, ArgumentErrorsAreRefusedWithTheirTraces) {
    Start();
    TraceCapture trace(MAV_TRC_ERROR);
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanFile(nullptr, "/dev/null", 1, nullptr));
    EXPECT_TRUE(trace.Has("MavScanClean: Invalid NULL parameter for instance handle\n"));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanFile(hdl, "/dev/null", 1, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavScanFile(inst, nullptr, 1, nullptr));
    EXPECT_TRUE(trace.Has("No file name supplied to scan file method.\n"));
    EXPECT_EQ(MAV_E_SCANPAR_UNSUPPORTED,
              MavScanClean(inst, 3, 0, "x", nullptr, nullptr, nullptr, 1, nullptr));
    EXPECT_TRUE(trace.Has("This scan code >>>3<<< is invalid or not supported.\n"));
    EXPECT_EQ(0u, pel.calls(TPEL_SCAN));
    MAV_INST stale = inst;  // a released instance is refused
    ASSERT_EQ(MAV_OK, MavFreeInstance(&inst));
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanFile(stale, "/dev/null", 1, nullptr));
}

TEST_F(Scan, FirstEntryOfEachListLosesItsAngleBrackets) {
    Start();
    pel.script_clear();
    for (const char* n : {"0", "1"}) {
        auto s = [n](const char* p) { return std::string("<") + p + n + ">"; };
        pel.script_infection(s("v").c_str(), s("o").c_str(), 1, 0, 10, s("f").c_str());
        pel.script_scan_error(s("e").c_str(), 4, s("t").c_str(), 5);
        pel.script_content(s("c").c_str(), s("x").c_str(), s("m").c_str(), s("s").c_str(), 1, 3);
    }
    pel.script_rc(MAV_E_VIRUS_FOUND);
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(inst, "/dev/null", 1, &si));
    EXPECT_EQ(2u, si.uiInfections);
    EXPECT_EQ(2u, si.uiScanErrors);
    EXPECT_EQ(2u, si.uiScanned);
    const PEL_SCANINFO* r = static_cast<MAV_INST_REC*>(inst)->pScanInfo;
    ASSERT_NE(nullptr, r);
    const PEL_VIRUSINFO* v = r->pVirusInfo;
    const PEL_SCANERROR* e = r->pScanError;
    const PEL_CONTENTINFO* c = r->pContentInfo;
    std::vector<std::string> got = {v[0].pszVirusName,  v[0].pszObjectName,  v[0].pszFreeTextInfo,
                                    e[0].pszObjectName, e[0].pszErrorText,   c[0].pszObjectName,
                                    c[0].pszExtension,  c[0].pszContentType, c[0].pszCharSet,
                                    v[1].pszVirusName,  e[1].pszErrorText,   c[1].pszObjectName};
    std::vector<std::string> want = {"_v0_", "_o0_", "_f0_", "_e0_", "_t0_", "_c0_",
                                     "_x0_", "_m0_", "_s0_", "<v1>", "<t1>", "<c1>"};
    EXPECT_EQ(want, got);
}

TEST_F(Scan, VerdictsAndFailuresAreTracedByLevel) {
    Start();
    const struct {
        uint32_t level;
        MAV_RC rc;
        uint32_t action;
        const char* text;  // null: nothing of the kind
    } cases[] = {
        {MAV_TRC_VIRUS, MAV_E_VIRUS_FOUND, 0,
         "*** VIRUS alert! The object contains an infection.\n"},
        {MAV_TRC_VIRUS, MAV_E_CLEAN_FAILED, 0,
         "*** VIRUS alert! The object ***could not be cleaned*** and is still infected.\n"},
        {MAV_TRC_VIRUS, MAV_E_CLEAN_OK, 0,
         "*** Detected infection was cleaned, but however a VIRUS might still exist.\n"},
        {MAV_TRC_PEL | MAV_TRC_WARNING, MAV_E_NOT_SCANNED, 0,
         "*** WARNING => The object was not scanned.\n"},
        {MAV_TRC_PEL | MAV_TRC_WARNING, MAV_E_NOT_SUPPORTED, 17,
         "*** Content scan feature is not supported. This PEL supports only virus scanning!\n"},
        {MAV_TRC_PEL | MAV_TRC_WARNING, MAV_E_NOT_SUPPORTED, 16,
         "*** Not supported feature supplied.\n"},
        {MAV_TRC_PEL | MAV_TRC_WARNING, MAV_OK, 0, "No PEL_SCANINFO passed\n"},
    };
    for (const auto& c : cases) {
        TraceCapture trace(c.level);
        pel.script_rc(c.rc);
        MavScanClean(inst, VS_SC_FILE, c.action, "/dev/null", nullptr, nullptr, nullptr, 1,
                     nullptr);
        EXPECT_TRUE(trace.Has(c.text)) << c.text;
        EXPECT_EQ((c.level & MAV_TRC_PEL) ? 1 : 0, trace.CountContaining(">> PelScan("));
    }
    // Adapter failures need the warning bit too.
    TraceCapture trace(MAV_TRC_PEL);
    pel.script_rc(MAV_E_NOT_SCANNED);
    MavScanFile(inst, "/dev/null", 1, nullptr);
    EXPECT_FALSE(trace.Has("*** WARNING => The object was not scanned.\n"));
}

// Counting memory hooks (forwarding to the C library, so they mix with the
// defaults).
std::atomic<int> allocations{0};
void* CountAlloc(size_t size, int clean, const char*) {
    ++allocations;
    return (clean & 0xff) != 0 ? calloc(1, size) : malloc(size);
}
void* CountRealloc(void* p, size_t size, const char*) {
    ++allocations;
    return realloc(p, size);
}

TEST_F(Scan, MemoryScanAllocatesNothing) {
    Start();
    ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(CountAlloc, CountRealloc, free));
    unsigned char buf[4096] = {};
    MAV_SCANINFO si = Summary();
    pel.script_no_scaninfo(1);
    allocations = 0;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(MAV_OK, MavScanBytes(inst, "bench.bin", buf, sizeof buf, i, nullptr));
        ASSERT_EQ(MAV_OK, MavScanBytes(inst, "bench.bin", buf, sizeof buf, i, &si));
    }
    int counted = allocations;
    MavRegisterMmCallbacks(MavPXAlloc, MavPXRealloc, MavPXFree);
    EXPECT_EQ(0, counted);
}

// Scans on two instances at once: no lock is held while the adapter scans,
// and each scan's events reach its own instance.
std::atomic<int> wrongInstance{0};
VS_CALLRC CheckInstance(MAV_INST inst, uint32_t, void*, void* userData) {
    MAV_INST* expected = static_cast<MAV_INST*>(userData);
    if (expected[0] != inst && expected[1] != inst) ++wrongInstance;
    return 0;
}

TEST_F(Scan, TwoInstancesScanConcurrently) {
    Start();
    MAV_INST other = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(hdl, &other));
    MAV_INST both[2] = {inst, other};
    ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(hdl, CheckInstance, VS_M_SCANPROGRESS, both));
    pel.script_event(VS_M_SCANPROGRESS, 0, nullptr, 1, 0);
    pel.script_delay_ms(20);
    std::atomic<int> failures{0};
    auto run = [&failures](MAV_INST i) {
        unsigned char buf[64] = {};
        MAV_SCANINFO si = Summary();
        for (int k = 0; k < 5; ++k) failures += MavScanBytes(i, "t", buf, 64, k, &si) != MAV_OK;
    };
    std::thread a(run, inst), b(run, other);
    a.join();
    b.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(0, wrongInstance.load());
    EXPECT_EQ(2u, pel.max_concurrent_scans());
    EXPECT_EQ(MAV_OK, MavFreeInstance(&other));
}

}  // namespace
