// Parameters: name and type lookups, get/set/reset/enumerate on handles and
// instances, custom parameters, the handle's temporary directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "mav_fixture.h"
#include "mavxxi.h"
#include "temp_dir.h"

namespace {

// ---- Lookups ------------------------------------------------------------------------

TEST(ParamLookup, EveryCodeMapsToItsNameAndBack) {
    const int32_t ranges[][2] = {{0, 14}, {100, 120}, {200, 205}, {300, 301}, {-105, -100}};
    int count = 0;
    for (const auto& r : ranges) {
        for (int32_t code = r[0]; code <= r[1]; ++code, ++count) {
            const char* name = MavParamCodeName(code);
            ASSERT_STRNE("UNKNOWN", name) << code;
            EXPECT_EQ(code, MavParamCode(name)) << name;
            EXPECT_STREQ(name, MavIXGetPelParamName(code));
        }
    }
    EXPECT_EQ(15 + 21 + 6 + 2 + 6, count);
    EXPECT_STREQ("INITTEMP_PATH", MavParamCodeName(10));
    EXPECT_STREQ("SCANREGEXFLAGS", MavParamCodeName(120));
    EXPECT_STREQ("CUST_MIME_TYPES_ARE_BLACKLIST", MavParamCodeName(-105));
    for (int32_t code : {15, 16, 99, 121, 199, 206, 299, 302, -99, -106, -1, 1000})
        EXPECT_STREQ("UNKNOWN", MavParamCodeName(code)) << code;
}

TEST(ParamLookup, NamesAreCaseBlindAndUnknownsFollowTheirPrefix) {
    // An unknown custom name falls back to the first custom code.
    const std::pair<const char*, int32_t> cases[] = {
        {"blockmimetypes", 300}, {"CleanDelete", 201}, {"BLOCKNOTHING", -1}, {"SCANNOTHING", -1},
        {"INITNOTHING", -1},     {"NOPREFIX", -1},     {nullptr, -1},        {"CUST_NOTHING", -100},
        {"cust", -100},          {"cust_clean", -104}};
    for (const auto& c : cases) EXPECT_EQ(c.second, MavParamCode(c.first)) << c.first;
    const char* names[] = {"BOOL",   "BYTE", "SHORT",  "INT",    "LONG",  "FLOAT",
                           "DOUBLE", "CHAR", "TIME_T", "SIZE_T", "OBJECT"};
    for (int32_t t = 0; t <= 10; ++t) {
        EXPECT_STREQ(names[t], MavParamTypeName(t));
        EXPECT_EQ(t, MavParamType(names[t]));
    }
    EXPECT_EQ(6, MavParamType("double"));
    EXPECT_EQ(-1, MavParamType("STRING"));
    EXPECT_EQ(-1, MavParamType(nullptr));
    EXPECT_EQ(nullptr, MavParamTypeName(11));
    EXPECT_EQ(nullptr, MavParamTypeName(-1));
}

TEST(ParamLookup, ParsersTraceUnknownNames) {
    TraceCapture trace(MAV_TRC_ERROR);
    int32_t code = 0;
    EXPECT_EQ(MAV_OK, MavIXParseOptParams("SCANLIMIT", &code));
    EXPECT_EQ(107, code);
    EXPECT_EQ(MAV_OK, MavIXParseOptParams("BLOCKEXTENSIONS", &code));
    EXPECT_EQ(301, code);
    // Without SCAN or BLOCK prefix the clean names are searched.
    EXPECT_EQ(MAV_OK, MavIXParseOptParams("cleanquarantine", &code));
    EXPECT_EQ(202, code);
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavIXParseOptParams("BLOCKFOO", &code));
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavIXParseInitParams("SCANLIMIT", &code));
    EXPECT_TRUE(trace.Has("The parameter >>>BLOCKFOO<<< is unknown or not supported.\n"));
    EXPECT_TRUE(trace.Has("The parameter >>>SCANLIMIT<<< is unknown or not supported.\n"));
}

// ---- Values on a handle and its instances ----------------------------------------------

