// The clamd adapter through libkormomav against clamd daemons the test runs:
// fail-over inside one provider and across a group of two providers.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "engines_env.h"
#include "kormomav.h"
#include "mav_engines.h"

using namespace engines;

namespace {

class MavClamd : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        live_ = new Clamd();
        std::string error;
        ASSERT_TRUE(live_->Start(&error)) << error;
    }
    static void TearDownTestSuite() { delete live_; }

    static Clamd* live_;
    TempDir dir_;
};
Clamd* MavClamd::live_ = nullptr;

TEST_F(MavClamd, ScansWithFailOverFromADeadServer) {
    HandleGuard g;
    MAV_HANDLE& h = g.h;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMD_ADAPTER, &h));
    std::string servers = "unix:" + dir_.File("dead.sock") + "," + live_->TcpAddress();
    ASSERT_EQ(MAV_OK, MavSetParameter(h, "INITSERVERS", VS_TYPE_CHAR, servers.c_str()));
    ASSERT_EQ(MAV_OK, MavSetParameter(h, "INITTIMEOUT", VS_TYPE_INT, "10"));
    MAV_INST a = nullptr, b = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &a)) << AdapterError(h);
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &b)) << AdapterError(h);

    MAV_SCANINFO si{32, 0, 0, 0, 0, 0, 0};
    Bytes eicar = ToBytes(Eicar());
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanBytes(a, "eicar", eicar.data(), eicar.size(), 3, &si));
    EXPECT_EQ(1u, si.uiInfections);
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(a, 0));
    std::string hash2 = TestDb() + "/samples/hash2.bin";
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(b, hash2.c_str(), 4, &si));
    EXPECT_EQ("Kormo.Test.Hash.2.UNOFFICIAL", InfectionName(b, 0));

    char version[128];
    size_t length = sizeof version;
    EXPECT_EQ(MAV_OK, MavGetEngineInfo(a, nullptr, version, &length, nullptr, nullptr, nullptr));
    EXPECT_EQ(ClamdCommand(live_->SocketPath(), "zVERSION"), std::string(version, length));

    EXPECT_EQ(MAV_OK, MavFreeInstance(&a));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&b));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST_F(MavClamd, GroupOfTwoProvidersTakesTheLiveOne) {
    MAV_SCANINFO si = Summary();
    std::string dead = "unix:" + dir_.File("gone.sock");
    std::string cfg =
        Profile("FARM", "FARMG") +
        Provider("CLAMD_DOWN", "FARMG", KORMO_CLAMD_ADAPTER, 2,
                 {{"INITSERVERS", "CHAR", dead}, {"INITRECONNECTTIME", "INT", "60"}}) +
        Provider("CLAMD_UP", "FARMG", KORMO_CLAMD_ADAPTER, 2,
                 {{"INITSERVERS", "CHAR", live_->UnixAddress()}});
    ASSERT_EQ(MAV_OK, MavStartRuntime(cfg.c_str(), cfg.size()));
    MAV_INST pi = nullptr;
    ASSERT_EQ(MAV_OK, MavGetProfileInstance("FARM", &pi));
    ASSERT_NE(nullptr, pi);
    Bytes eicar = ToBytes(Eicar());
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanBytes(pi, "eicar", eicar.data(), eicar.size(), 1, &si));
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(pi, 0));
    Bytes text = ToBytes("nothing here\n");
    EXPECT_EQ(MAV_OK, MavScanBytes(pi, "fine", text.data(), text.size(), 1, &si));
    // The instance came from the live provider's handle.
    EXPECT_EQ(MavGetHandleByName("CLAMD_UP", 8), MavGetHandle(pi));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&pi));
    EXPECT_EQ(MAV_OK, MavStopRuntime());
}

TEST_F(MavClamd, UnreachableFarmIsNeverClean) {
    MAV_SCANINFO si = Summary();
    HandleGuard g;
    MAV_HANDLE& h = g.h;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMD_ADAPTER, &h));
    Clamd own;
    std::string error;
    ASSERT_TRUE(own.Start(&error)) << error;
    ASSERT_EQ(MAV_OK, MavSetParameter(h, "INITSERVERS", VS_TYPE_CHAR, own.UnixAddress().c_str()));
    MAV_INST inst = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &inst)) << AdapterError(h);
    own.Stop();
    Bytes text = ToBytes("fine\n");
    EXPECT_EQ(MAV_E_SCAN_FAILED, MavScanBytes(inst, "fine", text.data(), text.size(), 1, &si));
    EXPECT_NE(std::string::npos, ScanErrorText(inst, 0).find(own.UnixAddress()));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

}  // namespace
