// Results and adapter information: the enumerators before and after scans,
// the caller-buffer rule, the missing-content special case, version packing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "mav_fixture.h"
#include "mavxxi.h"

namespace {

class Results : public MavFixture {
  protected:
    MAV_RC Scan() {
        MAV_SCANINFO si = {};
        si.struct_size = sizeof si;
        return MavScanFile(inst, "/data/file.txt", 5, &si);
    }
};

TEST_F(Results, EveryEnumeratorNeedsAScanResult) {
    Start();
    uint32_t n = 0;
    EXPECT_EQ(MAV_E_NO_SCANINFO, MavEnumInfections(inst, 0, nullptr, &n, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_E_NO_SCANINFO,
              MavEnumScanErrors(inst, 0, &n, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_E_NO_SCANINFO, MavEnumContentInfo(inst, 0, &n, nullptr, nullptr, nullptr, nullptr,
                                                    nullptr, nullptr, nullptr));
    // A handle holds no results; null is refused as an invalid handle.
    EXPECT_EQ(MAV_E_NO_SCANINFO,
              MavEnumScanErrors(hdl, 0, &n, nullptr, nullptr, nullptr, nullptr, nullptr));
    TraceCapture trace(MAV_TRC_ERROR);
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavEnumInfections(nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.Has("Invalid NULL parameter for handle\n"));
}

TEST_F(Results, CleanScanHasContentButNoInfectionsOrErrors) {
    Start();
    ASSERT_EQ(MAV_OK, Scan());
    uint8_t rep = 9;
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumInfections(inst, 0, &rep, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr));
    EXPECT_EQ(9, rep);
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumScanErrors(inst, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    uint32_t type = 99;
    char ext[16], ctype[64], name[64];
    size_t extLen = sizeof ext, ctypeLen = sizeof ctype, nameLen = sizeof name;
    uint64_t reserved = 7;
    ASSERT_EQ(MAV_OK, MavEnumContentInfo(inst, 0, &type, ext, &extLen, ctype, &ctypeLen, name,
                                         &nameLen, &reserved));
    EXPECT_EQ(0u, type);
    EXPECT_EQ("txt", std::string(ext, extLen));
    EXPECT_EQ("application/octet-stream", std::string(ctype, ctypeLen));
    EXPECT_EQ("/data/file.txt", std::string(name, nameLen));
    EXPECT_EQ(7u, reserved);  // written only by the missing-list case
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumContentInfo(inst, 1, &type, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, nullptr));
}

TEST_F(Results, InfectionsFollowTheBufferRule) {
    Start();
    pel.script_clear();
    pel.script_infection("EICAR-Test", "x.com", 4242, 1, 68, "test file");
    pel.script_infection("Second", "y.com", 7, 0, 5, nullptr);
    pel.script_rc(MAV_E_VIRUS_FOUND);
    ASSERT_EQ(MAV_E_VIRUS_FOUND, Scan());

    uint8_t rep = 0;
    uint32_t id = 0;
    uint64_t size = 0;
    size_t vLen = 0, oLen = 0, fLen = 0;
    // Null buffers ask for 3 x length + 3.
    ASSERT_EQ(MAV_OK, MavEnumInfections(inst, 0, &rep, &id, nullptr, &vLen, nullptr, &oLen, &size,
                                        nullptr, &fLen));
    EXPECT_EQ(1, rep);
    EXPECT_EQ(4242u, id);
    EXPECT_EQ(68u, size);
    EXPECT_EQ(3 * strlen("EICAR-Test") + 3, vLen);
    EXPECT_EQ(3 * strlen("x.com") + 3, oLen);
    EXPECT_EQ(3 * strlen("test file") + 3, fLen);

    char v[64], o[64], f[64];
    vLen = strlen("EICAR-Test") + 1;
    oLen = sizeof o;
    fLen = sizeof f;
    ASSERT_EQ(MAV_OK,
              MavEnumInfections(inst, 0, nullptr, nullptr, v, &vLen, o, &oLen, nullptr, f, &fLen));
    EXPECT_EQ("EICAR-Test", std::string(v, vLen));
    EXPECT_STREQ("EICAR-Test", v);
    EXPECT_EQ("x.com", std::string(o, oLen));
    EXPECT_EQ("test file", std::string(f, fLen));

    // One character too small: that text fails and is emptied, the others
    // are still filled.
    vLen = strlen("EICAR-Test");
    oLen = sizeof o;
    fLen = sizeof f;
    memset(o, 'q', sizeof o);
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT,
              MavEnumInfections(inst, 0, nullptr, nullptr, v, &vLen, o, &oLen, nullptr, f, &fLen));
    EXPECT_EQ(0u, vLen);
    EXPECT_EQ('\0', v[0]);
    EXPECT_EQ("x.com", std::string(o, oLen));
    EXPECT_EQ("test file", std::string(f, fLen));

    // A missing text reports 0 and empties the buffer.
    fLen = 0;
    ASSERT_EQ(MAV_OK, MavEnumInfections(inst, 1, &rep, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, &fLen));
    EXPECT_EQ(0u, fLen);
    EXPECT_EQ(0, rep);
    fLen = sizeof f;
    ASSERT_EQ(MAV_OK, MavEnumInfections(inst, 1, nullptr, nullptr, nullptr, nullptr, nullptr,
                                        nullptr, nullptr, f, &fLen));
    EXPECT_EQ(0u, fLen);
    EXPECT_EQ('\0', f[0]);
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumInfections(inst, 2, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr));
}

