// Events: registration rules, what the adapter is told, routing and the data
// each handler gets, and stopping a scan from a handler.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mav_fixture.h"
#include "mavxxi.h"

namespace {

// What a handler saw, copied during the call (the library frees its
// converted texts afterwards).
struct Seen {
    std::string via;  // "single" or the table slot's name
    uintptr_t number;
    std::string text;  // virus name, scan error text, or the text of the data
};
std::vector<Seen> seen;
VS_CALLRC nextResult = 0;

void Record(const char* via, MAV_INST, uint32_t message, void* data) {
    const char* text = nullptr;
    if (message == VS_M_VIRUS || message == VS_M_REPAIRED) {
        text = static_cast<MAV_VIRUSINFO*>(data)->pszVirusName;
    } else if (message == VS_M_NOTSCANNED || message == VS_M_NOTREPAIRED) {
        text = static_cast<MAV_SCANERROR*>(data)->pszErrorText;
    } else if (message == VS_M_OBJECTFOUND || message == VS_M_ERROR) {
        text = static_cast<const char*>(data);
    }
    seen.push_back({via, reinterpret_cast<uintptr_t>(data), text != nullptr ? text : "(null)"});
}

VS_CALLRC Single(MAV_INST inst, uint32_t message, void* data, void* userData) {
    EXPECT_EQ(&seen, userData);
    Record("single", inst, message, data);
    return nextResult;
}

#define TABLE_HANDLER(name, msg)                                \
    VS_CALLRC name(MAV_INST inst, void* userData, void* data) { \
        EXPECT_EQ(&seen, userData);                             \
        Record(#name, inst, msg, data);                         \
        return nextResult;                                      \
    }
TABLE_HANDLER(OnVirusFound, VS_M_VIRUS)
TABLE_HANDLER(OnClean, VS_M_CLEAN)
TABLE_HANDLER(OnError, VS_M_ERROR)
TABLE_HANDLER(OnObjectFound, VS_M_OBJECTFOUND)
TABLE_HANDLER(AbortScan, VS_M_ABORTSCAN)
TABLE_HANDLER(OnNotScanned, VS_M_NOTSCANNED)
TABLE_HANDLER(OnVirusRepaired, VS_M_REPAIRED)
TABLE_HANDLER(OnVirusNotRepaired, VS_M_NOTREPAIRED)
TABLE_HANDLER(OnMacrosCleaned, VS_M_MACROSCLEANED)
TABLE_HANDLER(OnMacrosFound, VS_M_CONTAINMACROS)
TABLE_HANDLER(ScanActions, VS_M_SCANACTIONS)
TABLE_HANDLER(ScanProgress, VS_M_SCANPROGRESS)

class Events : public MavFixture {
  protected:
    void SetUp() override {
        seen.clear();
        nextResult = 0;
    }
    // One infection and one scan error, and every message once.
    void ScriptAllMessages() {
        pel.script_clear();
        pel.script_infection("Eicar<1>", "a.com", 77, 1, 68, "free");
        pel.script_scan_error("b.zip", 12, "encrypted", 900);
        for (uint32_t m : {VS_M_VIRUS, VS_M_REPAIRED, VS_M_NOTSCANNED, VS_M_NOTREPAIRED})
            pel.script_event(m, 0, nullptr, 0, 0);
        pel.script_event(VS_M_OBJECTFOUND, 0, "inner/doc.xls", 0, 0);
        pel.script_event(VS_M_ERROR, 0, "bad header", 0, 0);
        pel.script_event(VS_M_SCANPROGRESS, 0, nullptr, 0x100000005ull, 0);
        uint64_t n = 3;
        for (uint32_t m :
             {VS_M_SCANACTIONS, VS_M_CLEAN, VS_M_ABORTSCAN, VS_M_MACROSCLEANED, VS_M_CONTAINMACROS})
            pel.script_event(m, 0, nullptr, n++, 0);
    }
    MAV_RC ScanFile(MAV_INST i) { return MavScanFile(i, "/dev/null", 42, nullptr); }
};

TEST_F(Events, MaskRulesFollowTheAdapterEventFlags) {
    pel.set_flags(0x3, 0x19, VS_M_VIRUS | VS_M_CLEAN, 0);
    Start();
    TraceCapture trace(MAV_TRC_ERROR | MAV_TRC_EVENT | MAV_TRC_WARNING);
    EXPECT_EQ(MAV_E_NOT_SUPPORTED,
              MavRegisterSingleEventHandler(hdl, Single, VS_M_ERROR | VS_M_ABORTSCAN, &seen));
    EXPECT_TRUE(trace.Has("The event message VS_M_ABORTSCAN is not supported by the PEL!\n"));
    // One supported message carries the whole mask, to the scan and to PelInit.
    EXPECT_EQ(MAV_OK, MavRegisterSingleEventHandler(hdl, Single, VS_M_ERROR | VS_M_VIRUS, &seen));
    ASSERT_EQ(MAV_OK, ScanFile(inst));
    const PEL_CALLBACK& cb = pel.lastScan().sCallback;
    EXPECT_EQ(reinterpret_cast<PEL_CALLBACK_FN>(MavPXCallback), cb.pfnCallback);
    EXPECT_EQ(VS_M_ERROR | VS_M_VIRUS, cb.uiMessageMask);
    EXPECT_EQ(inst, cb.pvContext);

    EXPECT_EQ(MAV_OK, MavRegisterSingleEventHandler(hdl, Single, VS_M_ALL, &seen));
    MAV_EVENTS table = {};
    table.OnError = OnError;
    EXPECT_EQ(MAV_E_NOT_SUPPORTED, MavRegisterEvents(hdl, &table, &seen));
    // No handler at all switches events off.
    MAV_EVENTS empty = {};
    EXPECT_EQ(MAV_OK, MavRegisterEvents(hdl, &empty, &seen));
    ASSERT_EQ(MAV_OK, ScanFile(inst));
    EXPECT_EQ(nullptr, pel.lastScan().sCallback.pfnCallback);
    EXPECT_EQ(0u, pel.lastScan().sCallback.uiMessageMask);
    EXPECT_EQ(MAV_OK, MavRegisterSingleEventHandler(hdl, Single, 0, &seen));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavRegisterEvents(nullptr, &table, nullptr));
    EXPECT_EQ(MAV_E_NULL_PARAM, MavRegisterSingleEventHandler(nullptr, Single, 1, nullptr));
}

TEST_F(Events, TableRoutesBySlotAndBothNotScannedMessagesGoToSlot7) {
    Start();
    ScriptAllMessages();
    MAV_EVENTS table = {OnVirusFound,    OnClean,       OnError,         OnObjectFound,
                        AbortScan,       OnNotScanned,  OnVirusRepaired, OnVirusNotRepaired,
                        OnMacrosCleaned, OnMacrosFound, ScanActions,     ScanProgress};
    ASSERT_EQ(MAV_OK, MavRegisterEvents(inst, &table, &seen));
    ASSERT_EQ(MAV_OK, ScanFile(inst));
    const std::vector<std::string> expected = {
        "OnVirusFound",  "OnVirusRepaired", "OnVirusNotRepaired", "OnVirusNotRepaired",
        "OnObjectFound", "OnError",         "ScanProgress",       "ScanActions",
        "OnClean",       "AbortScan",       "OnMacrosCleaned",    "OnMacrosFound"};
    std::vector<std::string> via;
    for (const Seen& s : seen) via.push_back(s.via);
    EXPECT_EQ(expected, via);
    ASSERT_EQ(12u, seen.size());
    EXPECT_EQ("encrypted", seen[2].text);  // NOTSCANNED reaches slot 7 as a scan error
    EXPECT_EQ("Eicar<1>", seen[1].text);
    EXPECT_EQ(5u, seen[6].number);  // a table handler gets the low 32 bits
    EXPECT_EQ("bad header", seen[5].text);

}

}  // namespace
