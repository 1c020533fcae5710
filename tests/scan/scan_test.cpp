// Scan pipeline: file and byte scans, the temporary-file fallback, clean
// calls, the summary record, result release, traces and concurrency.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "mav_fixture.h"
#include "mavxxi.h"

namespace {

std::string MakeTempDir() {
    char tmpl[] = "/tmp/kormo_scan_XXXXXX";
    const char* d = mkdtemp(tmpl);
    return d != nullptr ? d : "";
}

std::vector<std::string> DirEntries(const std::string& dir) {
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return out;
    while (dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) out.push_back(e->d_name);
    }
    closedir(d);
    return out;
}

MAV_SCANINFO Summary() {
    MAV_SCANINFO si;
    memset(&si, 0xee, sizeof si);
    si.struct_size = sizeof si;
    return si;
}

class Scan : public MavFixture {
  protected:
    void TearDown() override {
        MavFixture::TearDown();
        if (!dir_.empty()) {
            for (const std::string& e : DirEntries(dir_)) unlink((dir_ + "/" + e).c_str());
            rmdir(dir_.c_str());
        }
    }
    // Starts with an adapter that cannot scan memory and a temporary
    // directory of the test's own as INITTEMP_PATH.
    void StartFallback() {
        pel.set_flags(PEL_SCANFLAG_FILE, 0x19, VS_M_VIRUS | VS_M_CLEAN, 0);
        pel.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "");
        Start();
        dir_ = MakeTempDir();
        ASSERT_FALSE(dir_.empty());
        ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, dir_.c_str()));
    }
    std::string dir_;
};

TEST_F(Scan, FilePassesNameJobDefaultActionAndSummary) {
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
    EXPECT_EQ(32u, si.struct_size);
    EXPECT_EQ(7u, si.uiJobID);
    EXPECT_EQ(1u, si.uiScanned);
    EXPECT_EQ(0u, si.uiNotScanned);
    EXPECT_EQ(1u, si.uiClean);
    EXPECT_EQ(0u, si.uiInfections);
    EXPECT_EQ(0u, si.uiScanErrors);

    // The UTF-8 name wins when it is not empty.
    ASSERT_EQ(MAV_OK,
              MavScanClean(inst, VS_SC_FILE, 0, "/utf8", "/kormo", nullptr, nullptr, 1, nullptr));
    EXPECT_STREQ("/utf8", pel.lastScan().szObjectName);
    ASSERT_EQ(MAV_OK,
              MavScanClean(inst, VS_SC_FILE, 0x12, "", "/kormo", nullptr, nullptr, 1, nullptr));
    EXPECT_STREQ("/kormo", pel.lastScan().szObjectName);
    EXPECT_EQ(0x12u, pel.lastScan().uiActionCode);
}

