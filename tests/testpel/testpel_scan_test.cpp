// The test adapter's PelScan: request record, scripted result, events, release.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kormomav.h"
#include "pel_entry.h"

namespace {

struct Seen {
    uint32_t message;
    void* context;
    std::string text;  // virus name / object name / text of the data
    uint64_t number;
    size_t recordSize;  // struct_size of a record, else 0
    uint32_t jobId;
};

struct Sink {
    std::vector<Seen> seen;
    std::vector<int32_t> answers;  // returned in order, then 0
    const TestPel* tp = nullptr;
    uint32_t scanCallsSeen = 0;
};

VS_CALLRC record(void* adapterData, uint32_t message, void* data, void* context) {
    auto* sink = static_cast<Sink*>(context);
    Seen s{message, context, "", 0, 0, 0};
    EXPECT_EQ(adapterData, nullptr);
    if (data && (message == VS_M_VIRUS || message == VS_M_REPAIRED)) {
        auto* v = static_cast<PEL_VIRUSINFO*>(data);
        s.recordSize = v->struct_size;
        s.text = v->pszVirusName ? v->pszVirusName : "";
        s.jobId = v->uiJobID;
    } else if (data && (message == VS_M_NOTSCANNED || message == VS_M_NOTREPAIRED)) {
        auto* e = static_cast<PEL_SCANERROR*>(data);
        s.recordSize = e->struct_size;
        s.text = e->pszErrorText ? e->pszErrorText : "";
        s.jobId = e->uiJobID;
    } else if (data && (message == VS_M_OBJECTFOUND || message == VS_M_ERROR)) {
        s.text = static_cast<char*>(data);
    } else {
        s.number = reinterpret_cast<uintptr_t>(data);
    }
    // The adapter holds no lock while calling back: its control calls work here.
    if (sink->tp) sink->scanCallsSeen = sink->tp->calls(TPEL_SCAN);
    sink->seen.push_back(s);
    size_t i = sink->seen.size() - 1;
    return i < sink->answers.size() ? sink->answers[i] : 0;
}

class TestPelScan : public TestPelTest {
  protected:
    void SetUp() override {
        TestPelTest::SetUp();
        init_ = newInit();
        std::memset(&param_, 0, sizeof param_);
        param_.struct_size = sizeof param_;
        std::memset(&cb_, 0, sizeof cb_);
        cb_.struct_size = sizeof cb_;
        opt_ = PEL_PARAMS{0, {0, 0, 0}, nullptr};
    }
    void TearDown() override {
        if (info_) {
            EXPECT_EQ(pel_.releaseScan(&info_), 0);
        }
        endInit(init_);
        TestPelTest::TearDown();
    }
    int scanBytes(unsigned char* bytes, size_t len, uint32_t action = VS_A_SCAN,
                  PEL_SCANINFO** out = nullptr) {
        param_.tScanCode = VS_SC_BYTES;
        param_.tActionCode = action;
        param_.pszObjectName = "mem.obj";
        param_.pbByte = bytes;
        param_.lLength = len;
        param_.uiJobID = 77;
        if (info_) {
            EXPECT_EQ(pel_.releaseScan(&info_), 0);
        }
        return pel_.scan(init_, &cb_, &param_, &opt_, out ? out : &info_);
    }
    void listen(Sink& sink, uint32_t mask) {
        cb_.pfnCallback = record;
        cb_.uiMessageMask = mask;
        cb_.pvContext = &sink;
    }

