/*
 * yara_rules.cpp - finding, compiling, caching and sharing the rules of a
 * rules directory.
 */
#include "yara_rules.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yara.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>

#include "yara_md5.h"

namespace yarapel {

const char* const kExternalNames[5] = {"filename", "filepath", "extension", "filetype", "md5"};

namespace fs = std::filesystem;

namespace {

// The set in use for one source, and the lock that lets one start compile
// it while others of the same source wait (and then share it). Starts on
// other sources do not wait.
struct Slot {
    std::mutex compile;
    std::weak_ptr<RuleSet> set;  // lives as long as an instance holds it
};

std::shared_ptr<Slot> SlotOf(const std::string& key) {
    static std::mutex lock;
    static auto* slots = new std::map<std::string, std::shared_ptr<Slot>>();
    std::lock_guard<std::mutex> l(lock);
    std::shared_ptr<Slot>& s = (*slots)[key];
    if (s == nullptr) s = std::make_shared<Slot>();
    return s;
}

bool IsRulesFile(const fs::path& p) {
    std::string ext = p.extension().string();
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext == ".yar" || ext == ".yara";
}

// Fills the size and modification time of f.path; false when it is gone.
bool Stamp(RuleFile* f) {
    struct stat st;
    if (stat(f->path.c_str(), &st) != 0) return false;
    f->size = static_cast<uint64_t>(st.st_size);
    f->mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return true;
}

// The rules files under dir in path order, with the namespace of each.
bool ListFiles(const std::string& dir, std::vector<RuleFile>* files, std::string* error) {
    std::error_code ec;
    RuleFile one;
    one.path = dir;
    if (fs::is_regular_file(dir, ec) && Stamp(&one)) {
        // One rules file named instead of a directory: that file alone.
        one.relative = fs::path(dir).filename().string();
        one.nameSpace = fs::path(dir).stem().string();
        files->push_back(one);
        return true;
    }
    if (!fs::is_directory(dir, ec)) {
        *error = "The YARA rules directory " + dir + " does not exist (INITDRIVERDIRECTORY).";
        return false;
    }
    // Links to folders are not followed: a loop would never end.
    fs::recursive_directory_iterator it(dir, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        std::error_code fec;
        if (!it->is_regular_file(fec) || !IsRulesFile(it->path())) continue;
        RuleFile f;
        f.path = it->path().string();
        f.relative = it->path().lexically_relative(dir).string();
        if (Stamp(&f)) files->push_back(f);  // else gone meanwhile
    }
    if (ec) {
        *error = "Cannot read the YARA rules directory " + dir + ": " + ec.message();
        return false;
    }
    if (files->empty()) {
        *error = "No YARA rules file (.yar, .yara) found under " + dir + " (INITDRIVERDIRECTORY).";
        return false;
    }
    std::sort(files->begin(), files->end(),
              [](const RuleFile& a, const RuleFile& b) { return a.relative < b.relative; });
    std::vector<std::string> taken;
    for (RuleFile& f : *files) {
        // a.yar and a.yara would share "a": the second keeps its extension.
        std::string ns = fs::path(f.relative).replace_extension().string();
        if (std::find(taken.begin(), taken.end(), ns) != taken.end()) ns = f.relative;
        taken.push_back(ns);
        f.nameSpace = ns;
    }
    return true;
}

bool SameFiles(const std::vector<RuleFile>& a, const std::vector<RuleFile>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].path != b[i].path || a[i].size != b[i].size || a[i].mtimeNs != b[i].mtimeNs) {
            return false;
        }
    }
    return true;
}

bool ReadAll(const std::string& path, std::string* out, std::string* error) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = "Cannot read the YARA rules file " + path + ": " + std::strerror(errno);
        return false;
    }
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) out->append(buf, static_cast<size_t>(n));
    int e = errno;
    close(fd);
    if (n < 0) {
        *error = "Cannot read the YARA rules file " + path + ": " + std::strerror(e);
        return false;
    }
    return true;
}

