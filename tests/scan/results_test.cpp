// Results and adapter information: the enumerators before and after scans,
// the caller-buffer rule, the missing-content special case, version packing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mav_fixture.h"
#include "mavxxi.h"

namespace {

// The enumerators with every output left out.
MAV_RC Infection(void* h, uint32_t i) {
    return MavEnumInfections(h, i, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr);
}
MAV_RC ScanError(void* h, uint32_t i) {
    return MavEnumScanErrors(h, i, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}
MAV_RC Content(void* h, uint32_t i) {
    uint32_t type = 0;
    return MavEnumContentInfo(h, i, &type, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                              nullptr);
}

class Results : public MavFixture {
  protected:
    MAV_RC Scan() {
        MAV_SCANINFO si = {};
        si.struct_size = sizeof si;
        return MavScanFile(inst, "/data/file.txt", 5, &si);
    }
};

TEST_F(Results, EnumeratorsNeedAResultAndIndexWithinIt) {
    Start();
    EXPECT_EQ(MAV_E_NO_SCANINFO, Infection(inst, 0));
    EXPECT_EQ(MAV_E_NO_SCANINFO, ScanError(inst, 0));
    EXPECT_EQ(MAV_E_NO_SCANINFO, Content(inst, 0));
    EXPECT_EQ(MAV_E_NO_SCANINFO, ScanError(hdl, 0));  // a handle holds no results
    {
        TraceCapture trace(MAV_TRC_ERROR);
        EXPECT_EQ(MAV_E_INVALID_HANDLE, Infection(nullptr, 0));
        EXPECT_TRUE(trace.Has("Invalid NULL parameter for handle\n"));
    }

    // A clean scan: content, but no infections or errors.
    ASSERT_EQ(MAV_OK, Scan());
    uint8_t rep = 9;
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX,
              MavEnumInfections(inst, 0, &rep, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr));
    EXPECT_EQ(9, rep);
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX, ScanError(inst, 0));
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
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX, Content(inst, 1));
}

TEST_F(Results, InfectionsAndScanErrorsFollowTheBufferRule) {
    Start();
    pel.script_clear();
    pel.script_infection("EICAR-Test", "x.com", 4242, 1, 68, "test file");
    pel.script_infection("Second", "y.com", 7, 0, 5, nullptr);
    pel.script_scan_error("archive.zip", -3, "password protected", 1234);
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
    auto texts = [&](size_t vSize) {
        vLen = vSize;
        oLen = fLen = sizeof o;
        memset(o, 'q', sizeof o);
        return MavEnumInfections(inst, 0, nullptr, nullptr, v, &vLen, o, &oLen, nullptr, f, &fLen);
    };
    ASSERT_EQ(MAV_OK, texts(strlen("EICAR-Test") + 1));
    EXPECT_EQ("EICAR-Test", std::string(v, vLen));
    EXPECT_STREQ("EICAR-Test", v);
    EXPECT_EQ("x.com", std::string(o, oLen));
    EXPECT_EQ("test file", std::string(f, fLen));
    // One character too small: that text fails and is emptied, the others
    // are still filled.
    EXPECT_EQ(MAV_E_BUFFER_TOO_SHORT, texts(strlen("EICAR-Test")));
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
    EXPECT_EQ(MAV_E_INVALID_ENUM_INDEX, Infection(inst, 2));

    // A scan error carries the adapter's code as an unsigned number.
    uint32_t code = 0;
    char text[64], name[64];
    size_t textLen = sizeof text, nameLen = sizeof name;
    ASSERT_EQ(MAV_OK, MavEnumScanErrors(inst, 0, &code, text, &textLen, name, &nameLen, &size));
    EXPECT_EQ(0xFFFFFFFDu, code);
    EXPECT_EQ("password protected", std::string(text, textLen));
    EXPECT_EQ("archive.zip", std::string(name, nameLen));
    EXPECT_EQ(1234u, size);
}

// The two-level free of the legacy information call.
TEST(FreeInfo, FreesBothLevelsAndClearsThePointer) {
    void** outer = static_cast<void**>(MavIAlloc(sizeof(void*), true));
    ASSERT_NE(nullptr, outer);
    *outer = MavIAlloc(32, false);
    void* p = outer;
    MavPFreeInfo(&p);
    EXPECT_EQ(nullptr, p);
    MavPFreeInfo(&p);
}

}  // namespace
