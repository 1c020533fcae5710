// The ClamAV adapter against hostile objects: nothing it did not look at in
// full comes back clean (embedded objects left closed, encrypted or cut
// archives, objects whose size lies, a temporary directory the engine cannot
// use, objects larger than the engine scans).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "engines_env.h"

using namespace engines;

namespace {

std::string Le32(size_t n) {
    std::string s(4, '\0');
    for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((n >> (8 * i)) & 0xff);
    return s;
}

// An RTF document with one embedded OLE package object holding content.
Bytes RtfWithObject(const std::string& content) {
    const std::string path = std::string("C:\\e.com") + '\0';
    std::string pkg = std::string("\x02\x00", 2) + std::string("e.com") + '\0' + path +
                      std::string("\0\0\3\0\15\0\0\0", 8) + path + Le32(content.size()) + content;
    std::string ole = std::string("\x01\x05\x00\x00\x02\x00\x00\x00", 8) + Le32(8) +
                      std::string("Package\0", 8) + std::string(8, '\0') + Le32(pkg.size()) + pkg;
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : ole) {
        hex += kHex[c >> 4];
        hex += kHex[c & 15];
    }
    return ToBytes("{\\rtf1\\ansi{\\object\\objemb{\\*\\objdata " + hex + "}}}\n");
}

size_t Find(const Bytes& b, const char* sig, size_t from = 0) {
    for (size_t i = from; i + 4 <= b.size(); ++i)
        if (std::equal(sig, sig + 4, b.begin() + static_cast<long>(i))) return i;
    return b.size();
}

// The archive with its central directory cut off.
Bytes CutDirectory(Bytes zip) {
    zip.resize(Find(zip, "PK\1\2"));
    return zip;
}

// The archive with every member marked encrypted (the contents left as they are).
Bytes MarkEncrypted(Bytes zip) {
    for (size_t i = Find(zip, "PK\3\4"); i < zip.size(); i = Find(zip, "PK\3\4", i + 4))
        zip[i + 6] |= 1;
    for (size_t i = Find(zip, "PK\1\2"); i < zip.size(); i = Find(zip, "PK\1\2", i + 4))
        zip[i + 8] |= 1;
    return zip;
}

class ClamavHostile : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        adapter_ = new Adapter(KORMO_CLAMAV_ADAPTER);
        ASSERT_TRUE(adapter_->Loaded()) << adapter_->Error();
        ASSERT_EQ(0, adapter_->GetConfig(&config_));
        engine_ = NewEngine("");
    }
    static void TearDownTestSuite() {
        adapter_->End(&engine_, &config_);
        delete adapter_;
    }
    static PEL_INIT* NewEngine(const std::string& tmp) {
        ParamList init(config_->pInitParams);
        init.SetText(VS_P_INITDRIVERDIRECTORY, TestDb());
        init.SetText(VS_P_INITTEMP_PATH, tmp);
        PEL_INIT* e = nullptr;
        EXPECT_EQ(0, adapter_->Init(nullptr, init.Get(), &e));
        return e;
    }
    std::unique_ptr<ParamList> Options(bool allEmbedded = true, uint64_t level = 1) {
        auto p = std::make_unique<ParamList>(config_->pOptParams);
        p->SetNumber(VS_P_SCANALLEMBEDDED, allEmbedded ? 1 : 0);
        p->SetNumber(VS_P_SCANHEURISTICLEVEL, level);
        return p;
    }

    static Adapter* adapter_;
    static PEL_CONFIG* config_;
    static PEL_INIT* engine_;
};
Adapter* ClamavHostile::adapter_ = nullptr;
PEL_CONFIG* ClamavHostile::config_ = nullptr;
PEL_INIT* ClamavHostile::engine_ = nullptr;

TEST_F(ClamavHostile, ObjectsNotLookedIntoAreNeverClean) {
    const Bytes eicar = ToBytes(Eicar());
    const Bytes zip = StoredZip({{"eicar.com", eicar}});
    Bytes binary = ToBytes(std::string("\x7f\x01\x02\x03 some binary header\x00\xff", 24));
    binary.insert(binary.end(), zip.begin(), zip.end());
    Bytes big(2000000, 'A');
    big.insert(big.end(), eicar.begin(), eicar.end());
    const struct {
        const char* what;
        Bytes data;
        bool allEmbedded;
        int rc;
        const char* error;
        uint64_t scanLimit = 0;  // 0: the default
    } cases[] = {
        // Narrowed first: its verdict must not be cached for the full scan after it.
        {"rtf, embedded off", RtfWithObject(Eicar()), false, 14, "SCANALLEMBEDDED"},
        {"rtf, embedded on", RtfWithObject(Eicar()), true, -2, ""},
        {"rtf without object, embedded off", ToBytes("{\\rtf1 plain}"), false, 14, "CL_TYPE_RTF"},
        {"zip in binary data, embedded off", binary, false, 14, "SCANALLEMBEDDED"},
        {"html with a script, embedded off",
         ToBytes("<html><script>var a = 1; document.write(a);</script><p>x</p></html>"), false, 0,
         ""},
        {"zip, cut directory", CutDirectory(zip), true, 14, "could be opened"},
        {"deflated zip, cut directory",
         CutDirectory(DeflatedZip({{"e.com", ToBytes(Eicar() + std::string(200, '\n'))}})), true,
         14, "could be opened"},
        {"zip member over SCANLIMIT", DeflatedZip({{"a.txt", big}}), true, 14, "SCANLIMIT",
         1000000},
        {"zip of a tiny member", StoredZip({{"a.txt", ToBytes("abc")}}), true, 0, ""},
    };
    Scanner s(*adapter_, engine_);
    // Twice: the second scan must not take "clean" from libclamav's cache.
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& c : cases) {
            auto o = Options(c.allEmbedded);
            if (c.scanLimit != 0) o->SetNumber(VS_P_SCANLIMIT, c.scanLimit);
            EXPECT_EQ(c.rc, s.Bytes(c.data, "object", o->Get())) << c.what << " " << pass;
            EXPECT_TRUE(*c.error == '\0' || s.ScanErrorHas(c.error)) << c.what << " " << pass;
        }
    }
}

