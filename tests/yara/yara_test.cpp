// The YARA adapter through libkormomav against the real libyara, on rules
// directories written here: verdicts and names, start-up failures, limits
// that must never read as clean, a handler's stop, reload and the
// compiled-rules cache.
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <tuple>

#include "kormomav.h"
#include "mav_engines.h"

using namespace engines;
namespace fs = std::filesystem;

namespace {

const char kMain[] = R"(import "hash"
rule Marked : demo test {
  meta: description = "marked sample" author = "kormo" score = 7
  strings: $m = "KORMO-YARA-MARK"
  condition: $m and hash.md5(0, filesize) == md5
}
rule Pdf { condition: filetype == "application/pdf" and extension == "pdf" }
rule Named { condition: filename == "trigger.bin" and filepath endswith "/trigger.bin" }
)";
const char kPlain[] = "rule Plain { strings: $p = \"PLAIN-MARK\" condition: $p }\n";
const char kSub[] = "rule Sub { strings: $s = \"SUB-MARK\" condition: $s }\n";
const char kLimits[] = R"(rule Many { strings: $a = "aaaa" condition: #a == 1 }
rule Slow { condition: filename == "slow" and for all i in (0..filesize * 100000000) : (i >= 0) })";

using Files = std::map<std::string, std::string>;

// A fresh directory holding the given files, removed afterwards.
struct Dir {
    explicit Dir(const Files& files = {}) {
        char t[] = "/tmp/kormo-yara-XXXXXX";
        path = mkdtemp(t);
        for (const auto& f : files) Put(f.first, f.second);
    }
    ~Dir() { fs::remove_all(path); }
    void Put(const std::string& name, const std::string& text) const {
        fs::create_directories(fs::path(path + "/" + name).parent_path());
        std::ofstream(path + "/" + name) << text;
    }
    std::string path;
};

// A handle on a rules directory (and a cache directory) and one instance of it.
struct Engine {
    int Start(const std::string& rules, const std::string& cache = "") {
        EXPECT_EQ(MAV_OK, MavInit(KORMO_YARA_ADAPTER, &g.h));
        MavSetParameter(g.h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, rules.c_str());
        MavSetParameter(g.h, "INITDIRECTORY", VS_TYPE_CHAR, cache.c_str());
        return MavCreateInstance(g.h, &inst);
    }
    ~Engine() { MavFreeInstance(&inst); }
    int Scan(const std::string& data, const std::string& name) {
        si = Summary();
        auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(data.data()));
        return MavScanBytes(inst, name.c_str(), bytes, data.size(), 1, &si);
    }
    int File(const std::string& path) { return MavScanFile(inst, path.c_str(), 2, &si); }
    std::string Names() const {
        std::string s;
        for (uint32_t i = 0; i < si.uiInfections; ++i) s += (i ? "," : "") + InfectionName(inst, i);
        return s;
    }
    HandleGuard g;
    MAV_INST inst = nullptr;
    MAV_SCANINFO si = Summary();
};

// Asks to stop at the first VS_M_VIRUS event.
VS_CALLRC StopAtOnce(MAV_INST, uint32_t message, void*, void*) {
    return message == VS_M_VIRUS ? VS_CALLRC_STOP : VS_CALLRC_CONTINUE;
}

TEST(Yara, RulesOfEveryFileFindTheirObjectsAndCleanDataPasses) {
    Dir rules(Files{{"main.yar", kMain}, {"default.yar", kPlain}, {"sub/more.yara", kSub}});
    Engine e;
    ASSERT_EQ(MAV_OK, e.Start(rules.path)) << AdapterError(e.g.h);
    using Case = std::tuple<std::string, std::string, int, std::string>;  // data, name, rc, names
    for (const auto& [data, name, rc, names] : std::vector<Case>{
             {"nothing to see here\n", "clean.txt", MAV_OK, ""},
             {"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj\n", "doc.pdf", MAV_E_VIRUS_FOUND, "main:Pdf"},
             {"anything", "dir/trigger.bin", MAV_E_VIRUS_FOUND, "main:Named"},
             {"PLAIN-MARK SUB-MARK", "b", MAV_E_VIRUS_FOUND, "Plain,sub/more:Sub"},
             {"x KORMO-YARA-MARK x", "a.txt", MAV_E_VIRUS_FOUND, "main:Marked"}}) {
        EXPECT_EQ(rc, e.Scan(data, name)) << name;
        EXPECT_EQ(names, e.Names()) << name;
    }
    char text[256];  // the free text of the last case's infection
    size_t n = sizeof text;
    MavEnumInfections(e.inst, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                      text, &n);
    EXPECT_EQ("marked sample; tags: demo test; meta: author=kormo, score=7", std::string(text, n));
    rules.Put("file/marked", "KORMO-YARA-MARK");  // a file, mapped
    EXPECT_EQ(MAV_E_VIRUS_FOUND, e.File(rules.path + "/file/marked"));
    // A size of 0 is not believed (/proc), a FIFO is refused without a wait.
    char old[16] = {};
    pthread_getname_np(pthread_self(), old, sizeof old);
    pthread_setname_np(pthread_self(), "PLAIN-MARK");
    EXPECT_EQ(MAV_E_VIRUS_FOUND, e.File("/proc/thread-self/comm"));
    pthread_setname_np(pthread_self(), old);
    ASSERT_EQ(0, mkfifo((rules.path + "/fifo").c_str(), 0600));
    EXPECT_EQ(MAV_E_SCAN_FAILED, e.File(rules.path + "/fifo"));
    ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(e.inst, StopAtOnce, VS_M_VIRUS, nullptr));
    EXPECT_EQ(MAV_E_CBC_TERMINATED, e.Scan("PLAIN-MARK SUB-MARK", "two"));
}

