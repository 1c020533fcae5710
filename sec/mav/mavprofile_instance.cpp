// mavprofile_instance.cpp - scan instances of profiles and their exceptions.
//
// A MavInstance walks its C instances in step order. Linkage 0 stops at the
// first result that is not clean, linkage 1 at the first clean one; the last
// result decides otherwise. Only handleReturnCode throws; the C walk
// (MavIXScanClean) reports codes.
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

MAV_CFG* cfgOf(MAV_INST inst) {
    return inst != nullptr ? MavIGetCfg(inst) : nullptr;
}

// The instance accepts objects that were not scanned.
bool notScannedAccepted(MAV_INST inst) {
    MAV_CFG* cfg = cfgOf(inst);
    return cfg != nullptr && cfg->bNotScannedAsWarning == 1;
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

MavInstance::MavInstance(int linkage_)
    : linkage(linkage_), current(0), scanInfo(), mavHandle(nullptr) {
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
    MAV_RC rc = MAV_OK;
    for (size_t i = 0; i < instances.size(); ++i) {
        MAV_INST inst = instances[i];
        MAV_CFG* cfg = cfgOf(inst);
        uint32_t action = cfg != nullptr ? cfg->uiDefaultAction : 0;
        MAV_SCANINFO* info = &scanInfo;
        if (!alwaysInfo && cfg != nullptr && cfg->bNoScanInfo == 1) info = nullptr;
        if (scanCode == VS_SC_FILE) {
            rc = MavScanClean(inst, VS_SC_FILE, action, nullptr, fileName, nullptr, nullptr, 0,
                              info);
        } else {
            rc = MavScanClean(inst, VS_SC_BYTES, action, nullptr, object, bytes, length, 0, info);
        }
        current = static_cast<int32_t>(i);
        if (rc != MAV_OK && linkage == 0) break;
        if (rc == MAV_OK && linkage == 1) {
            handleReturnCode(MAV_OK, object);
            return MAV_OK;
        }
    }
    handleReturnCode(rc, object);
    return rc;
}

MAV_RC MavInstance::scan(const char* fileName) {
    return walk(VS_SC_FILE, fileName, nullptr, nullptr, fileName, false);
}

MAV_RC MavInstance::scan(const unsigned char* bytes, unsigned long length, const char* objectName) {
    size_t len = length;
    bool cleans = false;
    for (MAV_INST inst : instances) {
        MAV_CFG* cfg = cfgOf(inst);
        if (cfg != nullptr && (cfg->uiDefaultAction & VS_A_CLEAN) != 0) cleans = true;
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
    MAV_INST inst = (current >= 0 && static_cast<size_t>(current) < instances.size())
                        ? instances[static_cast<size_t>(current)]
                        : nullptr;
    std::string text;
    if (rc < 0) {
        if (inst != nullptr && firstText(inst, true, text)) {
            throw MavCInfectionException(rc, text.c_str(), object);
        }
        throw MavCInfectionException(rc, "Infection", object);
    }
    if (rc == MAV_E_NOT_SCANNED && notScannedAccepted(inst)) return;
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
    if (list.empty()) return MAV_OK;
    MAV_RC rc = MAV_OK;
    for (MAV_INST inst : list) {
        rc = MavScanClean(inst, scanCode, actionCode, objectNameUtf8, objectName, bytes, length,
                          jobId, scanInfo);
        if (rc != MAV_OK && mi->getLinkage() == 0) break;
        if (rc == MAV_OK && mi->getLinkage() == 1) return MAV_OK;
    }
    if (rc != MAV_E_NOT_SCANNED) return rc;
    int32_t cur = mi->getCurrent();
    MAV_INST decider = (cur >= 0 && static_cast<size_t>(cur) < list.size())
                           ? list[static_cast<size_t>(cur)]
                           : nullptr;
    return notScannedAccepted(decider) ? MAV_OK : MAV_E_NOT_SCANNED;
}