TEST_F(Scan, BytesInMemoryGoStraightToTheAdapter) {
    Start();
    unsigned char buf[100];
    for (int i = 0; i < 100; ++i) buf[i] = static_cast<unsigned char>(i);
    ASSERT_EQ(MAV_OK, MavScanBytes(inst, "mem.bin", buf, sizeof buf, 3, nullptr));
    TPEL_LAST_SCAN last = pel.lastScan();
    EXPECT_EQ(VS_SC_BYTES, last.uiScanCode);
    EXPECT_TRUE(last.bHadBytes);
    EXPECT_EQ(sizeof buf, last.lLength);
    EXPECT_EQ(0, memcmp(buf, last.abBytes, sizeof buf));
    EXPECT_STREQ("mem.bin", last.szObjectName);
    EXPECT_FALSE(last.bHadScanInfoPtr);

    ASSERT_EQ(MAV_OK, MavScanBytes(inst, nullptr, buf, sizeof buf, 3, nullptr));
    EXPECT_FALSE(pel.lastScan().bHadObjectName);
    EXPECT_EQ(MAV_E_NULL_PARAM, MavScanBytes(inst, "x", nullptr, 5, 3, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM,
              MavScanClean(inst, VS_SC_BYTES, 0, nullptr, "x", buf, nullptr, 3, nullptr));
}

TEST_F(Scan, ObjectNamesAreConvertedFileNamesHandedOnAsTheyStand) {
    Start();
    ASSERT_EQ(1, MavSetProcessCodePage("0819"));
    unsigned char buf[4] = {1, 2, 3, 4};
    MAV_RC rc = MavScanBytes(inst, "\xe4.bin", buf, sizeof buf, 1, nullptr);
    std::string objectName = pel.lastScan().szObjectName;
    MAV_RC frc = MavScanFile(inst, "/tmp/\xe4", 1, nullptr);
    std::string fileName = pel.lastScan().szObjectName;
    MavSetProcessCodePage("1208");
    EXPECT_EQ(MAV_OK, rc);
    EXPECT_EQ("\xc3\xa4.bin", objectName);
    // A file name is the file system's bytes: copied, not converted.
    EXPECT_EQ(MAV_OK, frc);
    EXPECT_EQ("/tmp/\xe4", fileName);
    ASSERT_EQ(MAV_OK, MavScanBytes(inst, "\xc3\xa4.bin", buf, sizeof buf, 1, nullptr));
    EXPECT_STREQ("\xc3\xa4.bin", pel.lastScan().szObjectName);

    // An object name that does not convert, or converts to nothing, fails the
    // bytes scan before the adapter is called; a file name is not converted.
    uint32_t scans = pel.calls(TPEL_SCAN);
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavScanBytes(inst, "\xe4.bin", buf, sizeof buf, 1, nullptr));
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavScanBytes(inst, "", buf, sizeof buf, 1, nullptr));
    EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/tmp/\xe4", 1, nullptr));
    EXPECT_STREQ("/tmp/\xe4", pel.lastScan().szObjectName);
}

// Names of every length up to 40, in exactly sized heap blocks, with a
// non-ASCII or invalid byte at every position: valid ones reach the adapter
// unchanged, invalid ones fail the scan.
TEST_F(Scan, ObjectNamesOfEveryLengthAreCheckedExactly) {
    Start();
    unsigned char buf[4] = {};
    for (size_t len = 1; len <= 40; ++len) {
        std::vector<char> name(len + 1, 'n');
        name[len] = '\0';
        ASSERT_EQ(MAV_OK, MavScanBytes(inst, name.data(), buf, sizeof buf, 1, nullptr)) << len;
        EXPECT_EQ(std::string(name.data()), pel.lastScan().szObjectName);
        for (size_t pos = 0; pos < len; ++pos) {
            std::vector<char> bad(name);
            bad[pos] = '\xff';
            EXPECT_EQ(MAV_E_CONVERSION_FAILED,
                      MavScanBytes(inst, bad.data(), buf, sizeof buf, 1, nullptr))
                << len << " " << pos;
            if (pos + 1 < len) {
                std::vector<char> good(name);
                good[pos] = '\xc3';
                good[pos + 1] = '\xa4';
                ASSERT_EQ(MAV_OK, MavScanBytes(inst, good.data(), buf, sizeof buf, 1, nullptr))
                    << len << " " << pos;
                EXPECT_EQ(std::string(good.data()), pel.lastScan().szObjectName);
            }
        }
    }
}

// A name that ends right before an unmapped page is read without touching it.
TEST_F(Scan, ObjectNameAtAPageEndIsReadWithinItsPage) {
    Start();
    long page = sysconf(_SC_PAGESIZE);
    char* map = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, map);
    ASSERT_EQ(0, mprotect(map + page, page, PROT_NONE));
    unsigned char buf[4] = {};
    for (int len = 0; len < 12; ++len) {
        char* name = map + page - len - 1;
        memset(name, 'p', len);
        name[len] = '\0';
        MAV_RC expected = len == 0 ? MAV_E_CONVERSION_FAILED : MAV_OK;
        EXPECT_EQ(expected, MavScanBytes(inst, name, buf, sizeof buf, 1, nullptr)) << len;
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
    std::string name = last.szObjectName;
    EXPECT_EQ(name.size(), last.lLength);
    std::string prefix = dir_ + "/";
    ASSERT_EQ(prefix.size() + 6 + strlen("mavlib.bin"), name.size()) << name;
    EXPECT_EQ(prefix, name.substr(0, prefix.size()));
    EXPECT_EQ("mavlib.bin", name.substr(prefix.size() + 6));
    EXPECT_TRUE(DirEntries(dir_).empty());
    EXPECT_TRUE(trace.HasFrom(
        "MavScanClean",
        "This PEL does not support scanning bytes - copy bytes to file and scan this\n"));
    EXPECT_EQ(9u, si.uiJobID);
}

