/*
 * pel_entry.h - the seven entry points of an adapter whose engine instances
 * are owner objects behind their PEL_INIT (pel_init.h).
 *
 * PEL_DEFINE_ENTRY_POINTS(Adapter) defines them in the including file over a
 * class that provides:
 *   using Owner = ...;            Init(), static FromInit(PEL_INIT*) and
 *                                 Scan(callback, scan param, options, result)
 *   static int Start();           the global start, idempotent (PelStartup)
 *   static PEL_CONFIG* Config();  the configuration, once Start succeeded
 *   static int Create(const PEL_INITPARAMS*, Owner**);  a new engine instance;
 *                                 *owner is set whenever it returns, the
 *                                 reason of a failure in its PEL_INIT
 *   static void Stop();           the global clean-up after the failed
 *                                 instances are freed (PelCleanup)
 *   static FailedInits<Owner>& Failed();
 *   static constexpr uint32_t kResultMark;  the mark of its ScanResult records
 * An exception thrown by any of them becomes kNoSpace.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#ifndef KORMO_PEL_ENTRY_H
#define KORMO_PEL_ENTRY_H

#include <mutex>

#include "kormopel.h"
#include "pel_init.h"
#include "pel_params.h"
#include "pel_records.h"

namespace pelcommon {

// The adapter-wide records: the configuration reported to every handle and
// what it points to, the engine instances of failed starts, and the lock and
// flag of the one-time start. An adapter derives its own state from it when
// it keeps more (defaults, texts the records point to).
template <class Owner, uint16_t NInit, uint16_t NOpt>
struct AdapterState {
    std::mutex lock;
    bool started = false;
    PEL_ADAPTERINFO info{};
    PEL_PARAM initParams[NInit]{};
    PEL_PARAM optParams[NOpt > 0 ? NOpt : 1]{};
    PEL_PARAMS initList{}, optList{};
    PEL_CONFIG config{};
    FailedInits<Owner> failed;

    // Runs build(*this) under the lock until it succeeds once; build fills
    // the records and ends with Publish.
    template <class S, class F>
    static int Once(S& state, F build) {
        std::lock_guard<std::mutex> l(state.lock);
        return state.started ? kOk : build(state);
    }
    // Points the configuration at the information and the lists filled in
    // (no optional list when NOpt is 0) and marks the start done.
    void Publish(uint32_t scanFlags, uint32_t actionFlags, uint32_t eventFlags) {
        initList = ParamList(initParams, NInit);
        optList = ParamList(optParams, NOpt);
        config = Config(&info, scanFlags, actionFlags, eventFlags, &initList,
                        NOpt > 0 ? &optList : nullptr);
        started = true;
    }
};

// The one state of type S, alive as long as the process: no exit-order issues.
template <class S>
S& ProcessState() {
    static S* s = new S();
    return *s;
}

// The members of an adapter class (see Entry) that read its state S from
// the accessor state.
template <class S, S& (*state)()>
struct StateMembers {
    static PEL_CONFIG* Config() { return &state().config; }
    static auto& Failed() { return state().failed; }
};

// A new engine instance that starts itself from the handle's parameters.
template <class O>
int NewOwner(const PEL_INITPARAMS* params, O** owner) {
    *owner = new O();
    return (*owner)->Start(params);
}

template <class A>
struct Entry {
    static int Startup() {
        try {
            return A::Start();
        } catch (...) {
            return kNoSpace;
        }
    }
    static int GetConfig(PEL_CONFIG** ppConfig) {
        if (ppConfig == nullptr) return kNullParam;
        int rc = Startup();
        *ppConfig = rc == kOk ? A::Config() : nullptr;
        return rc;
    }
    static int Init(PEL_INITPARAMS* params, PEL_INIT** ppInit) {
        if (ppInit == nullptr) return kNullParam;
        *ppInit = nullptr;
        try {
            int rc = A::Start();
            if (rc != kOk) return rc;
            typename A::Owner* owner = nullptr;
            rc = A::Create(params, &owner);
            return owner != nullptr ? A::Failed().HandOut(owner, rc, ppInit) : rc;
        } catch (...) {
            return kNoSpace;
        }
    }
    static int Scan(PEL_INIT* pInit, PEL_CALLBACK* cb, PEL_SCANPARAM* param, PEL_OPTPARAMS* options,
                    PEL_SCANINFO** ppScanInfo) {
        return ScanOn<typename A::Owner>(pInit, ppScanInfo, [&](typename A::Owner* owner) {
            return owner->Scan(cb, param, options, ppScanInfo);
        });
    }
    static int Cleanup() {
        try {
            A::Failed().Cleanup();
            A::Stop();
            return kOk;
        } catch (...) {
            return kNoSpace;
        }
    }
};

}  // namespace pelcommon

#define PEL_DEFINE_ENTRY_POINTS(A)                                                          \
    extern "C" {                                                                            \
    PEL_EXPORT int PelStartup(void) {                                                       \
        return pelcommon::Entry<A>::Startup();                                              \
    }                                                                                       \
    PEL_EXPORT int PelGetConfig(PEL_CONFIG** ppConfig) {                                    \
        return pelcommon::Entry<A>::GetConfig(ppConfig);                                    \
    }                                                                                       \
    PEL_EXPORT int PelInit(PEL_CALLBACK* /*pCallback*/, PEL_INITPARAMS* pInitParams,        \
                           PEL_INIT** ppInit) {                                             \
        return pelcommon::Entry<A>::Init(pInitParams, ppInit);                              \
    }                                                                                       \
    PEL_EXPORT int PelScan(PEL_INIT* pInit, PEL_CALLBACK* pCallback, PEL_SCANPARAM* pParam, \
                           PEL_OPTPARAMS* pOptParams, PEL_SCANINFO** ppScanInfo) {          \
        return pelcommon::Entry<A>::Scan(pInit, pCallback, pParam, pOptParams, ppScanInfo); \
    }                                                                                       \
    PEL_EXPORT int PelReleaseScan(PEL_SCANINFO** ppScanInfo) {                              \
        return pelcommon::ReleaseScan(ppScanInfo, A::kResultMark);                          \
    }                                                                                       \
    PEL_EXPORT int PelEnd(PEL_INIT** ppInit, PEL_CONFIG** /*ppConfig*/) {                   \
        return A::Failed().End(ppInit);                                                     \
    }                                                                                       \
    PEL_EXPORT int PelCleanup(void) {                                                       \
        return pelcommon::Entry<A>::Cleanup();                                              \
    }                                                                                       \
    }

#endif