class Params : public MavFixture {
  protected:
    // init: INITTEMP_PATH (CHAR), INITTIMEOUT (INT); optional: SCANALLFILES
    // (BOOL), SCANLIMIT (LONG), SCANEXTRACT_RATIO (DOUBLE), SCANBESTEFFORT
    // (BYTE), SCANLOGPATH (OBJECT), CLEANDELETE (BOOL), BLOCKEXTENSIONS (CHAR)
    // and an entry with the unknown code 999.
    void SetUp() override {
        pel.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "/nonexistent-default");
        pel.add_param(1, VS_P_INITTIMEOUT, VS_TYPE_INT, "30");
        pel.add_param(0, VS_P_SCANALLFILES, VS_TYPE_BOOL, "1");
        pel.add_param(0, VS_P_SCANLIMIT, VS_TYPE_LONG, "1000");
        pel.add_param(0, VS_P_SCANEXTRACT_RATIO, VS_TYPE_DOUBLE, "3");
        pel.add_param(0, VS_P_SCANBESTEFFORT, VS_TYPE_BYTE, "5");
        pel.add_param(0, VS_P_SCANLOGPATH, VS_TYPE_OBJECT, "log");
        pel.add_param(0, VS_P_CLEANDELETE, VS_TYPE_BOOL, "0");
        pel.add_param(0, VS_P_BLOCKEXTENSIONS, VS_TYPE_CHAR, "exe");
        pel.add_param(0, 999, VS_TYPE_INT, "1");
        Start();
    }
    // The value as text, or "<rc N>"; the type when asked.
    std::string Get(void* obj, const char* name, int32_t* type = nullptr) {
        char buf[256];
        size_t len = sizeof buf;
        MAV_RC r = MavGetParameter(obj, name, type, buf, &len);
        return r == MAV_OK ? std::string(buf, len) : "<rc " + std::to_string(r) + ">";
    }
    MAV_RC Set(void* obj, const char* name, int32_t type, const char* value) {
        return MavSetParameter(obj, name, type, value);
    }
    MAV_CFG* HdlCfg() { return static_cast<MAV_HDL_REC*>(hdl)->pCfg; }
    MAV_CFG* InstCfg() { return static_cast<MAV_INST_REC*>(inst)->pCfg; }
};

TEST_F(Params, GetFormatsEachTypeAsTextAndRefusesShortBuffers) {
    // DOUBLE is printed as the integer in its slot; BYTE and OBJECT (type 10)
    // are not formatted: nothing written, length 0.
    const struct {
        const char* name;
        const char* text;
        int32_t type;
    } cases[] = {
        {"INITTIMEOUT", "30", VS_TYPE_INT},         {"scanallfiles", "1", VS_TYPE_BOOL},
        {"CLEANDELETE", "0", VS_TYPE_BOOL},         {"SCANLIMIT", "1000", VS_TYPE_LONG},
        {"SCANEXTRACT_RATIO", "3", VS_TYPE_DOUBLE}, {"SCANBESTEFFORT", "", VS_TYPE_BYTE},
        {"SCANLOGPATH", "", VS_TYPE_OBJECT},        {"BLOCKEXTENSIONS", "exe", VS_TYPE_CHAR}};
    for (const auto& c : cases) {
        int32_t type = -1;
        EXPECT_EQ(c.text, Get(hdl, c.name, &type)) << c.name;
        EXPECT_EQ(c.type, type) << c.name;
    }
    // The instance reads the handle's configuration until it changes one.
    EXPECT_EQ("exe", Get(inst, "BLOCKEXTENSIONS"));
    EXPECT_EQ(HdlCfg(), InstCfg());

    TraceCapture trace(MAV_TRC_ERROR);
    EXPECT_EQ("<rc 20>", Get(hdl, "SCANFOO"));
    EXPECT_EQ("<rc 20>", Get(hdl, "SCANMIMETYPES"));  // known, not offered
    EXPECT_TRUE(trace.Has("Parameter SCANMIMETYPES is not supported by this PEL\n"));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavGetParameter(nullptr, "SCANLIMIT", nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.Has("Invalid NULL parameter for handle\n"));
    // A buffer shorter than the value's length, or no longer than the text,
    // gets nothing; one long enough for the length but not the terminator
    // fails.
    const std::pair<const char*, size_t> shortBuffers[] = {
        {"SCANLIMIT", 3}, {"SCANLIMIT", 4}, {"BLOCKEXTENSIONS", 2}};
    char buf[8] = "xxxxxxx";
    for (const auto& c : shortBuffers) {
        size_t len = c.second;
        EXPECT_EQ(MAV_OK, MavGetParameter(hdl, c.first, nullptr, buf, &len));
        EXPECT_EQ(0u, len) << c.first << " " << c.second;
    }
    size_t len = 3;
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavGetParameter(hdl, "BLOCKEXTENSIONS", nullptr, buf, &len));
    EXPECT_EQ(0u, len);
    EXPECT_EQ('\0', buf[0]);
}

