// mav_engines.cpp - helpers of the engine tests that go through libkormomav.
#include "mav_engines.h"

namespace engines {

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

}  // namespace engines
