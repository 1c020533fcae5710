// Parameters: name and type lookups, get/set/reset/enumerate on handles and
// instances, custom parameters, the handle's temporary directory.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "mav_fixture.h"
#include "mavxxi.h"

namespace {

// ---- Lookups ------------------------------------------------------------------------

TEST(ParamLookup, EveryCodeMapsToItsNameAndBack) {
    const int32_t ranges[][2] = {{0, 14}, {100, 120}, {200, 205}, {300, 301}, {-105, -100}};
    int count = 0;
    for (const auto& r : ranges) {
        for (int32_t code = r[0]; code <= r[1]; ++code) {
            const char* name = MavParamCodeName(code);
            ASSERT_STRNE("UNKNOWN", name) << code;
            EXPECT_EQ(code, MavParamCode(name)) << name;
            EXPECT_STREQ(name, MavIXGetPelParamName(code));
            ++count;
        }
    }
    EXPECT_EQ(15 + 21 + 6 + 2 + 6, count);
    EXPECT_STREQ("INITTEMP_PATH", MavParamCodeName(10));
    EXPECT_STREQ("SCANREGEXFLAGS", MavParamCodeName(120));
    EXPECT_STREQ("CUST_MIME_TYPES_ARE_BLACKLIST", MavParamCodeName(-105));
}

TEST(ParamLookup, NamesAreCaseBlindAndUnknownsFollowTheirPrefix) {
    EXPECT_EQ(300, MavParamCode("blockmimetypes"));
    EXPECT_EQ(201, MavParamCode("CleanDelete"));
    EXPECT_EQ(-1, MavParamCode("BLOCKNOTHING"));
    EXPECT_EQ(-1, MavParamCode("SCANNOTHING"));
    EXPECT_EQ(-1, MavParamCode("INITNOTHING"));
    EXPECT_EQ(-1, MavParamCode("NOPREFIX"));
    EXPECT_EQ(-1, MavParamCode(nullptr));
    // An unknown custom name falls back to the first custom code.
    EXPECT_EQ(-100, MavParamCode("CUST_NOTHING"));
    EXPECT_EQ(-100, MavParamCode("cust"));
    EXPECT_EQ(-104, MavParamCode("cust_clean"));
    EXPECT_EQ(0xFFFFFFFFu, static_cast<uint32_t>(MavParamCode("X")));
}

TEST(ParamLookup, CodesOutsideTheTablesAreUnknown) {
    for (int32_t code : {15, 16, 99, 121, 199, 206, 299, 302, -99, -106, -1, 1000})
        EXPECT_STREQ("UNKNOWN", MavParamCodeName(code)) << code;
}

TEST(ParamLookup, TypeNamesBothWays) {
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
    void SetUpParams() {
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
    std::string Get(void* obj, const char* name, MAV_RC* rc = nullptr, int32_t* type = nullptr) {
        char buf[256];
        size_t len = sizeof buf;
        MAV_RC r = MavGetParameter(obj, name, type, buf, &len);
        if (rc != nullptr) *rc = r;
        return r == MAV_OK ? std::string(buf, len) : std::string("<rc ") + std::to_string(r) + ">";
    }
    MAV_CFG* HdlCfg() { return static_cast<MAV_HDL_REC*>(hdl)->pCfg; }
    MAV_CFG* InstCfg() { return static_cast<MAV_INST_REC*>(inst)->pCfg; }
};

TEST_F(Params, GetFormatsEachTypeAsText) {
    SetUpParams();
    int32_t type = -1;
    EXPECT_EQ("30", Get(hdl, "INITTIMEOUT", nullptr, &type));
    EXPECT_EQ(VS_TYPE_INT, type);
    EXPECT_EQ("1", Get(hdl, "scanallfiles"));
    EXPECT_EQ("0", Get(hdl, "CLEANDELETE"));
    EXPECT_EQ("1000", Get(hdl, "SCANLIMIT"));
    // DOUBLE is printed as the integer held in its slot.
    EXPECT_EQ("3", Get(hdl, "SCANEXTRACT_RATIO", nullptr, &type));
    EXPECT_EQ(VS_TYPE_DOUBLE, type);
    EXPECT_EQ("", Get(hdl, "SCANBESTEFFORT"));
    // OBJECT (type 10) is not formatted: nothing written, length 0.
    EXPECT_EQ("", Get(hdl, "SCANLOGPATH", nullptr, &type));
    EXPECT_EQ(VS_TYPE_OBJECT, type);
    EXPECT_EQ("exe", Get(hdl, "BLOCKEXTENSIONS"));
    // The instance reads the handle's configuration until it changes one.
    EXPECT_EQ("exe", Get(inst, "BLOCKEXTENSIONS"));
    EXPECT_EQ(HdlCfg(), InstCfg());
}

TEST_F(Params, GetRefusesUnknownAndUnofferedNamesAndShortBuffers) {
    SetUpParams();
    TraceCapture trace(MAV_TRC_ERROR);
    MAV_RC rc = MAV_OK;
    Get(hdl, "SCANFOO", &rc);
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, rc);
    Get(hdl, "SCANMIMETYPES", &rc);
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, rc);
    EXPECT_TRUE(trace.Has("Parameter SCANMIMETYPES is not supported by this PEL\n"));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavGetParameter(nullptr, "SCANLIMIT", nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.Has("Invalid NULL parameter for handle\n"));

