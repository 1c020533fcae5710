/*
 * benchpel.c - the smallest adapter: every scan answers clean at once, with no
 * allocation and no result record. It measures what the library adds to a
 * scan, not what an engine costs.
 */
#include <stddef.h>

#include "kormopel.h"

static PEL_ADAPTERINFO benchInfo = {.struct_size = sizeof(PEL_ADAPTERINFO),
                                    .uiAdapterID = 4712,
                                    .usMavVersion = PEL_MAV_VERSION,
                                    .usPelMajorVersion = 1,
                                    .pszVendorInfo = "Kormo Bench",
                                    .pszAdapterName = "benchpel"};
static PEL_PARAMS benchNoParams = {.usNumParams = 0};
static PEL_CONFIG benchConfig = {.struct_size = sizeof(PEL_CONFIG),
                                 .pAdapterInfo = &benchInfo,
                                 .uiPelScanFlag = PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY,
                                 .uiPelActionFlag = VS_A_SCAN,
                                 .pInitParams = &benchNoParams,
                                 .pOptParams = &benchNoParams};
/* One engine record serves every instance; the adapter keeps no state. */
static PEL_INIT benchInit = {.struct_size = sizeof(PEL_INIT),
                             .hEngine = &benchInit,
                             .usEngineMajVersion = 1,
                             .pszEngineVersionText = "benchpel 1.0"};

PEL_EXPORT int PelStartup(void) {
    return 0;
}

PEL_EXPORT int PelGetConfig(PEL_CONFIG** ppConfig) {
    if (ppConfig == NULL) return 2;
    *ppConfig = &benchConfig;
    return 0;
}

PEL_EXPORT int PelInit(PEL_CALLBACK* pCallback, PEL_INITPARAMS* pInitParams, PEL_INIT** ppInit) {
    (void)pCallback;
    (void)pInitParams;
    if (ppInit == NULL) return 2;
    *ppInit = &benchInit;
    return 0;
}

PEL_EXPORT int PelScan(PEL_INIT* pInit, PEL_CALLBACK* pCallback, PEL_SCANPARAM* pScanParam,
                       PEL_OPTPARAMS* pOptParams, PEL_SCANINFO** ppScanInfo) {
    (void)pInit;
    (void)pCallback;
    (void)pScanParam;
    (void)pOptParams;
    if (ppScanInfo != NULL) *ppScanInfo = NULL;
    return 0;
}

PEL_EXPORT int PelReleaseScan(PEL_SCANINFO** ppScanInfo) {
    if (ppScanInfo != NULL) *ppScanInfo = NULL;
    return 0;
}

PEL_EXPORT int PelEnd(PEL_INIT** ppInit, PEL_CONFIG** ppConfig) {
    (void)ppConfig;
    if (ppInit != NULL) *ppInit = NULL;
    return 0;
}

PEL_EXPORT int PelCleanup(void) {
    return 0;
}