    PEL_INIT* init_ = nullptr;
    PEL_SCANPARAM param_;
    PEL_CALLBACK cb_;
    PEL_PARAMS opt_;
    PEL_SCANINFO* info_ = nullptr;
};

TEST_F(TestPelScan, RecordsABytesRequest) {
    std::vector<unsigned char> buf(300);
    for (size_t i = 0; i < buf.size(); ++i) buf[i] = static_cast<unsigned char>(i * 7);
    PEL_PARAM limit = {32, VS_P_SCANLIMIT, VS_TYPE_LONG, 8, reinterpret_cast<void*>(4096)};
    opt_ = PEL_PARAMS{1, {0, 0, 0}, &limit};
    cb_.uiMessageMask = 0x5;
    EXPECT_EQ(tp_.last_scan(nullptr), 0);
    ASSERT_EQ(scanBytes(buf.data(), buf.size(), 0x12), 0);

    TPEL_LAST_SCAN r = tp_.lastScan();
    EXPECT_EQ(r.uiScanCode, VS_SC_BYTES);
    EXPECT_EQ(r.uiActionCode, 0x12u);
    EXPECT_EQ(r.uiJobID, 77u);
    EXPECT_TRUE(r.bHadObjectName);
    EXPECT_STREQ(r.szObjectName, "mem.obj");
    EXPECT_TRUE(r.bHadBytes);
    EXPECT_EQ(r.lLength, 300u);
    EXPECT_EQ(0, std::memcmp(r.abBytes, buf.data(), 256));
    EXPECT_FALSE(r.bFileExisted);
    EXPECT_TRUE(r.bHadScanInfoPtr);
    EXPECT_TRUE(r.bHadCallback);
    EXPECT_EQ(r.sCallback.uiMessageMask, 0x5u);
    EXPECT_EQ(r.pInit, init_);
    EXPECT_EQ(r.pOptParams, &opt_);
    EXPECT_EQ(r.scanParamSize, 48u);
    EXPECT_EQ(r.uiThreadId, static_cast<uint32_t>(syscall(SYS_gettid)));
    int64_t n = 0;
    ASSERT_EQ(tp_.last_param(1, VS_P_SCANLIMIT, nullptr, nullptr, &n, nullptr, 0), 1);
    EXPECT_EQ(n, 4096);

    // No callback record, no result pointer.
    ASSERT_EQ(pel_.scan(init_, nullptr, &param_, nullptr, nullptr), 0);
    r = tp_.lastScan();
    EXPECT_FALSE(r.bHadCallback);
    EXPECT_FALSE(r.bHadScanInfoPtr);
    EXPECT_EQ(tp_.last_param_count(1), 0);
}

TEST_F(TestPelScan, RecordsAFileRequest) {
    char path[] = "/tmp/testpel_scan_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    std::string content(1000, 'a');
    content.replace(0, 5, "HELLO");
    ASSERT_EQ(write(fd, content.data(), content.size()), 1000);
    close(fd);
    param_.tScanCode = VS_SC_FILE;
    param_.pszObjectName = path;
    param_.lLength = std::strlen(path);
    ASSERT_EQ(pel_.scan(init_, &cb_, &param_, &opt_, &info_), 0);
    TPEL_LAST_SCAN r = tp_.lastScan();
    EXPECT_TRUE(r.bFileExisted);
    EXPECT_EQ(r.lFileSize, 1000u);
    EXPECT_FALSE(r.bHadBytes);
    EXPECT_EQ(0, std::memcmp(r.abBytes, "HELLOaaa", 8));
    // The default content entry describes the scanned file.
    ASSERT_NE(info_, nullptr);
    ASSERT_EQ(info_->uiScanned, 1u);
    EXPECT_EQ(info_->uiClean, 1u);
    EXPECT_STREQ(info_->pContentInfo[0].pszObjectName, path);
    EXPECT_EQ(info_->pContentInfo[0].lObjectSize, 1000u);
    EXPECT_STREQ(info_->pContentInfo[0].pszContentType, "application/octet-stream");
    unlink(path);

    ASSERT_EQ(pel_.releaseScan(&info_), 0);
    ASSERT_EQ(pel_.scan(init_, &cb_, &param_, &opt_, &info_), 0);
    EXPECT_FALSE(tp_.lastScan().bFileExisted);
}

TEST_F(TestPelScan, BuildsTheScriptedResult) {
    tp_.script_clear();
    tp_.script_rc(MAV_E_VIRUS_FOUND);
    tp_.script_infection("Test<Virus>", "a.exe", 42, 1, TPEL_SIZE_OF_OBJECT, "free");
    tp_.script_infection("Second", nullptr, 43, 0, 9, nullptr);
    tp_.script_scan_error("b.zip", 14, "encrypted", 100);
    tp_.script_content("c.txt", "txt", "text/plain", "utf-8", 3, 12);
    unsigned char bytes[10] = {};
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), MAV_E_VIRUS_FOUND);
    ASSERT_NE(info_, nullptr);
    EXPECT_EQ(tp_.live_scaninfos(), baseScans_ + 1);
    EXPECT_EQ(info_->struct_size, 80u);
    EXPECT_EQ(info_->uiJobID, 77u);
    EXPECT_EQ(info_->uiScanned, 1u);
    EXPECT_EQ(info_->uiNotScanned, 0u);
    EXPECT_EQ(info_->uiClean, 0u);
    EXPECT_EQ(info_->uiInfections, 2u);
    EXPECT_EQ(info_->uiScanErrors, 1u);
    EXPECT_EQ(info_->pbBytesCleaned, nullptr);
    const PEL_VIRUSINFO& v = info_->pVirusInfo[0];
    EXPECT_EQ(v.struct_size, 72u);
    EXPECT_EQ(v.bRepairable, 1);
    EXPECT_EQ(v.uiVirusID, 42u);
    EXPECT_EQ(v.uiJobID, 77u);
    EXPECT_EQ(v.lObjectSize, 10u);  // the scanned object's size
    EXPECT_STREQ(v.pszFreeTextInfo, "free");
    EXPECT_EQ(info_->pVirusInfo[1].pszObjectName, nullptr);
    EXPECT_EQ(info_->pVirusInfo[1].lObjectSize, 9u);
    EXPECT_EQ(info_->pScanError[0].struct_size, 48u);
    EXPECT_EQ(info_->pScanError[0].iErrorRC, 14);
    EXPECT_STREQ(info_->pScanError[0].pszErrorText, "encrypted");
    EXPECT_EQ(info_->pContentInfo[0].struct_size, 80u);
    EXPECT_STREQ(info_->pContentInfo[0].pszCharSet, "utf-8");
    EXPECT_EQ(info_->pContentInfo[0].tObjectType, 3u);

    // Strings are the result's own: editing them in place changes no later scan.
    v.pszVirusName[4] = '_';
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), MAV_E_VIRUS_FOUND);
    EXPECT_STREQ(info_->pVirusInfo[0].pszVirusName, "Test<Virus>");
    EXPECT_EQ(tp_.live_scaninfos(), baseScans_ + 1);
}

