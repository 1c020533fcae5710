// The clamd adapter driven directly through its entry points against real
// clamd daemons that the test starts and stops itself.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "engines_env.h"

using namespace engines;

namespace {

class ClamdAdapter : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        adapter_ = new Adapter(KORMO_CLAMD_ADAPTER);
        ASSERT_TRUE(adapter_->Loaded()) << adapter_->Error();
        ASSERT_EQ(0, adapter_->Startup());
        ASSERT_EQ(0, adapter_->GetConfig(&config_));
        daemon_ = new Clamd("1M");
        std::string error;
        ASSERT_TRUE(daemon_->Start(&error)) << error;
    }
    static void TearDownTestSuite() {
        delete daemon_;
        EXPECT_EQ(0, adapter_->Cleanup());
        delete adapter_;
    }

    // PelInit with the given servers; the instance is ended by the test.
    int Open(const std::string& servers, PEL_INIT** out, uint32_t reconnect = 10) {
        ParamList init(config_->pInitParams);
        init.SetText(VS_P_INITSERVERS, servers);
        init.SetNumber(VS_P_INITTIMEOUT, 20);
        init.SetNumber(VS_P_INITRECONNECTTIME, reconnect);
        return adapter_->Init(nullptr, init.Get(), out);
    }
    void Close(PEL_INIT** in) {
        PEL_CONFIG* none = nullptr;
        EXPECT_EQ(0, adapter_->End(in, &none));
    }

    static Adapter* adapter_;
    static PEL_CONFIG* config_;
    static Clamd* daemon_;
};
Adapter* ClamdAdapter::adapter_ = nullptr;
PEL_CONFIG* ClamdAdapter::config_ = nullptr;
Clamd* ClamdAdapter::daemon_ = nullptr;

TEST_F(ClamdAdapter, ReportsOneConnectionPerInstanceAndItsParameters) {
    ASSERT_NE(nullptr, config_->pAdapterInfo);
    EXPECT_EQ(0u, config_->pAdapterInfo->uiThreadModel);
    EXPECT_EQ(PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, config_->uiPelScanFlag);
    ASSERT_NE(nullptr, config_->pInitParams);
    ASSERT_EQ(4, config_->pInitParams->usNumParams);
    EXPECT_EQ(VS_P_INITSERVERS, config_->pInitParams->pParams[0].tCode);
    EXPECT_EQ(VS_TYPE_CHAR, config_->pInitParams->pParams[0].tType);
    EXPECT_EQ(VS_P_INITTIMEOUT, config_->pInitParams->pParams[1].tCode);
    EXPECT_EQ(VS_P_INITRECONNECTTIME, config_->pInitParams->pParams[2].tCode);
}

TEST_F(ClamdAdapter, ScansOverUnixAndTcpSockets) {
    for (const std::string& server : {daemon_->UnixAddress(), daemon_->TcpAddress()}) {
        PEL_INIT* in = nullptr;
        ASSERT_EQ(0, Open(server, &in)) << (in && in->pszErrorText ? in->pszErrorText : "");
        ASSERT_NE(nullptr, in->pszEngineVersionText);
        EXPECT_EQ(ClamdCommand(daemon_->SocketPath(), "zVERSION"), in->pszEngineVersionText);
        EXPECT_GE(in->usEngineMajVersion, 1);
        Scanner s(*adapter_, in);
        Events ev;
        PEL_CALLBACK cb = Recorder(&ev);
        EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar", nullptr, &cb)) << server;
        EXPECT_EQ(std::vector<std::string>{"Eicar-Test-Signature.UNOFFICIAL"}, s.Infections());
        EXPECT_EQ(ev.viruses, s.Infections());
        EXPECT_EQ(-2, s.File(TestDb() + "/samples/hash1.bin"));
        EXPECT_EQ(std::vector<std::string>{"Kormo.Test.Hash.1.UNOFFICIAL"}, s.Infections());
        EXPECT_EQ(0, s.File(TestDb() + "/samples/clean.txt", nullptr, &cb));
        EXPECT_EQ(1, ev.clean);
        ASSERT_EQ(1u, s.Info()->uiScanned);
        EXPECT_STREQ("txt", s.Info()->pContentInfo[0].pszExtension);
        EXPECT_EQ(0, s.Bytes(Bytes(), "empty"));
        // Many requests over the kept session.
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(i % 2 ? 0 : -2, s.Bytes(ToBytes(i % 2 ? "ok" : Eicar()), "o"));
        s.Release();
        Close(&in);
    }
}

