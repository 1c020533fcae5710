// corpus_main.cpp - runs a fuzz target over files when libFuzzer is not used.
//
// Arguments are files or directories (their regular files); arguments starting
// with '-' are libFuzzer options and are ignored. The empty input runs first,
// as libFuzzer does, then the files in name order. Fails when no file was
// found or one cannot be read, so a missing corpus does not pass unnoticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (argv[i][0] == '-') continue;
        if (!fs::is_directory(argv[i], ec)) files.push_back(argv[i]);
        for (const auto& e : fs::directory_iterator(argv[i], ec))  // none for a file
            if (e.is_regular_file(ec)) files.push_back(e.path().string());
    }
    std::sort(files.begin(), files.end());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(""), 0);
    for (const std::string& f : files) {
        std::ifstream in(f, std::ios::binary);
        std::vector<char> data((std::istreambuf_iterator<char>(in)), {});
        if (!in.is_open()) return 1;
        std::printf("running %s (%zu bytes)\n", f.c_str(), data.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
