// The ClamAV and clamd adapters through libkormomav, as applications use them:
// the C interface, per-instance parameters, the default adapter found beside
// the library, and a profile group whose first provider cannot work.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "engines_env.h"
#include "kormomav.h"

using namespace engines;

namespace {

// Ends a handle on every path out of a test (a failed MavInit still hands
// one out).
struct HandleGuard {
    MAV_HANDLE h = nullptr;
    ~HandleGuard() {
        if (h != nullptr) MavEnd(&h);
    }
};

// A summary record: without one the library asks the adapter for no results.
MAV_SCANINFO Summary() {
    return MAV_SCANINFO{32, 0, 0, 0, 0, 0, 0};
}

std::string AdapterError(MAV_HANDLE h) {
    char buffer[4096];
    KORMO_CHAR* text = buffer;
    size_t length = sizeof buffer;
    if (MavAdapterErrorText(h, &text, &length) != MAV_OK) return std::string();
    return std::string(text, length);
}

std::string InfectionName(void* inst, uint32_t index) {
    char name[512];
    size_t length = sizeof name;
    if (MavEnumInfections(inst, index, nullptr, nullptr, name, &length, nullptr, nullptr, nullptr,
                          nullptr, nullptr) != MAV_OK) {
        return "(none)";
    }
    return std::string(name, length);
}

std::string ScanErrorText(void* inst, uint32_t index) {
    char text[1024];
    size_t length = sizeof text;
    if (MavEnumScanErrors(inst, index, nullptr, text, &length, nullptr, nullptr, nullptr) !=
        MAV_OK) {
        return "(none)";
    }
    return std::string(text, length);
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

MAV_RC ScanBytes(MAV_INST inst, const Bytes& data, MAV_SCANINFO* si, const char* name = "o") {
    return MavScanBytes(inst, name, const_cast<unsigned char*>(data.data()), data.size(), 5, si);
}

// A dead server first is failed over; when the last server goes away the scan
// fails with its address, never clean. (ClamAV through the library: mavscan's
// tests.)
TEST(MavClamd, ScansThroughTheCInterfaceAndNeverCleanWithoutAServer) {
    TempDir dir;
    Clamd own;
    std::string error;
    ASSERT_TRUE(own.Start(&error)) << error;
    HandleGuard g;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMD_ADAPTER, &g.h));
    const std::string servers = "unix:" + dir.File("dead.sock") + "," + own.TcpAddress();
    EXPECT_EQ(MAV_OK, MavSetParameter(g.h, "INITSERVERS", VS_TYPE_CHAR, servers.c_str()));
    MAV_INST inst = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(g.h, &inst)) << AdapterError(g.h);
    MAV_SCANINFO si = Summary();
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(inst, ToBytes(Eicar()), &si));
    EXPECT_EQ(1u, si.uiInfections);
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(inst, 0));
    std::string hash1 = TestDb() + "/samples/hash1.bin", clean = TestDb() + "/samples/clean.txt";
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(inst, hash1.c_str(), 6, &si));
    EXPECT_EQ("Kormo.Test.Hash.1.UNOFFICIAL", InfectionName(inst, 0));
    EXPECT_EQ(MAV_OK, MavScanFile(inst, clean.c_str(), 7, &si));
    EXPECT_EQ(1u, si.uiClean);
    own.Stop();
    EXPECT_EQ(MAV_E_SCAN_FAILED, ScanBytes(inst, ToBytes("fine\n"), &si));
    EXPECT_TRUE(Has(ScanErrorText(inst, 0), own.TcpAddress())) << ScanErrorText(inst, 0);
    EXPECT_EQ(MAV_OK, MavFreeInstance(&inst));
}

TEST(MavClamav, InstanceParametersChangeOnlyTheirOwnScans) {
    HandleGuard g;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &g.h));
    ASSERT_EQ(MAV_OK, MavSetParameter(g.h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, TestDb().c_str()));
    MAV_INST limited = nullptr, plain = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(g.h, &limited));
    ASSERT_EQ(MAV_OK, MavCreateInstance(g.h, &plain));
    MAV_SCANINFO si = Summary();
    ASSERT_EQ(MAV_OK, MavSetParameter(limited, "SCANEXTRACT_DEPTH", VS_TYPE_INT, "2"));
    Bytes nested = NestedZip(ToBytes(Eicar()), 4), text = ToBytes("hello\n");
    EXPECT_EQ(MAV_E_NOT_SCANNED, ScanBytes(limited, nested, &si));
    EXPECT_TRUE(Has(ScanErrorText(limited, 0), "SCANEXTRACT_DEPTH"));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(plain, nested, &si));
    ASSERT_EQ(MAV_OK, MavSetParameter(plain, "BLOCKMIMETYPES", VS_TYPE_CHAR, "text/plain"));
    EXPECT_EQ(MAV_E_BLOCKED_BY_POLICY, ScanBytes(plain, text, &si, "hello.txt"));
    EXPECT_EQ(MAV_OK, ScanBytes(limited, text, &si, "hello.txt"));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&limited));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&plain));
}

// The provider DOWN (clamd, no server) cannot start; UP names no adapter path
// and gets the default adapter found beside the library (ClamAV).
TEST(MavClamav, DefaultAdapterBesideTheLibraryServesAGroupWhoseFirstProviderIsDown) {
    unsetenv("PEL_LIB");
    HandleGuard g;
    ASSERT_EQ(MAV_OK, MavInit(nullptr, &g.h));
    char name[64];
    size_t nameLength = sizeof name;
    ASSERT_EQ(MAV_OK, MavGetPelInfo(g.h, nullptr, nullptr, nullptr, name, &nameLength, nullptr, nullptr));
    EXPECT_STREQ("clamav", name);
    TempDir dir;
    std::string cfg = "mav.defaults.profile=P\nmav.profile.P=P\nmav.profile.P.Active=true\n"
                      "mav.profile.P.ProfileSteps.0=0\nmav.profile.P.ProfileSteps.0.ProfileEntryType=0\n"
                      "mav.profile.P.ProfileSteps.0.ProfileEntryValue=G\nmav.group.G=G\n";
    auto provider = [&cfg](const std::string& name, const std::string& path, const std::string& param,
                           const std::string& value) {
        const std::string p = "mav.provider.Pelmark.Adapters." + name, q = p + ".Parameters." + param;
        cfg += p + "=" + name + "\n" + p + ".AdapterPath=" + path + "\n" + p + ".Group=G\n" + p +
               ".Active=true\n" + p + ".PoolMaxInstances=2\n" + q + "=" + param + "\n" + q +
               ".Type=CHAR\n" + q + ".Value=" + value + "\n";
    };
    provider("DOWN", KORMO_CLAMD_ADAPTER, "INITSERVERS", "unix:" + dir.File("gone.sock"));
    provider("UP", "", "INITDRIVERDIRECTORY", TestDb());
    ASSERT_EQ(MAV_OK, MavStartRuntime(cfg.c_str(), cfg.size()));
    MAV_INST pi = nullptr;
    ASSERT_EQ(MAV_OK, MavGetProfileInstance(nullptr, &pi));
    ASSERT_NE(nullptr, pi);
    MAV_SCANINFO si = Summary();
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(pi, ToBytes(Eicar()), &si));
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", InfectionName(pi, 0));
    EXPECT_EQ(MAV_OK, ScanBytes(pi, ToBytes("nothing here\n"), &si));
    EXPECT_EQ(MavGetHandleByName("UP", 2), MavGetHandle(pi));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&pi));
    EXPECT_EQ(MAV_OK, MavStopRuntime());
}

}  // namespace
