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

TEST(MavClamav, ScansAndReportsThroughTheCInterface) {
    HandleGuard g;
    MAV_HANDLE& h = g.h;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &h));
    ASSERT_EQ(MAV_OK, MavSetParameter(h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, TestDb().c_str()));
    MAV_INST inst = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &inst)) << AdapterError(h);

    MAV_SCANINFO si;
    std::memset(&si, 0, sizeof si);
    si.struct_size = 32;
    Bytes eicar = ToBytes(Eicar());
    EXPECT_EQ(MAV_E_VIRUS_FOUND,
              MavScanBytes(inst, "eicar.com", eicar.data(), eicar.size(), 5, &si));
    EXPECT_EQ(1u, si.uiInfections);
    EXPECT_EQ(5u, si.uiJobID);
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(inst, 0));

    std::string hash1 = TestDb() + "/samples/hash1.bin";
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(inst, hash1.c_str(), 6, &si));
    EXPECT_EQ("Kormo.Test.Hash.1.UNOFFICIAL", InfectionName(inst, 0));

    std::string clean = TestDb() + "/samples/clean.txt";
    EXPECT_EQ(MAV_OK, MavScanFile(inst, clean.c_str(), 7, &si));
    EXPECT_EQ(1u, si.uiClean);
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
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST(MavClamav, ParameterOfOneInstanceChangesOnlyItsScans) {
    MAV_SCANINFO si = Summary();
    HandleGuard g;
    MAV_HANDLE& h = g.h;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &h));
    ASSERT_EQ(MAV_OK, MavSetParameter(h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, TestDb().c_str()));
    MAV_INST limited = nullptr, plain = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &limited)) << AdapterError(h);
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &plain));
    ASSERT_EQ(MAV_OK, MavSetParameter(limited, "SCANEXTRACT_DEPTH", VS_TYPE_INT, "2"));

    Bytes nested = NestedZip(ToBytes(Eicar()), 4);
    EXPECT_EQ(MAV_E_NOT_SCANNED,
              MavScanBytes(limited, "nested.zip", nested.data(), nested.size(), 1, &si));
    EXPECT_NE(std::string::npos, ScanErrorText(limited, 0).find("SCANEXTRACT_DEPTH"));
    EXPECT_EQ(MAV_E_VIRUS_FOUND,
              MavScanBytes(plain, "nested.zip", nested.data(), nested.size(), 1, &si));

    char value[64];
    size_t valueLength = sizeof value;
    EXPECT_EQ(MAV_OK, MavGetParameter(h, "SCANEXTRACT_DEPTH", nullptr, value, &valueLength));
    EXPECT_STREQ("17", value);

    // A policy set on one instance blocks only its scans.
    ASSERT_EQ(MAV_OK, MavSetParameter(plain, "BLOCKMIMETYPES", VS_TYPE_CHAR, "text/plain"));
    Bytes text = ToBytes("hello\n");
    EXPECT_EQ(MAV_E_BLOCKED_BY_POLICY,
              MavScanBytes(plain, "hello.txt", text.data(), text.size(), 1, &si));
    EXPECT_EQ(MAV_OK, MavScanBytes(limited, "hello.txt", text.data(), text.size(), 1, &si));

    EXPECT_EQ(MAV_OK, MavFreeInstance(&limited));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&plain));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

VS_CALLRC CountVirus(MAV_INST /*inst*/, uint32_t message, void* data, void* user) {
    auto* names = static_cast<std::vector<std::string>*>(user);
    if (message == VS_M_VIRUS) names->push_back(static_cast<MAV_VIRUSINFO*>(data)->pszVirusName);
    return names->size() >= 2 ? VS_CALLRC_STOP : VS_CALLRC_CONTINUE;
}

TEST(MavClamav, EveryMatchIsAnEventAndAHandlerCanStop) {
    MAV_SCANINFO si = Summary();
    HandleGuard g;
    MAV_HANDLE& h = g.h;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &h));
    ASSERT_EQ(MAV_OK, MavSetParameter(h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, TestDb().c_str()));
    MAV_INST inst = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(h, &inst)) << AdapterError(h);
    std::vector<std::string> names;
    ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(inst, CountVirus, VS_M_VIRUS, &names));
    Bytes one = ToBytes(Eicar());
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanBytes(inst, "one", one.data(), one.size(), 1, &si));
    EXPECT_EQ(1u, names.size());
    Bytes two = ToBytes(Eicar() + "\n" + Marker());
    EXPECT_EQ(MAV_E_CBC_TERMINATED, MavScanBytes(inst, "two", two.data(), two.size(), 1, &si));
    EXPECT_EQ(2u, names.size());
    EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST(MavClamav, MissingDatabaseTellsWhatToDo) {
    TempDir empty;
    HandleGuard g;
    MAV_HANDLE& h = g.h;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &h));
    ASSERT_EQ(MAV_OK,
              MavSetParameter(h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, empty.Path().c_str()));
    MAV_INST inst = nullptr;
    EXPECT_EQ(MAV_E_DRIVER_FAILED, MavCreateInstance(h, &inst));
    std::string text = AdapterError(h);
    EXPECT_NE(std::string::npos, text.find("freshclam")) << text;
    EXPECT_NE(std::string::npos, text.find(empty.Path())) << text;
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST(MavClamav, DefaultAdapterIsFoundBesideTheLibrary) {
    unsetenv("PEL_LIB");
    HandleGuard g;
    MAV_HANDLE& h = g.h;
    ASSERT_EQ(MAV_OK, MavInit(nullptr, &h));
    char name[64];
    size_t nameLength = sizeof name;
    uint32_t events = 0;
    ASSERT_EQ(MAV_OK,
              MavGetPelInfo(h, nullptr, nullptr, &events, name, &nameLength, nullptr, nullptr));
    EXPECT_STREQ("clamav", name);
    EXPECT_NE(0u, events & VS_M_VIRUS);
    EXPECT_EQ(MAV_OK, MavEnd(&h));
}

TEST(MavClamav, ProfileNamesTheAdapterAndItsDatabase) {
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

TEST(MavClamav, BuiltInDefaultProfileUsesTheDefaultAdapter) {
    MAV_SCANINFO si = Summary();
    unsetenv("PEL_LIB");
    // The built-in default configuration, plus the database directory: its
    // provider names no adapter path, so the default adapter is used.
    std::string cfg = BuiltInDefaultConfig() +
                      "mav.provider.Pelmark.Adapters.PEL_DEFAULT.Parameters.INITDRIVERDIRECTORY="
                      "INITDRIVERDIRECTORY\n"
                      "mav.provider.Pelmark.Adapters.PEL_DEFAULT.Parameters.INITDRIVERDIRECTORY."
                      "Type=CHAR\n"
                      "mav.provider.Pelmark.Adapters.PEL_DEFAULT.Parameters.INITDRIVERDIRECTORY."
                      "Value=" +
                      Escape(TestDb()) + "\n";
    ASSERT_EQ(MAV_OK, MavStartRuntime(cfg.c_str(), cfg.size()));
    MAV_INST pi = nullptr;
    ASSERT_EQ(MAV_OK, MavGetProfileInstance(nullptr, &pi));
    ASSERT_NE(nullptr, pi);
    Bytes eicar = ToBytes(Eicar());
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanBytes(pi, "eicar.com", eicar.data(), eicar.size(), 1, &si));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&pi));
    EXPECT_EQ(MAV_OK, MavStopRuntime());
}

}  // namespace