TEST_F(Scan, FallbackNameReplacesSlashesAndLeavesTheCallersTextAlone) {
    StartFallback();
    unsigned char buf[8] = {};
    ASSERT_EQ(MAV_OK, MavScanBytes(inst, "a/b\\c", buf, sizeof buf, 1, nullptr));
    std::string name = pel.lastScan().szObjectName;
    EXPECT_EQ("a~b~c", name.substr(name.size() - 5));
    EXPECT_EQ(std::string::npos, name.find('\\'));

    char utf8[] = "x/y.doc";
    size_t len = sizeof buf;
    ASSERT_EQ(MAV_OK, MavScanClean(inst, VS_SC_BYTES, 0, utf8, "ignored", buf, &len, 1, nullptr));
    name = pel.lastScan().szObjectName;
    EXPECT_EQ("x~y.doc", name.substr(name.size() - 7));
    EXPECT_STREQ("x/y.doc", utf8);
    EXPECT_TRUE(DirEntries(dir_).empty());
}

TEST_F(Scan, FallbackCleanZeroesTheCallersBytesBeyondTheRecordedLength) {
    StartFallback();
    unsigned char buf[200];
    memset(buf, 'B', sizeof buf);
    size_t len = sizeof buf;
    pel.script_rc(MAV_E_CLEAN_OK);
    ASSERT_EQ(MAV_E_CLEAN_OK, MavCleanBytes(inst, "obj", buf, &len, 1, nullptr));
    // The request's length is the temporary path's: what lies beyond it in the
    // caller's buffer is cleared, the rest kept.
    size_t pathLen = pel.lastScan().lLength;
    ASSERT_LT(pathLen, sizeof buf);
    for (size_t i = 0; i < pathLen; ++i) ASSERT_EQ('B', buf[i]) << i;
    for (size_t i = pathLen; i < sizeof buf; ++i) ASSERT_EQ(0, buf[i]) << i;
    EXPECT_EQ(sizeof buf, len);
}

TEST(TempFile, CreatedExclusivelyWithMode0600UnderTheObjectName) {
    std::string dir = MakeTempDir();
    ASSERT_FALSE(dir.empty());
    const unsigned char bytes[] = "hello";
    char* a = nullptr;
    char* b = nullptr;
    char name[] = "n/m";
    ASSERT_EQ(MAV_OK, MavPXBytesToTempFile(bytes, 5, dir.c_str(), name, &a));
    ASSERT_EQ(MAV_OK, MavPXBytesToTempFile(bytes, 5, dir.c_str(), nullptr, &b));
    EXPECT_STREQ("n~m", name);
    struct stat st;
    ASSERT_EQ(0, stat(a, &st));
    EXPECT_EQ(0600u, st.st_mode & 0777u);
    EXPECT_EQ(5, st.st_size);
    EXPECT_EQ("n~m", std::string(a).substr(strlen(a) - 3));
    EXPECT_EQ("mav.com", std::string(b).substr(strlen(b) - 7));
    EXPECT_NE(std::string(a), std::string(b));

    unsigned char back[16] = {};
    size_t len = sizeof back;
    EXPECT_EQ(MAV_OK, MavPXBytesFromTempFile(a, back, &len));
    EXPECT_EQ(5u, len);
    EXPECT_EQ(0, memcmp("hello", back, 5));
    unlink(a);
    unlink(b);
    MavIFree(a);
    MavIFree(b);
    EXPECT_EQ(MAV_E_SCAN_FAILED,
              MavPXBytesFromTempFile(a == nullptr ? "" : "/nonexistent/x", back, &len));

    // A directory that does not exist: nothing created, an empty path left.
    TraceCapture trace(MAV_TRC_ERROR);
    char* c = nullptr;
    std::string missing = dir + "/missing";
    EXPECT_EQ(MAV_E_SCAN_FAILED, MavPXBytesToTempFile(bytes, 5, missing.c_str(), nullptr, &c));
    ASSERT_NE(nullptr, c);
    EXPECT_STREQ("", c);
    MavIFree(c);
    EXPECT_TRUE(trace.Has("fdopenU return -1, mkstemp failed\n"));
    EXPECT_TRUE(DirEntries(dir).empty());
    rmdir(dir.c_str());
}