TEST_F(Params, SetParsesChecksTypeAndKeepsOldValueOnFailure) {
    TraceCapture trace(MAV_TRC_ERROR | MAV_TRC_PARAM);
    EXPECT_EQ(MAV_OK, Set(hdl, "INITTIMEOUT", VS_TYPE_INT, "45"));
    EXPECT_EQ("45", Get(hdl, "INITTIMEOUT"));
    EXPECT_TRUE(trace.Has("Parameter INITTIMEOUT was set with value 45\n"));
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, Set(hdl, "INITTIMEOUT", VS_TYPE_CHAR, "7"));
    EXPECT_TRUE(
        trace.Has("The PEL knows parameter INITTIMEOUT with different TYPE, therefore it "
                  "can not be set (MAVLIB:CHAR!=PEL:INT)\n"));
    EXPECT_EQ(MAV_E_INVALID_PARAM, Set(hdl, "INITTIMEOUT", VS_TYPE_INT, "12abc"));
    EXPECT_EQ(MAV_E_INVALID_PARAM, Set(hdl, "INITTIMEOUT", VS_TYPE_INT, "99999999999"));
    EXPECT_EQ("45", Get(hdl, "INITTIMEOUT"));

    const struct {
        const char* name;
        int32_t type;
        const char* value;
        const char* readBack;
    } sets[] = {{"SCANLIMIT", VS_TYPE_LONG, "-9000000000", "-9000000000"},
                {"SCANALLFILES", VS_TYPE_BOOL, "false", "0"},
                {"BLOCKEXTENSIONS", VS_TYPE_CHAR, "exe,com,scr", "exe,com,scr"},
                {"BLOCKEXTENSIONS", VS_TYPE_CHAR, "", ""}};
    for (const auto& c : sets) {
        EXPECT_EQ(MAV_OK, Set(hdl, c.name, c.type, c.value)) << c.name;
        EXPECT_EQ(c.readBack, Get(hdl, c.name)) << c.name;
    }
    // Types the library cannot set from text; names it does not offer.
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, Set(hdl, "SCANEXTRACT_RATIO", VS_TYPE_DOUBLE, "2"));
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, Set(hdl, "SCANBESTEFFORT", VS_TYPE_BYTE, "2"));
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, Set(hdl, "SCANMIMETYPES", VS_TYPE_CHAR, "x"));
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, Set(hdl, "NOSUCH", VS_TYPE_CHAR, "x"));
    EXPECT_EQ(MAV_E_NULL_PARAM, Set(nullptr, "SCANLIMIT", VS_TYPE_LONG, "1"));
    // The new values reach the adapter with the next scan.
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 1, nullptr));
    EXPECT_EQ(pel.lastScan().pOptParams, HdlCfg()->pOptParams);
}

