// The ClamAV and clamd adapters through libkormomav, as applications use them:
// the C interface, profiles (one provider, and a group whose first provider is
// down), the default adapter found beside the library.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "engines_env.h"
#include "kormomav.h"
#include "mav_engines.h"

using namespace engines;

namespace {

Clamd* gLive = nullptr;

class LiveClamd : public ::testing::Environment {
    void SetUp() override {
        gLive = new Clamd();
        std::string error;
        ASSERT_TRUE(gLive->Start(&error)) << error;
    }
    void TearDown() override { delete gLive; }
};
const auto* gEnv = ::testing::AddGlobalTestEnvironment(new LiveClamd);

struct Engine {
    const char* name;
    const char* path;
    bool clamd;
};
const Engine kEngines[] = {{"clamav", KORMO_CLAMAV_ADAPTER, false},
                           {"clamd", KORMO_CLAMD_ADAPTER, true}};

class MavEngine : public ::testing::TestWithParam<Engine> {
  protected:
    // The engine's init parameter pointing at a working (or the given) source.
    std::vector<Param> Source(const std::string& where = "") {
        if (GetParam().clamd)
            return {{"INITSERVERS", "CHAR", where.empty() ? gLive->UnixAddress() : where},
                    {"INITTIMEOUT", "INT", "10"}, {"INITRECONNECTTIME", "INT", "60"}};
        return {{"INITDRIVERDIRECTORY", "CHAR", where.empty() ? TestDb() : where}};
    }
    MAV_RC Open(const std::string& where = "") {
        EXPECT_EQ(MAV_OK, MavInit(GetParam().path, &g_.h));
        for (const Param& p : Source(where)) {
            EXPECT_EQ(MAV_OK, MavSetParameter(g_.h, p.name.c_str(),
                                              p.type == "INT" ? VS_TYPE_INT : VS_TYPE_CHAR,
                                              p.value.c_str()));
        }
        return MavCreateInstance(g_.h, &inst_);
    }
    MAV_RC Scan(const Bytes& data, const char* name = "object") {
        return MavScanBytes(inst_, name, const_cast<unsigned char*>(data.data()), data.size(), 5,
                            &si_);
    }
    void TearDown() override {
        if (inst_ != nullptr) {
            EXPECT_EQ(MAV_OK, MavFreeInstance(&inst_));
        }
    }
    HandleGuard g_;
    MAV_INST inst_ = nullptr;
    MAV_SCANINFO si_ = Summary();
};

TEST_P(MavEngine, ScansAndReportsThroughTheCInterface) {
    TempDir dir;
    // A dead server first: the clamd adapter fails over to the live one.
    ASSERT_EQ(MAV_OK, Open(GetParam().clamd
                               ? "unix:" + dir.File("dead.sock") + "," + gLive->TcpAddress()
                               : ""))
        << AdapterError(g_.h);
    EXPECT_EQ(MAV_E_VIRUS_FOUND, Scan(ToBytes(Eicar()), "eicar.com"));
    EXPECT_EQ(1u, si_.uiInfections);
    EXPECT_EQ(5u, si_.uiJobID);
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(inst_, 0));
    std::string hash1 = TestDb() + "/samples/hash1.bin";
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(inst_, hash1.c_str(), 6, &si_));
    EXPECT_EQ("Kormo.Test.Hash.1.UNOFFICIAL", InfectionName(inst_, 0));
    std::string clean = TestDb() + "/samples/clean.txt";
    EXPECT_EQ(MAV_OK, MavScanFile(inst_, clean.c_str(), 7, &si_));
    EXPECT_EQ(1u, si_.uiClean);
    char version[128];
    size_t length = sizeof version;
    EXPECT_EQ(MAV_OK, MavGetEngineInfo(inst_, nullptr, version, &length, nullptr, nullptr, nullptr));
    if (GetParam().clamd) {
        EXPECT_EQ(ClamdCommand(gLive->SocketPath(), "zVERSION"), std::string(version, length));
    } else {
        EXPECT_EQ(0, std::strncmp("ClamAV ", version, 7));
    }
}

// A missing database fails the instance with advice; a server that went away
// fails the scan with its address: neither is ever clean.
TEST_P(MavEngine, EngineThatCannotWorkIsNeverClean) {
    if (!GetParam().clamd) {
        TempDir empty;
        EXPECT_EQ(MAV_E_DRIVER_FAILED, Open(empty.Path()));
        std::string text = AdapterError(g_.h);
        EXPECT_NE(std::string::npos, text.find("freshclam")) << text;
        EXPECT_NE(std::string::npos, text.find(empty.Path())) << text;
        return;
    }
    Clamd own;
    std::string error;
    ASSERT_TRUE(own.Start(&error)) << error;
    ASSERT_EQ(MAV_OK, Open(own.UnixAddress())) << AdapterError(g_.h);
    own.Stop();
    EXPECT_EQ(MAV_E_SCAN_FAILED, Scan(ToBytes("fine\n")));
    EXPECT_NE(std::string::npos, ScanErrorText(inst_, 0).find(own.UnixAddress()));
}

