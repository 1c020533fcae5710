// The ClamAV adapter driven directly through its entry points, as the library
// drives it: configuration, engine load, scans, limits, policy, events.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "engines_env.h"

using namespace engines;

namespace {

const PEL_PARAM* FindParam(const PEL_PARAMS* list, int32_t code) {
    for (uint16_t i = 0; list != nullptr && i < list->usNumParams; ++i) {
        if (list->pParams[i].tCode == code) return &list->pParams[i];
    }
    return nullptr;
}

class ClamavAdapter : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        adapter_ = new Adapter(KORMO_CLAMAV_ADAPTER);
        ASSERT_TRUE(adapter_->Loaded()) << adapter_->Error();
        ASSERT_EQ(0, adapter_->Startup());
        ASSERT_EQ(0, adapter_->GetConfig(&config_));
        ParamList init(config_->pInitParams);
        init.SetText(VS_P_INITDRIVERDIRECTORY, TestDb());
        ASSERT_EQ(0, adapter_->Init(nullptr, init.Get(), &engine_))
            << (engine_ && engine_->pszErrorText ? engine_->pszErrorText : "");
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(0, adapter_->End(&engine_, &config_));
        EXPECT_EQ(nullptr, engine_);
        EXPECT_EQ(0, adapter_->Cleanup());
        delete adapter_;
    }
    std::unique_ptr<ParamList> Options() {
        return std::make_unique<ParamList>(config_->pOptParams);
    }

    static Adapter* adapter_;
    static PEL_CONFIG* config_;
    static PEL_INIT* engine_;
};
Adapter* ClamavAdapter::adapter_ = nullptr;
PEL_CONFIG* ClamavAdapter::config_ = nullptr;
PEL_INIT* ClamavAdapter::engine_ = nullptr;

TEST_F(ClamavAdapter, ReportsItsConfigurationAndTheLoadedDatabases) {
    ASSERT_NE(nullptr, config_->pAdapterInfo);
    EXPECT_EQ(2u, config_->pAdapterInfo->uiThreadModel);
    EXPECT_LE(config_->pAdapterInfo->usMavVersion, PEL_MAV_VERSION);
    EXPECT_EQ(PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, config_->uiPelScanFlag);
    EXPECT_NE(0u, config_->uiPelEventFlag & VS_M_VIRUS);

    const PEL_PARAM* dir = FindParam(config_->pInitParams, VS_P_INITDRIVERDIRECTORY);
    ASSERT_NE(nullptr, dir);
    EXPECT_EQ(VS_TYPE_CHAR, dir->tType);
    EXPECT_STREQ("/var/lib/clamav", static_cast<const char*>(dir->pvValue));
    EXPECT_NE(nullptr, FindParam(config_->pInitParams, VS_P_INITTEMP_PATH));
    struct {
        int32_t code;
        int32_t type;
    } const expected[] = {
        {VS_P_SCANLIMIT, VS_TYPE_SIZE_T},      {VS_P_SCANEXTRACT_SIZE, VS_TYPE_SIZE_T},
        {VS_P_SCANEXTRACT_DEPTH, VS_TYPE_INT}, {VS_P_SCANEXTRACT_TIME, VS_TYPE_INT},
        {VS_P_SCANALLEMBEDDED, VS_TYPE_BOOL},  {VS_P_SCANHEURISTICLEVEL, VS_TYPE_INT},
        {VS_P_BLOCKMIMETYPES, VS_TYPE_CHAR},   {VS_P_BLOCKEXTENSIONS, VS_TYPE_CHAR}};
    for (const auto& e : expected) {
        const PEL_PARAM* p = FindParam(config_->pOptParams, e.code);
        ASSERT_NE(nullptr, p) << e.code;
        EXPECT_EQ(e.type, p->tType) << e.code;
        EXPECT_EQ(sizeof(PEL_PARAM), p->struct_size);
    }
    // libclamav's own defaults are the reported ones.
    EXPECT_EQ(104857600u,
              reinterpret_cast<uintptr_t>(FindParam(config_->pOptParams, VS_P_SCANLIMIT)->pvValue));
    EXPECT_EQ(17u, reinterpret_cast<uintptr_t>(
                       FindParam(config_->pOptParams, VS_P_SCANEXTRACT_DEPTH)->pvValue));

    // The engine describes the loaded databases.
    EXPECT_NE(nullptr, engine_->hEngine);
    EXPECT_EQ(4u, engine_->uiSignatures);
    ASSERT_EQ(2u, engine_->usDrivers);
    EXPECT_STREQ("kormo-test.hdb", engine_->pDriver[0].pszName);
    EXPECT_STREQ("kormo-test.ndb", engine_->pDriver[1].pszName);
    EXPECT_EQ(2u, engine_->pDriver[0].uiViruses);
    ASSERT_NE(nullptr, engine_->pszEngineVersionText);
    EXPECT_EQ(0, std::strncmp("ClamAV ", engine_->pszEngineVersionText, 7));
    EXPECT_GE(engine_->usEngineMajVersion, 1);
}