    // A buffer shorter than the value's length, or no longer than the text,
    // gets nothing.
    char buf[8] = "xxxxxxx";
    size_t len = 3;
    EXPECT_EQ(MAV_OK, MavGetParameter(hdl, "SCANLIMIT", nullptr, buf, &len));
    EXPECT_EQ(0u, len);
    len = 4;  // "1000" needs 5
    EXPECT_EQ(MAV_OK, MavGetParameter(hdl, "SCANLIMIT", nullptr, buf, &len));
    EXPECT_EQ(0u, len);
    len = 2;  // "exe" is 3 bytes long
    EXPECT_EQ(MAV_OK, MavGetParameter(hdl, "BLOCKEXTENSIONS", nullptr, buf, &len));
    EXPECT_EQ(0u, len);
    len = 3;  // long enough for the length check, too short for the terminator
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, MavGetParameter(hdl, "BLOCKEXTENSIONS", nullptr, buf, &len));
    EXPECT_EQ(0u, len);
    EXPECT_EQ('\0', buf[0]);
}

TEST_F(Params, SetParsesChecksTypeAndKeepsOldValueOnFailure) {
    SetUpParams();
    TraceCapture trace(MAV_TRC_ERROR | MAV_TRC_PARAM);
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "INITTIMEOUT", VS_TYPE_INT, "45"));
    EXPECT_EQ("45", Get(hdl, "INITTIMEOUT"));
    EXPECT_TRUE(trace.Has("Parameter INITTIMEOUT was set with value 45\n"));

    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, MavSetParameter(hdl, "INITTIMEOUT", VS_TYPE_CHAR, "7"));
    EXPECT_TRUE(
        trace.Has("The PEL knows parameter INITTIMEOUT with different TYPE, therefore it "
                  "can not be set (MAVLIB:CHAR!=PEL:INT)\n"));
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavSetParameter(hdl, "INITTIMEOUT", VS_TYPE_INT, "12abc"));
    EXPECT_EQ(MAV_E_INVALID_PARAM, MavSetParameter(hdl, "INITTIMEOUT", VS_TYPE_INT, "99999999999"));
    EXPECT_EQ("45", Get(hdl, "INITTIMEOUT"));

    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "SCANLIMIT", VS_TYPE_LONG, "-9000000000"));
    EXPECT_EQ("-9000000000", Get(hdl, "SCANLIMIT"));
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "SCANALLFILES", VS_TYPE_BOOL, "false"));
    EXPECT_EQ("0", Get(hdl, "SCANALLFILES"));
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, "exe,com,scr"));
    EXPECT_EQ("exe,com,scr", Get(hdl, "BLOCKEXTENSIONS"));
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, ""));
    EXPECT_EQ("", Get(hdl, "BLOCKEXTENSIONS"));
    // Types the library cannot set from text.
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE,
              MavSetParameter(hdl, "SCANEXTRACT_RATIO", VS_TYPE_DOUBLE, "2"));
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, MavSetParameter(hdl, "SCANBESTEFFORT", VS_TYPE_BYTE, "2"));

    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavSetParameter(hdl, "SCANMIMETYPES", VS_TYPE_CHAR, "x"));
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavSetParameter(hdl, "NOSUCH", VS_TYPE_CHAR, "x"));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavSetParameter(nullptr, "SCANLIMIT", VS_TYPE_LONG, "1"));

    // The new values reach the adapter with the next scan.
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 1, nullptr));
    EXPECT_EQ(pel.lastScan().pOptParams, HdlCfg()->pOptParams);
}