TEST_F(TestPelScan, HostileShapesOfTheResult) {
    tp_.script_infection("V", "o", 1, 0, 1, "t");
    tp_.script_counts(5, 4, 3, 9, 8);  // counts beyond the arrays
    unsigned char bytes[4] = {};
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), 0);
    EXPECT_EQ(info_->uiScanned, 5u);
    EXPECT_EQ(info_->uiNotScanned, 4u);
    EXPECT_EQ(info_->uiInfections, 9u);
    EXPECT_EQ(info_->uiScanErrors, 8u);
    EXPECT_EQ(info_->pScanError, nullptr);  // no scripted errors

    tp_.script_null_arrays(1);
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), 0);
    EXPECT_EQ(info_->uiInfections, 9u);
    EXPECT_EQ(info_->pVirusInfo, nullptr);
    EXPECT_EQ(info_->pContentInfo, nullptr);

    tp_.script_no_scaninfo(1);
    tp_.script_rc(-4);
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), -4);
    EXPECT_EQ(info_, nullptr);
    EXPECT_EQ(tp_.live_scaninfos(), baseScans_);
    tp_.script_clear();
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), 0);
    ASSERT_NE(info_, nullptr);
    EXPECT_EQ(info_->uiScanned, 0u);
    EXPECT_EQ(info_->pContentInfo, nullptr);

    tp_.fail(TPEL_SCAN, 13, nullptr);
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), 13);
    EXPECT_EQ(info_, nullptr);
    EXPECT_EQ(tp_.calls(TPEL_SCAN), 5u);
    EXPECT_EQ(tp_.lastScan().uiJobID, 77u);  // the request is still recorded
}

TEST_F(TestPelScan, CleanedBytesOverwriteTheBufferOnlyWhenCleaning) {
    const unsigned char clean[6] = {'C', 'L', 'E', 'A', 'N', '!'};
    tp_.script_cleaned(clean, sizeof clean);
    unsigned char buf[4] = {'x', 'x', 'x', 'x'};
    ASSERT_EQ(scanBytes(buf, sizeof buf, VS_A_SCAN), 0);
    EXPECT_EQ(0, std::memcmp(buf, "xxxx", 4));
    ASSERT_EQ(info_->lBytesCleaned, 6u);
    EXPECT_EQ(0, std::memcmp(info_->pbBytesCleaned, clean, 6));

    unsigned char big[8] = {'y', 'y', 'y', 'y', 'y', 'y', 'y', 'y'};
    ASSERT_EQ(scanBytes(big, 5, VS_A_SCAN | VS_A_CLEAN), 0);
    EXPECT_EQ(0, std::memcmp(big, "CLEANyyy", 8));  // at most lLength bytes
}

