// The ClamAV and clamd adapters driven directly through their entry points, as
// the library drives them, against the generated database and clamd daemons
// the test starts itself. One parametrised suite checks what both must do
// (find, report, stop, fail closed); each adapter then has its own limits,
// policy and fail-over cases.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "engines_env.h"

using namespace engines;

namespace {

// One adapter loaded, started and configured for the whole suite; a clamd
// daemon beside it (the clamd adapter's server, idle for ClamAV).
struct Engine {
    const char* name;
    const char* path;
    Adapter* adapter = nullptr;
    PEL_CONFIG* config = nullptr;
};
Engine gClamav{"clamav", KORMO_CLAMAV_ADAPTER};
Engine gClamd{"clamd", KORMO_CLAMD_ADAPTER};
Clamd* gDaemon = nullptr;

class Engines : public ::testing::Environment {
    void SetUp() override {
        gDaemon = new Clamd("1M");
        std::string error;
        ASSERT_TRUE(gDaemon->Start(&error)) << error;
        for (Engine* e : {&gClamav, &gClamd}) {
            e->adapter = new Adapter(e->path);
            ASSERT_TRUE(e->adapter->Loaded()) << e->adapter->Error();
            ASSERT_EQ(0, e->adapter->Startup());
            ASSERT_EQ(0, e->adapter->GetConfig(&e->config));
        }
    }
    void TearDown() override {
        for (Engine* e : {&gClamav, &gClamd}) {
            EXPECT_EQ(0, e->adapter->Cleanup());
            delete e->adapter;
        }
        delete gDaemon;
    }
};
const auto* gEnv = ::testing::AddGlobalTestEnvironment(new Engines);

// PelInit on an engine: ClamAV on a database directory, clamd on servers.
int Open(Engine& e, const std::string& where, PEL_INIT** out, uint32_t reconnect = 10) {
    ParamList init(e.config->pInitParams);
    if (&e == &gClamav) {
        init.SetText(VS_P_INITDRIVERDIRECTORY, where);
    } else {
        init.SetText(VS_P_INITSERVERS, where);
        init.SetNumber(VS_P_INITTIMEOUT, 20);
        init.SetNumber(VS_P_INITRECONNECTTIME, reconnect);
    }
    return e.adapter->Init(nullptr, init.Get(), out);
}

class PelEngine : public ::testing::TestWithParam<Engine*> {
  protected:
    void SetUp() override {
        e_ = GetParam();
        std::string where = e_ == &gClamav ? TestDb() : gDaemon->UnixAddress();
        ASSERT_EQ(0, Open(*e_, where, &in_)) << (in_ && in_->pszErrorText ? in_->pszErrorText : "");
    }
    void TearDown() override {
        PEL_CONFIG* none = nullptr;
        if (in_ != nullptr) {
            EXPECT_EQ(0, e_->adapter->End(&in_, &none));
        }
        EXPECT_EQ(nullptr, in_);
    }
    std::unique_ptr<ParamList> Options() {
        return std::make_unique<ParamList>(e_->config->pOptParams);
    }
    Engine* e_ = nullptr;
    PEL_INIT* in_ = nullptr;
};

TEST_P(PelEngine, FindsSignaturesInMemoryAndFilesAndReportsThem) {
    ASSERT_NE(nullptr, in_->pszEngineVersionText);
    EXPECT_GE(in_->usEngineMajVersion, 1);
    Scanner s(*e_->adapter, in_);
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar.com", nullptr, &cb));
    EXPECT_EQ(std::vector<std::string>{"Eicar-Test-Signature.UNOFFICIAL"}, s.Infections());
    EXPECT_EQ(ev.viruses, s.Infections());
    EXPECT_EQ(7u, s.Info()->pVirusInfo[0].uiJobID);
    EXPECT_EQ(0u, s.Info()->uiClean);
    EXPECT_EQ(-2, s.File(TestDb() + "/samples/hash2.bin"));
    EXPECT_EQ(std::vector<std::string>{"Kormo.Test.Hash.2.UNOFFICIAL"}, s.Infections());
    EXPECT_EQ(-2, s.Bytes(StoredZip({{"eicar.com", ToBytes(Eicar())}}), "a.zip"));

    EXPECT_EQ(0, s.File(TestDb() + "/samples/clean.txt", nullptr, &cb));
    EXPECT_EQ(1u, s.Info()->uiClean);
    EXPECT_EQ(1, ev.clean);
    ASSERT_EQ(1u, s.Info()->uiScanned);
    EXPECT_STREQ("txt", s.Info()->pContentInfo[0].pszExtension);
    EXPECT_EQ(0, s.Bytes(Bytes(), "empty"));
    // Many requests on one instance (clamd: over its kept session).
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(i % 2 ? 0 : -2, s.Bytes(ToBytes(i % 2 ? "ok" : Eicar()), "o"));
}

TEST_P(PelEngine, HandlerStopAndMaskAreHonoured) {
    Scanner s(*e_->adapter, in_);
    Events stop;
    stop.stopAfterViruses = 1;
    PEL_CALLBACK cb = Recorder(&stop);
    EXPECT_EQ(17, s.Bytes(ToBytes(Eicar()), "eicar", nullptr, &cb));
    EXPECT_EQ(1u, stop.viruses.size());
    Events masked;
    PEL_CALLBACK cb2 = Recorder(&masked, VS_M_CLEAN);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar", nullptr, &cb2));
    EXPECT_TRUE(masked.viruses.empty());
}

// Requests an adapter must refuse, and results it must not claim.
TEST_P(PelEngine, BadRequestsAreRefusedAndCleaningIsNeverClaimed) {
    PEL_SCANPARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tScanCode = VS_SC_BYTES;
    std::string eicar = Eicar();
    p.pbByte = reinterpret_cast<unsigned char*>(&eicar[0]);
    p.lLength = eicar.size();
    EXPECT_EQ(-2, e_->adapter->Scan(in_, nullptr, &p, nullptr, nullptr));  // no result record
    PEL_SCANINFO* info = nullptr;
    p.tScanCode = 3;
    EXPECT_EQ(21, e_->adapter->Scan(in_, nullptr, &p, nullptr, &info));
    EXPECT_EQ(nullptr, info);
    p.tScanCode = VS_SC_BYTES;
    p.pbByte = nullptr;
    EXPECT_NE(0, e_->adapter->Scan(in_, nullptr, &p, nullptr, &info));
    if (info != nullptr) {
        EXPECT_EQ(0, e_->adapter->ReleaseScan(&info));
    }
    p.pbByte = reinterpret_cast<unsigned char*>(&eicar[0]);
    p.tActionCode = VS_A_SCAN | VS_A_CLEAN;  // neither engine cleans
    EXPECT_EQ(-5, e_->adapter->Scan(in_, nullptr, &p, nullptr, &info));
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(0, info->pVirusInfo[0].bRepairable);
    EXPECT_EQ(0, e_->adapter->ReleaseScan(&info));
    EXPECT_EQ(nullptr, info);
    EXPECT_EQ(0, e_->adapter->ReleaseScan(&info));

    Scanner s(*e_->adapter, in_);
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(13, s.File("/nonexistent/kormo/file", nullptr, &cb));
    EXPECT_EQ(0u, s.Info()->uiClean);
    EXPECT_TRUE(s.ScanErrorHas("/nonexistent/kormo/file"));
    EXPECT_EQ(1u, ev.errors.size());
    EXPECT_EQ(0, ev.clean);
    TempDir d;
    EXPECT_EQ(13, s.File(d.Path()));  // a directory
}

// An engine that cannot start says why, and its instance never scans clean.
TEST_P(PelEngine, FailedStartSaysWhyAndNeverScansClean) {
    TempDir d;
    std::vector<std::pair<std::string, int>> cases;
    if (e_ == &gClamav) {
        cases = {{d.Path(), 9}, {d.File("missing"), 9}};
    } else {
        cases = {{"unix:" + d.File("none.sock") + ",127.0.0.1:" + std::to_string(FreePort()), 7}};
    }
    for (const auto& c : cases) {
        PEL_INIT* in = nullptr;
        EXPECT_EQ(c.second, Open(*e_, c.first, &in)) << c.first;
        ASSERT_NE(nullptr, in);
        ASSERT_NE(nullptr, in->pszErrorText);
        std::string text = in->pszErrorText;
        for (const std::string& part : {c.first.substr(c.first.find(',') + 1),
                                        std::string(e_ == &gClamav ? "freshclam" : "")})
            EXPECT_NE(std::string::npos, text.find(part)) << text;
        Scanner s(*e_->adapter, in);
        EXPECT_EQ(5, s.Bytes(ToBytes(Eicar()), "x"));
    }
}

INSTANTIATE_TEST_SUITE_P(, PelEngine, ::testing::Values(&gClamav, &gClamd),
                         [](const ::testing::TestParamInfo<Engine*>& i) { return i.param->name; });

// ---- ClamAV: the database, limits, policy ----------------------------------------

class Clamav : public PelEngine {
  protected:
    void SetUp() override {
        e_ = &gClamav;
        ASSERT_EQ(0, Open(gClamav, TestDb(), &in_));
    }
};

TEST_F(Clamav, DescribesTheLoadedDatabaseAndTypesContent) {
    EXPECT_EQ(4u, in_->uiSignatures);
    ASSERT_EQ(2u, in_->usDrivers);
    EXPECT_STREQ("kormo-test.hdb", in_->pDriver[0].pszName);
    EXPECT_EQ(2u, in_->pDriver[0].uiViruses);
    Scanner s(*e_->adapter, in_);
    EXPECT_EQ(0, s.File(TestDb() + "/samples/clean.txt"));
    const PEL_CONTENTINFO& c = s.Info()->pContentInfo[0];
    EXPECT_STREQ("text/plain", c.pszContentType);
    EXPECT_STREQ("us-ascii", c.pszCharSet);
    EXPECT_EQ(48u, c.lObjectSize);
    // libclamav's typing by default, libmagic's when MIME checks are asked for.
    Bytes script = ToBytes("#!/bin/sh\necho hello\n");
    EXPECT_EQ(0, s.Bytes(script, "run", nullptr, nullptr, VS_A_SCAN | VS_A_CHECK_MIME));
    EXPECT_STREQ("text/x-shellscript", s.Info()->pContentInfo[0].pszContentType);
    EXPECT_EQ(0, s.Bytes(script, "run"));
    EXPECT_STREQ("text/plain", s.Info()->pContentInfo[0].pszContentType);
    // Every signature of an object is reported.
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar() + " trailing " + Marker()), "two", nullptr, &cb));
    EXPECT_EQ(2u, s.Info()->uiInfections);
    EXPECT_TRUE(Contains(ev.viruses, "Kormo.Test.Marker"));
}

