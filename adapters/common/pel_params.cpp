/*
 * pel_params.cpp - an adapter's parameter and configuration records.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#include "pel_params.h"

#include <cstring>

namespace pelcommon {

const PEL_PARAM* FindParam(const PEL_PARAMS* params, int32_t code) {
    if (params == nullptr || params->pParams == nullptr) return nullptr;
    for (uint16_t i = 0; i < params->usNumParams; ++i) {
        if (params->pParams[i].tCode == code) return &params->pParams[i];
    }
    return nullptr;
}

uint64_t ParamNumber(const PEL_PARAMS* params, int32_t code, uint64_t fallback) {
    const PEL_PARAM* p = FindParam(params, code);
    if (p == nullptr || p->tType == VS_TYPE_CHAR || p->tType == VS_TYPE_OBJECT) return fallback;
    auto v = static_cast<int64_t>(reinterpret_cast<intptr_t>(p->pvValue));
    return v < 0 ? 0 : static_cast<uint64_t>(v);
}

uint32_t ParamNumber32(const PEL_PARAMS* params, int32_t code, uint32_t fallback) {
    uint64_t v = ParamNumber(params, code, fallback);
    return static_cast<uint32_t>(v > UINT32_MAX ? UINT32_MAX : v);
}

std::string ParamText(const PEL_PARAMS* params, int32_t code, const std::string& fallback) {
    const PEL_PARAM* p = FindParam(params, code);
    if (p == nullptr || (p->tType != VS_TYPE_CHAR && p->tType != VS_TYPE_OBJECT)) return fallback;
    return p->pvValue != nullptr ? std::string(static_cast<const char*>(p->pvValue))
                                 : std::string();
}

PEL_PARAM NumberParam(int32_t code, int32_t type, uint64_t value) {
    PEL_PARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tCode = code;
    p.tType = type;
    p.lLength = type == VS_TYPE_BOOL ? 1 : type == VS_TYPE_INT ? 4 : 8;
    p.pvValue = reinterpret_cast<void*>(static_cast<uintptr_t>(value));
    return p;
}

PEL_PARAM TextParam(int32_t code, const char* text) {
    PEL_PARAM p;
    std::memset(&p, 0, sizeof p);
    p.struct_size = sizeof p;
    p.tCode = code;
    p.tType = VS_TYPE_CHAR;
    p.lLength = std::strlen(text);
    p.pvValue = const_cast<char*>(text);
    return p;
}

PEL_PARAMS ParamList(PEL_PARAM* params, uint16_t count) {
    PEL_PARAMS list;
    std::memset(&list, 0, sizeof list);
    list.usNumParams = count;
    list.pParams = params;
    return list;
}

PEL_ADAPTERINFO AdapterInfo(uint32_t adapterId, uint32_t threadModel, uint16_t major,
                            uint16_t minor, const char* vendorInfo, const char* adapterName) {
    PEL_ADAPTERINFO info;
    std::memset(&info, 0, sizeof info);
    info.struct_size = sizeof info;
    info.uiAdapterID = adapterId;
    info.uiThreadModel = threadModel;
    info.usMavVersion = PEL_MAV_VERSION;
    info.usPelMajorVersion = major;
    info.usPelMinorVersion = minor;
    info.pszVendorInfo = vendorInfo;
    info.pszAdapterName = adapterName;
    return info;
}

PEL_CONFIG Config(PEL_ADAPTERINFO* info, uint32_t scanFlags, uint32_t actionFlags,
                  uint32_t eventFlags, PEL_PARAMS* initParams, PEL_PARAMS* optParams) {
    PEL_CONFIG config;
    std::memset(&config, 0, sizeof config);
    config.struct_size = sizeof config;
    config.pAdapterInfo = info;
    config.uiPelScanFlag = scanFlags;
    config.uiPelActionFlag = actionFlags;
    config.uiPelEventFlag = eventFlags;
    config.pInitParams = initParams;
    config.pOptParams = optParams;
    return config;
}

}  // namespace pelcommon
