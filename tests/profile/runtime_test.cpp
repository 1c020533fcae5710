// runtime_test.cpp - runtime start and stop, configuration sources, key rules,
// fail-over, profile lookup codes and the cycle guard.
#include <unistd.h>

#include <cstring>

#include "mav_fixture.h"
#include "profile_fixture.h"

using profiletest::Config;
using profiletest::RuntimeTest;
using profiletest::TempDir;

namespace {

// Runs the test in dir with PEL_LIB set to lib (null: unset); restores both.
struct Environment {
    char oldCwd[4096];
    Environment(const std::string& dir, const char* lib) {
        EXPECT_NE(nullptr, getcwd(oldCwd, sizeof oldCwd));
        EXPECT_EQ(chdir(dir.c_str()), 0);
        if (lib != nullptr) setenv("PEL_LIB", lib, 1);
    }
    ~Environment() {
        EXPECT_EQ(chdir(oldCwd), 0);
        unsetenv("PEL_LIB");
    }
};

mav::MavProvider* provider(const std::string& name) {
    auto it = mav::mav_providers.find(name);
    return it == mav::mav_providers.end() ? nullptr : it->second;
}

mav::MavProfile* profile(const std::string& name) {
    auto it = mav::mav_profiles.find(name);
    return it == mav::mav_profiles.end() ? nullptr : it->second;
}

TEST_F(RuntimeTest, BuiltInDefaultWithTheTestAdapter) {
    TempDir dir;
    Environment env(dir.path, pel.path());
    ASSERT_EQ(MavStartRuntime(nullptr, 0), MAV_OK);
    mav::MavProvider* p = provider("PEL_DEFAULT");
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(p->isActive());
    EXPECT_EQ(MavGetPoolSize(p->getMavHandle()), 20u);
    EXPECT_EQ(pel.calls(TPEL_INIT), 20u);
    EXPECT_EQ(MavGetHandleByName("PEL_DEFAULT", 11), p->getMavHandle());

    MAV_INST inst = nullptr;
    ASSERT_EQ(MavGetProfileInstance(nullptr, &inst), MAV_OK);
    ASSERT_NE(inst, nullptr);
    EXPECT_EQ(MavGetHandle(inst), p->getMavHandle());
    EXPECT_EQ(MavScanFile(inst, "/etc/hostname", 0, nullptr), MAV_OK);
    EXPECT_EQ(MavFreeInstance(&inst), MAV_OK);
    EXPECT_EQ(MavStopRuntime(), MAV_OK);
    EXPECT_EQ(pel.live_inits(), 0);
}

TEST_F(RuntimeTest, BuiltInDefaultWithoutAdapterFailsTheProvider) {
    TempDir dir;
    Environment env(dir.path, dir.file("libnone.so").c_str());
    ASSERT_EQ(MavStartRuntime(nullptr, 0), MAV_OK);
    mav::MavProvider* p = provider("PEL_DEFAULT");
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(p->isFailed());
    EXPECT_FALSE(p->isActive());
    // The first build finds no usable provider: an empty instance that never
    // answers clean, and the profile is marked failed for every later lookup.
    MAV_INST inst = nullptr;
    ASSERT_EQ(MavGetProfileInstance("DEFAULT", &inst), MAV_OK);
    ASSERT_NE(inst, nullptr);
    unsigned char bytes[] = "abc";
    EXPECT_EQ(MavScanBytes(inst, "b", bytes, 3, 0, nullptr), MAV_E_NOT_SCANNED);
    EXPECT_EQ(MavFreeInstance(&inst), MAV_OK);
    EXPECT_EQ(MavGetProfileInstance(nullptr, &inst), MAV_E_PROFILE_NOT_VALID);
    EXPECT_EQ(MavGetProfileInstancePointer(nullptr), nullptr);
}

TEST_F(RuntimeTest, KeyRules) {
    Config c;
    c.line("mav.defaults.profile=P");
    c.profile("P", true, "1").step("P", "1", "0", "G1").step("P", "0", "2", "G2");
    c.profile("L01", true, "01").line("mav.profile.UP=UP").line("mav.profile.UP.Active=TRUE");
    c.line("mav.profile.REF=REF").line("mav.profile.REF.UseReference=true");
    c.line("mav.profile.REF.Active=true");
    c.line("mav.profile.NOREF=NOREF").line("mav.profile.NOREF.UseReference=TRUE");
    c.line("mav.profile.\\u00E4=\\u00E4").line("mav.profile.\\u00E4.Active=true");
    c.group("G1").provider("P100", "G1", pel.path(), "100").provider("P7", "G1", pel.path(), "7");
    c.group("G2").provider("Q2", "G2", pel.path());
    c.provider("LONE", "NOGROUP", pel.path(), "1", "yes");
    ASSERT_EQ(start(c.text), MAV_OK);

    EXPECT_EQ(provider("P100")->getPoolMaxInstances(), 1);
    EXPECT_EQ(provider("P7")->getPoolMaxInstances(), 7);
    EXPECT_EQ(MavGetPoolSize(provider("P7")->getMavHandle()), 7u);
    EXPECT_FALSE(provider("LONE")->isActive());
    EXPECT_EQ(provider("LONE")->getMavHandle(), nullptr);
    EXPECT_EQ(mav::mav_groups["G1"]->getProviders(), (std::vector<std::string>{"P100", "P7"}));
    EXPECT_EQ(profile("P")->getLinkage(), 1);
    EXPECT_EQ(profile("L01")->getLinkage(), 0);
    EXPECT_FALSE(profile("UP")->isActive());
    // Steps in registration order; the type-2 step is listed but adds nothing.
    EXPECT_EQ(profile("P")->getEntries(), (std::vector<std::string>{"G1", "G2"}));
    EXPECT_EQ(profile("REF")->getEntries(), std::vector<std::string>{"P"});
    EXPECT_TRUE(profile("NOREF")->getEntries().empty());

    std::unique_ptr<mav::MavInstance> inst = mav::MavInstance::createInstance("P");
    ASSERT_TRUE(inst);
    ASSERT_EQ(inst->getCInstances().size(), 1u);
    EXPECT_EQ(MavGetHandle(inst->getCInstances()[0]), provider("P100")->getMavHandle());
    std::unique_ptr<mav::MavInstance> viaRef = mav::MavInstance::createInstance("REF");
    ASSERT_TRUE(viaRef);
    EXPECT_EQ(viaRef->getCInstances().size(), 1u);
    // A raw UTF-8 name finds the profile registered with its escaped form.
    MAV_INST pi = nullptr;
    EXPECT_EQ(MavGetProfileInstance("\xC3\xA4", &pi), MAV_E_PROFILE_NOT_FOUND);
    EXPECT_EQ(MavGetProfileInstance("\xE4", &pi), MAV_OK);
    EXPECT_EQ(pi, nullptr);  // no entries: nothing to build
}

TEST_F(RuntimeTest, LookupCodesInOrder) {
    MAV_INST inst = reinterpret_cast<MAV_INST>(0x1);
    EXPECT_EQ(MavGetProfileInstance(nullptr, &inst), MAV_E_PROFILE_NOT_VALID);
    EXPECT_EQ(inst, reinterpret_cast<MAV_INST>(0x1));  // untouched without a name
    EXPECT_EQ(MavGetProfileInstance("X", &inst), MAV_E_PROFILE_NOT_VALID);
    EXPECT_EQ(inst, nullptr);
    EXPECT_EQ(MavGetProfileInstance("X", nullptr), MAV_E_NULL_PARAM);
    ASSERT_EQ(start("mav.group.G=G\n"), MAV_OK);
    EXPECT_EQ(MavGetProfileInstance(nullptr, &inst), MAV_E_NO_PROFILE_DEFINED);
    EXPECT_EQ(MavGetProfileInstance("X", &inst), MAV_E_NO_PROFILE_DEFINED);
    MavStopRuntime();

    TempDir dir;
    Config c;
    c.profile("ON").step("ON", "0", "0", "G").profile("OFF", false).group("G");
    c.provider("BROKEN", "G", dir.file("libnone.so"));
    ASSERT_EQ(start(c.text), MAV_OK);
    EXPECT_EQ(MavGetProfileInstance(nullptr, &inst), MAV_E_NO_DEFAULT_PROFILE);
    EXPECT_EQ(MavGetProfileInstance("", &inst), MAV_E_NO_DEFAULT_PROFILE);
    EXPECT_EQ(MavGetProfileInstance("NONE", &inst), MAV_E_PROFILE_NOT_FOUND);
    EXPECT_EQ(MavGetProfileInstance("OFF", &inst), MAV_E_PROFILE_NOT_ACTIVE);
    EXPECT_EQ(MavGetProfileInstance("ON", &inst), MAV_OK);
    EXPECT_EQ(MavFreeInstance(&inst), MAV_OK);
    EXPECT_EQ(MavGetProfileInstance("ON", &inst), MAV_E_PROFILE_NOT_VALID);
    EXPECT_EQ(MavGetProfileInstancePointer("ON"), nullptr);
    EXPECT_FALSE(mav::MavInstance::createInstance("ON"));
}

TEST_F(RuntimeTest, ProfilesThatReachThemselvesAreNotValid) {
    Config c;
    c.line("mav.defaults.profile=SELF");
    c.line("mav.profile.SELF=SELF").line("mav.profile.SELF.Active=true");
    c.line("mav.profile.SELF.UseReference=true");  // the standard profile: itself
    c.profile("A").step("A", "0", "0", "G").step("A", "1", "1", "B");
    c.profile("B").step("B", "0", "1", "C");
    c.profile("C").step("C", "0", "1", "A");
    c.profile("DIAMOND").step("DIAMOND", "0", "1", "LEAF").step("DIAMOND", "1", "1", "LEAF");
    c.profile("LEAF").step("LEAF", "0", "0", "G").group("G").provider("X", "G", pel.path(), "4");
    ASSERT_EQ(start(c.text), MAV_OK);
    MAV_INST inst = nullptr;
    {
        TraceCapture trace(MAV_TRC_ERROR);
        EXPECT_EQ(MavGetProfileInstance(nullptr, &inst), MAV_E_PROFILE_NOT_VALID);
        EXPECT_EQ(inst, nullptr);
        EXPECT_EQ(MavGetProfileInstance("A", &inst), MAV_E_PROFILE_NOT_VALID);
        EXPECT_EQ(inst, nullptr);
        EXPECT_GT(trace.CountContaining("Profile >A<"), 0);
    }
    EXPECT_TRUE(profile("A")->isFailed());
    EXPECT_EQ(MavGetProfileInstance("A", &inst), MAV_E_PROFILE_NOT_VALID);
    EXPECT_FALSE(mav::MavInstance::createInstance("B"));
    // Reaching one profile twice without a cycle is fine.
    std::unique_ptr<mav::MavInstance> d = mav::MavInstance::createInstance("DIAMOND");
    ASSERT_TRUE(d);
    EXPECT_EQ(d->getCInstances().size(), 2u);
    EXPECT_FALSE(profile("DIAMOND")->isFailed());
}

}  // namespace