// Each limit reached makes the object "not scanned" (14) with the limit named,
// never clean; the options of one scan do not stick.
TEST_F(Clamav, LimitsApplyPerScanAndFailClosed) {
    Scanner s(*e_->adapter, in_);
    Bytes nested = NestedZip(ToBytes("x " + Marker()), 4);
    Bytes tail(2 * 1024 * 1024, 'B');
    Bytes marker = ToBytes(Marker());
    tail.insert(tail.end(), marker.begin(), marker.end());
    Bytes tailZip = DeflatedZip({{"tail.txt", tail}});
    Bytes many = DeflatedZip({{"a.txt", Bytes(1024 * 1024, 'C')}, {"b.txt", tail}});
    Bytes slow = DeflatedZip({{"a.txt", Bytes(16 * 1024 * 1024, 'D')}, {"b.txt", tail}});
    Bytes atLimit(1024 * 1024, 'A'), overLimit(1024 * 1024 + 1, 'A');
    struct Case {
        const Bytes* object;
        std::vector<std::pair<int32_t, uint64_t>> options;
        int rc;
        const char* names;
    } const cases[] = {
        {&nested, {}, -2, nullptr},
        {&nested, {{VS_P_SCANEXTRACT_DEPTH, 2}}, 14, "SCANEXTRACT_DEPTH"},
        {&nested, {}, -2, nullptr},  // back to the defaults
        {&nested,
         {{VS_P_SCANLIMIT, 0}, {VS_P_SCANEXTRACT_SIZE, 0}, {VS_P_SCANEXTRACT_TIME, 0},
          {VS_P_SCANEXTRACT_DEPTH, 0}},
         -2, nullptr},  // 0 switches a limit off
        {&tail, {{VS_P_SCANLIMIT, 1024 * 1024}}, 14, "SCANLIMIT"},
        {&atLimit, {{VS_P_SCANLIMIT, 1024 * 1024}}, 0, nullptr},
        {&overLimit, {{VS_P_SCANLIMIT, 1024 * 1024}}, 14, "SCANLIMIT"},
        {&tailZip, {{VS_P_SCANLIMIT, 4 * 1024 * 1024}}, -2, nullptr},
        // A member over the limit whose signature lies past it.
        {&tailZip, {{VS_P_SCANLIMIT, 1024 * 1024}, {VS_P_SCANEXTRACT_SIZE, 64 << 20}}, 14,
         "SCANLIMIT"},
        {&many, {{VS_P_SCANEXTRACT_SIZE, 256 * 1024}}, 14, "SCANEXTRACT_SIZE"},
        {&slow, {{VS_P_SCANEXTRACT_TIME, 1}}, 14, "SCANEXTRACT_TIME"},
        {&slow, {}, -2, nullptr},
    };
    for (const Case& c : cases) {
        auto opts = Options();
        for (const auto& o : c.options) opts->SetNumber(o.first, o.second);
        Events ev;
        PEL_CALLBACK cb = Recorder(&ev);
        EXPECT_EQ(c.rc, s.Bytes(*c.object, "o.zip", opts->Get(), &cb)) << c.names;
        if (c.names == nullptr) continue;
        EXPECT_EQ(0u, s.Info()->uiInfections) << c.names;
        EXPECT_EQ(0u, s.Info()->uiClean) << c.names;
        EXPECT_TRUE(s.ScanErrorHas(c.names)) << c.names;
        EXPECT_TRUE(Contains(ev.notScanned, c.names)) << c.names;
    }
}

