// profile_test.cpp - profile instances never say clean without an engine's
// verdict: "not scanned" judged by each step's own settings, fail-over past
// providers that give no instance, no engine at all, and warnings about
// configuration lines the runtime ignores.
#include "../profile/profile_fixture.h"
#include "mav_fixture.h"

using profiletest::Config;
using profiletest::RuntimeTest;
using profiletest::TwoAdapterTest;

namespace {

// The code a C++ scan ended with: its return or the thrown exception's code.
MAV_RC CxxScan(mav::MavInstance& inst, const std::string& file) {
    try {
        return inst.scan(file.c_str());
    } catch (const mav::MavCException& e) {
        return e.getRc();
    }
}

// Two separately loaded copies of the test adapter (A, B), each behind a
// strict provider (S) and one that accepts "not scanned" (W).
class FailClosedProfile : public TwoAdapterTest {
  protected:
    // Provider NAME alone in group G_NAME, on adapter path, warning or strict.
    void provider(Config& c, const std::string& name, const std::string& path, bool warn,
                  const std::string& active = "true") {
        c.group("G_" + name).provider(name, "G_" + name, path, "1", active);
        c.param("mav.provider.Pelmark.Adapters." + name, "CUST_NOT_SCANNED_AS_WARNING", "BOOL",
                warn ? "1" : "0");
    }
};

TEST_F(FailClosedProfile, NotScannedJudgedByEachStep) {
    // Profile L<linkage><A setting><B setting>: step A, then step B.
    Config c;
    for (const char* a : {"W", "S"}) {
        provider(c, std::string("A") + a, pel.path(), a[0] == 'W');
        provider(c, std::string("B") + a, pathB, a[0] == 'W');
    }
    for (const char* l : {"0", "1", "2"}) {
        for (const char* a : {"W", "S"}) {
            for (const char* b : {"W", "S"}) {
                std::string name = std::string("L") + l + a + b;
                c.profile(name, true, l);
                c.step(name, "0", "0", std::string("G_A") + a);
                c.step(name, "1", "0", std::string("G_B") + b);
            }
        }
    }
    ASSERT_EQ(start(c.text), MAV_OK);
    const MAV_RC NS = MAV_E_NOT_SCANNED, V = MAV_E_VIRUS_FOUND, E = MAV_E_SCAN_FAILED;
    struct Case {
        const char* profile;
        MAV_RC a, b, want;
        uint32_t bScans;  // scans B saw
    } cases[] = {
        // A's acceptance does not forgive B's "not scanned".
        {"L0WS", NS, NS, NS, 1},
        {"L0SW", NS, NS, NS, 0},  // A's own 14 is not accepted: it decides
        {"L0WW", NS, NS, MAV_OK, 1},
        // An accepted 14 does not end the walk: B's finding decides.
        {"L0WS", NS, V, V, 1},
        {"L0WW", NS, E, E, 1},
        {"L0WS", NS, MAV_OK, MAV_OK, 1},
        {"L0SW", MAV_OK, NS, MAV_OK, 1},
        {"L0SS", V, NS, V, 0},
        // Linkage 1: the first clean result decides, a 14 is no clean result.
        {"L1WS", NS, MAV_OK, MAV_OK, 1},
        {"L1WS", NS, NS, NS, 1},
        {"L1SW", NS, NS, NS, 1},
        {"L1WW", NS, NS, MAV_OK, 1},
        {"L1WS", NS, V, V, 1},
        {"L1WW", E, NS, MAV_OK, 1},
        {"L1SS", MAV_OK, V, MAV_OK, 0},
        // Any linkage but 1 is 0: a finding is never overruled by a later clean.
        {"L2SS", V, MAV_OK, V, 0},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(std::string(k.profile) + " " + std::to_string(k.a) + "," +
                     std::to_string(k.b));
        pel.script_rc(k.a);
        pelB->script_rc(k.b);
        uint32_t before = pelB->calls(TPEL_SCAN);
        MAV_INST h = MavGetProfileInstancePointer(k.profile);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(MavScanFile(h, file.c_str(), 0, nullptr), k.want);
        EXPECT_EQ(MavFreeInstance(&h), MAV_OK);
        std::unique_ptr<mav::MavInstance> mi = mav::MavInstance::createInstance(k.profile);
        ASSERT_TRUE(mi);
        EXPECT_EQ(CxxScan(*mi, file), k.want);
        EXPECT_EQ(pelB->calls(TPEL_SCAN) - before, 2 * k.bScans);
    }
}

TEST_F(FailClosedProfile, NoVerdictWithoutAnEngine) {
    // FAILOVER lists A then B; ONLY has A alone; OFF an inactive provider;
    // NONE a group without providers.
    Config c;
    c.group("G_FO").provider("FA", "G_FO", pel.path()).provider("FB", "G_FO", pathB);
    provider(c, "A", pel.path(), true);
    provider(c, "OFF", pel.path(), true, "false");
    c.group("G_NONE");
    c.profile("FAILOVER").step("FAILOVER", "0", "0", "G_FO");
    for (const char* g : {"A", "OFF", "NONE"}) {
        c.profile(std::string("P") + g).step(std::string("P") + g, "0", "0", std::string("G_") + g);
    }
    ASSERT_EQ(start(c.text), MAV_OK);
    // Hold the one pooled instance of each adapter-A provider; then A can make
    // no more.
    std::unique_ptr<mav::MavInstance> heldFO = mav::MavInstance::createInstance("FAILOVER");
    std::unique_ptr<mav::MavInstance> heldA = mav::MavInstance::createInstance("PA");
    ASSERT_TRUE(heldFO && heldA);
    pel.fail(TPEL_INIT, MAV_E_NO_SPACE, nullptr);

    std::unique_ptr<mav::MavInstance> fo = mav::MavInstance::createInstance("FAILOVER");
    ASSERT_TRUE(fo);
    ASSERT_EQ(fo->getCInstances().size(), 1u);
    pelB->script_rc(MAV_E_VIRUS_FOUND);
    EXPECT_EQ(CxxScan(*fo, file), MAV_E_VIRUS_FOUND);  // B stood in for A

    TraceCapture trace(MAV_TRC_ERROR);
    for (const char* name : {"PA", "POFF", "PNONE"}) {
        SCOPED_TRACE(name);
        MAV_INST h = MavGetProfileInstancePointer(name);
        ASSERT_NE(h, nullptr);
        unsigned char bytes[] = "abc";
        EXPECT_EQ(MavScanBytes(h, "b", bytes, 3, 0, nullptr), MAV_E_NOT_SCANNED);
        EXPECT_EQ(MavScanFile(h, file.c_str(), 0, nullptr), MAV_E_NOT_SCANNED);
        // The C caller reads why: one scan error naming the profile and the object.
        uint32_t code = 0;
        char text[256], object[256];
        size_t textLen = sizeof text, objectLen = sizeof object;
        ASSERT_EQ(MavEnumScanErrors(h, 0, &code, text, &textLen, object, &objectLen, nullptr),
                  MAV_OK);
        EXPECT_EQ(code, static_cast<uint32_t>(MAV_E_NOT_SCANNED));
        EXPECT_NE(std::string(text).find(std::string(">") + name + "<"), std::string::npos);
        EXPECT_EQ(std::string(object), file);
        EXPECT_EQ(MavEnumScanErrors(h, 1, &code, text, &textLen, nullptr, nullptr, nullptr),
                  MAV_E_INVALID_ENUM_INDEX);
        EXPECT_EQ(MavFreeInstance(&h), MAV_OK);
        EXPECT_EQ(TraceCapture::CountContaining(std::string(">") + name + "<"), 2);
        std::unique_ptr<mav::MavInstance> mi = mav::MavInstance::createInstance(name);
        ASSERT_TRUE(mi);
        try {
            mi->scan(file.c_str());
            ADD_FAILURE() << "no exception";
        } catch (const mav::MavCScanException& e) {
            EXPECT_EQ(e.getRc(), MAV_E_NOT_SCANNED);
            EXPECT_NE(e.getText().find(std::string(">") + name + "<"), std::string::npos);
        }
    }
    pel.fail(TPEL_INIT, 0, nullptr);
}

TEST_F(FailClosedProfile, IgnoredConfigurationLinesAreTraced) {
    Config c;
    c.line("mav.profile.P=P").line("mav.profile.P.Active=True").line("mav.profile.P.Colour=red");
    c.line("mav.profile.P.ProfileLinkage=01").line("mav.bogus=1");
    {
        TraceCapture off(0);
        ASSERT_EQ(start(c.text), MAV_OK);
        EXPECT_EQ(TraceCapture::CountContaining("mav_buffer"), 0);
        MavStopRuntime();
    }
    TraceCapture trace(MAV_TRC_WARNING);
    ASSERT_EQ(start(c.text), MAV_OK);
    for (const char* part :
         {"key >mav.profile.P.Colour<", "value >True<", "value >01<", "key >mav.bogus<"}) {
        EXPECT_EQ(TraceCapture::CountContaining(part), 1) << part;
    }
    EXPECT_EQ(TraceCapture::CountContaining("Configuration >mav_buffer<"), 4);
}

}  // namespace