TEST_F(Params, NullTextResetsToTheAdapterDefault) {
    SetUpParams();
    TraceCapture trace(MAV_TRC_PARAM);
    ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, "zip"));
    ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "INITTIMEOUT", VS_TYPE_INT, "1"));
    // The type is not looked at for a reset.
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "BLOCKEXTENSIONS", -1, nullptr));
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "INITTIMEOUT", VS_TYPE_INT, nullptr));
    EXPECT_EQ("exe", Get(hdl, "BLOCKEXTENSIONS"));
    EXPECT_EQ("30", Get(hdl, "INITTIMEOUT"));
    EXPECT_TRUE(
        trace.Has("Optional block parameter BLOCKEXTENSIONS will be set with its "
                  "default value\n"));
    EXPECT_TRUE(trace.Has("Initial parameter INITTIMEOUT will be set with its default value\n"));

    ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "SCANLIMIT", VS_TYPE_LONG, "5"));
    ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_CLEAN", VS_TYPE_BOOL, "1"));
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
    SetUpParams();
    MAV_CFG* cfg = HdlCfg();
    ASSERT_EQ(MAV_DEFAULT_ACTION, cfg->uiDefaultAction);
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_CLEAN", VS_TYPE_BOOL, "true"));
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "cust_active_content", VS_TYPE_CHAR, "1"));
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_CHECK_MIME_TYPE", VS_TYPE_BOOL, "TRUE"));
    EXPECT_EQ(2u | 0x8u | 0x10u | 0x1u, cfg->uiDefaultAction);
    // Anything but "1" or "true" is false.
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_ACTIVE_CONTENT", VS_TYPE_BOOL, "yes"));
    EXPECT_EQ(2u | 0x8u | 0x1u, cfg->uiDefaultAction);
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_NO_SCANINFO", VS_TYPE_BOOL, "1"));
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_NOT_SCANNED_AS_WARNING", VS_TYPE_BOOL, "True"));
    EXPECT_EQ(1, cfg->bNoScanInfo);
    EXPECT_EQ(1, cfg->bNotScannedAsWarning);
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_MIME_TYPES_ARE_BLACKLIST", VS_TYPE_BOOL, "1"));
    EXPECT_EQ(2u | 0x8u | 0x1u, cfg->uiDefaultAction);

    // The default action is what a scan with action 0 asks for.
    ASSERT_EQ(MAV_OK, MavScanFile(inst, "/dev/null", 1, nullptr));
    EXPECT_EQ(2u | 0x8u | 0x1u, pel.lastScan().uiActionCode);

    // Resetting any custom parameter sets the whole word back to 2 and leaves
    // the booleans alone.
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "CUST_MIME_TYPES_ARE_BLACKLIST", VS_TYPE_BOOL, nullptr));
    EXPECT_EQ(MAV_DEFAULT_ACTION, cfg->uiDefaultAction);
    EXPECT_EQ(1, cfg->bNoScanInfo);
    EXPECT_EQ(MAV_E_PARAM_UNSUPPORTED, MavSetParameter(hdl, "CUST_NOTHING", VS_TYPE_BOOL, "1"));
}

TEST_F(Params, InstanceGetsItsOwnCopyOnFirstChangeOnly) {
    SetUpParams();
    MAV_CFG* handleCfg = HdlCfg();
    // A refused change makes no copy.
    EXPECT_EQ(MAV_E_INVALID_PARAM_TYPE, MavSetParameter(inst, "SCANLIMIT", VS_TYPE_INT, "5"));
    EXPECT_EQ(handleCfg, InstCfg());

    EXPECT_EQ(MAV_OK, MavSetParameter(inst, "SCANLIMIT", VS_TYPE_LONG, "5"));
    EXPECT_NE(handleCfg, InstCfg());
    EXPECT_EQ(handleCfg, HdlCfg());
    EXPECT_EQ("5", Get(inst, "SCANLIMIT"));
    EXPECT_EQ("1000", Get(hdl, "SCANLIMIT"));
    EXPECT_EQ(MAV_OK, MavSetParameter(inst, "CUST_CLEAN", VS_TYPE_BOOL, "1"));
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
    ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "SCANLIMIT", VS_TYPE_LONG, "77"));
    EXPECT_EQ(MAV_OK, MavSetDefaultConfig(inst));
    EXPECT_EQ("1000", Get(inst, "SCANLIMIT"));
    EXPECT_EQ("77", Get(hdl, "SCANLIMIT"));
}

