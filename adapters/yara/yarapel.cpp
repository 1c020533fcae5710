/*
 * yarapel.cpp - the YARA adapter: configuration, engine instances and the
 * seven entry points.
 *
 * Thread model 0: every instance gets its own PelInit and so its own
 * YR_SCANNER; the compiled rules of a rules directory are shared by all
 * instances that name it (RuleSet), compiled once while the files stay the
 * same. MavReload ends the instances and starts new ones, which compile the
 * rules again when a file changed; scans still running elsewhere on the old
 * rules keep them until they end.
 */
#include <magic.h>
#include <sys/stat.h>
#include <yara.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string>

#include "pel_entry.h"
#include "pel_params.h"
#include "yara_instance.h"

namespace yarapel {

std::string DefaultRulesDir() {
    const char* env = std::getenv("KORMO_YARA_RULES");
    return env != nullptr && *env != '\0' ? env : "/etc/kormomav/yara";
}

// ---- Instance ---------------------------------------------------------------------------

Instance::~Instance() {
    if (scanner_ != nullptr) yr_scanner_destroy(scanner_);
    if (magic_ != nullptr) magic_close(magic_);
}

int Instance::Start(const PEL_INITPARAMS* params) {
    RuleSource source;
    source.directory = ParamText(params, VS_P_INITDRIVERDIRECTORY, "");
    if (source.directory.empty()) source.directory = DefaultRulesDir();
    source.cacheDir = ParamText(params, VS_P_INITDIRECTORY, "");
    timeoutS_ = ParamNumber32(params, VS_P_INITTIMEOUT, kDefaultTimeout);
    std::string error;
    rules_ = RuleSet::Get(source, &error);
    if (rules_ == nullptr) return Fail(kDriverFailed, error);
    if (yr_scanner_create(rules_->Rules(), &scanner_) != ERROR_SUCCESS) {
        return Fail(kNoSpace, "libyara: cannot create a scanner (out of memory)");
    }
    Describe();
    block_.init.hEngine = scanner_;
    return kOk;
}

// The engine information: libyara's version, the rule count and the
// sources' hash; one driver per rules file.
void Instance::Describe() {
    PEL_INIT& in = block_.init;
    const std::vector<RuleFile>& files = rules_->Files();
    drivers_.clear();
    int64_t newest = 0;
    for (const RuleFile& f : files) {
        PEL_DRIVERINFO d;
        std::memset(&d, 0, sizeof d);
        d.struct_size = sizeof d;
        d.pszName = f.relative.c_str();  // the RuleSet outlives the instance's use
        d.utcDate = f.mtimeNs / 1000000000;
        d.uiViruses = f.rules;
        newest = std::max<int64_t>(newest, d.utcDate);
        drivers_.push_back(d);
    }
    in.uiViruses = rules_->RuleCount();
    in.uiSignatures = rules_->RuleCount();
    in.usDrivers = static_cast<uint16_t>(std::min<size_t>(drivers_.size(), 0xffff));
    in.pDriver = drivers_.data();
    in.usEngineMajVersion = YR_MAJOR_VERSION;
    in.usEngineMinVersion = YR_MINOR_VERSION;
    const uint32_t n = rules_->RuleCount();
    versionText_ = std::string("YARA ") + YR_VERSION + ", " + std::to_string(n) +
                   (n == 1 ? " rule" : " rules") + ", sources " + rules_->SourceHash() +
                   (rules_->FromCache() ? " (compiled rules from the cache)" : "");
    in.pszEngineVersionText = versionText_.c_str();
    in.utcDate = newest;
}

namespace {

constexpr uint32_t kAdapterId = 0x59415201u;  // "YAR", 1
const char kEmpty[] = "";

// ---- Adapter-wide state -----------------------------------------------------------------

struct Global : pelcommon::AdapterState<Instance, 3, 2> {
    std::string vendor;
    std::string rulesDir;  // reported default of INITDRIVERDIRECTORY
};
Global& G() { return pelcommon::ProcessState<Global>(); }

int Build(Global& g) {
    if (yr_initialize() != ERROR_SUCCESS) return kNotInitialised;
    g.vendor = std::string("libkormomav YARA adapter on libyara ") + YR_VERSION;
    g.info = AdapterInfo(kAdapterId, 0, 1, 0, g.vendor.c_str(), "yara");
    g.rulesDir = DefaultRulesDir();
    g.initParams[0] = TextParam(VS_P_INITDRIVERDIRECTORY, g.rulesDir.c_str());
    g.initParams[1] = NumberParam(VS_P_INITTIMEOUT, VS_TYPE_INT, kDefaultTimeout);
    g.initParams[2] = TextParam(VS_P_INITDIRECTORY, kEmpty);
    g.optParams[0] = NumberParam(VS_P_SCANLIMIT, VS_TYPE_SIZE_T, 0);
    g.optParams[1] = NumberParam(VS_P_SCANEXTRACT_TIME, VS_TYPE_INT, 0);
    g.Publish(PEL_SCANFLAG_FILE | PEL_SCANFLAG_MEMORY, VS_A_SCAN,
              VS_M_VIRUS | VS_M_CLEAN | VS_M_NOTSCANNED | VS_M_ERROR);
    return kOk;
}

struct Adapter : pelcommon::StateMembers<Global, G> {
    using Owner = Instance;
    static constexpr uint32_t kResultMark = yarapel::kResultMark;
    static int Start() { return Global::Once(G(), Build); }

    static int Create(const PEL_INITPARAMS* params, Instance** out) {
        return pelcommon::NewOwner(params, out);
    }

    // The last handle has ended: no instance holds rules any more.
    static void Stop() {
        Global& g = G();
        std::lock_guard<std::mutex> l(g.lock);
        if (!g.started) return;
        yr_finalize();
        g.started = false;
    }
};

}  // namespace
}  // namespace yarapel

PEL_DEFINE_ENTRY_POINTS(yarapel::Adapter)