TEST_F(Clamav, PolicyBlocksByTypeExtensionAndUnextractedArchives) {
    Scanner s(*e_->adapter, in_);
    Bytes text = ToBytes("just some words\n");
    Bytes zip = StoredZip({{"eicar.com", ToBytes(Eicar())}});
    struct Case {
        int32_t code;
        const char* value;
        const Bytes* object;
        const char* name;
        int rc;
    } const cases[] = {
        {VS_P_BLOCKMIMETYPES, "application/pdf, TEXT/*", &text, "notes", -6},
        {VS_P_BLOCKMIMETYPES, "text/plain", &text, "notes", -6},
        {VS_P_BLOCKMIMETYPES, "application/pdf", &text, "notes", 0},
        {VS_P_BLOCKMIMETYPES, "tex/*", &text, "notes", 0},
        {VS_P_BLOCKMIMETYPES, "text/plai", &text, "notes", 0},
        {VS_P_BLOCKEXTENSIONS, ".EXE,scr", &text, "invoice.exe", -6},
        {VS_P_BLOCKEXTENSIONS, ".EXE,scr", &text, "dir.x/screen.SCR", -6},
        {VS_P_BLOCKEXTENSIONS, ".EXE,scr", &text, "invoice.txt", 0},
        {VS_P_BLOCKEXTENSIONS, "zip", &zip, "harmless.txt", -6},  // by content
        {VS_P_SCANALLEMBEDDED, nullptr, &zip, "a.zip", 14},
        {VS_P_SCANALLEMBEDDED, nullptr, &text, "t.txt", 0},
    };
    for (const Case& c : cases) {
        auto opts = Options();
        if (c.value != nullptr) {
            opts->SetText(c.code, c.value);
        } else {
            opts->SetNumber(c.code, 0);
        }
        EXPECT_EQ(c.rc, s.Bytes(*c.object, c.name, opts->Get())) << c.value << " " << c.name;
        if (c.rc == 0) continue;
        EXPECT_EQ(0u, s.Info()->uiClean);
        EXPECT_EQ(1u, s.Info()->uiNotScanned) << c.name;
    }
}