TEST_F(TestPelScan, EventsReachTheCallbackInOrder) {
    tp_.script_clear();
    tp_.script_infection("Eicar", "f", 1, 0, 1, nullptr);
    tp_.script_scan_error("g", 14, "locked", 2);
    tp_.script_event(VS_M_OBJECTFOUND, 0, "inner/file", 0, 0);
    tp_.script_event(VS_M_VIRUS, 0, nullptr, 0, 0);
    tp_.script_event(VS_M_SCANPROGRESS, 0, nullptr, 55, 0);   // masked out
    tp_.script_event(VS_M_CONTAINMACROS, 0, nullptr, 66, 1);  // forced
    tp_.script_event(VS_M_NOTSCANNED, 0, nullptr, 0, 0);
    tp_.script_event(VS_M_REPAIRED, 5, nullptr, 0, 0);  // no such infection
    Sink sink;
    sink.tp = &tp_;
    listen(sink, VS_M_OBJECTFOUND | VS_M_VIRUS | VS_M_NOTSCANNED | VS_M_REPAIRED);
    unsigned char bytes[3] = {};
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), 0);

    ASSERT_EQ(sink.seen.size(), 5u);
    EXPECT_EQ(sink.seen[0].message, VS_M_OBJECTFOUND);
    EXPECT_EQ(sink.seen[0].text, "inner/file");
    EXPECT_EQ(sink.seen[0].context, &sink);
    EXPECT_EQ(sink.seen[1].message, VS_M_VIRUS);
    EXPECT_EQ(sink.seen[1].recordSize, 72u);
    EXPECT_EQ(sink.seen[1].text, "Eicar");
    EXPECT_EQ(sink.seen[1].jobId, 77u);
    EXPECT_EQ(sink.seen[2].message, VS_M_CONTAINMACROS);
    EXPECT_EQ(sink.seen[2].number, 66u);
    EXPECT_EQ(sink.seen[3].recordSize, 48u);
    EXPECT_EQ(sink.seen[3].text, "locked");
    EXPECT_EQ(sink.seen[4].message, VS_M_REPAIRED);
    EXPECT_EQ(sink.seen[4].recordSize, 0u);  // null data
    EXPECT_EQ(sink.scanCallsSeen, 1u);
    int32_t results[8];
    EXPECT_EQ(tp_.event_results(results, 8), 5);

    // Without a callback function nothing is sent, forced or not.
    cb_.pfnCallback = nullptr;
    sink.seen.clear();
    ASSERT_EQ(scanBytes(bytes, sizeof bytes), 0);
    EXPECT_TRUE(sink.seen.empty());
    EXPECT_EQ(tp_.event_results(nullptr, 0), 0);
}

TEST_F(TestPelScan, NonZeroCallbackResultStopsTheScan) {
    tp_.script_rc(MAV_E_VIRUS_FOUND);
    tp_.script_cleaned("ZZ", 2);
    for (uint64_t i = 1; i <= 4; ++i) tp_.script_event(VS_M_SCANPROGRESS, 0, nullptr, i, 0);
    Sink sink;
    sink.answers = {0, 9};
    listen(sink, VS_M_ALL);
    unsigned char buf[2] = {'a', 'b'};
    ASSERT_EQ(scanBytes(buf, sizeof buf, VS_A_CLEAN), MAV_E_CBC_TERMINATED);
    EXPECT_EQ(sink.seen.size(), 2u);
    EXPECT_EQ(info_, nullptr);
    EXPECT_EQ(0, std::memcmp(buf, "ab", 2));
    int32_t results[4] = {-1, -1, -1, -1};
    ASSERT_EQ(tp_.event_results(results, 4), 2);
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], 9);
}

TEST_F(TestPelScan, ReleaseFreesAndRefusesStrangers) {
    unsigned char bytes[1] = {};
    PEL_SCANINFO* a = nullptr;
    PEL_SCANINFO* b = nullptr;
    ASSERT_EQ(scanBytes(bytes, 1, VS_A_SCAN, &a), 0);
    ASSERT_EQ(scanBytes(bytes, 1, VS_A_SCAN, &b), 0);
    EXPECT_EQ(tp_.live_scaninfos(), baseScans_ + 2);
    PEL_SCANINFO* stale = a;
    ASSERT_EQ(pel_.releaseScan(&a), 0);
    EXPECT_EQ(a, nullptr);
    EXPECT_EQ(pel_.releaseScan(&a), 0);  // null result: nothing to do
    EXPECT_EQ(pel_.releaseScan(&stale), MAV_E_INVALID_PARAM);
    EXPECT_EQ(tp_.bad_releases(), 1u);

    tp_.fail(TPEL_RELEASESCAN, 12, nullptr);
    EXPECT_EQ(pel_.releaseScan(&b), 12);
    EXPECT_NE(b, nullptr);
    tp_.fail(TPEL_RELEASESCAN, 0, nullptr);
    ASSERT_EQ(pel_.releaseScan(&b), 0);
    EXPECT_EQ(tp_.live_scaninfos(), baseScans_);
    EXPECT_EQ(tp_.calls(TPEL_RELEASESCAN), 5u);
}

TEST_F(TestPelScan, ScansRunConcurrently) {
    tp_.script_delay_ms(100);
    std::atomic<int> failures{0};
    auto worker = [&] {
        PEL_SCANPARAM p = param_;
        p.tScanCode = VS_SC_BYTES;
        unsigned char byte = 0;
        p.pbByte = &byte;
        p.lLength = 1;
        PEL_SCANINFO* info = nullptr;
        if (pel_.scan(init_, nullptr, &p, nullptr, &info) != 0) ++failures;
        if (pel_.releaseScan(&info) != 0) ++failures;
    };
    std::thread t1(worker), t2(worker);
    t1.join();
    t2.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(tp_.max_concurrent_scans(), 2u);
}

}  // namespace
