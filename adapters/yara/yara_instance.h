/*
 * yara_instance.h - one engine instance of the YARA adapter: a YR_SCANNER of
 * its own on the compiled rules that all instances of the rules directory
 * share.
 */
#ifndef KORMO_YARA_INSTANCE_H
#define KORMO_YARA_INSTANCE_H

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "kormopel.h"
#include "pel_init.h"
#include "pel_records.h"
#include "yara_rules.h"

struct YR_SCAN_CONTEXT;  // libyara's YR_SCANNER
struct magic_set;

namespace yarapel {

// Result codes, records and parameter reading (adapters/common).
using namespace pelcommon;

constexpr uint32_t kResultMark = 0x59415253u;  // "YARS"
constexpr uint32_t kDefaultTimeout = 60;       // seconds per scan (INITTIMEOUT)

// The rules directory when INITDRIVERDIRECTORY is not set: the environment
// variable KORMO_YARA_RULES when set and not empty, else /etc/kormomav/yara.
std::string DefaultRulesDir();

class Instance : public InitOwner<Instance, 0x5941494eu> {  // "YAIN"
  public:
    ~Instance();

    // Takes the rules named by the init parameters and makes the scanner.
    // On failure the reason is in the PEL_INIT (iErrorRC, pszErrorText).
    int Start(const PEL_INITPARAMS* params);
    // PelScan for one object.
    int Scan(const PEL_CALLBACK* cb, const PEL_SCANPARAM* param, const PEL_OPTPARAMS* options,
             PEL_SCANINFO** out);

  private:
    void Describe();
    // Sets the external variables the rules use for this object: a memory
    // object's bytes, or the file fd (read, not mapped, so that a file cut
    // short meanwhile gives a short read rather than SIGBUS).
    void SetExternals(const std::string& name, const unsigned char* data, int fd, size_t size,
                      std::string* mime);
    std::string MimeType(const unsigned char* data, size_t size);

    std::shared_ptr<RuleSet> rules_;
    YR_SCAN_CONTEXT* scanner_ = nullptr;
    magic_set* magic_ = nullptr;  // opened when a rule first needs filetype
    uint32_t timeoutS_ = kDefaultTimeout;
    std::string versionText_;
    std::vector<PEL_DRIVERINFO> drivers_;
};

}  // namespace yarapel

#endif
