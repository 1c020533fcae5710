/*
 * yara_rules.h - the compiled rules of one rules directory, shared by every
 * engine instance that names the directory.
 *
 * Every .yar/.yara file under the directory (recursively, in path order) is
 * compiled into a namespace of its own, named by its path below the directory
 * without the extension ("web/php" for web/php.yar). A RuleSet is reference
 * counted: an instance holds it as long as it lives, so a recompiled set
 * replaces the old one for new instances while running scans finish on it.
 */
#ifndef KORMO_YARA_RULES_H
#define KORMO_YARA_RULES_H

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

struct YR_RULES;

namespace yarapel {

// The external variables that every rule may use; each is defined as a
// string when the rules are compiled and set per scan when a rule uses it.
enum External : uint32_t {
    kFilename = 1u << 0,   // the object's name without its folder
    kFilepath = 1u << 1,   // the object's name as given
    kExtension = 1u << 2,  // lower-cased, without the dot
    kFiletype = 1u << 3,   // MIME type (libmagic)
    kMd5 = 1u << 4,        // MD5 of the object, 32 lower-case hex digits
};
extern const char* const kExternalNames[5];

struct RuleFile {
    std::string path;       // as found
    std::string relative;   // below the rules directory
    std::string nameSpace;  // the namespace of its rules
    uint64_t size = 0;
    int64_t mtimeNs = 0;
    uint32_t rules = 0;  // rules compiled from it
};

// Where rules come from.
struct RuleSource {
    std::string directory;  // INITDRIVERDIRECTORY
    std::string cacheDir;   // INITDIRECTORY; empty: no compiled-rules cache
};

class RuleSet {
  public:
    // The compiled rules of source: those in use when the files are unchanged
    // (same paths, sizes and modification times), else freshly compiled (or
    // loaded from the cache when the sources' hash matches). On failure
    // returns null with *error set: the file, line and libyara's message for
    // a compile error; a directory with no rule is a failure too.
    static std::shared_ptr<RuleSet> Get(const RuleSource& source, std::string* error);

    ~RuleSet();
    RuleSet(const RuleSet&) = delete;
    RuleSet& operator=(const RuleSet&) = delete;

    YR_RULES* Rules() const { return rules_; }
    const std::vector<RuleFile>& Files() const { return files_; }
    uint32_t RuleCount() const { return ruleCount_; }
    // MD5 of the sources (paths and contents), 32 hex digits.
    const std::string& SourceHash() const { return hash_; }
    // The External bits that some rule refers to.
    uint32_t Externals() const { return externals_; }
    // True when the rules came from the compiled-rules cache.
    bool FromCache() const { return fromCache_; }

  private:
    RuleSet() = default;
    bool Build(const RuleSource& source, std::string* error);
    bool Compile(const std::vector<std::string>& texts, std::string* error);
    void LoadCache(const std::string& file);
    void SaveCache(const std::string& file) const;
    void CountRules();

    YR_RULES* rules_ = nullptr;
    std::vector<RuleFile> files_;
    uint32_t ruleCount_ = 0;
    std::string hash_;
    uint32_t externals_ = 0;
    bool fromCache_ = false;
};

// The External bits named in a rules text: identifiers that stand alone, not
// a module's member (hash.md5) nor part of a longer name. A text with an
// include statement counts as using all of them (what it includes is not
// read here).
uint32_t ExternalsUsed(const std::string& text);

}  // namespace yarapel

#endif
