// mavprofile_runtime.cpp - start and stop of the profile runtime and its C
// entry points.
//
// No lock guards the state: start and stop run on one thread while nothing
// else uses profiles. No C++ exception leaves a C entry point.
#include <cstring>
#include <new>

#include "mavprofile_i.h"

namespace mav {

PropertyReader mav_properties;
std::map<std::string, MavProvider*> mav_providers;
std::map<std::string, MavGroup*> mav_groups;
std::map<std::string, MavProfile*> mav_profiles;
std::string mav_standard_group;
std::string mav_standard_provider;
std::string mav_standard_profile;
bool bRuntimeInit = false;

const char mav_default_config[] =
    "mav.profile.DEFAULT.ProfileSteps.0.ProfileEntryValue=DEFAULT\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT.ReInitTime=0\n"
    "mav.profile.DEFAULT.ProfileLinkage=0\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT.Description=PEL_DEFAULT\n"
    "mav.defaults.group=DEFAULT\n"
    "mav.profile.DEFAULT.UseReference=false\n"
    "mav.profile.DEFAULT.ExceptionOnResult=true\n"
    "mav.profile.DEFAULT.ProfileSteps.0=0\n"
    "mav.profile.DEFAULT=DEFAULT\n"
    "mav.group.DEFAULT.Description=DEFAULT\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT.PoolMaxInstances=20\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT.Group=DEFAULT\n"
    "mav.profile.DEFAULT.ProfileSteps.0.ProfileEntryType=0\n"
    "mav.provider.Pelmark.TraceSetting.TraceError=false\n"
    "mav.provider.Pelmark.TraceSetting.TraceMemory=false\n"
    "mav.profile.DEFAULT.Description=DEFAULT\n"
    "mav.defaults.provider=PEL_DEFAULT\n"
    "mav.profile.DEFAULT.ReferenceProfile=\n"
    "mav.profile.DEFAULT.Active=true\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT.Active=true\n"
    "mav.defaults.profile=DEFAULT\n"
    "mav.group.DEFAULT=DEFAULT\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT.PoolInstanceTimeOut=3600\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT=PEL_DEFAULT\n"
    "mav.provider.Pelmark.Adapters.PEL_DEFAULT.AdapterPath=\n";
const size_t mav_default_config_length = sizeof(mav_default_config) - 1;

MAV_RC MavIXFindProfile(const char* profileName, MavProfile** profile) {
    bool named = profileName != nullptr && profileName[0] != '\0';
    std::string name = named ? convertToHexString(profileName) : mav_standard_profile;
    if (!bRuntimeInit) return MAV_E_PROFILE_NOT_VALID;
    if (mav_profiles.empty()) return MAV_E_NO_PROFILE_DEFINED;
    if (name.empty()) return MAV_E_NO_DEFAULT_PROFILE;
    auto it = mav_profiles.find(name);
    if (it == mav_profiles.end()) return MAV_E_PROFILE_NOT_FOUND;
    if (!it->second->isActive()) return MAV_E_PROFILE_NOT_ACTIVE;
    if (it->second->isFailed()) return MAV_E_PROFILE_NOT_VALID;
    *profile = it->second;
    return MAV_OK;
}

}  // namespace mav

namespace {

using namespace mav;

// Deletes every profile, group and provider (providers end their handles).
void destroyRuntimeObjects() {
    for (auto& p : mav_profiles) delete p.second;
    mav_profiles.clear();
    for (auto& g : mav_groups) delete g.second;
    mav_groups.clear();
    for (auto& p : mav_providers) delete p.second;
    mav_providers.clear();
}

// Builds groups, providers and profiles from mav_properties. A name registered
// twice builds one object (a second provider would start a second handle).
void buildRuntimeObjects() {
    mav_standard_group = mav_properties.get_string("mav.defaults.group", "");
    mav_standard_profile = mav_properties.get_string("mav.defaults.profile", "");
    mav_standard_provider = mav_properties.get_string("mav.defaults.provider", "");
    std::vector<std::string> profiles = mav_properties.getKeys("mav.profile");
    std::vector<std::string> groups = mav_properties.getKeys("mav.group");
    std::vector<std::string> providers = mav_properties.getKeys("mav.provider.Pelmark.Adapters");

    for (const std::string& name : groups) {
        if (mav_groups.count(name) != 0) continue;
        std::unique_ptr<MavGroup> g(new MavGroup(name));
        auto slot = mav_groups.emplace(name, nullptr).first;  // may throw: g still owns
        slot->second = g.release();
    }
    for (const std::string& name : providers) {
        if (mav_providers.count(name) != 0) continue;
        std::unique_ptr<MavProvider> p(new MavProvider(name));
        MavProvider* provider = p.get();
        auto slot = mav_providers.emplace(name, nullptr).first;  // may throw: p still owns
        slot->second = p.release();
        auto g = mav_groups.find(provider->getGroup());
        if (g != mav_groups.end()) g->second->addProvider(name);
    }
    for (const std::string& name : profiles) {
        if (mav_profiles.count(name) != 0) continue;
        std::unique_ptr<MavProfile> p(new MavProfile(name));
        auto slot = mav_profiles.emplace(name, nullptr).first;  // may throw: p still owns
        slot->second = p.release();
    }
}

}  // namespace