TEST_F(Results, ScanErrorsCarryTheAdaptersCode) {
    Start();
    pel.script_clear();
    pel.script_scan_error("archive.zip", -3, "password protected", 1234);
    pel.script_rc(MAV_E_NOT_SCANNED);
    ASSERT_EQ(MAV_E_NOT_SCANNED, Scan());
    uint32_t code = 0;
    uint64_t size = 0;
    char text[64], name[64];
    size_t textLen = sizeof text, nameLen = sizeof name;
    ASSERT_EQ(MAV_OK, MavEnumScanErrors(inst, 0, &code, text, &textLen, name, &nameLen, &size));
    EXPECT_EQ(0xFFFFFFFDu, code);
    EXPECT_EQ("password protected", std::string(text, textLen));
    EXPECT_EQ("archive.zip", std::string(name, nameLen));
    EXPECT_EQ(1234u, size);
}

TEST_F(Results, MissingListsWithCountsAreWalkedAsEmpty) {
    Start();
    pel.script_clear();
    pel.script_infection("v", "o", 1, 0, 1, "f");
    pel.script_scan_error("o", 1, "t", 1);
    pel.script_content("o", "e", "c", "s", 1, 1);
    pel.script_null_arrays(1);
    pel.script_counts(3, 0, 0, 2, 2);
    ASSERT_EQ(MAV_OK, Scan());
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumInfections(inst, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumScanErrors(inst, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    // No content list at all: every output cleared, MAV_OK for any index.
    uint32_t type = 5;
    char ext[8] = "eee", ctype[8] = "ccc", name[8] = "nnn";
    size_t extLen = sizeof ext, ctypeLen = sizeof ctype, nameLen = sizeof name;
    uint64_t reserved = 9;
    for (uint32_t index : {0u, 1000u}) {
        ASSERT_EQ(MAV_OK, MavEnumContentInfo(inst, index, &type, ext, &extLen, ctype, &ctypeLen,
                                             name, &nameLen, &reserved));
        EXPECT_EQ(0u, type);
        EXPECT_EQ('\0', ext[0]);
        EXPECT_EQ('\0', ctype[0]);
        EXPECT_EQ('\0', name[0]);
        EXPECT_EQ(0u, extLen + ctypeLen + nameLen);
        EXPECT_EQ(0u, reserved);
    }
}

TEST_F(Results, AdapterInformationAndVersionPacking) {
    pel.set_adapter_info(4711, 0, 2, 3, 7, "Kormo Test", "testpel");
    pel.set_flags(0x3, 0x19, VS_M_VIRUS | VS_M_ERROR, 0x4);
    pel.add_param(1, VS_P_INITTIMEOUT, VS_TYPE_INT, "1");
    pel.add_param(0, VS_P_SCANLIMIT, VS_TYPE_LONG, "1");
    Start();
    uint32_t version = 0, params = 0, events = 0;
    char name[32], vendor[32];
    size_t nameLen = sizeof name, vendorLen = 0;
    ASSERT_EQ(MAV_OK,
              MavGetPelInfo(inst, &version, &params, &events, name, &nameLen, nullptr, &vendorLen));
    EXPECT_EQ(0x00030007u, version);
    EXPECT_EQ(2u, params);
    EXPECT_EQ(VS_M_VIRUS | VS_M_ERROR, events);
    EXPECT_EQ("testpel", std::string(name, nameLen));
    EXPECT_EQ(3 * strlen("Kormo Test") + 3, vendorLen);
    vendorLen = sizeof vendor;
    ASSERT_EQ(MAV_OK,
              MavGetPelInfo(hdl, nullptr, nullptr, nullptr, nullptr, nullptr, vendor, &vendorLen));
    EXPECT_EQ("Kormo Test", std::string(vendor, vendorLen));

    uint32_t id = 0, model = 9, scan = 0, action = 0, cio = 0;
    uint16_t mav = 0;
    ASSERT_EQ(MAV_OK, MavGetPelTechInfo(hdl, &id, &model, &mav, &scan, &action, &cio));
    EXPECT_EQ(4711u, id);
    EXPECT_EQ(0u, model);
    EXPECT_EQ(2, mav);
    EXPECT_EQ(0x3u, scan);
    EXPECT_EQ(0x19u, action);
    EXPECT_EQ(0x4u, cio);

    uint64_t date = 0;
    uint32_t viruses = 0;
    uint16_t drivers = 0;
    char text[64];
    size_t textLen = sizeof text;
    ASSERT_EQ(MAV_OK, MavGetEngineInfo(inst, &version, text, &textLen, &date, &viruses, &drivers));
    EXPECT_EQ(0x00030001u, version);
    EXPECT_EQ("testpel engine 3.1", std::string(text, textLen));
    EXPECT_EQ(1577836800u, date);
    EXPECT_EQ(1000u, viruses);
    EXPECT_EQ(1, drivers);
    // Thread model 0: the handle has no engine record of its own.
    version = 1;
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavGetEngineInfo(hdl, &version, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(1u, version);

    char drv[32];
    size_t drvLen = sizeof drv;
    ASSERT_EQ(MAV_OK, MavEnumDriverInfo(inst, 0, &version, drv, &drvLen, &date, &viruses));
    EXPECT_EQ(0x00010000u, version);
    EXPECT_EQ("testpel.drv", std::string(drv, drvLen));
    EXPECT_EQ(1000u, viruses);
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumDriverInfo(inst, 1, &version, nullptr, nullptr, nullptr, nullptr));

    TraceCapture trace(MAV_TRC_ERROR);
    EXPECT_EQ(MAV_E_NULL_PARAM, MavGetPelInfo(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                              nullptr, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM,
              MavGetPelTechInfo(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM,
              MavGetEngineInfo(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM,
              MavEnumDriverInfo(nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.Has("Invalid NULL parameter for handle\n"));
    alignas(64) unsigned char junk[256] = {};
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavGetPelTechInfo(junk, &id, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.Has("Invalid NULL handle for PEL config\n"));
}

TEST_F(Results, SharedEngineAnswersForTheHandle) {
    pel.set_adapter_info(1, 1, 2, 1, 0, nullptr, nullptr);
    Start();
    uint32_t version = 0;
    ASSERT_EQ(MAV_OK, MavGetEngineInfo(hdl, &version, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0x00030001u, version);
    // Missing adapter texts report 0.
    size_t len = 99;
    ASSERT_EQ(MAV_OK,
              MavGetPelInfo(hdl, nullptr, nullptr, nullptr, nullptr, &len, nullptr, nullptr));
    EXPECT_EQ(0u, len);
}

TEST_F(Results, MissingAdapterInfoIsRefusedWithOutputsUntouched) {
    pel.set_no_adapter_info(1);
    Start();
    uint32_t id = 5;
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavGetPelTechInfo(hdl, &id, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavGetPelInfo(inst, &id, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(5u, id);
}

TEST(AdapterInformation, RefusalsAreTracedUnderThePublicFunction) {
    // Not a record at all: no handle, so no adapter configuration.
    alignas(8) unsigned char junk[256] = {};
    uint32_t n = 0;
    TraceCapture trace(MAV_TRC_ERROR);
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavGetPelInfo(junk, &n, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(MAV_E_INVALID_HANDLE,
              MavEnumDriverInfo(junk, 0, &n, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(trace.HasFrom("MavGetPelInfo", "Invalid NULL handle for PEL config\n"));
    EXPECT_TRUE(trace.HasFrom("MavEnumDriverInfo", "Invalid NULL handle for PEL config\n"));
}

TEST(FreeInfo, FreesBothLevelsAndClearsThePointer) {
    void** outer = static_cast<void**>(MavIAlloc(sizeof(void*), true));
    ASSERT_NE(nullptr, outer);
    *outer = MavIAlloc(32, false);
    void* p = outer;
    MavPFreeInfo(&p);
    EXPECT_EQ(nullptr, p);
    MavPFreeInfo(&p);
    MavPFreeInfo(nullptr);
}

}  // namespace
