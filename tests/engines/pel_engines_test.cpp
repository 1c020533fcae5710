// The ClamAV and clamd adapters driven directly through their entry points, as
// the library drives them, against the generated database and a clamd daemon
// the test starts itself. One parametrised suite checks what both must do
// (find, report, stop, fail closed); each adapter then has its own limits,
// policy and server cases.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "engines_env.h"

using namespace engines;

namespace {

// The adapters, started once for all tests of a process.
Adapter& AdapterOf(bool clamd) {
    static Adapter clamav(KORMO_CLAMAV_ADAPTER), clamdPel(KORMO_CLAMD_ADAPTER);
    return clamd ? clamdPel : clamav;
}
// The clamd adapter's server, started by the first test that needs it.
Clamd& Daemon() {
    static Clamd d;
    static std::string error;
    static bool up = d.Start(&error);
    EXPECT_TRUE(up) << error;
    return d;
}

// One instance of an engine: ClamAV on the test database, clamd on the daemon.
class EngineTest : public ::testing::Test {
  protected:
    explicit EngineTest(bool clamd) : clamd_(clamd) {}
    void SetUp() override {
        a_ = &AdapterOf(clamd_);
        ASSERT_TRUE(a_->Loaded()) << a_->Error();
        ASSERT_EQ(0, Open(clamd_ ? Daemon().UnixAddress() : TestDb(), &in_));
    }
    void TearDown() override { a_->End(&in_); }
    // PelInit on a database directory (ClamAV) or a server list (clamd).
    int Open(const std::string& where, PEL_INIT** out) {
        if (!clamd_) return a_->Init({{VS_P_INITDRIVERDIRECTORY, where}}, out);
        return a_->Init({{VS_P_INITSERVERS, where}, {VS_P_INITTIMEOUT, 20}}, out);
    }
    const bool clamd_;
    Adapter* a_ = nullptr;
    PEL_INIT* in_ = nullptr;
};

class PelEngine : public EngineTest, public ::testing::WithParamInterface<bool> {  // true: clamd
  protected:
    PelEngine() : EngineTest(GetParam()) {}
};

TEST_P(PelEngine, FindsReportsAndStopsWhereTheHandlerSays) {
    Scanner s(*a_, in_);
    Events ev, stop(1);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar.com", {}, &ev.cb));
    EXPECT_EQ(std::vector<std::string>{"Eicar-Test-Signature.UNOFFICIAL"}, s.Infections());
    EXPECT_EQ(ev.viruses, s.Infections());
    EXPECT_EQ(0u, s.Info()->uiClean);
    EXPECT_EQ(-2, s.File(TestDb() + "/samples/hash2.bin"));
    EXPECT_EQ(std::vector<std::string>{"Kormo.Test.Hash.2.UNOFFICIAL"}, s.Infections());
    EXPECT_EQ(-2, s.Bytes(Zip({{"eicar.com", ToBytes(Eicar())}}), "a.zip"));
    EXPECT_EQ(0, s.File(TestDb() + "/samples/clean.txt", {}, &ev.cb));
    EXPECT_EQ(1u, s.Info()->uiClean);
    EXPECT_EQ(1, ev.clean);
    EXPECT_EQ(0, s.Bytes(Bytes(), "empty"));
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar() + " trailing " + Marker()), "two"));
    EXPECT_EQ(clamd_ ? 1u : 2u, s.Info()->uiInfections);  // ClamAV reports every signature
    for (int i = 0; i < 10; ++i)  // many requests on one instance (clamd: one session)
        ASSERT_EQ(i % 2 ? 0 : -2, s.Bytes(ToBytes(i % 2 ? "ok" : Eicar()), "o"));
    EXPECT_EQ(17, s.Bytes(ToBytes(Eicar()), "eicar", {}, &stop.cb));
    EXPECT_EQ(1u, stop.viruses.size());
}