// A profile over a group whose first provider cannot start (a missing
// database, a dead server) scans with the second.
TEST_P(MavEngine, ProfileGroupTakesTheProviderThatWorks) {
    TempDir dir;
    std::string broken = GetParam().clamd ? "unix:" + dir.File("gone.sock") : dir.Path();
    std::string cfg = Profile("P", "G") + Provider("DOWN", "G", GetParam().path, 2, Source(broken)) +
                      Provider("UP", "G", GetParam().path, 2, Source());
    ASSERT_EQ(MAV_OK, MavStartRuntime(cfg.c_str(), cfg.size()));
    MAV_INST pi = nullptr;
    ASSERT_EQ(MAV_OK, MavGetProfileInstance("P", &pi));
    ASSERT_NE(nullptr, pi);
    Bytes eicar = ToBytes(Eicar());
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanBytes(pi, "eicar", eicar.data(), eicar.size(), 1, &si_));
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(pi, 0));
    Bytes text = ToBytes("nothing here\n");
    EXPECT_EQ(MAV_OK, MavScanBytes(pi, "fine", text.data(), text.size(), 1, &si_));
    EXPECT_EQ(MavGetHandleByName("UP", 2), MavGetHandle(pi));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&pi));
    EXPECT_EQ(MAV_OK, MavStopRuntime());
}

INSTANTIATE_TEST_SUITE_P(, MavEngine, ::testing::ValuesIn(kEngines),
                         [](const ::testing::TestParamInfo<Engine>& i) { return i.param.name; });

VS_CALLRC CountVirus(MAV_INST /*inst*/, uint32_t message, void* data, void* user) {
    auto* names = static_cast<std::vector<std::string>*>(user);
    if (message == VS_M_VIRUS) names->push_back(static_cast<MAV_VIRUSINFO*>(data)->pszVirusName);
    return names->size() >= 2 ? VS_CALLRC_STOP : VS_CALLRC_CONTINUE;
}

TEST(MavClamav, InstanceParametersEventsAndStop) {
    HandleGuard g;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &g.h));
    ASSERT_EQ(MAV_OK, MavSetParameter(g.h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, TestDb().c_str()));
    MAV_INST limited = nullptr, plain = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(g.h, &limited));
    ASSERT_EQ(MAV_OK, MavCreateInstance(g.h, &plain));
    MAV_SCANINFO si = Summary();
    auto scan = [&](MAV_INST inst, const Bytes& b, const char* name) {
        return MavScanBytes(inst, name, const_cast<unsigned char*>(b.data()), b.size(), 1, &si);
    };
    // A parameter of one instance changes only its scans.
    ASSERT_EQ(MAV_OK, MavSetParameter(limited, "SCANEXTRACT_DEPTH", VS_TYPE_INT, "2"));
    Bytes nested = NestedZip(ToBytes(Eicar()), 4);
    EXPECT_EQ(MAV_E_NOT_SCANNED, scan(limited, nested, "n.zip"));
    EXPECT_NE(std::string::npos, ScanErrorText(limited, 0).find("SCANEXTRACT_DEPTH"));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, scan(plain, nested, "n.zip"));
    ASSERT_EQ(MAV_OK, MavSetParameter(plain, "BLOCKMIMETYPES", VS_TYPE_CHAR, "text/plain"));
    Bytes text = ToBytes("hello\n");
    EXPECT_EQ(MAV_E_BLOCKED_BY_POLICY, scan(plain, text, "hello.txt"));
    EXPECT_EQ(MAV_OK, scan(limited, text, "hello.txt"));
    // Every match is an event; a handler can stop the scan.
    std::vector<std::string> names;
    ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(limited, CountVirus, VS_M_VIRUS, &names));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, scan(limited, ToBytes(Eicar()), "e"));
    EXPECT_EQ(1u, names.size());
    EXPECT_EQ(MAV_E_CBC_TERMINATED, scan(limited, ToBytes(Eicar() + "\n" + Marker()), "e"));
    EXPECT_EQ(2u, names.size());
    EXPECT_EQ(MAV_OK, MavFreeInstance(&limited));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&plain));
}

TEST(MavClamav, DefaultAdapterIsFoundBesideTheLibrary) {
    unsetenv("PEL_LIB");
    HandleGuard g;
    ASSERT_EQ(MAV_OK, MavInit(nullptr, &g.h));
    char name[64];
    size_t nameLength = sizeof name;
    ASSERT_EQ(MAV_OK,
              MavGetPelInfo(g.h, nullptr, nullptr, nullptr, name, &nameLength, nullptr, nullptr));
    EXPECT_STREQ("clamav", name);
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

}  // namespace