TEST_F(Params, EnumerateListsInitThenOptionalEntries) {
    SetUpParams();
    const struct {
        const char* name;
        int32_t type;
        const char* value;
    } expected[] = {{"INITTEMP_PATH", VS_TYPE_CHAR, "/nonexistent-default"},
                    {"INITTIMEOUT", VS_TYPE_INT, "30"},
                    {"SCANALLFILES", VS_TYPE_BOOL, "1"},
                    {"SCANLIMIT", VS_TYPE_LONG, "1000"},
                    {"SCANEXTRACT_RATIO", VS_TYPE_DOUBLE, "3"},
                    {"SCANBESTEFFORT", VS_TYPE_BYTE, ""},
                    {"SCANLOGPATH", VS_TYPE_OBJECT, ""},
                    {"CLEANDELETE", VS_TYPE_BOOL, "0"},
                    {"BLOCKEXTENSIONS", VS_TYPE_CHAR, "exe"}};
    EXPECT_EQ(10u, MavIXGetParamNum(hdl));
    for (uint32_t i = 0; i < 9; ++i) {
        char name[64], value[64];
        size_t nameLen = sizeof name, valueLen = sizeof value;
        int32_t type = -1;
        ASSERT_EQ(MAV_OK, MavEnumParameters(hdl, i, name, &nameLen, &type, value, &valueLen)) << i;
        EXPECT_EQ(expected[i].name, std::string(name, nameLen));
        EXPECT_EQ(expected[i].type, type);
        EXPECT_EQ(expected[i].value, std::string(value, valueLen));
    }
    TraceCapture trace(MAV_TRC_ERROR);
    size_t nameLen = 0;
    EXPECT_EQ(MAV_OK, MavEnumParameters(hdl, 0, nullptr, &nameLen, nullptr, nullptr, nullptr));
    EXPECT_EQ(strlen("INITTEMP_PATH") + 1, nameLen);
    char small[5] = "xxxx";
    nameLen = sizeof small;
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT,
              MavEnumParameters(hdl, 0, small, &nameLen, nullptr, nullptr, nullptr));
    EXPECT_EQ(0u, nameLen);
    EXPECT_TRUE(trace.Has("Buffer for parameter too small (passed length=5, needed length=14)\n"));

    char name[64];
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

// ---- The handle's temporary directory ------------------------------------------------------

std::string MakeTempDir() {
    char tmpl[] = "/tmp/kormo_param_XXXXXX";
    const char* d = mkdtemp(tmpl);
    return d != nullptr ? d : "";
}

TEST_F(Params, TempPathFollowsInitTempPath) {
    SetUpParams();
    MAV_HDL_REC* h = static_cast<MAV_HDL_REC*>(hdl);
    EXPECT_EQ(nullptr, h->pszTmpPath);
    std::string dir = MakeTempDir();
    ASSERT_FALSE(dir.empty());
    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, dir.c_str()));
    ASSERT_NE(nullptr, h->pszTmpPath);
    EXPECT_EQ(dir, h->pszTmpPath);

    // A missing directory: refused, directory dropped, the parameter keeps
    // the new value.
    TraceCapture trace(MAV_TRC_ERROR);
    std::string missing = dir + "/missing";
    EXPECT_EQ(MAV_E_INVALID_PARAM,
              MavSetParameter(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, missing.c_str()));
    EXPECT_EQ(nullptr, h->pszTmpPath);
    EXPECT_EQ(missing, Get(hdl, "INITTEMP_PATH"));
    EXPECT_TRUE(trace.Has("Invalid path " + missing + ". \n"));

    // A regular file is no directory.
    std::string file = dir + "/file";
    std::ofstream(file) << "x";
    EXPECT_EQ(MAV_E_INVALID_PARAM,
              MavSetParameter(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, file.c_str()));
    EXPECT_EQ(nullptr, h->pszTmpPath);

    // Through an instance the handle's directory changes too.
    EXPECT_EQ(MAV_OK, MavSetParameter(inst, "INITTEMP_PATH", VS_TYPE_CHAR, dir.c_str()));
    ASSERT_NE(nullptr, h->pszTmpPath);
    EXPECT_EQ(dir, h->pszTmpPath);

    EXPECT_EQ(MAV_OK, MavSetParameter(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, ""));
    EXPECT_EQ(nullptr, h->pszTmpPath);
    EXPECT_TRUE(trace.Has("Error in getting the temp path \n"));
    unlink(file.c_str());
    rmdir(dir.c_str());
}

