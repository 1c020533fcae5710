// The ClamAV and clamd adapters through libkormomav, as applications use them:
// per-instance parameters, the default adapter found beside the library, and a
// profile group whose first provider cannot work. (Verdicts through the
// library with ClamAV: mavscan's tests; each adapter's own cases: the suites
// beside this one.)
#include <gtest/gtest.h>

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

MAV_RC ScanBytes(MAV_INST inst, const Bytes& data, const char* name = "o") {
    MAV_SCANINFO si{32, 0, 0, 0, 0, 0, 0};
    return MavScanBytes(inst, name, const_cast<unsigned char*>(data.data()), data.size(), 5, &si);
}

// A parameter set on one instance changes its scans only: one caller's limit
// or policy never reaches another's.
TEST(MavClamav, InstanceParametersChangeOnlyTheirOwnScans) {
    HandleGuard g;
    ASSERT_EQ(MAV_OK, MavInit(KORMO_CLAMAV_ADAPTER, &g.h));
    ASSERT_EQ(MAV_OK, MavSetParameter(g.h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, TestDb().c_str()));
    MAV_INST limited = nullptr, plain = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(g.h, &limited));
    ASSERT_EQ(MAV_OK, MavCreateInstance(g.h, &plain));
    ASSERT_EQ(MAV_OK, MavSetParameter(limited, "SCANEXTRACT_DEPTH", VS_TYPE_INT, "2"));
    Bytes nested = NestedZip(ToBytes(Eicar()), 4), text = ToBytes("hello\n");
    EXPECT_EQ(MAV_E_NOT_SCANNED, ScanBytes(limited, nested));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(plain, nested));
    ASSERT_EQ(MAV_OK, MavSetParameter(plain, "BLOCKMIMETYPES", VS_TYPE_CHAR, "text/plain"));
    EXPECT_EQ(MAV_E_BLOCKED_BY_POLICY, ScanBytes(plain, text, "hello.txt"));
    EXPECT_EQ(MAV_OK, ScanBytes(limited, text, "hello.txt"));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&limited));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&plain));
}

// The provider DOWN (clamd, no server) cannot start; UP names no adapter path
// and gets the default adapter found beside the library (ClamAV). (One load of
// ClamAV per process: LeakSanitizer's exit check crashes on the thread-local
// data of a libclamav loaded, unloaded and loaded again.)
TEST(MavClamav, DefaultAdapterBesideTheLibraryServesAGroupWhoseFirstProviderIsDown) {
    unsetenv("PEL_LIB");
    TempDir dir;
    std::string cfg =
        "mav.defaults.profile=P\nmav.profile.P=P\nmav.profile.P.Active=true\n"
        "mav.profile.P.ProfileSteps.0=0\nmav.profile.P.ProfileSteps.0.ProfileEntryType=0\n"
        "mav.profile.P.ProfileSteps.0.ProfileEntryValue=G\nmav.group.G=G\n";
    auto provider = [&cfg](const std::string& name, const std::string& path,
                           const std::string& param, const std::string& value) {
        const std::string p = "mav.provider.Pelmark.Adapters." + name,
                          q = p + ".Parameters." + param;
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
    EXPECT_EQ(MAV_E_VIRUS_FOUND, ScanBytes(pi, ToBytes(Eicar())));
    EXPECT_EQ(MAV_OK, ScanBytes(pi, ToBytes("nothing here\n")));
    EXPECT_EQ(MavGetHandleByName("UP", 2), MavGetHandle(pi));
    EXPECT_EQ(MAV_OK, MavFreeInstance(&pi));
    EXPECT_EQ(MAV_OK, MavStopRuntime());
}

}  // namespace