// Requests an adapter must refuse, results it must not claim, and an engine
// that cannot start: it says why and its instance never scans clean.
TEST_P(PelEngine, RefusesBadRequestsAndNeverClaimsCleanOrCleaning) {
    std::string eicar = Eicar();
    auto* bytes = reinterpret_cast<unsigned char*>(&eicar[0]);
    PEL_SCANPARAM p{sizeof p, VS_SC_BYTES, VS_A_SCAN, "o", bytes, eicar.size(), 0, 0};
    EXPECT_EQ(-2, a_->Scan(in_, nullptr, &p, nullptr, nullptr));  // no result record
    PEL_SCANINFO* info = nullptr;
    p.tScanCode = 3;
    EXPECT_EQ(21, a_->Scan(in_, nullptr, &p, nullptr, &info));
    EXPECT_EQ(nullptr, info);
    p.tScanCode = VS_SC_BYTES;
    p.pbByte = nullptr;
    EXPECT_NE(0, a_->Scan(in_, nullptr, &p, nullptr, &info));
    EXPECT_EQ(0, a_->ReleaseScan(&info));  // a null record too
    p.pbByte = bytes;
    p.tActionCode = VS_A_SCAN | VS_A_CLEAN;  // neither engine cleans
    EXPECT_EQ(-5, a_->Scan(in_, nullptr, &p, nullptr, &info));
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(0, info->pVirusInfo[0].bRepairable);
    EXPECT_EQ(0, a_->ReleaseScan(&info));
    EXPECT_EQ(0, a_->ReleaseScan(&info));

    Scanner s(*a_, in_);
    Events ev;
    TempDir d;
    for (const std::string& bad : {std::string("/nonexistent/kormo/file"), d.Path()}) {
        EXPECT_EQ(13, s.File(bad, {}, &ev.cb)) << bad;
        EXPECT_EQ(0u, s.Info()->uiClean);
        EXPECT_TRUE(s.ScanErrorHas(bad)) << bad;
    }
    EXPECT_EQ(2u, ev.errors.size());
    EXPECT_EQ(0, ev.clean);

    // A database directory without signatures; servers that do not answer.
    const std::string tcp = "127.0.0.1:" + std::to_string(FreePort());
    PEL_INIT* in = nullptr;
    EXPECT_EQ(clamd_ ? 7 : 9,
              Open(clamd_ ? "unix:" + d.File("none.sock") + "," + tcp : d.Path(), &in));
    ASSERT_NE(nullptr, in);
    std::string text = in->pszErrorText != nullptr ? in->pszErrorText : "";
    EXPECT_NE(std::string::npos, text.find(clamd_ ? tcp : "freshclam")) << text;
    EXPECT_NE(std::string::npos, text.find(clamd_ ? "unix:" : d.Path())) << text;
    EXPECT_EQ(5, Scanner(*a_, in).Bytes(ToBytes(Eicar()), "x"));
}

INSTANTIATE_TEST_SUITE_P(, PelEngine, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& i) {
                             return i.param ? "clamd" : "clamav";
                         });

template <bool kClamd>
class OneEngine : public EngineTest {
  protected:
    OneEngine() : EngineTest(kClamd) {}
};
using Clamav = OneEngine<false>;
using ClamdPel = OneEngine<true>;

// ---- ClamAV: limits, policy, hostile objects ------------------------------------

// An RTF document with one embedded OLE package object holding content.
Bytes RtfWithObject(const std::string& content) {
    auto Le32 = [](size_t n) {
        return std::string{char(n), char(n >> 8), char(n >> 16), char(n >> 24)};
    };
    const std::string path = std::string("C:\\e.com") + '\0';
    std::string pkg = std::string("\x02\x00", 2) + std::string("e.com") + '\0' + path +
                      std::string("\0\0\3\0\15\0\0\0", 8) + path + Le32(content.size()) + content;
    std::string ole = std::string("\x01\x05\x00\x00\x02\x00\x00\x00", 8) + Le32(8) +
                      std::string("Package\0", 8) + std::string(8, '\0') + Le32(pkg.size()) + pkg;
    std::string hex;
    for (unsigned char c : ole) hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return ToBytes("{\\rtf1\\ansi{\\object\\objemb{\\*\\objdata " + hex + "}}}\n");
}

// The archive with its central directory cut off.
Bytes Cut(Bytes zip) {
    const char sig[] = "PK\1\2";
    zip.erase(std::search(zip.begin(), zip.end(), sig, sig + 4), zip.end());
    return zip;
}

