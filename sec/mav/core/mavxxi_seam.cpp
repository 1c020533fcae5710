// mavxxi_seam.cpp - the core's side of the seam to the profile runtime.
//
// The core reaches a profile instance only through the table the profile
// runtime registered (mavxxseam.h); the runtime gets its profile instance
// records and the scan policy of its C instances here.
#include "mavxxi.h"

std::atomic<const MAV_PROFILE_OPS*> mavProfileOps{nullptr};

extern "C" {

void MavIXRegisterProfileOps(const MAV_PROFILE_OPS* ops) {
    mavProfileOps.store(ops, std::memory_order_release);
}

MAV_INST MavIXNewProfileInst(void* profileInst) {
    // Without a table nothing could scan, read or end the profile instance.
    if (profileInst == nullptr || MavIXProfileOps() == nullptr) return nullptr;
    MAV_INST_REC* rec = MavIXAllocInstRec(true);
    if (rec == nullptr) return nullptr;
    rec->uiThreadId = ThrGetCurrentId();
    rec->pProfileInst = profileInst;
    return rec;
}

MAV_RC MavIXGetInstPolicy(MAV_INST inst, MAV_INST_POLICY* policy) {
    if (policy == nullptr) return MAV_E_NULL_PARAM;
    *policy = MAV_INST_POLICY{};
    const MAV_CFG* cfg = inst != nullptr ? MavIGetCfg(inst) : nullptr;
    if (cfg == nullptr) return MAV_E_INVALID_HANDLE;
    policy->uiAction = MavICfgAction(cfg);
    policy->bNoScanInfo = MavICfgFlag(&cfg->bNoScanInfo);
    policy->bNotScannedAsWarning = MavICfgFlag(&cfg->bNotScannedAsWarning);
    return MAV_OK;
}

}  // extern "C"
