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

}  // namespace
