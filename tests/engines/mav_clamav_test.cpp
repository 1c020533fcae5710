// The ClamAV adapter through libkormomav: the C interface with the adapter
// path, the default adapter found beside the library, and profiles.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "engines_env.h"
#include "kormomav.h"
#include "mav_engines.h"

using namespace engines;

namespace {

// A handle on the ClamAV adapter with the test database, ended on every path.
class MavClamav : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &g_.h));
        ASSERT_EQ(MAV_OK,
                  MavSetParameter(g_.h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, TestDb().c_str()));
    }
    MAV_INST Instance() {
        MAV_INST inst = nullptr;
        EXPECT_EQ(MAV_OK, MavCreateInstance(g_.h, &inst)) << AdapterError(g_.h);
        return inst;
    }
    MAV_RC Scan(MAV_INST inst, const Bytes& data, const char* name = "object") {
        return MavScanBytes(inst, name, const_cast<unsigned char*>(data.data()), data.size(), 5,
                            &si_);
    }
    HandleGuard g_;
    MAV_SCANINFO si_ = Summary();
};

TEST_F(MavClamav, ScansAndReportsThroughTheCInterface) {
    MAV_INST inst = Instance();
    EXPECT_EQ(MAV_E_VIRUS_FOUND, Scan(inst, ToBytes(Eicar()), "eicar.com"));
    EXPECT_EQ(1u, si_.uiInfections);
    EXPECT_EQ(5u, si_.uiJobID);
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(inst, 0));
    std::string hash1 = TestDb() + "/samples/hash1.bin";
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(inst, hash1.c_str(), 6, &si_));
    EXPECT_EQ("Kormo.Test.Hash.1.UNOFFICIAL", InfectionName(inst, 0));
    std::string clean = TestDb() + "/samples/clean.txt";
    EXPECT_EQ(MAV_OK, MavScanFile(inst, clean.c_str(), 7, &si_));
    EXPECT_EQ(1u, si_.uiClean);
    char type[128];
    size_t typeLength = sizeof type;
    EXPECT_EQ(MAV_OK, MavEnumContentInfo(inst, 0, nullptr, nullptr, nullptr, type, &typeLength,
                                         nullptr, nullptr, nullptr));
    EXPECT_STREQ("text/plain", type);
    char version[128];
    size_t versionLength = sizeof version;
    uint16_t drivers = 0;
    EXPECT_EQ(MAV_OK,
              MavGetEngineInfo(inst, nullptr, version, &versionLength, nullptr, nullptr, &drivers));
    EXPECT_EQ(0, std::strncmp("ClamAV ", version, 7));
    EXPECT_EQ(2, drivers);
    EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
}

TEST_F(MavClamav, ParameterOfOneInstanceChangesOnlyItsScans) {
    MAV_INST limited = Instance(), plain = Instance();
    ASSERT_EQ(MAV_OK, MavSetParameter(limited, "SCANEXTRACT_DEPTH", VS_TYPE_INT, "2"));
    Bytes nested = NestedZip(ToBytes(Eicar()), 4);
    EXPECT_EQ(MAV_E_NOT_SCANNED, Scan(limited, nested));
    EXPECT_NE(std::string::npos, ScanErrorText(limited, 0).find("SCANEXTRACT_DEPTH"));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, Scan(plain, nested));
    char value[64];
    size_t valueLength = sizeof value;
    EXPECT_EQ(MAV_OK, MavGetParameter(g_.h, "SCANEXTRACT_DEPTH", nullptr, value, &valueLength));
    EXPECT_STREQ("17", value);

    // A policy set on one instance blocks only its scans.
    ASSERT_EQ(MAV_OK, MavSetParameter(plain, "BLOCKMIMETYPES", VS_TYPE_CHAR, "text/plain"));
    Bytes text = ToBytes("hello\n");
    EXPECT_EQ(MAV_E_BLOCKED_BY_POLICY, Scan(plain, text, "hello.txt"));
    EXPECT_EQ(MAV_OK, Scan(limited, text, "hello.txt"));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&limited));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&plain));
}