// Heuristic level 2 reports archives it cannot open (encrypted members).
TEST_F(Clamav, InstancesScanConcurrentlyWithTheirOwnLimits) {
    Bytes nested = NestedZip(ToBytes("y " + Marker()), 4);
    Bytes eicar = ToBytes(Eicar());
    std::atomic<int> wrong{0};
    auto run = [&](uint32_t depth, int expected) {
        ParamList opts(gClamav.config->pOptParams);
        opts.SetNumber(VS_P_SCANEXTRACT_DEPTH, depth);
        Scanner s(*gClamav.adapter, in_);
        for (int i = 0; i < 20; ++i) {
            if (s.Bytes(nested, "n.zip", opts.Get()) != expected) ++wrong;
            if (s.Bytes(eicar, "e", opts.Get()) != -2) ++wrong;
        }
    };
    std::vector<std::thread> threads;
    for (uint32_t depth : {17u, 2u, 17u, 1u}) threads.emplace_back(run, depth, depth > 3 ? -2 : 14);
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, wrong.load());
}

// ---- clamd: server limits, fail-over, reconnection -------------------------------

class ClamdPel : public PelEngine {
  protected:
    void SetUp() override { e_ = &gClamd; }
};

TEST_F(ClamdPel, ServerLimitsAreNotScannedAndTheSessionGoesOn) {
    ASSERT_EQ(0, Open(gClamd, gDaemon->TcpAddress(), &in_));  // INSTREAM: StreamMaxLength applies
    Scanner s(*e_->adapter, in_);
    EXPECT_EQ(14, s.Bytes(Bytes(2 * 1024 * 1024, 'Z'), "big"));
    EXPECT_TRUE(s.ScanErrorHas("StreamMaxLength"));
    EXPECT_EQ(0u, s.Info()->uiClean);
    EXPECT_EQ(1u, s.Info()->uiNotScanned);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar"));
    EXPECT_EQ(-2, s.Bytes(NestedZip(ToBytes(Eicar()), 2), "two.zip"));
    EXPECT_EQ(14, s.Bytes(NestedZip(ToBytes(Eicar()), 5), "five.zip"));
    EXPECT_EQ(0u, s.Info()->uiInfections);
    EXPECT_TRUE(s.ScanErrorHas("MaxRecursion"));
    PEL_INIT* bad = nullptr;
    EXPECT_EQ(3, Open(gClamd, "localhost", &bad));  // no port
    EXPECT_EQ(3, Open(gClamd, " , ", &bad));
    EXPECT_EQ(3, Open(gClamd, "unix:/" + std::string(107, 'p'), &bad));  // no room for the NUL
}

