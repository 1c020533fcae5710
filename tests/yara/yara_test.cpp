// The YARA adapter through libkormomav against the real libyara, on rules
// directories written here: verdicts and names, start-up failures, limits
// that must never read as clean, events, reload and the compiled-rules cache.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

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
const char kLimits[] = R"(rule Slow { condition: filename == "slow" and
  for all i in (0..filesize * 100000000) : (i >= 0) }
rule Many { strings: $a = "aaaa" condition: #a == 1 }
)";

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
        std::ofstream(path + "/" + name, std::ios::binary) << text;
    }
    std::string path;
};

// A handle on a rules directory and one instance of it.
struct Engine {
    int Start(const std::string& rules, const std::string& cache = "") {
        EXPECT_EQ(MAV_OK, MavInit(KORMO_YARA_ADAPTER, &g.h));
        MavSetParameter(g.h, "INITDRIVERDIRECTORY", VS_TYPE_CHAR, rules.c_str());
        MavSetParameter(g.h, "INITDIRECTORY", VS_TYPE_CHAR, cache.c_str());
        return MavCreateInstance(g.h, &inst);
    }
    ~Engine() {
        if (inst != nullptr) MavFreeInstance(&inst);
    }
    int Scan(const std::string& data, const std::string& name) {
        si = Summary();
        auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(data.data()));
        return MavScanBytes(inst, name.c_str(), bytes, data.size(), 1, &si);
    }
    std::string Names() const {
        std::string s;
        for (uint32_t i = 0; i < si.uiInfections; ++i) s += (i ? "," : "") + InfectionName(inst, i);
        return s;
    }
    std::string Version() const {
        char text[256];
        size_t n = sizeof text;
        MavGetEngineInfo(inst, nullptr, text, &n, nullptr, nullptr, nullptr);
        return std::string(text, n);
    }
    HandleGuard g;
    MAV_INST inst = nullptr;
    MAV_SCANINFO si = Summary();
};

const Dir& Rules() {
    static Dir d(Files{{"main.yar", kMain}, {"default.yar", kPlain}, {"sub/more.yara", kSub}});
    return d;
}

TEST(Yara, RulesOfEveryFileFindTheirObjectsAndCleanDataPasses) {
    Engine e;
    ASSERT_EQ(MAV_OK, e.Start(Rules().path)) << AdapterError(e.g.h);
    struct Case {
        std::string data, name;
        int rc;
        std::string names;
    } cases[] = {
        {"nothing to see here\n", "clean.txt", MAV_OK, ""},
        {"x KORMO-YARA-MARK x", "a.txt", MAV_E_VIRUS_FOUND, "main:Marked"},
        {"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj\n", "doc.pdf", MAV_E_VIRUS_FOUND, "main:Pdf"},
        {"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj\n", "doc.txt", MAV_OK, ""},
        {"anything", "dir/trigger.bin", MAV_E_VIRUS_FOUND, "main:Named"},
        {"anything", "dir/trigger.bin.txt", MAV_OK, ""},
        {"PLAIN-MARK SUB-MARK", "b", MAV_E_VIRUS_FOUND, "Plain,sub/more:Sub"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.rc, e.Scan(c.data, c.name)) << c.name;
        EXPECT_EQ(c.names, e.Names()) << c.name;
    }
    e.Scan("KORMO-YARA-MARK", "a");
    char text[256];
    size_t n = sizeof text;
    MavEnumInfections(e.inst, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                      text, &n);
    EXPECT_EQ("marked sample; tags: demo test; meta: author=kormo, score=7", std::string(text, n));
    Rules().Put("file/x-KORMO-YARA-MARK", "KORMO-YARA-MARK");  // a file, mapped
    EXPECT_EQ(MAV_E_VIRUS_FOUND, MavScanFile(e.inst, (Rules().path + "/file/x-KORMO-YARA-MARK").c_str(), 2, &e.si));
    EXPECT_NE(std::string::npos, e.Version().find("YARA 4.")) << e.Version();
    EXPECT_NE(std::string::npos, e.Version().find(", 5 rules, sources ")) << e.Version();
    n = sizeof text;
    uint32_t rules = 0;
    EXPECT_EQ(MAV_OK, MavEnumDriverInfo(e.inst, 1, nullptr, text, &n, nullptr, &rules));
    EXPECT_EQ("main.yar (3)", std::string(text, n) + " (" + std::to_string(rules) + ")");
}

TEST(Yara, StartUpFailsWithTheReason) {
    struct Case {
        Files files;
        std::string text;
    } cases[] = {
        {{{"a.yar", kPlain}, {"bad.yar", "rule X {\n condition:\n  nosuch\n}\n"}},
         "bad.yar(3): undefined identifier \"nosuch\""},
        {{{"notes.txt", kPlain}}, "No YARA rules file (.yar, .yara) found under"},
        {{{"only.yar", "// no rule here\n"}}, "hold no rule"},
    };
    for (const Case& c : cases) {
        Dir d(c.files);
        Engine e;
        EXPECT_EQ(MAV_E_DRIVER_FAILED, e.Start(d.path));
        EXPECT_NE(std::string::npos, AdapterError(e.g.h).find(c.text)) << AdapterError(e.g.h);
    }
}

