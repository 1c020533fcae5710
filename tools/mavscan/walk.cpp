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
    bool follow;
    const std::function<void(const std::string&)>& file;
    const std::function<void(const std::string&, const std::string&)>& problem;
    std::set<std::pair<dev_t, ino_t>> seen;  // directories entered (cycle guard)

    void dir(const std::string& path, const struct stat& st) {
        if (!seen.insert({st.st_dev, st.st_ino}).second) return;
        DIR* d = opendir(path.c_str());
        if (d == nullptr) {
            problem(path, std::strerror(errno));
            return;
        }
        std::vector<std::string> names;
        while (struct dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
                names.emplace_back(e->d_name);
            }
        }
        closedir(d);
        std::sort(names.begin(), names.end());  // stable, reproducible order
        std::string base = path.empty() || path.back() == '/' ? path : path + "/";
        for (const auto& n : names) entry(base + n, false);
    }

    void entry(const std::string& path, bool given) {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            problem(path, std::strerror(errno));
            return;
        }
        if (S_ISLNK(st.st_mode)) {
            if (!given && !follow) return;
            if (stat(path.c_str(), &st) != 0) {
                problem(path, std::strerror(errno));
                return;
            }
        }
        if (S_ISDIR(st.st_mode)) {
            dir(path, st);
        } else if (S_ISREG(st.st_mode)) {
            file(path);
        } else if (given) {
            problem(path, "not a regular file");
        }
    }
};

}  // namespace

void walk(const std::string& path, bool followLinks,
          const std::function<void(const std::string&)>& file,
          const std::function<void(const std::string&, const std::string&)>& problem) {
    Walker w{followLinks, file, problem, {}};
    w.entry(path, true);
}

}  // namespace mavscan