TEST_F(ClamdPel, FailsOverBetweenServersAndNeverScansCleanWithoutOne) {
    Clamd first, second;
    std::string error;
    ASSERT_TRUE(second.Start(&error)) << error;
    ASSERT_TRUE(first.Start(&error)) << error;
    TempDir d;
    std::string dead = "unix:" + d.File("dead.sock");
    ASSERT_EQ(0, Open(gClamd, dead + "," + first.UnixAddress() + "," + second.TcpAddress(), &in_, 1));
    Scanner p(*e_->adapter, in_);
    EXPECT_EQ(-2, p.Bytes(ToBytes(Eicar()), "eicar"));
    first.Stop();
    EXPECT_EQ(-2, p.Bytes(ToBytes(Eicar()), "eicar"));
    EXPECT_EQ(0, p.Bytes(ToBytes("fine"), "fine"));
    second.Stop();
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(13, p.Bytes(ToBytes("fine"), "fine", nullptr, &cb));
    EXPECT_EQ(0u, p.Info()->uiClean);
    EXPECT_EQ(1u, ev.errors.size());
    EXPECT_EQ(0, ev.clean);
    // A restarted server is used again after INITRECONNECTTIME.
    ASSERT_TRUE(second.Start(&error)) << error;
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(-2, p.Bytes(ToBytes(Eicar()), "eicar"));
}

}  // namespace