TEST_F(ClamdAdapter, StreamLimitIsNotScannedAndTheNextScanWorks) {
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(daemon_->TcpAddress(), &in));  // INSTREAM: StreamMaxLength applies
    Scanner s(*adapter_, in);
    Bytes big(2 * 1024 * 1024, 'Z');
    EXPECT_EQ(14, s.Bytes(big, "big"));
    EXPECT_TRUE(s.ScanErrorHas("StreamMaxLength"));
    EXPECT_EQ(0u, s.Info()->uiClean);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar"));
    // The server's own limits reached: not scanned, not an infection.
    EXPECT_EQ(-2, s.Bytes(NestedZip(ToBytes(Eicar()), 2), "two.zip"));
    EXPECT_EQ(14, s.Bytes(NestedZip(ToBytes(Eicar()), 5), "five.zip"));
    EXPECT_EQ(0u, s.Info()->uiInfections);
    EXPECT_TRUE(s.ScanErrorHas("MaxRecursion"));
    s.Release();
    Close(&in);
}

TEST_F(ClamdAdapter, NoReachableServerFailsInitWithTheReasons) {
    TempDir d;
    PEL_INIT* in = nullptr;
    std::string dead = "unix:" + d.File("none.sock");
    std::string closed = "127.0.0.1:" + std::to_string(FreePort());
    EXPECT_EQ(7, Open(dead + "," + closed, &in));
    ASSERT_NE(nullptr, in);
    ASSERT_NE(nullptr, in->pszErrorText);
    EXPECT_NE(nullptr, std::strstr(in->pszErrorText, dead.c_str()));
    EXPECT_NE(nullptr, std::strstr(in->pszErrorText, closed.c_str()));
    Scanner s(*adapter_, in);
    EXPECT_EQ(5, s.Bytes(ToBytes("x"), "x"));

    PEL_INIT* bad = nullptr;
    EXPECT_EQ(3, Open("localhost", &bad));  // no port
    EXPECT_EQ(3, Open(" , ", &bad));
}

TEST_F(ClamdAdapter, FailsOverFromDeadToLiveServers) {
    TempDir d;
    std::string dead = "unix:" + d.File("dead.sock");
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(dead + "," + daemon_->UnixAddress(), &in));
    Scanner s(*adapter_, in);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar"));

    // A second farm member takes over when the one in use goes away.
    Clamd second;
    std::string error;
    ASSERT_TRUE(second.Start(&error)) << error;
    Clamd first;
    ASSERT_TRUE(first.Start(&error)) << error;
    PEL_INIT* pair = nullptr;
    ASSERT_EQ(0, Open(first.UnixAddress() + "," + second.TcpAddress(), &pair, 1));
    Scanner p(*adapter_, pair);
    EXPECT_EQ(-2, p.Bytes(ToBytes(Eicar()), "eicar"));
    first.Stop();
    EXPECT_EQ(-2, p.Bytes(ToBytes(Eicar()), "eicar"));
    EXPECT_EQ(0, p.Bytes(ToBytes("fine"), "fine"));
    // Both gone: an error, never clean.
    second.Stop();
    Events ev;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(13, p.Bytes(ToBytes("fine"), "fine", nullptr, &cb));
    EXPECT_EQ(0u, p.Info()->uiClean);
    EXPECT_EQ(1u, ev.errors.size());
    EXPECT_EQ(0, ev.clean);
    // After INITRECONNECTTIME the restarted server is used again.
    ASSERT_TRUE(second.Start(&error)) << error;
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(-2, p.Bytes(ToBytes(Eicar()), "eicar"));
    p.Release();
    s.Release();
    Close(&pair);
    Close(&in);
}

TEST_F(ClamdAdapter, KeptSessionSurvivesAServerRestart) {
    Clamd own;
    std::string error;
    ASSERT_TRUE(own.Start(&error)) << error;
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(own.UnixAddress(), &in));
    Scanner s(*adapter_, in);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar"));
    own.Stop();
    ASSERT_TRUE(own.Start(&error)) << error;
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar"));
    s.Release();
    Close(&in);
}

TEST_F(ClamdAdapter, HandlerStopEndsTheScan) {
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(daemon_->UnixAddress(), &in));
    Scanner s(*adapter_, in);
    Events ev;
    ev.stopAfterViruses = 1;
    PEL_CALLBACK cb = Recorder(&ev);
    EXPECT_EQ(17, s.Bytes(ToBytes(Eicar()), "eicar", nullptr, &cb));
    s.Release();
    Close(&in);
}

}  // namespace
