/*
 * pel_params.h - an adapter's parameter records (PEL_PARAM, PEL_PARAMS), read
 * from the lists the library passes and built for the configuration it
 * reports (PEL_ADAPTERINFO, PEL_CONFIG).
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#ifndef KORMO_PEL_PARAMS_H
#define KORMO_PEL_PARAMS_H

#include <cstdint>
#include <string>

#include "kormopel.h"

namespace pelcommon {

// ---- Reading the lists passed to PelInit and PelScan ------------------------------

// The entry with the given code, or null (also for a null or empty list).
const PEL_PARAM* FindParam(const PEL_PARAMS* params, int32_t code);

// Numeric value of the entry with the given code; negative values count as 0.
// fallback when the entry is absent or holds text (CHAR, OBJECT).
uint64_t ParamNumber(const PEL_PARAMS* params, int32_t code, uint64_t fallback);

// ParamNumber capped at UINT32_MAX.
uint32_t ParamNumber32(const PEL_PARAMS* params, int32_t code, uint32_t fallback);

// Text value of the entry with the given code (empty for a null value);
// fallback when the entry is absent or holds no text.
std::string ParamText(const PEL_PARAMS* params, int32_t code, const std::string& fallback);

// ---- Building the configuration ---------------------------------------------------

// A numeric entry; lLength is the type's size (BOOL 1, INT 4, others 8).
PEL_PARAM NumberParam(int32_t code, int32_t type, uint64_t value);

// A CHAR entry pointing at text, which must outlive the record.
PEL_PARAM TextParam(int32_t code, const char* text);

// A list of count entries at params.
PEL_PARAMS ParamList(PEL_PARAM* params, uint16_t count);

// Adapter information of interface version PEL_MAV_VERSION; the texts must
// outlive the record.
PEL_ADAPTERINFO AdapterInfo(uint32_t adapterId, uint32_t threadModel, uint16_t major,
                            uint16_t minor, const char* vendorInfo, const char* adapterName);

// The configuration reported by PelGetConfig; the records pointed to must
// outlive it (optParams may be null: no scan parameters).
PEL_CONFIG Config(PEL_ADAPTERINFO* info, uint32_t scanFlags, uint32_t actionFlags,
                  uint32_t eventFlags, PEL_PARAMS* initParams, PEL_PARAMS* optParams);

}  // namespace pelcommon

#endif
