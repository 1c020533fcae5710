// mavprofile_instance.cpp - scan instances of profiles and their exceptions.
//
// A MavInstance walks its C instances in step order. Linkage 0 stops at the
// first finding, linkage 1 at the first clean result; the last result decides
// otherwise. "Not scanned" (14) is judged per step: it is accepted (becomes 0)
// only when every step that returned it accepts it by its own configuration,
// and an accepted 14 never ends the walk, so a later engine still gets to look.
// An instance without C instances has no engine and answers 14. The C++ scan
// throws; the C walk (MavIXScanClean) reports codes.
#include <cstring>
#include <new>
#include <vector>

#include "mavprofile_i.h"

namespace {

std::string str(const char* s) {
    return s != nullptr ? std::string(s) : std::string();
}

std::string buildMessage(MAV_RC rc, const char* text, const char* object) {
    if (rc < 0) return "Infection \"" + str(text) + "\" in object \"" + str(object) + "\"";
    return "Scan error in object \"" + str(object) + "\": \"" + str(text) + "\"";
}

// The scan policy of a C instance (zero when it has none).
MAV_INST_POLICY policyOf(MAV_INST inst) {
    MAV_INST_POLICY policy{};
    MavIXGetInstPolicy(inst, &policy);
    return policy;
}

// The instance accepts objects that were not scanned.
bool notScannedAccepted(MAV_INST inst) {
    return policyOf(inst).bNotScannedAsWarning == 1;
}

// Text of the first infection (infection true) or scan error of the last scan;
// false when it cannot be had.
bool firstText(MAV_INST inst, bool infection, std::string& out) {
    size_t size = 0;
    MAV_RC rc =
        infection ? MavEnumInfections(inst, 0, nullptr, nullptr, nullptr, &size, nullptr, nullptr,
                                      nullptr, nullptr, nullptr)
                  : MavEnumScanErrors(inst, 0, nullptr, nullptr, &size, nullptr, nullptr, nullptr);
    if (rc != MAV_OK || size == 0) return false;
    KORMO_CHAR* buf = static_cast<KORMO_CHAR*>(MavIAlloc(size, true));
    if (buf == nullptr) throw std::bad_alloc();
    rc = infection ? MavEnumInfections(inst, 0, nullptr, nullptr, buf, &size, nullptr, nullptr,
                                       nullptr, nullptr, nullptr)
                   : MavEnumScanErrors(inst, 0, nullptr, buf, &size, nullptr, nullptr, nullptr);
    if (rc == MAV_OK) out.assign(buf, strnlen(buf, size));
    MavIFree(buf);
    return rc == MAV_OK;
}

// Runs the steps of one walk: scanStep(i) scans the object with step i and
// returns its code. The combined code, 14 judged as described at the top.
template <typename ScanStep>
MAV_RC WalkSteps(const std::vector<MAV_INST>& steps, int32_t linkage, ScanStep scanStep) {
    MAV_RC rc = MAV_E_NOT_SCANNED;
    bool accepted = true;  // every 14 so far was accepted by its own step
    for (size_t i = 0; i < steps.size(); ++i) {
        rc = scanStep(i);
        if (rc == MAV_E_NOT_SCANNED) {
            if (notScannedAccepted(steps[i])) continue;
            accepted = false;
        }
        if (rc != MAV_OK && linkage == 0) return rc;
        if (rc == MAV_OK && linkage == 1) return MAV_OK;
    }
    // Linkage 0 gets here only with clean results and accepted 14s.
    if (rc == MAV_E_NOT_SCANNED && accepted) return MAV_OK;
    return rc;
}

std::string noEngineText(const std::string& profile) {
    return "Profile >" + profile + "< has no scan engine; the object was not scanned";
}

}  // namespace