TEST(ClamavAdapterInit, DirectoryWithoutDatabaseFailsWithAdvice) {
    Adapter a(KORMO_CLAMAV_ADAPTER);
    ASSERT_TRUE(a.Loaded()) << a.Error();
    PEL_CONFIG* cfg = nullptr;
    ASSERT_EQ(0, a.GetConfig(&cfg));
    TempDir empty;
    for (const std::string& dir : {empty.Path(), empty.File("missing")}) {
        ParamList init(cfg->pInitParams);
        init.SetText(VS_P_INITDRIVERDIRECTORY, dir);
        PEL_INIT* in = nullptr;
        EXPECT_EQ(9, a.Init(nullptr, init.Get(), &in)) << dir;
        ASSERT_NE(nullptr, in);
        ASSERT_NE(nullptr, in->pszErrorText);
        std::string text = in->pszErrorText;
        EXPECT_NE(std::string::npos, text.find(dir)) << text;
        EXPECT_NE(std::string::npos, text.find("freshclam")) << text;
        EXPECT_NE(std::string::npos, text.find("INITDRIVERDIRECTORY")) << text;
        // A failed engine cannot scan.
        Scanner s(a, in);
        EXPECT_EQ(5, s.Bytes(ToBytes(Eicar()), "x"));
    }
    EXPECT_EQ(0, a.Cleanup());  // frees the failed records
}

TEST_F(ClamavAdapter, FindsSignaturesInMemoryAndFiles) {
    Scanner s(*adapter_, engine_);
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar.com", nullptr, &cb));
    EXPECT_EQ(std::vector<std::string>{"Eicar-Test-Signature.UNOFFICIAL"}, s.Infections());
    EXPECT_EQ(ev.viruses, s.Infections());
    EXPECT_EQ(7u, s.Info()->pVirusInfo[0].uiJobID);
    EXPECT_STREQ("eicar.com", s.Info()->pVirusInfo[0].pszObjectName);
    EXPECT_EQ(0u, s.Info()->uiClean);

    EXPECT_EQ(-2, s.File(TestDb() + "/samples/hash2.bin"));
    EXPECT_EQ(std::vector<std::string>{"Kormo.Test.Hash.2.UNOFFICIAL"}, s.Infections());

    ev = Events();
    EXPECT_EQ(0, s.File(TestDb() + "/samples/clean.txt", nullptr, &cb));
    EXPECT_EQ(1u, s.Info()->uiClean);
    EXPECT_EQ(0u, s.Info()->uiInfections);
    EXPECT_EQ(1, ev.clean);
    ASSERT_EQ(1u, s.Info()->uiScanned);
    const PEL_CONTENTINFO& c = s.Info()->pContentInfo[0];
    EXPECT_STREQ("text/plain", c.pszContentType);
    EXPECT_STREQ("txt", c.pszExtension);
    EXPECT_STREQ("us-ascii", c.pszCharSet);
    EXPECT_EQ(48u, c.lObjectSize);

    // Content types: libclamav's own typing by default, libmagic's when the
    // caller asks for MIME checks.
    Bytes script = ToBytes("#!/bin/sh\necho hello\n");
    EXPECT_EQ(0, s.Bytes(script, "run", nullptr, nullptr, VS_A_SCAN | VS_A_CHECK_MIME));
    EXPECT_STREQ("text/x-shellscript", s.Info()->pContentInfo[0].pszContentType);
    EXPECT_STREQ("sh", s.Info()->pContentInfo[0].pszExtension);
    EXPECT_EQ(0, s.Bytes(script, "run"));
    EXPECT_STREQ("text/plain", s.Info()->pContentInfo[0].pszContentType);
    EXPECT_EQ(0, s.Bytes(StoredZip({{"a.txt", ToBytes("words")}}), "a"));
    EXPECT_STREQ("application/zip", s.Info()->pContentInfo[0].pszContentType);
    EXPECT_STREQ("zip", s.Info()->pContentInfo[0].pszExtension);

    // The EICAR signature is anchored at offset 0; inside an archive it is
    // found in the extracted member.
    EXPECT_EQ(-2, s.Bytes(StoredZip({{"eicar.com", ToBytes(Eicar())}}), "a.zip"));
}

