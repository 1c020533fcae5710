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
    for (const char* utf8 : {"/utf8", ""}) {
        ASSERT_EQ(MAV_OK, MavScanClean(inst, VS_SC_FILE, 0x12, utf8, "/kormo", nullptr, nullptr, 1, nullptr));
        EXPECT_EQ(*utf8 ? "/utf8" : "/kormo", LastName());
    }
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

TEST_F(Scan, FallbackWritesBytesToAPrivateFileAndRemovesIt) {
    StartFallback();
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

// Without INITTEMP_PATH the fallback file goes to the default directory.
TEST_F(Scan, FallbackWithoutATempPathUsesTheDefaultDirectory) {
    pel.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_VIRUS | VS_M_CLEAN, 0);
    Start();
    ASSERT_EQ(MAV_OK, Bytes("plain.bin"));
    EXPECT_TRUE(pel.lastScan().bFileExisted);
    std::string dir = std::string(MavPXGetDefaultTmpPath()) + "/";
    EXPECT_EQ(dir, LastName().substr(0, dir.size()));
}

// The name and round trip are the fallback test's; here the file's mode and
// a directory that does not exist (nothing created, an empty path left).
TEST(TempFile, PrivateFileOrNothing) {
    TempDir dir;
    const unsigned char bytes[] = "hello";
    char* a = nullptr;
    ASSERT_EQ(MAV_OK, MavPXBytesToTempFile(bytes, 5, dir.path.c_str(), nullptr, &a));
    struct stat st;
    ASSERT_EQ(0, stat(a, &st));
    EXPECT_EQ(0600u, st.st_mode & 0777u);
    EXPECT_EQ(5, st.st_size);
    MavIFree(a);
    unsigned char back[16] = {};
    size_t len = sizeof back;
    EXPECT_EQ(MAV_E_SCAN_FAILED, MavPXBytesFromTempFile("/nonexistent/x", back, &len));
    char* c = nullptr;
    EXPECT_EQ(MAV_E_SCAN_FAILED,
              MavPXBytesToTempFile(bytes, 5, dir.file("missing").c_str(), nullptr, &c));
    ASSERT_NE(nullptr, c);
    EXPECT_STREQ("", c);
    MavIFree(c);
    EXPECT_EQ(1u, dir.entries().size());
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

// Every verdict and every failure of a scan is traced once, as one "***" line.
TEST_F(Scan, EveryVerdictAndFailureIsTracedOnce) {
    Start();
    TraceCapture trace(MAV_TRC_VIRUS | MAV_TRC_PEL | MAV_TRC_WARNING);
    for (MAV_RC rc : {MAV_E_VIRUS_FOUND, MAV_E_CLEAN_OK, MAV_E_MACRO_FOUND, MAV_E_PATTERN_FOUND,
                      MAV_E_CLEAN_FAILED, MAV_E_NOT_INITIALISED, MAV_E_EXPIRED, MAV_E_LOAD_FAILED,
                      MAV_E_NOT_SUPPORTED, MAV_E_INVALID_SCANOBJECT, MAV_E_NOT_SCANNED,
                      MAV_E_SCAN_FAILED}) {
        pel.script_rc(rc);
        int before = trace.CountContaining("*** ");
        EXPECT_EQ(rc, MavScanFile(inst, "/dev/null", 1, nullptr));
        EXPECT_EQ(before + 1, trace.CountContaining("*** ")) << rc;
    }
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

// The memory path allocates nothing (counting hooks that forward to the C
// library, so they mix with the defaults).
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

}  // namespace