// Every limit, policy and object ClamAV cannot look into in full: each is
// "not scanned" (14) or blocked (-6) with its reason, never clean; 0 switches a
// limit off, a boundary row sits on each side of a limit, and the options of
// one scan do not stick. Then again, no verdict taken from libclamav's cache,
// while a second thread scans the rows backwards on the same instance: no
// scan's options reach another's.
TEST_F(Clamav, LimitsPolicyAndHostileObjectsAreNeverClean) {
    const Bytes eicar = ToBytes(Eicar()), marker = ToBytes(Marker()),
                text = ToBytes("some words\n");
    const Bytes zip = Zip({{"eicar.com", eicar}}), nested = NestedZip(ToBytes("x " + Marker()), 4),
                locked = Zip({{"eicar.com", eicar}}, false, 1);  // marked encrypted
    Bytes tail(2 * 1024 * 1024, 'B'),
        binary = ToBytes(std::string("\x7f\x01\x02\x03 binary\x00\xff", 14));
    tail.insert(tail.end(), marker.begin(), marker.end());
    binary.insert(binary.end(), zip.begin(), zip.end());
    const Bytes tailZip = Zip({{"tail.txt", tail}}, true), atLimit(1 << 20, 'A'),
                overLimit((1 << 20) + 1, 'A');
    const Bytes slow = Zip({{"a.txt", Bytes(16 << 20, 'D')}, {"b.txt", tail}}, true);
    const std::vector<Set> embeddedOff = {{VS_P_SCANALLEMBEDDED, 0}};
    const struct {
        const char* what;
        Bytes data;
        std::vector<Set> options;
        int rc;
        const char* error;  // part of the scan error and of the "not scanned" event
        const char* name = "object";
    } cases[] = {
        // clang-format off
        {"nested", nested, {}, -2, ""},
        {"nested, depth 2", nested, {{VS_P_SCANEXTRACT_DEPTH, 2}}, 14, "SCANEXTRACT_DEPTH"},
        {"nested, defaults again", nested, {}, -2, ""},
        {"every limit off", nested, {{VS_P_SCANLIMIT, 0}, {VS_P_SCANEXTRACT_SIZE, 0},
                                     {VS_P_SCANEXTRACT_TIME, 0}, {VS_P_SCANEXTRACT_DEPTH, 0}},
         -2, ""},
        {"marker past SCANLIMIT", tail, {{VS_P_SCANLIMIT, 1 << 20}}, 14, "SCANLIMIT"},
        {"at SCANLIMIT", atLimit, {{VS_P_SCANLIMIT, 1 << 20}}, 0, ""},
        {"over SCANLIMIT", overLimit, {{VS_P_SCANLIMIT, 1 << 20}}, 14, "SCANLIMIT"},
        {"zip member over SCANLIMIT", tailZip,
         {{VS_P_SCANLIMIT, 1 << 20}, {VS_P_SCANEXTRACT_SIZE, 64 << 20}}, 14, "SCANLIMIT"},
        {"SCANEXTRACT_SIZE", Zip({{"a.txt", Bytes(1 << 20, 'C')}, {"b.txt", tail}}, true),
         {{VS_P_SCANEXTRACT_SIZE, 256 * 1024}}, 14, "SCANEXTRACT_SIZE"},
        {"SCANEXTRACT_TIME", slow, {{VS_P_SCANEXTRACT_TIME, 1}}, 14, "SCANEXTRACT_TIME"},
        {"no time limit", slow, {}, -2, ""},
        {"mime list", text, {{VS_P_BLOCKMIMETYPES, "application/pdf, TEXT/*"}}, -6, "", "notes"},
        {"mime exact", text, {{VS_P_BLOCKMIMETYPES, "text/plain"}}, -6, "", "notes"},
        {"mime prefix", text, {{VS_P_BLOCKMIMETYPES, "tex/*"}}, 0, "", "notes"},
        {"mime cut", text, {{VS_P_BLOCKMIMETYPES, "text/plai"}}, 0, "", "notes"},
        {"extension in a path", text, {{VS_P_BLOCKEXTENSIONS, ".EXE,scr"}}, -6, "",
         "dir.x/screen.exe"},
        {"extension other", text, {{VS_P_BLOCKEXTENSIONS, ".EXE,scr"}}, 0, "", "dir.scr/a.txt"},
        {"extension by content", zip, {{VS_P_BLOCKEXTENSIONS, "zip"}}, -6, "", "harmless.txt"},
        {"zip, embedded off", zip, embeddedOff, 14, ""},
        {"text, embedded off", text, embeddedOff, 0, ""},
        // Narrowed first: its verdict must not be cached for the full scan after it.
        {"rtf, embedded off", RtfWithObject(Eicar()), embeddedOff, 14, "SCANALLEMBEDDED"},
        {"rtf, embedded on", RtfWithObject(Eicar()), {}, -2, ""},
        {"rtf without object", ToBytes("{\\rtf1 plain}"), embeddedOff, 14, "CL_TYPE_RTF"},
        {"zip in binary data", binary, embeddedOff, 14, "SCANALLEMBEDDED"},
        {"zip, cut directory", Cut(zip), {}, 14, "could be opened"},
        {"deflated zip, cut directory",
         Cut(Zip({{"e.com", ToBytes(Eicar() + std::string(200, '\n'))}}, true)), {}, 14,
         "could be opened"},
        {"encrypted, level 0", locked, {{VS_P_SCANHEURISTICLEVEL, 0}}, 14, "encrypted"},
        {"encrypted, level 3", locked, {{VS_P_SCANHEURISTICLEVEL, 3}}, 14, "encrypted"},
        // clang-format on
    };
    auto pass = [&](bool reverse) {
        Scanner s(*a_, in_);
        for (size_t i = 0; i < std::size(cases); ++i) {
            const auto& c = cases[reverse ? std::size(cases) - 1 - i : i];
            Events ev;
            EXPECT_EQ(c.rc, s.Bytes(c.data, c.name, c.options, &ev.cb)) << c.what;
            EXPECT_EQ(c.rc == 0 ? 1u : 0u, s.Info()->uiClean) << c.what;
            EXPECT_EQ(c.rc == 14 || c.rc == -6 ? 1u : 0u, s.Info()->uiNotScanned) << c.what;
            EXPECT_TRUE(*c.error == '\0' ||
                        (s.ScanErrorHas(c.error) && Contains(ev.notScanned, c.error)))
                << c.what;
        }
    };
    pass(false);
    std::thread backwards(pass, true);  // other options in every scan beside each one
    pass(false);
    backwards.join();
}