TEST(Yara, LimitsAreNeverClean) {
    Dir d(Files{{"limits.yar", kLimits}});
    struct Case {
        const char *param, *value;
        VS_PARAMTYPE_T type;
        std::string data, name, text;
    } cases[] = {
        {"SCANLIMIT", "10", VS_TYPE_SIZE_T, std::string(100, 'x'), "big", "SCANLIMIT exceeded"},
        {"SCANEXTRACT_TIME", "1", VS_TYPE_INT, "x", "slow", "timed out after 1 s"},
        {"SCANLIMIT", "0", VS_TYPE_SIZE_T, std::string(1100000, 'a'), "many",
         "too many matches of string $a"},
    };
    for (const Case& c : cases) {
        Engine e;
        ASSERT_EQ(MAV_OK, e.Start(d.path)) << AdapterError(e.g.h);
        ASSERT_EQ(MAV_OK, MavSetParameter(e.inst, c.param, c.type, c.value));
        EXPECT_EQ(MAV_E_NOT_SCANNED, e.Scan(c.data, c.name)) << c.name;
        EXPECT_NE(std::string::npos, ScanErrorText(e.inst, 0).find(c.text)) << ScanErrorText(e.inst, 0);
    }
}

struct Seen {
    int viruses = 0, stopAt = 0;
};

VS_CALLRC OnEvent(MAV_INST, uint32_t message, void*, void* user) {
    auto* s = static_cast<Seen*>(user);
    if (message == VS_M_VIRUS && ++s->viruses == s->stopAt) return VS_CALLRC_STOP;
    return VS_CALLRC_CONTINUE;
}

TEST(Yara, EventsFollowTheMaskAndAStopEndsTheScan) {
    struct Case {
        uint32_t mask;
        int stopAt, rc, viruses;
    } cases[] = {
        {VS_M_VIRUS, 0, MAV_E_VIRUS_FOUND, 2},
        {VS_M_VIRUS | VS_M_CLEAN, 1, MAV_E_CBC_TERMINATED, 1},
        {VS_M_CLEAN, 1, MAV_E_VIRUS_FOUND, 0},
    };
    Engine e;
    ASSERT_EQ(MAV_OK, e.Start(Rules().path)) << AdapterError(e.g.h);
    for (const Case& c : cases) {
        Seen seen;
        seen.stopAt = c.stopAt;
        ASSERT_EQ(MAV_OK, MavRegisterSingleEventHandler(e.inst, OnEvent, c.mask, &seen));
        EXPECT_EQ(c.rc, e.Scan("PLAIN-MARK SUB-MARK", "two"));
        EXPECT_EQ(c.viruses, seen.viruses) << c.mask;
    }
}

TEST(Yara, ReloadTakesNewRulesWhileOldInstancesKeepTheirs) {
    Dir d(Files{{"r.yar", kPlain}});
    Engine old, fresh;
    ASSERT_EQ(MAV_OK, old.Start(d.path));
    ASSERT_EQ(MAV_OK, fresh.Start(d.path));
    d.Put("r.yar", std::string(kPlain) + "rule New { strings: $n = \"NEW-MARK\" condition: $n }\n");
    ASSERT_EQ(MAV_OK, MavFreeInstance(&fresh.inst));
    ASSERT_EQ(MAV_OK, MavReload(fresh.g.h));
    ASSERT_EQ(MAV_OK, MavCreateInstance(fresh.g.h, &fresh.inst)) << AdapterError(fresh.g.h);
    EXPECT_EQ(MAV_E_VIRUS_FOUND, fresh.Scan("NEW-MARK", "n"));
    EXPECT_EQ("r:New", fresh.Names());
    EXPECT_EQ(MAV_OK, old.Scan("NEW-MARK", "n"));
    EXPECT_EQ(MAV_E_VIRUS_FOUND, old.Scan("PLAIN-MARK", "p"));
}

TEST(Yara, CompiledRulesComeFromTheCacheOnTheNextStart) {
    Dir cache;
    for (bool cached : {false, true}) {
        Engine e;
        ASSERT_EQ(MAV_OK, e.Start(Rules().path, cache.path)) << AdapterError(e.g.h);
        EXPECT_EQ(cached, e.Version().find("from the cache") != std::string::npos) << e.Version();
        EXPECT_EQ(MAV_E_VIRUS_FOUND, e.Scan("KORMO-YARA-MARK", "m"));
        EXPECT_EQ(1, std::distance(fs::directory_iterator(cache.path), fs::directory_iterator()));
    }
}

}  // namespace
