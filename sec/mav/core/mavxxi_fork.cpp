// mavxxi_fork.cpp - the library's locks across fork().
//
// Services fork workers while other threads scan. A child inherits every lock
// as it was at the fork, owned by threads the child does not have, and would
// wait on them forever. So the prepare handler takes every library lock in the
// global order (registry -> each registered handle -> record pool -> trace
// file -> trace buffer -> kernel trace, plus the loader table as a leaf); the
// parent releases them in reverse, the child releases the plain mutexes and
// creates the recursive ones anew (they hold the parent thread's id). The forking thread
// waits for calls holding a lock to leave it (an adapter's PelInit under a
// handle lock, for instance); PelScan runs without library locks, so scans in
// progress never delay a fork.
//
// Limits: a handle in the middle of MavInit (not yet registered) is not part
// of the set; the child never sees it returned. An adapter's own locks are the
// adapter's matter.
#include <pthread.h>

#include <cstring>
#include <mutex>

#include "krntrc.h"
#include "mavxxi.h"

namespace {

bool LockOne(MAV_HDL_REC* hdl, void*) {
    if (hdl->pCS != nullptr) ThrCSLock(hdl->pCS);
    return true;
}

bool UnlockOne(MAV_HDL_REC* hdl, void*) {
    if (hdl->pCS != nullptr) ThrCSUnlock(hdl->pCS);
    return true;
}

// True while the prepare handler holds the registry (it could not be taken
// when its section failed to be created).
bool registryHeld = false;

void Prepare() {
    registryHeld = MavILockRegistry() != 0;
    if (registryHeld) MavIXForEachHdl(LockOne, nullptr);
    MavIXRecForkLock();
    MavITraceForkLock();
    DpLock();
    KrnDlForkLock();
}

void Parent() {
    KrnDlForkUnlock();
    DpUnlock();
    MavITraceForkUnlock();
    MavIXRecForkUnlock();
    if (registryHeld) {
        MavIXForEachHdl(UnlockOne, nullptr);
        MavIUnlockRegistry();
    }
}

// The plain mutexes (record pool, loader table) are released; the recursive
// sections remember the parent thread's id and are created anew.
void Child() {
    KrnDlForkUnlock();
    KrnTrcForkChild();
    MavITraceForkChild();
    MavIXRecForkUnlock();
    if (registryHeld) MavIXRegForkChild();
}

std::once_flag forkOnce;

}  // namespace

void MavIXForkRenewCS(THR_CRIT_SEC* cs) {
    memset(cs, 0, sizeof *cs);
    ThrCSInit2(cs);
}

void MavIXRegisterForkHandlers(void) {
    std::call_once(forkOnce, [] { pthread_atfork(Prepare, Parent, Child); });
}