namespace mav {

// ---- Exceptions -----------------------------------------------------------------------

MavCException::MavCException(MAV_RC rc_, const char* text, const char* object_)
    : rc(rc_), message(buildMessage(rc_, text, object_)), object(str(object_)) {
    if (rc_ < 0) {
        infection = str(text);
    } else {
        scanError = str(text);
    }
}

MavCException::MavCException(const MavCException& other) = default;
MavCException::~MavCException() noexcept = default;
const char* MavCException::what() const noexcept {
    return message.c_str();
}

MavCScanException::MavCScanException(MAV_RC rc_, const char* text_, const char* object_)
    : MavCException(rc_, text_, object_),
      rc(rc_),
      message(buildMessage(rc_, text_, object_)),
      object(str(object_)),
      text(str(text_)) {}

MavCScanException::MavCScanException(const MavCScanException& other) = default;
MavCScanException::~MavCScanException() noexcept = default;
const char* MavCScanException::what() const noexcept {
    return message.c_str();
}

MavCInfectionException::MavCInfectionException(MAV_RC rc_, const char* text_, const char* object_)
    : MavCException(rc_, text_, object_),
      rc(rc_),
      message(buildMessage(rc_, text_, object_)),
      object(str(object_)),
      text(str(text_)) {}

MavCInfectionException::MavCInfectionException(const MavCInfectionException& other) = default;
MavCInfectionException::~MavCInfectionException() noexcept = default;
const char* MavCInfectionException::what() const noexcept {
    return message.c_str();
}

// ---- MavInstance ----------------------------------------------------------------------

// What a scan of a profile instance without C instances leaves to read: not
// scanned, one scan error naming the profile and the object.
struct MavNoEngineResult {
    std::string text;
    std::string object;
    PEL_SCANERROR error{};
    PEL_SCANINFO info{};

    static PEL_SCANINFO* Record(MavInstance& mi, const char* object) {
        if (!mi.noEngine) mi.noEngine.reset(new MavNoEngineResult);
        MavNoEngineResult& r = *mi.noEngine;
        r.text = noEngineText(mi.profileName);
        r.object = object != nullptr ? object : "";
        r.error = PEL_SCANERROR{};
        r.error.struct_size = sizeof(PEL_SCANERROR);
        r.error.iErrorRC = MAV_E_NOT_SCANNED;
        r.error.pszErrorText = &r.text[0];
        r.error.pszObjectName = &r.object[0];
        r.info = PEL_SCANINFO{};
        r.info.struct_size = sizeof(PEL_SCANINFO);
        r.info.uiNotScanned = 1;
        r.info.uiScanErrors = 1;
        r.info.pScanError = &r.error;
        return &r.info;
    }
    static PEL_SCANINFO* Peek(MavInstance& mi) { return mi.noEngine ? &mi.noEngine->info : nullptr; }
};

MavInstance::MavInstance(int linkage_)
    : linkage(linkage_ == 1 ? 1 : 0), current(0), scanInfo(), mavHandle(nullptr) {
    scanInfo.struct_size = 32;
}

MavInstance::~MavInstance() {
    for (MAV_INST& inst : instances) MavFreeInstance(&inst);
}

bool MavInstance::add(MAV_INST inst) {
    instances.push_back(inst);
    return true;
}

bool MavInstance::setParameters(std::vector<MavParameter*>& params) {
    for (MAV_INST inst : instances) MavIXApplyParameters(inst, params);
    return true;
}

MAV_HANDLE MavInstance::getMavHandle() {
    if (instances.empty()) return mavHandle;
    MAV_HANDLE shared = MavGetHandle(instances.front());
    for (MAV_INST inst : instances) {
        if (MavGetHandle(inst) != shared) return nullptr;
    }
    return shared;
}

void MavInstance::setMavHandle(void* handle) {
    mavHandle = handle;
}

std::unique_ptr<MavInstance> MavInstance::createInstance(const char* profileName) {
    return std::unique_ptr<MavInstance>(MavProfile::createInstance(profileName));
}

MAV_RC MavInstance::walk(uint32_t scanCode, const char* fileName, unsigned char* bytes,
                         size_t* length, const char* object, bool alwaysInfo) {
    if (instances.empty()) {
        MAVP_TRC_E("%s\n", noEngineText(profileName).c_str());
        handleReturnCode(MAV_E_NOT_SCANNED, object);  // throws: no engine, no verdict
    }
    MAV_RC rc = WalkSteps(instances, linkage, [&](size_t i) {
        MAV_INST inst = instances[i];
        MAV_INST_POLICY policy = policyOf(inst);
        uint32_t action = policy.uiAction;
        MAV_SCANINFO* info = &scanInfo;
        if (!alwaysInfo && policy.bNoScanInfo == 1) info = nullptr;
        current = static_cast<int32_t>(i);
        if (scanCode == VS_SC_FILE) {
            return MavScanClean(inst, VS_SC_FILE, action, nullptr, fileName, nullptr, nullptr, 0,
                                info);
        }
        return MavScanClean(inst, VS_SC_BYTES, action, nullptr, object, bytes, length, 0, info);
    });
    // The walk has judged every 14 already: what is left is raised as it is.
    if (rc != MAV_OK) raise(rc, object);
    return rc;
}

MAV_RC MavInstance::scan(const char* fileName) {
    return walk(VS_SC_FILE, fileName, nullptr, nullptr, fileName, false);
}

MAV_RC MavInstance::scan(const unsigned char* bytes, unsigned long length, const char* objectName) {
    size_t len = length;
    bool cleans = false;
    for (MAV_INST inst : instances) {
        if ((policyOf(inst).uiAction & VS_A_CLEAN) != 0) cleans = true;
    }
    if (!cleans || bytes == nullptr) {
        return walk(VS_SC_BYTES, nullptr, const_cast<unsigned char*>(bytes), &len, objectName,
                    true);
    }
    // Cleaning writes into the buffer; the caller's bytes are const, so the
    // adapter gets a copy.
    std::vector<unsigned char> copy(bytes, bytes + length);
    return walk(VS_SC_BYTES, nullptr, copy.data(), &len, objectName, true);
}

MAV_RC MavInstance::scan(const unsigned char* bytes, unsigned long length) {
    return scan(bytes, length, "profile");
}

void MavInstance::handleReturnCode(MAV_RC rc, const char* object) {
    if (rc == MAV_OK) return;
    if (rc == MAV_E_NOT_SCANNED) {
        if (instances.empty()) {
            throw MavCScanException(rc, noEngineText(profileName).c_str(), object);
        }
        if (notScannedAccepted(currentInstance())) return;
    }
    raise(rc, object);
}

MAV_INST MavInstance::currentInstance() const {
    return (current >= 0 && static_cast<size_t>(current) < instances.size())
               ? instances[static_cast<size_t>(current)]
               : nullptr;
}

void MavInstance::raise(MAV_RC rc, const char* object) {
    MAV_INST inst = currentInstance();
    std::string text;
    if (rc < 0) {
        if (inst != nullptr && firstText(inst, true, text)) {
            throw MavCInfectionException(rc, text.c_str(), object);
        }
        throw MavCInfectionException(rc, "Infection", object);
    }
    if (inst != nullptr && firstText(inst, false, text)) {
        throw MavCScanException(rc, text.c_str(), object);
    }
    throw MavCScanException(rc, "ScanError", object);
}

}  // namespace mav

