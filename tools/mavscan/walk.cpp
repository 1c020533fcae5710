// walk.cpp - directory walk of mavscan.
#include "walk.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

namespace mavscan {

namespace {

struct Walker {
    const WalkRules& rules;
    const std::function<void(const Target&)>& file;
    const std::function<void(const std::string&, const std::string&)>& problem;
    std::set<std::pair<dev_t, ino_t>> seen;  // directories entered (cycle guard)

    bool stopped() const { return rules.stop != nullptr && rules.stop->load(); }

    void dir(const std::string& path, const struct stat& st, bool given) {
        if (!given && rules.filter != nullptr && !rules.filter->enterDir(path)) return;
        if (!seen.insert({st.st_dev, st.st_ino}).second) return;
        DIR* d = opendir(path.c_str());
        if (d == nullptr) {
            problem(path, std::strerror(errno));
            return;
        }
        std::vector<std::string> names;
        while (struct dirent* e = stopped() ? nullptr : readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
                names.emplace_back(e->d_name);
            }
        }
        closedir(d);
        std::sort(names.begin(), names.end());  // stable, reproducible order
        std::string base = path.empty() || path.back() == '/' ? path : path + "/";
        for (const auto& n : names) {
            if (stopped()) return;
            entry(base + n, false);
        }
    }

    void entry(const std::string& path, bool given) {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            problem(path, std::strerror(errno));
            return;
        }
        if (S_ISLNK(st.st_mode)) {
            if (!given && !rules.followLinks) return;
            if (stat(path.c_str(), &st) != 0) {
                problem(path, std::strerror(errno));
                return;
            }
        }
        if (S_ISDIR(st.st_mode)) {
            dir(path, st, given);
        } else if (S_ISREG(st.st_mode)) {
            if (rules.filter != nullptr && !rules.filter->scanFile(path)) return;
            Target t;
            t.path = path;
            t.dev = st.st_dev;
            t.ino = st.st_ino;
            t.follow = given || rules.followLinks;
            file(t);
        } else if (given) {
            problem(path, "not a regular file");
        }
    }
};

}  // namespace

PathFilter::~PathFilter() {
    for (auto* list : {&exclude_, &excludeDir_, &include_}) {
        for (regex_t& r : *list) regfree(&r);
    }
}

bool PathFilter::compile(const std::vector<std::string>& exclude,
                         const std::vector<std::string>& excludeDir,
                         const std::vector<std::string>& include, std::string* error) {
    const std::pair<const std::vector<std::string>*, std::vector<regex_t>*> lists[] = {
        {&exclude, &exclude_}, {&excludeDir, &excludeDir_}, {&include, &include_}};
    for (const auto& l : lists) {
        for (const std::string& p : *l.first) {
            regex_t r;
            int rc = regcomp(&r, p.c_str(), REG_EXTENDED | REG_NOSUB);
            if (rc != 0) {
                char why[256];
                regerror(rc, &r, why, sizeof why);
                *error = "pattern " + p + " is not valid: " + why;
                return false;
            }
            l.second->push_back(r);
        }
    }
    return true;
}

namespace {

bool matchesAny(const std::vector<regex_t>& list, const std::string& path) {
    for (const regex_t& r : list) {
        if (regexec(&r, path.c_str(), 0, nullptr, 0) == 0) return true;
    }
    return false;
}

}  // namespace

bool PathFilter::scanFile(const std::string& path) const {
    if (matchesAny(exclude_, path)) return false;
    return include_.empty() || matchesAny(include_, path);
}

bool PathFilter::enterDir(const std::string& path) const {
    return !matchesAny(excludeDir_, path);
}

void walk(const std::string& path, const WalkRules& rules,
          const std::function<void(const Target&)>& file,
          const std::function<void(const std::string&, const std::string&)>& problem) {
    Walker w{rules, file, problem, {}};
    w.entry(path, true);
}

}  // namespace mavscan
