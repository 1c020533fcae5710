// fuzz_check.h - the fuzz targets' invariant check. A broken invariant prints
// its condition and aborts, which libFuzzer and the corpus driver both report
// as a crash with the input that caused it.
#pragma once
#include <cstdio>
#include <cstdlib>

#define CHECK(cond)                                                                         \
    ((cond) ? (void)0                                                                       \
            : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #cond), std::abort()))