// ---- C entry of the scan pipeline ----------------------------------------------------

extern "C" MAV_RC MavIXScanClean(void* mavInstance, uint32_t scanCode, uint32_t actionCode,
                                 const char* objectNameUtf8, const KORMO_CHAR* objectName,
                                 unsigned char* bytes, size_t* length, uint32_t jobId,
                                 MAV_SCANINFO* scanInfo) {
    mav::MavInstance* mi = static_cast<mav::MavInstance*>(mavInstance);
    if (mi == nullptr) return MAV_E_INVALID_HANDLE;
    const std::vector<MAV_INST>& list = mi->getCInstances();
    if (list.empty()) {
        // No provider gave an instance: no engine judged the object.
        MAVP_TRC_E("%s\n", noEngineText(mi->getProfileName()).c_str());
        try {
            mav::MavNoEngineResult::Record(*mi, objectNameUtf8 != nullptr ? objectNameUtf8
                                                                           : objectName);
        } catch (const std::bad_alloc&) {
            // The verdict stands without its scan error.
        }
        return MAV_E_NOT_SCANNED;
    }
    return WalkSteps(list, mi->getLinkage(), [&](size_t i) {
        return MavScanClean(list[i], scanCode, actionCode, objectNameUtf8, objectName, bytes,
                            length, jobId, scanInfo);
    });
}

extern "C" PEL_SCANINFO* MavIXProfileScanInfo(void* mavInstance) {
    mav::MavInstance* mi = static_cast<mav::MavInstance*>(mavInstance);
    return mi != nullptr && mi->getCInstances().empty() ? mav::MavNoEngineResult::Peek(*mi)
                                                        : nullptr;
}