// The default directory is worked out once per process: each case runs in a
// child process of its own.
[[noreturn]] void ChildCheckTmpPath(const char* const values[4], const char* expected) {
    const char* names[] = {"PEL_TMP", "TMP", "TEMP", "TMPDIR"};
    for (int i = 0; i < 4; ++i) {
        if (values[i] != nullptr)
            setenv(names[i], values[i], 1);
        else
            unsetenv(names[i]);
    }
    bool ok = strcmp(MavPXGetDefaultTmpPath(), expected) == 0;
    // Worked out once: a later change of the environment is not seen.
    setenv("PEL_TMP", "/changed", 1);
    ok = ok && strcmp(MavPXGetDefaultTmpPath(), expected) == 0;
    _exit(ok ? 0 : 1);
}

void ExpectDefaultTmpPath(const char* pelTmp, const char* tmp, const char* temp, const char* tmpdir,
                          const char* expected) {
    const char* const values[4] = {pelTmp, tmp, temp, tmpdir};
    EXPECT_EXIT(ChildCheckTmpPath(values, expected), ::testing::ExitedWithCode(0), "") << expected;
}

TEST(TempFileDeathTest, DefaultDirectoryFollowsTheEnvironmentOrder) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ExpectDefaultTmpPath("/p", "/t", "/te", "/td", "/p");
    ExpectDefaultTmpPath(nullptr, "/t", "/te", "/td", "/t");
    ExpectDefaultTmpPath(nullptr, nullptr, "/te", "/td", "/te");
    ExpectDefaultTmpPath(nullptr, nullptr, nullptr, "/td", "/td");
    ExpectDefaultTmpPath(nullptr, nullptr, nullptr, nullptr, "/tmp");
    // An empty value counts as unset.
    ExpectDefaultTmpPath("", "/t", "/te", "/td", "/t");
    ExpectDefaultTmpPath("", "", "", "", "/tmp");
}

TEST_F(Scan, ThousandFallbackScansWithFailuresLeaveNoFileBehind) {
    StartFallback();
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &old);
    struct rlimit saved;
    getrlimit(RLIMIT_FSIZE, &saved);

    std::vector<unsigned char> buf(4096, 'z');
    int ok = 0, adapterFailed = 0, writeFailed = 0;
    for (int i = 0; i < 1000; ++i) {
        bool adapterFails = i % 7 == 3;
        bool writeFails = i % 11 == 5;
        pel.fail(TPEL_SCAN, adapterFails ? MAV_E_SCAN_FAILED : 0, nullptr);
        if (writeFails) {
            struct rlimit small = saved;
            small.rlim_cur = 1024;
            setrlimit(RLIMIT_FSIZE, &small);
        }
        uint32_t scansBefore = pel.calls(TPEL_SCAN);
        const char* name = i % 3 == 0 ? "dir/obj.bin" : i % 3 == 1 ? nullptr : "a\\b";
        MAV_SCANINFO si = Summary();
        MAV_RC rc = MavScanBytes(inst, name, buf.data(), buf.size(), i, &si);
        if (writeFails) setrlimit(RLIMIT_FSIZE, &saved);
        if (writeFails) {
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
        ASSERT_TRUE(DirEntries(dir_).empty()) << "scan " << i << " left a file";
    }
    sigaction(SIGXFSZ, &old, nullptr);
    pel.fail(TPEL_SCAN, 0, nullptr);
    EXPECT_EQ(1000, ok + adapterFailed + writeFailed);
    EXPECT_GT(adapterFailed, 100);
    EXPECT_GT(writeFailed, 50);
}