TEST_F(Params, NullTextResetsToTheAdapterDefault) {
    TraceCapture trace(MAV_TRC_PARAM);
    ASSERT_EQ(MAV_OK, Set(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, "zip"));
    ASSERT_EQ(MAV_OK, Set(hdl, "INITTIMEOUT", VS_TYPE_INT, "1"));
    EXPECT_EQ(MAV_OK, Set(hdl, "BLOCKEXTENSIONS", -1, nullptr));  // the type is not looked at
    EXPECT_EQ(MAV_OK, Set(hdl, "INITTIMEOUT", VS_TYPE_INT, nullptr));
    EXPECT_EQ("exe", Get(hdl, "BLOCKEXTENSIONS"));
    EXPECT_EQ("30", Get(hdl, "INITTIMEOUT"));
    EXPECT_TRUE(
        trace.Has("Optional block parameter BLOCKEXTENSIONS will be set with its default value\n"));
    EXPECT_TRUE(trace.Has("Initial parameter INITTIMEOUT will be set with its default value\n"));

    ASSERT_EQ(MAV_OK, Set(hdl, "SCANLIMIT", VS_TYPE_LONG, "5"));
    ASSERT_EQ(MAV_OK, Set(hdl, "CUST_CLEAN", VS_TYPE_BOOL, "1"));
    EXPECT_EQ(MAV_OK, MavSetDefaultConfig(hdl));
    EXPECT_EQ("1000", Get(hdl, "SCANLIMIT"));
    // MavSetDefaultConfig leaves the custom flags alone.
    EXPECT_EQ(MAV_DEFAULT_ACTION | VS_A_CLEAN, HdlCfg()->uiDefaultAction);
    EXPECT_EQ(MAV_E_NULL_PARAM, MavSetDefaultConfig(nullptr));
    MAV_PARAM_ID unknown = {sizeof(MAV_PARAM_ID), 999, VS_TYPE_INT};
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavISetDefaultValue(hdl, &unknown));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavISetDefaultValue(hdl, nullptr));
}

TEST_F(Params, CustomParametersDriveTheDefaultActionAndFlags) {
    MAV_CFG* cfg = HdlCfg();
    ASSERT_EQ(MAV_DEFAULT_ACTION, cfg->uiDefaultAction);
    EXPECT_EQ(MAV_OK, Set(hdl, "CUST_CLEAN", VS_TYPE_BOOL, "true"));
    EXPECT_EQ(MAV_OK, Set(hdl, "cust_active_content", VS_TYPE_CHAR, "1"));
    EXPECT_EQ(MAV_OK, Set(hdl, "CUST_CHECK_MIME_TYPE", VS_TYPE_BOOL, "TRUE"));
    EXPECT_EQ(2u | 0x8u | 0x10u | 0x1u, cfg->uiDefaultAction);
    // Anything but "1" or "true" is false.
    EXPECT_EQ(MAV_OK, Set(hdl, "CUST_ACTIVE_CONTENT", VS_TYPE_BOOL, "yes"));
    EXPECT_EQ(2u | 0x8u | 0x1u, cfg->uiDefaultAction);
    EXPECT_EQ(MAV_OK, Set(hdl, "CUST_NO_SCANINFO", VS_TYPE_BOOL, "1"));
    EXPECT_EQ(MAV_OK, Set(hdl, "CUST_NOT_SCANNED_AS_WARNING", VS_TYPE_BOOL, "True"));
    EXPECT_EQ(1, cfg->bNoScanInfo);
    EXPECT_EQ(1, cfg->bNotScannedAsWarning);
    EXPECT_EQ(MAV_OK, Set(hdl, "CUST_MIME_TYPES_ARE_BLACKLIST", VS_TYPE_BOOL, "1"));
    EXPECT_EQ(2u | 0x8u | 0x1u, cfg->uiDefaultAction);
    // The default action is what a scan with action 0 asks for.
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 1, nullptr));
    EXPECT_EQ(2u | 0x8u | 0x1u, pel.lastScan().uiActionCode);
    // Resetting any custom parameter sets the whole word back to 2 and leaves
    // the booleans alone.
    EXPECT_EQ(MAV_OK, Set(hdl, "CUST_MIME_TYPES_ARE_BLACKLIST", VS_TYPE_BOOL, nullptr));
    EXPECT_EQ(MAV_DEFAULT_ACTION, cfg->uiDefaultAction);
    EXPECT_EQ(1, cfg->bNoScanInfo);
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, Set(hdl, "CUST_NOTHING", VS_TYPE_BOOL, "1"));
}

