// mav_engines.h - helpers of the engine tests that go through libkormomav.
#ifndef KORMO_TESTS_ENGINES_MAV_H
#define KORMO_TESTS_ENGINES_MAV_H

#include <string>

#include "kormomav.h"

namespace engines {

// Ends a handle on every path out of a test (a failed MavInit still hands
// one out).
struct HandleGuard {
    MAV_HANDLE h = nullptr;
    ~HandleGuard() {
        if (h != nullptr) MavEnd(&h);
    }
};

// A summary record for scans whose results are read afterwards (without one
// the library asks the adapter for no results).
MAV_SCANINFO Summary();

// The handle's latest failure text ("" when none).
std::string AdapterError(MAV_HANDLE h);
// Texts of the last scan's infection or scan error number index.
std::string InfectionName(void* inst, uint32_t index);
std::string ScanErrorText(void* inst, uint32_t index);

}  // namespace engines

#endif
