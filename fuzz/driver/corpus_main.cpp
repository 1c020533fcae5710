// corpus_main.cpp - runs a fuzz target over files when libFuzzer is not used.
//
// Arguments are files or directories (their regular files, in name order);
// arguments starting with '-' are libFuzzer options and are ignored. The empty
// input runs first, as libFuzzer does. Fails when no file was found, so a
// missing corpus does not pass unnoticed.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void collect(const std::string& path, std::vector<std::string>& files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return;
    }
    if (S_ISREG(st.st_mode)) {
        files.push_back(path);
        return;
    }
    if (!S_ISDIR(st.st_mode)) return;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return;
    std::vector<std::string> names;
    while (struct dirent* e = readdir(dir)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& n : names) {
        std::string p = path + "/" + n;
        if (stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(p);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] != '-') collect(argv[i], files);
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(""), 0);
    for (const std::string& f : files) {
        std::ifstream in(f, std::ios::binary);
        std::vector<char> data((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
        std::printf("running %s (%zu bytes)\n", f.c_str(), data.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