TEST_F(Scan, SummaryMustBe32BytesAndIsCheckedBeforeAnyAdapterCall) {
    StartFallback();
    unsigned char buf[16] = {};
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_OK, MavScanBytes(inst, "x", buf, sizeof buf, 1, &si));
    ASSERT_NE(nullptr, static_cast<MAV_INST_REC*>(inst)->pScanInfo);
    uint32_t scans = pel.calls(TPEL_SCAN);
    uint32_t releases = pel.calls(TPEL_RELEASESCAN);
    for (size_t size : {size_t{31}, size_t{33}, size_t{0}}) {
        si.struct_size = size;
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanBytes(inst, "x", buf, sizeof buf, 2, &si));
        EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanFile(inst, "/dev/null", 2, &si));
    }
    EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
    EXPECT_EQ(releases, pel.calls(TPEL_RELEASESCAN));
    EXPECT_TRUE(DirEntries(dir_).empty());
    // The summary is left as it was.
    EXPECT_EQ(1u, si.uiJobID);

    // The scan code and the names are checked first.
    si.struct_size = 31;
    EXPECT_EQ(MAV_E_SCANPAR_UNSUPPORTED,
              MavScanClean(inst, 3, 0, "x", nullptr, nullptr, nullptr, 1, &si));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavScanFile(inst, nullptr, 1, &si));
    EXPECT_EQ(MAV_E_CONVERSION_FAILED, MavScanBytes(inst, "\xff", buf, sizeof buf, 1, &si));
    EXPECT_EQ(scans, pel.calls(TPEL_SCAN));
    EXPECT_EQ(releases, pel.calls(TPEL_RELEASESCAN));
}

TEST_F(Scan, WithoutSummaryNoResultRecordIsKept) {
    Start();
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 1, nullptr));
    EXPECT_FALSE(pel.lastScan().bHadScanInfoPtr);
    EXPECT_EQ(nullptr, static_cast<MAV_INST_REC*>(inst)->pScanInfo);
    uint32_t type = 0;
    EXPECT_EQ(MAV_E_NO_SCANINFO, MavEnumContentInfo(inst, 0, &type, nullptr, nullptr, nullptr,
                                                    nullptr, nullptr, nullptr, nullptr));
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

    // A released instance is refused.
    MAV_INST stale = inst;
    ASSERT_EQ(MAV_OK, MavFreeInstance(&inst));
    inst = nullptr;
    EXPECT_EQ(MAV_E_INVALID_HANDLE, MavScanFile(stale, "/dev/null", 1, nullptr));
}

