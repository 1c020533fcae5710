// temp_dir.h - a fresh directory under /tmp for one test, removed with its
// contents when the object goes.
#ifndef TEMP_DIR_H
#define TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

struct TempDir {
    std::string path;

    TempDir() {
        char tmpl[] = "/tmp/kormo_test_XXXXXX";
        const char* d = mkdtemp(tmpl);
        path = d != nullptr ? d : "";
    }
    ~TempDir() {
        std::error_code ec;
        if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string file(const std::string& name) const { return path + "/" + name; }
    // Writes text into the file name and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(file(name), std::ios::binary) << text;
        return file(name);
    }
    // Names of the entries, in no particular order.
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(path, ec))
            out.push_back(e.path().filename().string());
        return out;
    }
};

#endif