TEST_F(ClamavAdapter, AllMatchReportsEverySignatureAndAHandlerCanStop) {
    Scanner s(*adapter_, engine_);
    Bytes both = ToBytes(Eicar() + " trailing " + Marker());
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(-2, s.Bytes(both, "two", nullptr, &cb));
    EXPECT_EQ(2u, s.Info()->uiInfections);
    EXPECT_EQ(2u, ev.viruses.size());
    EXPECT_TRUE(Contains(ev.viruses, "Eicar-Test-Signature"));
    EXPECT_TRUE(Contains(ev.viruses, "Kormo.Test.Marker"));

    Events stop;
    stop.stopAfterViruses = 1;
    PEL_CALLBACK cb2 = Recorder(&stop);
    EXPECT_EQ(17, s.Bytes(both, "two", nullptr, &cb2));
    EXPECT_EQ(1u, stop.viruses.size());

    // Only the messages in the mask are sent.
    Events masked;
    PEL_CALLBACK cb3 = Recorder(&masked, VS_M_CLEAN);
    EXPECT_EQ(-2, s.Bytes(both, "two", nullptr, &cb3));
    EXPECT_TRUE(masked.viruses.empty());
}

TEST_F(ClamavAdapter, LimitsApplyPerScanAndFailClosed) {
    Scanner s(*adapter_, engine_);
    Bytes nested = NestedZip(ToBytes("x " + Marker()), 4);
    EXPECT_EQ(-2, s.Bytes(nested, "nested.zip"));

    auto depth = Options();
    depth->SetNumber(VS_P_SCANEXTRACT_DEPTH, 2);
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(14, s.Bytes(nested, "nested.zip", depth->Get(), &cb));
    EXPECT_EQ(0u, s.Info()->uiInfections);
    EXPECT_TRUE(s.ScanErrorHas("SCANEXTRACT_DEPTH"));
    EXPECT_TRUE(Contains(ev.notScanned, "SCANEXTRACT_DEPTH"));
    // The next scan without the option is back to the defaults.
    EXPECT_EQ(-2, s.Bytes(nested, "nested.zip"));

    // 0 switches a limit off.
    auto none = Options();
    none->SetNumber(VS_P_SCANLIMIT, 0);
    none->SetNumber(VS_P_SCANEXTRACT_SIZE, 0);
    none->SetNumber(VS_P_SCANEXTRACT_TIME, 0);
    none->SetNumber(VS_P_SCANEXTRACT_DEPTH, 0);
    EXPECT_EQ(-2, s.Bytes(nested, "nested.zip", none->Get()));

    Bytes big(3 * 1024 * 1024, 'A');
    auto size = Options();
    size->SetNumber(VS_P_SCANLIMIT, 1024 * 1024);
    EXPECT_EQ(14, s.Bytes(big, "big.bin", size->Get()));
    EXPECT_TRUE(s.ScanErrorHas("SCANLIMIT"));

    // A member over SCANLIMIT whose signature lies past the limit: the engine
    // would only see a truncated copy, so the object is not clean.
    Bytes tail(2 * 1024 * 1024, 'B');
    Bytes marker = ToBytes(Marker());
    tail.insert(tail.end(), marker.begin(), marker.end());
    Bytes zip = DeflatedZip({{"tail.txt", tail}});
    auto member = Options();
    member->SetNumber(VS_P_SCANLIMIT, 4 * 1024 * 1024);
    EXPECT_EQ(-2, s.Bytes(zip, "tail.zip", member->Get()));
    member->SetNumber(VS_P_SCANLIMIT, 1024 * 1024);
    member->SetNumber(VS_P_SCANEXTRACT_SIZE, 64 * 1024 * 1024);
    EXPECT_EQ(14, s.Bytes(zip, "tail2.zip", member->Get()));
    EXPECT_TRUE(s.ScanErrorHas("SCANLIMIT"));

    auto scanned = Options();
    scanned->SetNumber(VS_P_SCANEXTRACT_SIZE, 256 * 1024);
    EXPECT_EQ(14, s.Bytes(DeflatedZip({{"a.txt", Bytes(1024 * 1024, 'C')}, {"b.txt", tail}}),
                          "many.zip", scanned->Get()));
    EXPECT_TRUE(s.ScanErrorHas("SCANEXTRACT_SIZE"));

    Bytes slow = DeflatedZip({{"a.txt", Bytes(16 * 1024 * 1024, 'D')}, {"b.txt", tail}});
    auto time = Options();
    time->SetNumber(VS_P_SCANEXTRACT_TIME, 1);
    EXPECT_EQ(14, s.Bytes(slow, "slow.zip", time->Get()));
    EXPECT_TRUE(s.ScanErrorHas("SCANEXTRACT_TIME"));
    EXPECT_EQ(-2, s.Bytes(slow, "slow.zip"));
}