TEST_F(Scan, FirstEntryOfEachListLosesItsAngleBrackets) {
    Start();
    pel.script_clear();
    pel.script_infection("<v0>", "<o0>", 1, 0, 10, "<f0>");
    pel.script_infection("<v1>", "<o1>", 2, 0, 10, "<f1>");
    pel.script_scan_error("<e0>", 4, "<t0>", 5);
    pel.script_scan_error("<e1>", 4, "<t1>", 5);
    pel.script_content("<c0>", "<x0>", "<m0>", "<s0>", 1, 3);
    pel.script_content("<c1>", "<x1>", "<m1>", "<s1>", 1, 3);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(inst, "/dev/null", 1, &si));
    EXPECT_EQ(2u, si.uiInfections);
    EXPECT_EQ(2u, si.uiScanErrors);
    EXPECT_EQ(2u, si.uiScanned);
    const PEL_SCANINFO* r = static_cast<MAV_INST_REC*>(inst)->pScanInfo;
    ASSERT_NE(nullptr, r);
    EXPECT_STREQ("_v0_", r->pVirusInfo[0].pszVirusName);
    EXPECT_STREQ("_o0_", r->pVirusInfo[0].pszObjectName);
    EXPECT_STREQ("_f0_", r->pVirusInfo[0].pszFreeTextInfo);
    EXPECT_STREQ("<v1>", r->pVirusInfo[1].pszVirusName);
    EXPECT_STREQ("_e0_", r->pScanError[0].pszObjectName);
    EXPECT_STREQ("_t0_", r->pScanError[0].pszErrorText);
    EXPECT_STREQ("<t1>", r->pScanError[1].pszErrorText);
    EXPECT_STREQ("_c0_", r->pContentInfo[0].pszObjectName);
    EXPECT_STREQ("_x0_", r->pContentInfo[0].pszExtension);
    EXPECT_STREQ("_m0_", r->pContentInfo[0].pszContentType);
    EXPECT_STREQ("_s0_", r->pContentInfo[0].pszCharSet);
    EXPECT_STREQ("<c1>", r->pContentInfo[1].pszObjectName);
}

TEST_F(Scan, VerdictsAndFailuresAreTracedByLevel) {
    Start();
    {
        TraceCapture trace(MAV_TRC_VIRUS);
        pel.script_rc(MAV_E_VIRUS_FOUND);
        MavScanFile(inst, "/dev/null", 1, nullptr);
        pel.script_rc(MAV_E_CLEAN_FAILED);
        MavScanFile(inst, "/dev/null", 1, nullptr);
        pel.script_rc(MAV_E_CLEAN_OK);
        MavScanFile(inst, "/dev/null", 1, nullptr);
        EXPECT_TRUE(trace.Has("*** VIRUS alert! The object contains an infection.\n"));
        EXPECT_TRUE(
            trace.Has("*** VIRUS alert! The object ***could not be cleaned*** and is "
                      "still infected.\n"));
        EXPECT_TRUE(
            trace.Has("*** Detected infection was cleaned, but however a VIRUS might "
                      "still exist.\n"));
    }
    {
        TraceCapture trace(MAV_TRC_PEL | MAV_TRC_WARNING);
        pel.script_rc(MAV_E_NOT_SCANNED);
        MavScanFile(inst, "/dev/null", 1, nullptr);
        pel.script_rc(MAV_E_NOT_SUPPORTED);
        MavScanClean(inst, VS_SC_FILE, 17, "/dev/null", nullptr, nullptr, nullptr, 1, nullptr);
        MavScanClean(inst, VS_SC_FILE, 16, "/dev/null", nullptr, nullptr, nullptr, 1, nullptr);
        EXPECT_TRUE(trace.Has("*** WARNING => The object was not scanned.\n"));
        EXPECT_TRUE(
            trace.Has("*** Content scan feature is not supported. This PEL supports "
                      "only virus scanning!\n"));
        EXPECT_TRUE(trace.Has("*** Not supported feature supplied.\n"));
        EXPECT_TRUE(trace.Has("No PEL_SCANINFO passed\n"));
        EXPECT_EQ(3, trace.CountContaining(">> PelScan("));
    }
    {
        // Adapter failures need the warning bit too.
        TraceCapture trace(MAV_TRC_PEL);
        pel.script_rc(MAV_E_NOT_SCANNED);
        MavScanFile(inst, "/dev/null", 1, nullptr);
        EXPECT_FALSE(trace.Has("*** WARNING => The object was not scanned.\n"));
    }
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
void CountFree(void* p) {
    free(p);
}

TEST_F(Scan, MemoryScanAllocatesNothing) {
    Start();
    ASSERT_EQ(MAV_OK, MavRegisterMmCallbacks(CountAlloc, CountRealloc, CountFree));
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

// Scan on two instances at once: no lock is held while the adapter scans,
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
        for (int k = 0; k < 5; ++k) {
            if (MavScanBytes(i, "t", buf, sizeof buf, k, &si) != MAV_OK) ++failures;
        }
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