TEST_F(ClamavHostile, EncryptedIsNotScannedAtEveryHeuristicLevel) {
    const Bytes zip = MarkEncrypted(StoredZip({{"eicar.com", ToBytes(Eicar())}}));
    Scanner s(*adapter_, engine_);
    for (uint64_t level = 0; level <= 3; ++level) {
        auto o = Options(true, level);
        EXPECT_EQ(14, s.Bytes(zip, "enc.zip", o->Get())) << level;
        EXPECT_TRUE(s.ScanErrorHas("encrypted")) << level;
        EXPECT_TRUE(s.Infections().empty()) << level;
    }
}

// /proc files report size 0: the adapter reads them to their end.
TEST_F(ClamavHostile, ObjectsWhoseSizeReadsZeroAreRead) {
    const std::string marker = Marker();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        setpgid(0, 0);  // the shell and its sleep end together
        int null = open("/dev/null", O_RDWR);
        dup2(null, 1);
        dup2(null, 2);
        execl("/bin/sh", "sh", "-c", "sleep 30", marker.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    const std::string cmdline = "/proc/" + std::to_string(child) + "/cmdline";
    bool execed = false;
    for (int i = 0; i < 500 && !execed; ++i) {
        std::ifstream in(cmdline);
        std::stringstream text;
        text << in.rdbuf();
        execed = text.str().find(marker) != std::string::npos;
        if (!execed) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Scanner s(*adapter_, engine_);
    int rc = s.File(cmdline);
    kill(-child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_TRUE(execed);
    EXPECT_EQ(-2, rc);
    EXPECT_TRUE(Contains(s.Infections(), "Kormo.Test.Marker"));
}

// A FIFO whose writer never finishes ends within the time limit, not scanned.
TEST_F(ClamavHostile, FifoThatNeverEndsIsNotScanned) {
    TempDir dir;
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    int writer = open(fifo.c_str(), O_RDWR);  // a writer that stays
    ASSERT_GE(writer, 0);
    ASSERT_EQ(static_cast<ssize_t>(Eicar().size()), write(writer, Eicar().data(), Eicar().size()));
    auto o = Options();
    o->SetNumber(VS_P_SCANEXTRACT_TIME, 200);
    Scanner s(*adapter_, engine_);
    EXPECT_EQ(14, s.File(fifo, o->Get()));
    EXPECT_TRUE(s.ScanErrorHas("SCANEXTRACT_TIME"));
    close(writer);
}

// libclamav logs that it cannot create its scan directory and answers clean.
TEST_F(ClamavHostile, UnusableTemporaryDirectoryIsAScanError) {
    TempDir dir;
    const std::string tmp = dir.File("gone");
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
    PEL_INIT* engine = NewEngine(tmp);
    ASSERT_NE(nullptr, engine);
    ASSERT_EQ(0, rmdir(tmp.c_str()));
    const std::string file = dir.File("eicar.txt");
    std::ofstream(file) << Eicar();
    {
        Scanner s(*adapter_, engine);
        EXPECT_EQ(13, s.File(file));
        EXPECT_TRUE(s.ScanErrorHas("temporary directory"));
        EXPECT_EQ(13, s.Bytes(StoredZip({{"e.com", ToBytes(Eicar())}}), "e.zip"));
    }
    adapter_->End(&engine, nullptr);
}

long RssKiB() {
    std::ifstream in("/proc/self/statm");
    long pages = 0, resident = 0;
    in >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// With SCANLIMIT 0 an 8 GB sparse file costs neither memory nor time.
TEST_F(ClamavHostile, HugeSparseFileDoesNotCostMemory) {
    TempDir dir;
    const std::string file = dir.File("sparse.bin");
    { std::ofstream(file) << Eicar(); }
    ASSERT_EQ(0, truncate(file.c_str(), 8LL << 30));
    auto o = Options();
    o->SetNumber(VS_P_SCANLIMIT, 0);
    const long before = RssKiB();
    Scanner s(*adapter_, engine_);
    EXPECT_EQ(14, s.File(file, o->Get()));
    EXPECT_TRUE(s.ScanErrorHas("object size limit"));
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    EXPECT_LT(ru.ru_maxrss - before, 256 * 1024);
}

}  // namespace