// A FIFO is read to its end, but one whose writer never finishes ends within
// the time limit, not scanned; an 8 GB sparse file is refused without reading.
TEST_F(Clamav, ObjectsWithoutATrueSizeAreReadToTheirEndOrRefused) {
    TempDir dir;
    const std::string fifo = dir.File("fifo"), sparse = dir.File("sparse.bin");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);  // keeps what is written
    auto writer = [&](const std::string& text) {
        int w = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(w, text.data(), text.size()));
        return w;
    };
    close(writer(Marker()));
    Scanner s(*a_, in_);
    EXPECT_EQ(-2, s.File(fifo));  // every byte read although the size said 0
    EXPECT_TRUE(Contains(s.Infections(), "Kormo.Test.Marker"));
    const int stuck = writer(Eicar());  // a writer that never finishes
    EXPECT_EQ(14, s.File(fifo, {{VS_P_SCANEXTRACT_TIME, 200}}));
    EXPECT_TRUE(s.ScanErrorHas("SCANEXTRACT_TIME"));
    close(stuck);
    close(reader);
    { std::ofstream(sparse) << Eicar(); }
    ASSERT_EQ(0, truncate(sparse.c_str(), 8LL << 30));
    struct rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    EXPECT_EQ(14, s.File(sparse, {{VS_P_SCANLIMIT, 0}}));
    EXPECT_TRUE(s.ScanErrorHas("object size limit"));
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 256 * 1024);
}

// libclamav logs that it cannot create its scan directory and answers clean.
TEST_F(Clamav, UnusableTemporaryDirectoryIsAScanError) {
    TempDir dir;
    const std::string tmp = dir.File("gone"), file = dir.File("eicar.txt");
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
    PEL_INIT* engine = nullptr;
    ASSERT_EQ(0,
              a_->Init({{VS_P_INITDRIVERDIRECTORY, TestDb()}, {VS_P_INITTEMP_PATH, tmp}}, &engine));
    ASSERT_EQ(0, rmdir(tmp.c_str()));
    std::ofstream(file) << Eicar();
    Scanner s(*a_, engine);
    EXPECT_EQ(13, s.File(file));
    EXPECT_TRUE(s.ScanErrorHas("temporary directory"));
    EXPECT_EQ(13, s.Bytes(Zip({{"e.com", ToBytes(Eicar())}}), "e.zip"));
}

// ---- clamd: server limits and server lists ---------------------------------------

// Over TCP (INSTREAM) clamd's StreamMaxLength and MaxRecursion are "not
// scanned" and the session goes on; a local server gets a descriptor and
// reads past StreamMaxLength.
TEST_F(ClamdPel, ServerLimitsAreNotScannedAndDescriptorsPassThem) {
    PEL_INIT* tcp = nullptr;
    ASSERT_EQ(0, Open(Daemon().TcpAddress(), &tcp));
    TempDir d;
    const std::string big = std::string(2 << 20, 'Z') + Marker(), file = d.File("big.bin");
    std::ofstream(file) << big;
    Scanner s(*a_, tcp), local(*a_, in_);
    EXPECT_EQ(14, s.Bytes(ToBytes(big), "big"));
    EXPECT_TRUE(s.ScanErrorHas("StreamMaxLength"));
    EXPECT_EQ(14, s.File(file));
    EXPECT_EQ(-2, s.Bytes(NestedZip(ToBytes(Eicar()), 2), "two.zip"));
    EXPECT_EQ(14, s.Bytes(NestedZip(ToBytes(Eicar()), 5), "five.zip"));
    EXPECT_EQ(0u, s.Info()->uiInfections);
    EXPECT_TRUE(s.ScanErrorHas("MaxRecursion"));
    EXPECT_EQ(-2, local.Bytes(ToBytes(big), "big"));
    EXPECT_EQ(-2, local.File(file));
    PEL_INIT* bad = nullptr;
    for (const std::string& servers : {std::string("localhost"), std::string(" , "),
                                       "unix:/" + std::string(107, 'p')})  // no room for the NUL
        EXPECT_EQ(3, Open(servers, &bad)) << servers;
}

}  // namespace
