// The YARA adapter through its entry points against the real libyara, on rules
// directories written here: verdicts and names, start-up failures, limits
// that must never read as clean, a handler's stop, reload and the
// compiled-rules cache.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <tuple>

#include "engines_env.h"

using namespace engines;

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
const char kLimits[] = R"(rule Many { strings: $a = "aaaa" condition: #a == 1 }
rule Slow { condition: filename == "slow" and for all i in (0..filesize * 100000000) : (i >= 0) })";

using Files = std::map<std::string, std::string>;

// A fresh directory holding the given files.
struct Rules : TempDir {
    explicit Rules(const Files& files = {}) {
        for (const auto& f : files) Put(f.first, f.second);
    }
    void Put(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
        std::ofstream(File(name)) << text;
    }
};

class Yara : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(a_.Loaded()) << a_.Error(); }
    // An instance on a rules directory (and a cache directory); its error text.
    int Open(const std::string& rules, PEL_INIT** in, const std::string& cache = "") {
        int rc = a_.Init({{VS_P_INITDRIVERDIRECTORY, rules}, {VS_P_INITDIRECTORY, cache}}, in);
        error_ = *in != nullptr && (*in)->pszErrorText != nullptr ? (*in)->pszErrorText : "";
        return rc;
    }
    Adapter a_{KORMO_YARA_ADAPTER};
    std::string error_;
};

TEST_F(Yara, RulesOfEveryFileFindTheirObjectsAndCleanDataPasses) {
    Rules rules(
        Files{{"main.yar", kMain},
              {"default.yar", kPlain},
              {"sub/more.yara", "rule Sub { strings: $s = \"SUB-MARK\" condition: $s }\n"}});
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(rules.Path(), &in)) << error_;
    Scanner s(a_, in);
    using Case = std::tuple<std::string, std::string, int, std::string>;  // data, name, rc, names
    for (const auto& [data, name, rc, names] :
         std::vector<Case>{{"nothing to see here\n", "clean.txt", 0, ""},
                           {"%PDF-1.4\n%\xe2\xe3\xcf\xd3\n1 0 obj\n", "doc.pdf", -2, "main:Pdf"},
                           {"anything", "dir/trigger.bin", -2, "main:Named"},
                           {"PLAIN-MARK SUB-MARK", "b", -2, "Plain,sub/more:Sub"},
                           {"x KORMO-YARA-MARK x", "a.txt", -2, "main:Marked"}}) {
        EXPECT_EQ(rc, s.Bytes(ToBytes(data), name)) << name;
        EXPECT_EQ(names, Joined(s.Infections())) << name;
    }
    EXPECT_STREQ("marked sample; tags: demo test; meta: author=kormo, score=7",
                 s.Info()->pVirusInfo[0].pszFreeTextInfo);
    rules.Put("file/marked", "KORMO-YARA-MARK");  // a file, mapped
    EXPECT_EQ(-2, s.File(rules.File("file/marked")));
    // A size of 0 is not believed (/proc), a FIFO is refused without a wait.
    char old[16] = {};
    pthread_getname_np(pthread_self(), old, sizeof old);
    pthread_setname_np(pthread_self(), "PLAIN-MARK");
    EXPECT_EQ(-2, s.File("/proc/thread-self/comm"));
    pthread_setname_np(pthread_self(), old);
    ASSERT_EQ(0, mkfifo(rules.File("fifo").c_str(), 0600));
    EXPECT_EQ(13, s.File(rules.File("fifo")));
    Events stop(1);
    EXPECT_EQ(17, s.Bytes(ToBytes("PLAIN-MARK SUB-MARK"), "two", {}, &stop.cb));
}

TEST_F(Yara, StartUpFailsWithTheReasonAndLimitsAreNeverClean) {
    for (const auto& [files, text] : std::vector<std::pair<Files, std::string>>{
             {{{"a.yar", kPlain}, {"bad.yar", "rule X {\n condition:\n  nosuch\n}\n"}},
              "bad.yar(3): undefined identifier \"nosuch\""},
             {{{"notes.txt", kPlain}}, "No YARA rules file (.yar, .yara) found under"},
             {{{"only.yar", "// no rule here\n"}}, "hold no rule"}}) {
        Rules d(files);
        PEL_INIT* in = nullptr;
        EXPECT_EQ(9, Open(d.Path(), &in));
        EXPECT_NE(std::string::npos, error_.find(text)) << error_;
    }
    Rules d(Files{{"limits.yar", kLimits}});
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(d.Path(), &in)) << error_;
    Scanner s(a_, in);
    // option, data, name, error
    using Case = std::tuple<Set, std::string, std::string, std::string>;
    // clang-format off
    for (const auto& [option, data, name, text] : std::vector<Case>{
             {{VS_P_SCANLIMIT, 10}, std::string(99, 'x'), "big", "SCANLIMIT exceeded"},
             {{VS_P_SCANEXTRACT_TIME, 1}, "x", "slow", "timed out after 1 s"},
             {{VS_P_SCANLIMIT, 0}, std::string(1100000, 'a'), "many", "too many matches"}}) {
        // clang-format on
        EXPECT_EQ(14, s.Bytes(ToBytes(data), name, {option})) << name;
        EXPECT_EQ(0u, s.Info()->uiClean) << name;
        EXPECT_TRUE(s.ScanErrorHas(text)) << text;
    }
}

// The second start takes the compiled rules from the cache; changed rules are
// compiled anew (never the stale cache), while an old instance keeps its rules.
TEST_F(Yara, CompiledRulesComeFromTheCacheUntilTheRulesChange) {
    Rules rules(Files{{"r.yar", kPlain}}), cache;
    PEL_INIT *first = nullptr, *old = nullptr, *fresh = nullptr;
    ASSERT_EQ(0, Open(rules.Path(), &first, cache.Path())) << error_;
    a_.End(&first);
    ASSERT_EQ(0, Open(rules.Path(), &old, cache.Path()));
    EXPECT_TRUE(std::regex_match(old->pszEngineVersionText,
                                 std::regex("YARA 4\\.[0-9.]+, 1 rule, sources [0-9a-f]{32} "
                                            "\\(compiled rules from the cache\\)")))
        << old->pszEngineVersionText;
    rules.Put("r.yar",
              std::string(kPlain) + "rule New { strings: $n = \"NEW-MARK\" condition: $n }\n");
    ASSERT_EQ(0, Open(rules.Path(), &fresh, cache.Path())) << error_;
    Scanner s(a_, fresh), o(a_, old);
    EXPECT_EQ(-2, s.Bytes(ToBytes("NEW-MARK"), "n"));
    EXPECT_EQ("r:New", Joined(s.Infections()));
    EXPECT_EQ(0, o.Bytes(ToBytes("NEW-MARK"), "n"));
    EXPECT_EQ(-2, o.Bytes(ToBytes("PLAIN-MARK"), "p"));
}

}  // namespace