// A directory this process cannot write: permissions for an ordinary user, a
// read-only mount for root (which ignores permissions).
std::string UnwritableDir(std::string* cleanup) {
    if (geteuid() != 0) {
        std::string dir = MakeTempDir();
        chmod(dir.c_str(), 0500);
        *cleanup = dir;
        return dir;
    }
    std::ifstream mounts("/proc/mounts");
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream f(line);
        std::string dev, dir, fs, opts;
        f >> dev >> dir >> fs >> opts;
        struct stat st;
        if ((opts == "ro" || opts.rfind("ro,", 0) == 0) && stat(dir.c_str(), &st) == 0 &&
            S_ISDIR(st.st_mode) && access(dir.c_str(), R_OK) == 0 && access(dir.c_str(), W_OK) != 0)
            return dir;
    }
    return "";
}

TEST_F(Params, TempPathRefusesAnUnwritableDirectory) {
    SetUpParams();
    std::string cleanup;
    std::string dir = UnwritableDir(&cleanup);
    if (dir.empty()) GTEST_SKIP() << "no unwritable directory available to root";
    MAV_HDL_REC* h = static_cast<MAV_HDL_REC*>(hdl);
    EXPECT_EQ(MAV_E_INVALID_PARAM,
              MavSetParameter(hdl, "INITTEMP_PATH", VS_TYPE_CHAR, dir.c_str()));
    EXPECT_EQ(nullptr, h->pszTmpPath);
    if (!cleanup.empty()) rmdir(cleanup.c_str());
}

// ---- Building a configuration ----------------------------------------------------------------

TEST(ParamConfig, DefaultsFillIndexTablesAndWarnAboutUnknownCodes) {
    PEL_PARAM initList[3] = {};
    initList[0] = {sizeof(PEL_PARAM), VS_P_INITSERVERS, VS_TYPE_CHAR, 9,
                   const_cast<char*>("localhost")};
    initList[1] = {sizeof(PEL_PARAM), -7, VS_TYPE_INT, 4, reinterpret_cast<void*>(3)};
    initList[2] = {sizeof(PEL_PARAM), VS_P_INITTIMEOUT, VS_TYPE_INT, 4,
                   reinterpret_cast<void*>(12)};
    PEL_PARAM optList[2] = {};
    optList[0] = {sizeof(PEL_PARAM), VS_P_BLOCKMIMETYPES, VS_TYPE_CHAR, 3,
                  const_cast<char*>("a/b")};
    // The adapter's length overstates its string: only the string is copied.
    optList[1] = {sizeof(PEL_PARAM), VS_P_CLEANRENAME, VS_TYPE_CHAR, 50, const_cast<char*>("x")};
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

// An adapter may still read a handle's text values inside PelScan on another
// instance while the handle's parameter changes: replaced texts stay readable
// until the configuration is freed (ASan reports a read of a freed one).
TEST_F(Params, ReplacedTextsStayReadableUntilTheConfigurationEnds) {
    SetUpParams();
    PEL_PARAM* entry = nullptr;
    ASSERT_EQ(MAV_OK, MavIGetPelParameter(hdl, "BLOCKEXTENSIONS", 0, &entry));
    const char* before = static_cast<const char*>(entry->pvValue);
    ASSERT_STREQ("exe", before);
    ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, "zip"));
    const char* set = static_cast<const char*>(entry->pvValue);
    ASSERT_EQ(MAV_OK, MavSetParameter(hdl, "BLOCKEXTENSIONS", VS_TYPE_CHAR, nullptr));
    ASSERT_EQ(MAV_OK, MavSetDefaultConfig(hdl));
    EXPECT_STREQ("exe", before);
    EXPECT_STREQ("zip", set);
    EXPECT_EQ("exe", Get(hdl, "BLOCKEXTENSIONS"));
}