TEST_F(Params, InstanceGetsItsOwnCopyOnFirstChangeOnly) {
    MAV_CFG* handleCfg = HdlCfg();
    // A refused change makes no copy.
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, Set(inst, "SCANLIMIT", VS_TYPE_INT, "5"));
    EXPECT_EQ(handleCfg, InstCfg());
    EXPECT_EQ(MAV_OK, Set(inst, "SCANLIMIT", VS_TYPE_LONG, "5"));
    EXPECT_NE(handleCfg, InstCfg());
    EXPECT_EQ(handleCfg, HdlCfg());
    EXPECT_EQ("5", Get(inst, "SCANLIMIT"));
    EXPECT_EQ("1000", Get(hdl, "SCANLIMIT"));
    EXPECT_EQ(MAV_OK, Set(inst, "CUST_CLEAN", VS_TYPE_BOOL, "1"));
    EXPECT_EQ(MAV_DEFAULT_ACTION, handleCfg->uiDefaultAction);
    EXPECT_EQ(MAV_DEFAULT_ACTION | VS_A_CLEAN, InstCfg()->uiDefaultAction);
    // The instance scans with its own lists, another instance with the
    // handle's.
    MAV_INST other = nullptr;
    ASSERT_EQ(MAV_OK, MavCreateInstance(hdl, &other));
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 1, nullptr));
    EXPECT_EQ(pel.lastScan().pOptParams, InstCfg()->pOptParams);
    ASSERT_EQ(MAV_OK, MavScanFile(other, "/dev/null", 1, nullptr));
    EXPECT_EQ(pel.lastScan().pOptParams, handleCfg->pOptParams);
    EXPECT_EQ(MAV_DEFAULT_ACTION, pel.lastScan().uiActionCode);
    EXPECT_EQ(MAV_OK, MavFreeInstance(&other));
    // Defaults on the instance touch only the instance.
    ASSERT_EQ(MAV_OK, Set(hdl, "SCANLIMIT", VS_TYPE_LONG, "77"));
    EXPECT_EQ(MAV_OK, MavSetDefaultConfig(inst));
    EXPECT_EQ("1000", Get(inst, "SCANLIMIT"));
    EXPECT_EQ("77", Get(hdl, "SCANLIMIT"));
}

TEST_F(Params, EnumerateListsInitThenOptionalEntries) {
    const char* expected[] = {"INITTEMP_PATH/7//nonexistent-default",
                              "INITTIMEOUT/3/30",
                              "SCANALLFILES/0/1",
                              "SCANLIMIT/4/1000",
                              "SCANEXTRACT_RATIO/6/3",
                              "SCANBESTEFFORT/1/",
                              "SCANLOGPATH/10/",
                              "CLEANDELETE/0/0",
                              "BLOCKEXTENSIONS/7/exe"};
    EXPECT_EQ(10u, MavIXGetParamNum(hdl));
    for (uint32_t i = 0; i < 9; ++i) {
        char name[64], value[64];
        size_t nameLen = sizeof name, valueLen = sizeof value;
        int32_t type = -1;
        ASSERT_EQ(MAV_OK, MavEnumParameters(hdl, i, name, &nameLen, &type, value, &valueLen)) << i;
        EXPECT_EQ(expected[i], std::string(name, nameLen) + "/" + std::to_string(type) + "/" +
                                   std::string(value, valueLen));
    }
    TraceCapture trace(MAV_TRC_ERROR);
    size_t nameLen = 0;
    EXPECT_EQ(MAV_OK, MavEnumParameters(hdl, 0, nullptr, &nameLen, nullptr, nullptr, nullptr));
    EXPECT_EQ(strlen("INITTEMP_PATH") + 1, nameLen);
    char name[64] = "xxxx";
    nameLen = 5;
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT,
              MavEnumParameters(hdl, 0, name, &nameLen, nullptr, nullptr, nullptr));
    EXPECT_EQ(0u, nameLen);
    EXPECT_TRUE(trace.Has("Buffer for parameter too small (passed length=5, needed length=14)\n"));
    nameLen = sizeof name;
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumParameters(hdl, 9, name, &nameLen, nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.Has("Parameter with index >>>9<<< is unknown to this PEL!\n"));
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumParameters(hdl, 10, name, &nameLen, nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.Has("The passed index >10< is not valid for the requested information\n"));
    alignas(64) unsigned char junk[256] = {};
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavEnumParameters(junk, 0, name, &nameLen, nullptr, nullptr, nullptr));
}

