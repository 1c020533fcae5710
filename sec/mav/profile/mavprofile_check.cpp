// mavprofile_check.cpp - warnings about configuration lines the runtime does
// not use.
//
// A key the runtime does not know, or a value that it reads as "off" or as a
// default (Active=True: only the exact "true" counts), silently changes the
// policy a configuration's author had in mind. With the trace's warning level
// on, each such line is traced with the configuration's name; otherwise
// nothing is looked at.
#include <cctype>
#include <cstring>

#include "mavprofile_i.h"

namespace {

// Splits "NAME.TAIL" at the first dot; false for a bare name.
bool splitName(const std::string& rest, std::string& tail) {
    size_t dot = rest.find('.');
    if (dot == std::string::npos) return false;
    tail = rest.substr(dot + 1);
    return true;
}

bool startsWith(const std::string& s, const char* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

bool oneOf(const std::string& s, std::initializer_list<const char*> names) {
    for (const char* n : names) {
        if (s == n) return true;
    }
    return false;
}

// "LIST.ENTRY", "LIST.ENTRY.ATTR" with ATTR one of attrs.
bool listEntryKnown(const std::string& tail, const char* list,
                    std::initializer_list<const char*> attrs) {
    std::string rest = tail.substr(std::strlen(list));
    std::string attr;
    return !splitName(rest, attr) || oneOf(attr, attrs);
}

bool decimal(const std::string& v, size_t maxLen) {
    if (v.empty() || v.size() > maxLen) return false;
    for (char c : v) {
        if (std::isdigit(static_cast<unsigned char>(c)) == 0) return false;
    }
    return true;
}

enum Check { kUnknown, kKnown, kIgnoredValue };

// Attribute keys whose value the runtime reads only in some forms.
Check valueCheck(const std::string& attr, const std::string& value) {
    if (oneOf(attr, {"Active", "UseReference"})) {
        return value == "true" || value == "false" ? kKnown : kIgnoredValue;
    }
    if (attr == "ProfileLinkage") return value == "0" || value == "1" ? kKnown : kIgnoredValue;
    if (attr == "PoolMaxInstances") return decimal(value, 2) ? kKnown : kIgnoredValue;
    return kKnown;
}

Check profileKey(const std::string& tail, const std::string& value) {
    if (startsWith(tail, "Parameters.")) {
        return listEntryKnown(tail, "Parameters.", {"Type", "Value"}) ? kKnown : kUnknown;
    }
    if (startsWith(tail, "ProfileSteps.")) {
        if (!listEntryKnown(tail, "ProfileSteps.", {"ProfileEntryType", "ProfileEntryValue"})) {
            return kUnknown;
        }
        std::string attr;
        if (splitName(tail.substr(std::strlen("ProfileSteps.")), attr) &&
            attr == "ProfileEntryType" && value != "0" && value != "1") {
            return kIgnoredValue;
        }
        return kKnown;
    }
    if (!oneOf(tail, {"Active", "Description", "UseReference", "ReferenceProfile", "ProfileLinkage",
                      "ExceptionOnResult"})) {
        return kUnknown;
    }
    return valueCheck(tail, value);
}

Check groupKey(const std::string& tail) {
    if (startsWith(tail, "Parameters.")) {
        return listEntryKnown(tail, "Parameters.", {"Type", "Value"}) ? kKnown : kUnknown;
    }
    return tail == "Description" ? kKnown : kUnknown;
}

Check providerKey(const std::string& tail, const std::string& value) {
    if (startsWith(tail, "Parameters.")) {
        return listEntryKnown(tail, "Parameters.", {"Type", "Value"}) ? kKnown : kUnknown;
    }
    if (!oneOf(tail, {"AdapterPath", "Group", "Active", "PoolMaxInstances", "Description",
                      "ReInitTime", "PoolInstanceTimeOut"})) {
        return kUnknown;
    }
    return valueCheck(tail, value);
}

Check classify(const std::string& key, const std::string& value) {
    static const char kProfile[] = "mav.profile.";
    static const char kGroup[] = "mav.group.";
    static const char kProvider[] = "mav.provider.Pelmark.Adapters.";
    if (oneOf(key, {"mav.defaults.group", "mav.defaults.profile", "mav.defaults.provider",
                    "mav.provider.Pelmark.TraceSetting.TraceError",
                    "mav.provider.Pelmark.TraceSetting.TraceMemory"})) {
        return kKnown;
    }
    for (const char* prefix : {kProfile, kGroup, kProvider}) {
        if (!startsWith(key, prefix)) continue;
        std::string tail;
        // A bare name registers an object (its value repeats the name).
        if (!splitName(key.substr(std::strlen(prefix)), tail)) return kKnown;
        if (prefix == kProfile) return profileKey(tail, value);
        if (prefix == kGroup) return groupKey(tail);
        return providerKey(tail, value);
    }
    return kUnknown;
}

}  // namespace

namespace mav {

void MavIXCheckConfiguration(const char* configName) {
    if (!MavPTraceOn(MAV_TRC_WARNING)) return;
    for (const auto& kv : mav_properties.getMap()) {
        switch (classify(kv.first, kv.second)) {
            case kUnknown:
                MAVP_TRC_W("Configuration >%s<: unknown key >%s< ignored\n", configName,
                          kv.first.c_str());
                break;
            case kIgnoredValue:
                MAVP_TRC_W("Configuration >%s<: value >%s< of key >%s< ignored\n", configName,
                          kv.second.c_str(), kv.first.c_str());
                break;
            case kKnown:
                break;
        }
    }
}

}  // namespace mav