extern "C" {

MAV_API MAV_RC MavStartRuntime(const char* config, size_t length) {
    if (bRuntimeInit) return MAV_OK;
    MAVP_TRC_ENTRY(">> enter >> %s(%p,%d)\n", __func__, static_cast<const void*>(config),
                  static_cast<int>(length));
    char* configName = nullptr;
    try {
        bool read;
        if (config == nullptr || length == 0) {
            read = mav_properties.readfile("mav.properties");
            if (!read)
                read = mav_properties.readbuffer(mav_default_config, mav_default_config_length);
            configName = convertFromHexString("mav.properties");
        } else {
            std::string fileName(config, length);
            read = mav_properties.readfile(fileName);
            if (read) {
                configName = convertFromHexString(fileName);
            } else {
                read = mav_properties.readbuffer(config, length);
                configName = convertFromHexString("mav_buffer");
            }
        }
        const char* shown = configName != nullptr ? configName : "";
        if (!read) {
            MAVP_TRC_E("MAV configuration file >%s< could not be read\n", shown);
            MavIFree(configName);
            return MAV_E_NOT_INITIALISED;
        }
        MAVP_TRC_ENTRY(">> start >> %s(%s)\n", __func__, shown);
        MavIXCheckConfiguration(shown);
        buildRuntimeObjects();
    } catch (const std::exception&) {
        // Out of memory half-way: nothing of this start stays.
        destroyRuntimeObjects();
        MavIFree(configName);
        MAVP_TRC_EXIT(MAV_E_NO_SPACE);
        return MAV_E_NO_SPACE;
    }
    MavIFree(configName);
    MAVP_TRC_EXIT(MAV_OK);
    bRuntimeInit = true;
    return MAV_OK;
}

MAV_API MAV_RC MavStopRuntime(void) {
    if (!bRuntimeInit) return MAV_OK;
    MAVP_TRC_ENTRY(">> start >> %s()\n", __func__);
    destroyRuntimeObjects();
    MAVP_TRC_EXIT(MAV_OK);
    bRuntimeInit = false;
    MavDeactivateTrace();
    return MAV_OK;
}

MAV_RC MavIXGetProfileInst(const char* profileName, MAV_INST* out) {
    if (profileName != nullptr && profileName[0] != '\0') *out = nullptr;
    MavProfile* profile = nullptr;
    MAV_RC rc = MavIXFindProfile(profileName, &profile);
    if (rc != MAV_OK) return rc;
    *out = profile->getCInstance();
    if (*out == nullptr && MavIXLastBuildCyclic()) return MAV_E_PROFILE_NOT_VALID;
    return MAV_OK;
}

MAV_API MAV_RC MavGetProfileInstance(const char* profileName, MAV_INST* pinst) {
    if (pinst == nullptr) {
        MAVP_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_NULL_PARAM;
    }
    if (profileName != nullptr) {
        MAVP_TRC_ENTRY(">> start >> %s(%s,%p)\n", __func__, profileName, static_cast<void*>(pinst));
    } else {
        MAVP_TRC_ENTRY(">> start >> %s(NULL::default,%p)\n", __func__, static_cast<void*>(pinst));
    }
    MAV_RC rc;
    try {
        rc = MavIXGetProfileInst(profileName, pinst);
    } catch (const std::exception&) {
        rc = MAV_E_NO_SPACE;
    }
    MAVP_TRC_EXIT(rc);
    return rc;
}

MAV_API MAV_INST MavGetProfileInstancePointer(const char* profileName) {
    if (profileName != nullptr && profileName[0] != '\0') {
        MAVP_TRC_ENTRY(">> start >> %s(%s)\n", __func__, profileName);
    } else {
        MAVP_TRC_ENTRY(">> start >> %s(NULL::default)\n", __func__);
    }
    MAV_INST inst = nullptr;
    MAV_RC rc;
    try {
        rc = MavIXGetProfileInst(profileName, &inst);
    } catch (const std::exception&) {
        rc = MAV_E_NO_SPACE;
    }
    MAVP_TRC_EXIT(rc);
    return rc == MAV_OK ? inst : nullptr;
}

MAV_RC MavIXFreeProfileInst(void* mavInstance) {
    delete static_cast<mav::MavInstance*>(mavInstance);
    return MAV_OK;
}

MAV_INST MavIXGetInstanceHandleFromProfile(void* mavInstance) {
    const mav::MavInstance* mi = static_cast<const mav::MavInstance*>(mavInstance);
    if (mi == nullptr) return nullptr;
    int32_t cur = mi->getCurrent();
    const std::vector<MAV_INST>& list = mi->getCInstances();
    if (cur < 0 || static_cast<size_t>(cur) >= list.size()) return nullptr;
    return list[static_cast<size_t>(cur)];
}

}  // extern "C"

namespace mav {
const MAV_PROFILE_OPS kProfileOps = {MavIXScanClean, MavIXFreeProfileInst,
                                     MavIXGetInstanceHandleFromProfile, MavIXProfileScanInfo};
}  // namespace mav