// An adapter may still read a handle's text values inside PelScan on another
// instance while the handle's parameter changes: replaced texts stay readable
// until the configuration is freed (ASan reports a read of a freed one).
TEST_F(Params, ReplacedTextsStayReadableUntilTheConfigurationEnds) {
    PEL_PARAM* entry = nullptr;
    ASSERT_EQ(MAV_OK, MavIGetPelParameter(hdl, "BLOCKEXTENSIONS", 0, &entry));
    const char* before = static_cast<const char*>(entry->pvValue);
    ASSERT_STREQ("exe", before);
    ASSERT_EQ(MAV_OK, Set(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, "zip"));
    // With an instance in use the change went to new lists: looked up again.
    ASSERT_EQ(MAV_OK, MavIGetPelParameter(hdl, "BLOCKEXTENSIONS", 0, &entry));
    const char* set = static_cast<const char*>(entry->pvValue);
    ASSERT_EQ(MAV_OK, Set(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, nullptr));
    ASSERT_EQ(MAV_OK, MavSetDefaultConfig(hdl));
    EXPECT_STREQ("exe", before);
    EXPECT_STREQ("zip", set);
    EXPECT_EQ("exe", Get(hdl, "BLOCKEXTENSIONS"));
}

// ---- The handle's temporary directory ------------------------------------------------------

TEST_F(Params, TempPathFollowsInitTempPath) {
    MAV_HDL_REC* h = static_cast<MAV_HDL_REC*>(hdl);
    EXPECT_EQ(nullptr, h->pszTmpPath);
    TempDir dir;
    EXPECT_EQ(MAV_OK, Set(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, dir.path.c_str()));
    ASSERT_NE(nullptr, h->pszTmpPath);
    EXPECT_EQ(dir.path, h->pszTmpPath);
    // A missing directory: refused, directory dropped, the parameter keeps
    // the new value. A regular file is no directory either.
    TraceCapture trace(MAV_TRC_ERROR);
    std::string missing = dir.file("missing");
    EXPECT_EQ(MAV_E_INVALID_PARAM, Set(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, missing.c_str()));
    EXPECT_EQ(nullptr, h->pszTmpPath);
    EXPECT_EQ(missing, Get(hdl, "INITTEMP_PATH"));
    EXPECT_TRUE(trace.Has("Invalid path " + missing + ". \n"));
    EXPECT_EQ(MAV_E_INVALID_PARAM,
              Set(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, dir.write("file", "x").c_str()));
    EXPECT_EQ(nullptr, h->pszTmpPath);
    // Through an instance the handle's directory changes too.
    EXPECT_EQ(MAV_OK, Set(inst, "INITTEMP_PATH", VS_TYPE_CHAR, dir.path.c_str()));
    ASSERT_NE(nullptr, h->pszTmpPath);
    EXPECT_EQ(dir.path, h->pszTmpPath);
    EXPECT_EQ(MAV_OK, Set(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, ""));
    EXPECT_EQ(nullptr, h->pszTmpPath);
    EXPECT_TRUE(trace.Has("Error in getting the temp path \n"));
}

// A directory this process cannot write: permissions for an ordinary user, a
// read-only mount for root (which ignores permissions).
TEST_F(Params, TempPathRefusesAnUnwritableDirectory) {
    TempDir own;
    std::string dir;
    if (geteuid() != 0) {
        chmod(own.path.c_str(), 0500);
        dir = own.path;
    }
    std::ifstream mounts("/proc/mounts");
    for (std::string line; dir.empty() && std::getline(mounts, line);) {
        std::istringstream f(line);
        std::string dev, mnt, fs, opts;
        f >> dev >> mnt >> fs >> opts;
        struct stat st;
        if ((opts == "ro" || opts.rfind("ro,", 0) == 0) && stat(mnt.c_str(), &st) == 0 &&
            S_ISDIR(st.st_mode) && access(mnt.c_str(), R_OK) == 0 && access(mnt.c_str(), W_OK) != 0)
            dir = mnt;
    }
    if (dir.empty()) GTEST_SKIP() << "no unwritable directory available to root";
    EXPECT_EQ(MAV_E_INVALID_PARAM, Set(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, dir.c_str()));
    EXPECT_EQ(nullptr, static_cast<MAV_HDL_REC*>(hdl)->pszTmpPath);
}

// ---- Building a configuration ----------------------------------------------------------------

