// mavprofile_config.cpp - providers, groups and profiles of the profile runtime.
//
// All three are read from mav_properties by their constructors. Names stay
// escaped as map keys and inside property keys; each object also keeps a
// decoded copy of its name for the C interface.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "mavprofile_i.h"

namespace {

const std::string kProviderPrefix = "mav.provider.Pelmark.Adapters.";

std::string prop(const std::string& key) {
    return mav::mav_properties.get_string(key, "");
}

// Decimal value of a text of 1 to maxLen characters, else fallback.
int32_t shortNumber(const std::string& text, size_t maxLen, int32_t fallback) {
    if (text.empty() || text.size() > maxLen) return fallback;
    return static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

// A decoded copy, released through the free hook also when an exception
// passes.
struct HookFree {
    void operator()(char* p) const { MavIFree(p); }
};
using HookText = std::unique_ptr<char, HookFree>;

// Sets one group parameter on a handle; the decoded copies are released.
void setGroupParameter(MAV_HANDLE handle, const std::string& prefix, const std::string& param) {
    HookText name(convertFromHexString(param));
    HookText typeName(convertFromHexString(prop(prefix + "." + param + ".Type")));
    HookText value(convertFromHexString(prop(prefix + "." + param + ".Value")));
    if (name) MavSetParameter(handle, name.get(), MavParamType(typeName.get()), value.get());
}

void deleteParameters(std::vector<mav::MavParameter*>& params) {
    for (mav::MavParameter* p : params) delete p;
    params.clear();
}

// Instance builds run on many threads at once and note what they meet in the
// shared group and profile objects: a field is written only when its value
// changes, so that builds over an unchanged runtime only read them.
template <typename T>
void Note(T& field, T value) {
    if (field != value) field = value;
}

// The last profile build of this thread met a profile referring to itself.
thread_local bool tlsLastBuildCyclic = false;

}  // namespace

namespace mav {

bool MavIXLastBuildCyclic() {
    return tlsLastBuildCyclic;
}

void MavIXApplyParameters(MAV_INST inst, const std::vector<MavParameter*>& params) {
    for (const MavParameter* p : params) {
        // A name the library does not know, and a missing value of an adapter
        // parameter, change nothing. A missing custom value switches it off.
        int32_t code = p->getCode();
        const KORMO_CHAR* name = MavParamCodeName(code);
        if (name == nullptr || MavParamCode(name) != code) continue;
        bool custom = code <= VS_P_CUST_ACTIVE_CONTENT && code >= VS_P_CUST_MIME_TYPES_ARE_BLACKLIST;
        const KORMO_CHAR* value = p->getValue();
        if (value == nullptr && !custom) continue;
        MavSetParameter(inst, name, static_cast<int32_t>(p->getType()), value != nullptr ? value : "");
    }
}

// ---- MavParameter -----------------------------------------------------------------

MavParameter::MavParameter(const std::string& name_, const std::string& type_,
                           const std::string& value_)
    : code(VS_P_UNKNOWN),
      name(convertFromHexString(name_)),
      type(VS_TYPE_UNKNOWN),
      typeName(convertFromHexString(type_)),
      value(convertFromHexString(value_)) {
    code = name != nullptr ? MavParamCode(name) : VS_P_UNKNOWN;
    type = static_cast<VS_PARAMTYPE_T>(MavParamType(typeName));
}

MavParameter::MavParameter(__vs_parameter_union code_, VS_PARAMTYPE_T type_,
                           const std::string& value_)
    : code(code_),
      name(nullptr),
      type(type_),
      typeName(nullptr),
      value(convertFromHexString(value_)) {}

MavParameter::~MavParameter() {
    MavIFree(name);
    MavIFree(typeName);
    MavIFree(value);
}

// ---- MavProvider ------------------------------------------------------------------

MavProvider::MavProvider(const std::string& name_)
    : name(name_),
      poolMaxInstances(1),
      active(false),
      failed(false),
      handle(nullptr),
      adapterPath(nullptr),
      cname(convertFromHexString(name_)) {
    try {
        const std::string p = kProviderPrefix + name;
        adapterPath = convertFromHexPath(prop(p + ".AdapterPath"));
        group = prop(p + ".Group");
        bool on = prop(p + ".Active") == "true";
        poolMaxInstances = shortNumber(prop(p + ".PoolMaxInstances"), 2, 1);
        setActive(on);
    } catch (...) {
        // No destructor runs for a half-made provider: its handle is ended here.
        if (handle != nullptr) MavEnd(&handle);
        deleteParameters(parameters);
        MavIFree(adapterPath);
        MavIFree(cname);
        throw;
    }
}

MavProvider::~MavProvider() {
    if (handle != nullptr) MavEnd(&handle);
    deleteParameters(parameters);
    MavIFree(adapterPath);
    MavIFree(cname);
}

void MavProvider::setActive(bool on) {
    if (!on) {
        active = false;
        failed = false;
        return;
    }
    if (handle != nullptr) {
        // Activated again: the earlier handle is ended first so it cannot leak.
        MavEnd(&handle);
        if (handle != nullptr) {
            active = false;
            failed = true;
            return;
        }
    }
    if (MavInit(adapterPath, &handle) != MAV_OK) {
        active = false;
        failed = true;
        return;
    }
    const std::string groupPrefix = "mav.group." + group + ".Parameters";
    for (const std::string& param : mav_properties.getKeys(groupPrefix)) {
        setGroupParameter(handle, groupPrefix, param);
    }
    deleteParameters(parameters);
    const std::string ownPrefix = kProviderPrefix + name + ".Parameters";
    for (const std::string& param : mav_properties.getKeys(ownPrefix)) {
        std::unique_ptr<MavParameter> owned(
            new MavParameter(param, prop(ownPrefix + "." + param + ".Type"),
                             prop(ownPrefix + "." + param + ".Value")));
        parameters.push_back(owned.get());
        MavParameter* mp = owned.release();
        if (mp->getName() != nullptr) {
            MavSetParameter(handle, mp->getName(), mp->getType(), mp->getValue());
        }
    }
    // A negative pool size is refused like 0 instead of becoming a huge size_t.
    size_t pool = poolMaxInstances > 0 ? static_cast<size_t>(poolMaxInstances) : 0;
    if (MavLoadPool(handle, pool, 1) != MAV_OK) {
        active = false;
        failed = true;
        return;
    }
    active = true;
    failed = false;
    MavSetHandleName(handle, cname, cname != nullptr ? std::strlen(cname) : 0);
}

MAV_HANDLE MavProvider::getMavHandle() {
    return handle;
}

void MavProvider::getInstance(MavInstance& inst) {
    MAV_INST ci = nullptr;
    if (MavCreateInstance(handle, &ci) != MAV_OK || ci == nullptr) return;
    try {
        inst.add(ci);
    } catch (...) {
        MavFreeInstance(&ci);  // else handed out for good: the handle could never end
        throw;
    }
    MavIXApplyParameters(ci, parameters);
}

// ---- MavGroup -----------------------------------------------------------------------

MavGroup::MavGroup(const std::string& name_)
    : failed(false), name(name_), cname(convertFromHexString(name_)) {}

MavGroup::~MavGroup() {
    deleteParameters(parameters);
    MavIFree(cname);
}

void MavGroup::addProvider(const std::string& provider) {
    providers.push_back(provider);
}

void MavGroup::getInstance(MavInstance& inst) {
    for (const std::string& pname : providers) {
        auto it = mav_providers.find(pname);
        if (it == mav_providers.end()) continue;
        MavProvider* provider = it->second;
        Note(failed, provider->isFailed());
        if (provider->isActive() && !provider->isFailed()) {
            size_t before = inst.getCInstances().size();
            provider->getInstance(inst);
            if (inst.getCInstances().size() > before) {
                inst.setParameters(parameters);
                return;
            }
            // No instance from this provider: the next one of the group stands in.
            MAVP_TRC_W("Provider >%s< of group >%s< gave no scan instance\n", pname.c_str(),
                      name.c_str());
        }
        inst.setMavHandle(provider->getMavHandle());
    }
}

// ---- MavProfile ---------------------------------------------------------------------

MavProfile::MavProfile(const std::string& name_)
    : cname(nullptr), name(name_), handle(nullptr), linkage(0), active(false), failed(false) {
    // No destructor runs for a half-made profile: what it owns so far is
    // released when the body throws.
    struct Release {
        MavProfile* self;
        ~Release() {
            if (self == nullptr) return;
            deleteParameters(self->parameters);
            MavIFree(self->cname);
        }
    } release{this};
    cname = convertFromHexString(name_);  // here: the copy of name_ may throw first
    const std::string p = "mav.profile." + name;
    active = prop(p + ".Active") == "true";
    description = prop(p + ".Description");
    std::vector<std::string> params = mav_properties.getKeys(p + ".Parameters");
    std::vector<std::string> steps = mav_properties.getKeys(p + ".ProfileSteps");
    if (steps.empty()) {
        if (prop(p + ".UseReference") == "true") {
            std::string ref = prop(p + ".ReferenceProfile");
            if (ref.empty()) ref = mav_standard_profile;
            entries.push_back(ref);
            profileSteps.insert(std::make_pair(ref, 0));
        }
    } else {
        int i = 0;
        for (const std::string& k : steps) {
            const std::string sp = p + ".ProfileSteps." + k;
            std::string type = prop(sp + ".ProfileEntryType");
            std::string value = prop(sp + ".ProfileEntryValue");
            entries.push_back(value);
            if (type == "0") {
                groupSteps.insert(std::make_pair(value, i));
            } else if (type == "1") {
                profileSteps.insert(std::make_pair(value, i));
            }
            ++i;
        }
    }
    for (const std::string& param : params) {
        std::unique_ptr<MavParameter> owned(
            new MavParameter(param, prop(p + ".Parameters." + param + ".Type"),
                             prop(p + ".Parameters." + param + ".Value")));
        parameters.push_back(owned.get());
        owned.release();
    }
    // Only 1 relaxes the rule: any other digit means every step must agree.
    linkage = shortNumber(prop(p + ".ProfileLinkage"), 1, 0) == 1 ? 1 : 0;
    release.self = nullptr;
}

MavProfile::~MavProfile() {
    deleteParameters(parameters);
    MavIFree(cname);
}

// The step walk. A sub-profile already on the path would recurse without end:
// the step is skipped and the cycle reported to the top of the build.
void MavProfile::walk(MavInstance& inst, bool top, std::vector<const MavProfile*>& path,
                      bool& cycle) {
    for (const std::string& entry : entries) {
        if (groupSteps.count(entry) != 0) {
            auto g = mav_groups.find(entry);
            if (g != mav_groups.end()) {
                g->second->getInstance(inst);
                Note(failed, g->second->isFailed());
                continue;
            }
        }
        if (profileSteps.count(entry) == 0) continue;
        auto s = mav_profiles.find(entry);
        if (s == mav_profiles.end()) continue;
        MavProfile* sub = s->second;
        if (std::find(path.begin(), path.end(), sub) != path.end()) {
            MAVP_TRC_E("Profile >%s< refers to itself through profile >%s<\n",
                      path.front()->name.c_str(), entry.c_str());
            cycle = true;
            continue;
        }
        path.push_back(sub);
        sub->walk(inst, false, path, cycle);
        path.pop_back();
        if (top) {
            Note(handle, inst.getMavHandle());
        } else {
            inst.setParameters(parameters);
        }
        Note(failed, sub->active ? sub->failed : true);
    }
}

void MavProfile::getInstance(MavInstance& inst) {
    std::vector<const MavProfile*> path(1, this);
    bool cycle = false;
    walk(inst, false, path, cycle);
    if (cycle) Note(failed, true);
}

MavInstance* MavProfile::getInstance() {
    tlsLastBuildCyclic = false;
    if (entries.empty()) return nullptr;
    std::unique_ptr<MavInstance> inst(new MavInstance(linkage));
    inst->profileName = cname != nullptr ? cname : name;
    std::vector<const MavProfile*> path(1, this);
    bool cycle = false;
    walk(*inst, true, path, cycle);
    if (cycle) {
        MAVP_TRC_E("Profile >%s< is not valid: it refers to itself\n", name.c_str());
        Note(failed, true);
        tlsLastBuildCyclic = true;
        return nullptr;
    }
    inst->setParameters(parameters);
    return inst.release();
}

std::unique_ptr<MavInstance> MavProfile::getScanInstance() {
    return std::unique_ptr<MavInstance>(getInstance());
}

MAV_INST MavProfile::getCInstance() {
    std::unique_ptr<MavInstance> inst(getInstance());
    if (!inst) return nullptr;
    MavIXRegisterProfileOps(&kProfileOps);
    MAV_INST rec = MavIXNewProfileInst(inst.get());
    if (rec != nullptr) inst.release();  // the record owns it now
    return rec;
}

MavInstance* MavProfile::createInstance(const char* profileName) {
    MavProfile* profile = nullptr;
    if (MavIXFindProfile(profileName, &profile) != MAV_OK) return nullptr;
    return profile->getInstance();
}

}  // namespace mav