VS_CALLRC CountVirus(MAV_INST /*inst*/, uint32_t message, void* data, void* user) {
    auto* names = static_cast<std::vector<std::string>*>(user);
    if (message == VS_M_VIRUS) names->push_back(static_cast<MAV_VIRUSINFO*>(data)->pszVirusName);
    return names->size() >= 2 ? VS_CALLRC_STOP : VS_CALLRC_CONTINUE;
}

TEST_F(MavClamav, EveryMatchIsAnEventAndAHandlerCanStop) {
    MAV_INST inst = Instance();
    std::vector<std::string> names;
    ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(inst, CountVirus, VS_M_VIRUS, &names));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, Scan(inst, ToBytes(Eicar())));
    EXPECT_EQ(1u, names.size());
    EXPECT_EQ(MAV_E_CBC_TERMINATED, Scan(inst, ToBytes(Eicar() + "\n" + Marker())));
    EXPECT_EQ(2u, names.size());
    EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
}

TEST_F(MavClamav, MissingDatabaseTellsWhatToDo) {
    TempDir empty;
    ASSERT_EQ(MAV_OK,
              MavSetParameter(g_.h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, empty.Path().c_str()));
    MAV_INST inst = nullptr;
    EXPECT_EQ(MAV_E_DRIVER_FAILED, MavCreateInstance(g_.h, &inst));
    std::string text = AdapterError(g_.h);
    EXPECT_NE(std::string::npos, text.find("freshclam")) << text;
    EXPECT_NE(std::string::npos, text.find(empty.Path())) << text;
}

TEST(MavClamavDefault, DefaultAdapterIsFoundBesideTheLibrary) {
    unsetenv("PEL_LIB");
    HandleGuard g;
    ASSERT_EQ(MAV_OK, MavInit(nullptr, &g.h));
    char name[64];
    size_t nameLength = sizeof name;
    uint32_t events = 0;
    ASSERT_EQ(MAV_OK,
              MavGetPelInfo(g.h, nullptr, nullptr, &events, name, &nameLength, nullptr, nullptr));
    EXPECT_STREQ("clamav", name);
    EXPECT_NE(0u, events & VS_M_VIRUS);

    // A profile whose provider names no adapter path uses it too.
    std::string cfg = "mav.defaults.profile=DP\n" + Profile("DP", "DG") +
                      Provider("DPROV", "DG", "", 2, {{"INITDRIVERDIRECTORY", "CHAR", TestDb()}});
    ASSERT_EQ(MAV_OK, MavStartRuntime(cfg.c_str(), cfg.size()));
    MAV_INST pi = nullptr;
    ASSERT_EQ(MAV_OK, MavGetProfileInstance(nullptr, &pi));
    ASSERT_NE(nullptr, pi);
    Bytes eicar = ToBytes(Eicar());
    MAV_SCANINFO si = Summary();
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanBytes(pi, "eicar.com", eicar.data(), eicar.size(), 1, &si));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&pi));
    EXPECT_EQ(MAV_OK, MavStopRuntime());
}

TEST(MavClamavProfile, ProfileNamesTheAdapterAndItsDatabase) {
    MAV_SCANINFO si = Summary();
    std::string cfg =
        Profile("CLAMP", "CLAMG") + Provider("CLAMPROV", "CLAMG", KORMO_CLAMAV_ADAPTER, 2,
                                             {{"INITDRIVERDIRECTORY", "CHAR", TestDb()}});
    ASSERT_EQ(MAV_OK, MavStartRuntime(cfg.c_str(), cfg.size()));
    MAV_INST pi = nullptr;
    ASSERT_EQ(MAV_OK, MavGetProfileInstance("CLAMP", &pi));
    ASSERT_NE(nullptr, pi);
    Bytes eicar = ToBytes(Eicar());
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanBytes(pi, "eicar.com", eicar.data(), eicar.size(), 1, &si));
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(pi, 0));
    Bytes text = ToBytes("fine\n");
    EXPECT_EQ(MAV_OK, MavScanBytes(pi, "fine.txt", text.data(), text.size(), 1, &si));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&pi));
    EXPECT_EQ(MAV_OK, MavStopRuntime());
}

}  // namespace