TEST(ParamConfig, DefaultsFillIndexTablesAndWarnAboutUnknownCodes) {
    PEL_PARAM initList[3] = {
        {sizeof(PEL_PARAM), VS_P_INITSERVERS, VS_TYPE_CHAR, 9, const_cast<char*>("localhost")},
        {sizeof(PEL_PARAM), -7, VS_TYPE_INT, 4, reinterpret_cast<void*>(3)},
        {sizeof(PEL_PARAM), VS_P_INITTIMEOUT, VS_TYPE_INT, 4, reinterpret_cast<void*>(12)}};
    // The adapter's length overstates its second string: only the string is copied.
    PEL_PARAM optList[2] = {
        {sizeof(PEL_PARAM), VS_P_BLOCKMIMETYPES, VS_TYPE_CHAR, 3, const_cast<char*>("a/b")},
        {sizeof(PEL_PARAM), VS_P_CLEANRENAME, VS_TYPE_CHAR, 50, const_cast<char*>("x")}};
    PEL_PARAMS init = {3, {}, initList};
    PEL_PARAMS opt = {2, {}, optList};
    PEL_CONFIG pel = {};
    pel.struct_size = sizeof pel;
    pel.uiPelActionFlag = 0x11;
    pel.pInitParams = &init;
    pel.pOptParams = &opt;

    TraceCapture trace(MAV_TRC_WARNING);
    MAV_CFG* cfg = nullptr;
    ASSERT_EQ(MAV_OK, MavIGetConfig(&pel, &cfg));
    EXPECT_EQ(0, cfg->asInitIndex[VS_P_INITSERVERS]);
    EXPECT_EQ(2, cfg->asInitIndex[VS_P_INITTIMEOUT]);
    EXPECT_EQ(-1, cfg->asInitIndex[0]);
    EXPECT_EQ(0, cfg->asBlockIndex[0]);
    EXPECT_EQ(1, cfg->asCleanIndex[0]);
    EXPECT_EQ(-1, cfg->asScanIndex[0]);
    EXPECT_TRUE(trace.Has("Warning: Parameter with tCode(-7) is unknown\n"));
    // String values are the configuration's own copies.
    EXPECT_NE(initList[0].pvValue, cfg->pInitParams->pParams[0].pvValue);
    EXPECT_STREQ("localhost", static_cast<char*>(cfg->pInitParams->pParams[0].pvValue));
    EXPECT_STREQ("x", static_cast<char*>(cfg->pOptParams->pParams[1].pvValue));
    EXPECT_EQ(2, cfg->usActionCount);
    EXPECT_EQ(MAV_OK, MavIXFreeCFG(&cfg));

    // A type outside the range is refused and fails the whole copy.
    optList[1].tType = 11;
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, MavIGetConfig(&pel, &cfg));
    EXPECT_EQ(nullptr, cfg);
    EXPECT_TRUE(trace.Has("Invalid OPT Type 11 passed for MavIXCopyParameter\n"));
    EXPECT_TRUE(
        trace.Has("Error in MavSetDefaultConfig occured (rc = MAV_E_INVALID_PARAM_TYPE)\n"));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavIGetConfig(nullptr, &cfg));
}

TEST(ParamConfig, CopyParameterSwitchesBetweenTextAndNumberSlots) {
    PEL_PARAM dest = {};
    PEL_PARAM text = {sizeof(PEL_PARAM), 104, VS_TYPE_CHAR, 3, const_cast<char*>("abc")};
    PEL_PARAM number = {sizeof(PEL_PARAM), 105, VS_TYPE_INT, 4, reinterpret_cast<void*>(42)};
    ASSERT_EQ(MAV_OK, MavIXCopyParameter(&dest, 104, &text, false, nullptr));
    EXPECT_STREQ("abc", static_cast<char*>(dest.pvValue));
    // Text to number frees the copy; number to text never treats the number
    // as a buffer.
    ASSERT_EQ(MAV_OK, MavIXCopyParameter(&dest, 105, &number, false, nullptr));
    EXPECT_EQ(reinterpret_cast<void*>(42), dest.pvValue);
    EXPECT_EQ(105, dest.tCode);
    ASSERT_EQ(MAV_OK, MavIXCopyParameter(&dest, 104, &text, false, nullptr));
    EXPECT_STREQ("abc", static_cast<char*>(dest.pvValue));
    MavIFree(dest.pvValue);
    number.tType = -1;
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, MavIXCopyParameter(&dest, 105, &number, true, nullptr));
}

}  // namespace
