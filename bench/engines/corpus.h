// corpus.h - a deterministic mixed corpus for the engine benchmarks: text,
// binary data and deflated ZIP archives of text, 2 KiB to 1 MiB.
#ifndef KORMO_BENCH_ENGINES_CORPUS_H
#define KORMO_BENCH_ENGINES_CORPUS_H

#include <cstddef>
#include <string>
#include <vector>

namespace benchengines {

struct Object {
    std::string name;
    std::vector<unsigned char> bytes;
};

std::vector<Object> MakeCorpus(size_t count, unsigned seed);
size_t TotalBytes(const std::vector<Object>& corpus);
// Writes every object into dir (which must exist); returns the paths.
std::vector<std::string> WriteCorpus(const std::vector<Object>& corpus, const std::string& dir);

}  // namespace benchengines

#endif