TEST(Yara, StartUpFailsWithTheReason) {
    for (const auto& [files, text] : std::vector<std::pair<Files, std::string>>{
             {{{"a.yar", kPlain}, {"bad.yar", "rule X {\n condition:\n  nosuch\n}\n"}},
              "bad.yar(3): undefined identifier \"nosuch\""},
             {{{"notes.txt", kPlain}}, "No YARA rules file (.yar, .yara) found under"},
             {{{"only.yar", "// no rule here\n"}}, "hold no rule"}}) {
        Dir d(files);
        Engine e;
        EXPECT_EQ(MAV_E_DRIVER_FAILED, e.Start(d.path));
        EXPECT_NE(std::string::npos, AdapterError(e.g.h).find(text)) << AdapterError(e.g.h);
    }
}

TEST(Yara, LimitsAreNeverClean) {
    Dir d(Files{{"limits.yar", kLimits}});
    using Case = std::tuple<const char*, const char*, VS_PARAMTYPE_T, std::string, std::string,
                            std::string>;  // parameter, value, type, data, name, error text
    for (const auto& [param, value, type, data, name, text] : std::vector<Case>{
             {"SCANLIMIT", "10", VS_TYPE_SIZE_T, std::string(99, 'x'), "big", "SCANLIMIT exceeded"},
             {"SCANEXTRACT_TIME", "1", VS_TYPE_INT, "x", "slow", "timed out after 1 s"},
             {"SCANLIMIT", "0", VS_TYPE_SIZE_T, std::string(1100000, 'a'), "many",
              "too many matches of string $a"}}) {
        Engine e;
        ASSERT_EQ(MAV_OK, e.Start(d.path)) << AdapterError(e.g.h);
        ASSERT_EQ(MAV_OK, MavSetParameter(e.inst, param, type, value));
        EXPECT_EQ(MAV_E_NOT_SCANNED, e.Scan(data, name)) << name;
        EXPECT_NE(std::string::npos, ScanErrorText(e.inst, 0).find(text)) << text;
    }
}

// The second start takes the compiled rules from the cache; changed rules are
// compiled anew on reload (never the stale cache), while an old instance
// keeps its rules.
TEST(Yara, CompiledRulesComeFromTheCacheUntilTheRulesChange) {
    Dir rules(Files{{"r.yar", kPlain}}), cache;
    {
        Engine compiles;
        ASSERT_EQ(MAV_OK, compiles.Start(rules.path, cache.path)) << AdapterError(compiles.g.h);
    }
    Engine old, first;
    ASSERT_EQ(MAV_OK, old.Start(rules.path, cache.path));
    ASSERT_EQ(MAV_OK, first.Start(rules.path, cache.path));
    char text[256];
    size_t n = sizeof text;
    MavGetEngineInfo(old.inst, nullptr, text, &n, nullptr, nullptr, nullptr);
    EXPECT_TRUE(std::regex_match(std::string(text, n),
                                 std::regex("YARA 4\\.[0-9.]+, 1 rule, sources [0-9a-f]{32} "
                                            "\\(compiled rules from the cache\\)")))
        << std::string(text, n);
    rules.Put("r.yar", std::string(kPlain) + "rule New { strings: $n = \"NEW-MARK\" condition: $n }\n");
    ASSERT_EQ(MAV_OK, MavFreeInstance(&first.inst));
    ASSERT_EQ(MAV_OK, MavReload(first.g.h));
    ASSERT_EQ(MAV_OK, MavCreateInstance(first.g.h, &first.inst)) << AdapterError(first.g.h);
    EXPECT_EQ(MAV_E_VIRUS_FOUND, first.Scan("NEW-MARK", "n"));
    EXPECT_EQ("r:New", first.Names());
    EXPECT_EQ(MAV_OK, old.Scan("NEW-MARK", "n"));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, old.Scan("PLAIN-MARK", "p"));
}

}  // namespace
