// mav_engines.cpp - helpers of the engine tests that go through libkormomav.
#include "mav_engines.h"

#include <cstdio>

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

std::string Escape(const std::string& value) {
    std::string out;
    for (unsigned char c : value) {
        if (c >= 0x80 || c == ' ' || c == '\t' || c == ';' || c == '=' || c == '\\') {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04X", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string Profile(const std::string& p, const std::string& g) {
    std::string k = "mav.profile." + p;
    return k + "=" + p + "\n" + k + ".Active=true\n" + k + ".ProfileSteps.0=0\n" + k +
           ".ProfileSteps.0.ProfileEntryType=0\n" + k + ".ProfileSteps.0.ProfileEntryValue=" + g +
           "\n" + k + ".ProfileLinkage=0\n" + "mav.group." + g + "=" + g + "\n";
}

std::string Provider(const std::string& name, const std::string& group, const std::string& path,
                     int pool, const std::vector<Param>& params) {
    std::string k = "mav.provider.Pelmark.Adapters." + name;
    std::string s = k + "=" + name + "\n" + k + ".AdapterPath=" + Escape(path) + "\n" + k +
                    ".Group=" + group + "\n" + k + ".Active=true\n" + k +
                    ".PoolMaxInstances=" + std::to_string(pool) + "\n";
    for (const Param& p : params) {
        std::string pk = k + ".Parameters." + p.name;
        s += pk + "=" + p.name + "\n" + pk + ".Type=" + p.type + "\n" + pk +
             ".Value=" + Escape(p.value) + "\n";
    }
    return s;
}

}  // namespace engines