bool IsIdent(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

// The first compile errors, with file and line, in libyara's words.
struct CompileErrors {
    std::string text;
    int count = 0;
};

void OnCompileMessage(int level, const char* file, int line, const YR_RULE* /*rule*/,
                      const char* message, void* user) {
    auto* e = static_cast<CompileErrors*>(user);
    if (level != YARA_ERROR_LEVEL_ERROR || ++e->count > 5) return;  // warnings are not reported
    if (!e->text.empty()) e->text += "; ";
    e->text += std::string(file != nullptr ? file : "(rules)") + "(" + std::to_string(line) +
               "): " + (message != nullptr ? message : "error");
}

// Cache files belong to this user (or root) and no one else may write there:
// compiled rules are code that libyara trusts.
bool TrustedDir(const std::string& dir) {
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
           (st.st_uid == geteuid() || st.st_uid == 0) && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

uint32_t ExternalsUsed(const std::string& text) {
    uint32_t used = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (!IsIdent(text[i]) || (i > 0 && (IsIdent(text[i - 1]) || text[i - 1] == '.'))) continue;
        size_t end = i;
        while (end < text.size() && IsIdent(text[end])) ++end;
        std::string word = text.substr(i, end - i);
        if (word == "include") return (1u << 5) - 1;
        for (uint32_t k = 0; k < 5; ++k) {
            if (word == kExternalNames[k]) used |= 1u << k;
        }
        i = end;
    }
    return used;
}

RuleSet::~RuleSet() {
    if (rules_ != nullptr) yr_rules_destroy(rules_);
}

std::shared_ptr<RuleSet> RuleSet::Get(const RuleSource& source, std::string* error) {
    std::vector<RuleFile> files;
    if (!ListFiles(source.directory, &files, error)) return nullptr;
    const std::string key = source.directory + '\0' + source.cacheDir;
    std::shared_ptr<Slot> slot = SlotOf(key);
    std::lock_guard<std::mutex> l(slot->compile);
    std::shared_ptr<RuleSet> set = slot->set.lock();
    if (set != nullptr && SameFiles(set->files_, files)) return set;
    set.reset(new RuleSet());
    set->files_ = std::move(files);
    if (!set->Build(source, error)) return nullptr;
    slot->set = set;
    return set;
}

bool RuleSet::Build(const RuleSource& source, std::string* error) {
    std::vector<std::string> texts(files_.size());
    Md5 hash;
    for (size_t i = 0; i < files_.size(); ++i) {
        if (!ReadAll(files_[i].path, &texts[i], error)) return false;
        const std::string& rel = files_[i].relative;
        std::string head = rel + '\0' + std::to_string(texts[i].size()) + '\0';
        hash.Update(head.data(), head.size());
        hash.Update(texts[i].data(), texts[i].size());
        externals_ |= ExternalsUsed(texts[i]);
    }
    hash_ = hash.HexDigest();

    std::string cacheFile;
    if (!source.cacheDir.empty() && TrustedDir(source.cacheDir)) {
        cacheFile = source.cacheDir + "/kormo-yara-" + hash_ + "-" + YR_VERSION + ".yarc";
        LoadCache(cacheFile);
    }
    if (rules_ == nullptr) {
        if (!Compile(texts, error)) return false;
        if (!cacheFile.empty()) SaveCache(cacheFile);
    }
    CountRules();
    if (ruleCount_ == 0) {
        *error = "The YARA rules files under " + source.directory + " hold no rule.";
        return false;
    }
    return true;
}

bool RuleSet::Compile(const std::vector<std::string>& texts, std::string* error) {
    YR_COMPILER* compiler = nullptr;
    if (yr_compiler_create(&compiler) != ERROR_SUCCESS) {
        *error = "libyara: cannot create a compiler (out of memory)";
        return false;
    }
    CompileErrors errors;
    yr_compiler_set_callback(compiler, OnCompileMessage, &errors);
    for (const char* name : kExternalNames) yr_compiler_define_string_variable(compiler, name, "");
    bool ok = true;
    for (size_t i = 0; ok && i < files_.size(); ++i) {
        if (texts[i].empty()) continue;
        // From the text already read (and hashed), under the file's own name
        // so that messages and relative includes refer to it.
        FILE* f = fmemopen(const_cast<char*>(texts[i].data()), texts[i].size(), "r");
        if (f == nullptr) {
            errors.text = "cannot open the text of " + files_[i].path;
            ok = false;
            break;
        }
        int failed =
            yr_compiler_add_file(compiler, f, files_[i].nameSpace.c_str(), files_[i].path.c_str());
        fclose(f);
        ok = failed == 0;  // the compiler takes no more files after an error
    }
    if (ok && yr_compiler_get_rules(compiler, &rules_) != ERROR_SUCCESS) {
        errors.text = "libyara could not build the compiled rules";
        ok = false;
    }
    yr_compiler_destroy(compiler);
    if (!ok) {
        if (errors.count > 5) errors.text += "; ...";
        *error = "The YARA rules do not compile: " + errors.text;
        rules_ = nullptr;
    }
    return ok;
}

void RuleSet::LoadCache(const std::string& file) {
    if (access(file.c_str(), R_OK) != 0) return;
    if (yr_rules_load(file.c_str(), &rules_) == ERROR_SUCCESS) {
        fromCache_ = true;
    } else {
        rules_ = nullptr;  // an old or damaged file: compiled again and replaced
    }
}

void RuleSet::SaveCache(const std::string& file) const {
    // Written beside and renamed: a reader never sees half a file.
    std::string tmp = file + ".tmp" + std::to_string(getpid());
    if (yr_rules_save(rules_, tmp.c_str()) == ERROR_SUCCESS &&
        rename(tmp.c_str(), file.c_str()) == 0) {
        return;
    }
    unlink(tmp.c_str());  // no cache this time; the rules are compiled anyway
}

void RuleSet::CountRules() {
    std::map<std::string, RuleFile*> byNs;
    for (RuleFile& f : files_) byNs[f.nameSpace] = &f;
    const YR_RULE* rule = nullptr;
    yr_rules_foreach(rules_, rule) {
        ++ruleCount_;
        auto it = byNs.find(rule->ns->name);
        if (it != byNs.end()) ++it->second->rules;
    }
}

}  // namespace yarapel