TEST_F(ClamavAdapter, ArchivesNotExtractedAreNotReportedClean) {
    Scanner s(*adapter_, engine_);
    Bytes zip = StoredZip({{"eicar.com", ToBytes(Eicar())}});
    auto off = Options();
    off->SetNumber(VS_P_SCANALLEMBEDDED, 0);
    EXPECT_EQ(14, s.Bytes(zip, "a.zip", off->Get()));
    EXPECT_TRUE(s.ScanErrorHas("SCANALLEMBEDDED"));
    // Plain objects are scanned as before.
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "e", off->Get()));
    EXPECT_EQ(0, s.Bytes(ToBytes("plain text\n"), "t.txt", off->Get()));
}

TEST_F(ClamavAdapter, PolicyBlocksByContentTypeAndExtension) {
    Scanner s(*adapter_, engine_);
    Bytes text = ToBytes("just some words\n");
    auto mime = Options();
    mime->SetText(VS_P_BLOCKMIMETYPES, "application/pdf, TEXT/*");
    EXPECT_EQ(-6, s.Bytes(text, "notes", mime->Get()));
    EXPECT_TRUE(s.ScanErrorHas("text/plain"));
    ASSERT_EQ(1u, s.Info()->uiScanned);
    EXPECT_STREQ("text/plain", s.Info()->pContentInfo[0].pszContentType);
    mime->SetText(VS_P_BLOCKMIMETYPES, "application/pdf");
    EXPECT_EQ(0, s.Bytes(text, "notes", mime->Get()));

    auto ext = Options();
    ext->SetText(VS_P_BLOCKEXTENSIONS, ".EXE,scr");
    EXPECT_EQ(-6, s.Bytes(text, "invoice.exe", ext->Get()));
    EXPECT_EQ(-6, s.Bytes(text, "dir.x/screen.SCR", ext->Get()));
    EXPECT_EQ(0, s.Bytes(text, "invoice.txt", ext->Get()));
    // By content, whatever the name: a ZIP named .txt, with "zip" blocked.
    ext->SetText(VS_P_BLOCKEXTENSIONS, "zip");
    EXPECT_EQ(-6, s.Bytes(StoredZip({{"a", text}}), "harmless.txt", ext->Get()));
}

TEST_F(ClamavAdapter, UnreadableObjectsAreErrorsNotClean) {
    Scanner s(*adapter_, engine_);
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

TEST_F(ClamavAdapter, ResultsWithoutRecordAndRelease) {
    PEL_SCANPARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tScanCode = VS_SC_BYTES;
    std::string e = Eicar();
    p.pbByte = reinterpret_cast<unsigned char*>(&e[0]);
    p.lLength = e.size();
    EXPECT_EQ(-2, adapter_->Scan(engine_, nullptr, &p, nullptr, nullptr));
    p.tScanCode = 3;
    PEL_SCANINFO* info = nullptr;
    EXPECT_EQ(21, adapter_->Scan(engine_, nullptr, &p, nullptr, &info));
    EXPECT_EQ(nullptr, info);
    PEL_SCANINFO* none = nullptr;
    EXPECT_EQ(0, adapter_->ReleaseScan(&none));
    p.tScanCode = VS_SC_BYTES;
    p.tActionCode = VS_A_SCAN | VS_A_CLEAN;  // the engine cannot clean
    EXPECT_EQ(-5, adapter_->Scan(engine_, nullptr, &p, nullptr, &info));
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(0, info->pVirusInfo[0].bRepairable);
    EXPECT_EQ(0, adapter_->ReleaseScan(&info));
    EXPECT_EQ(nullptr, info);
}

TEST_F(ClamavAdapter, InstancesScanConcurrentlyWithTheirOwnLimits) {
    Bytes nested = NestedZip(ToBytes("y " + Marker()), 4);
    Bytes eicar = ToBytes(Eicar());
    std::atomic<int> wrong{0};
    auto run = [&](uint32_t depth, int expected) {
        ParamList opts(config_->pOptParams);
        opts.SetNumber(VS_P_SCANEXTRACT_DEPTH, depth);
        Scanner s(*adapter_, engine_);
        for (int i = 0; i < 40; ++i) {
            if (s.Bytes(nested, "n.zip", opts.Get()) != expected) ++wrong;
            if (s.Bytes(eicar, "e", opts.Get()) != -2) ++wrong;
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(run, 17, -2);
    threads.emplace_back(run, 2, 14);
    threads.emplace_back(run, 17, -2);
    threads.emplace_back(run, 1, 14);
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, wrong.load());
}

}  // namespace
