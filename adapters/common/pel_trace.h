// pel_trace.h - an adapter's lines in the hosting library's trace.
//
// The library exports MavPPrintTrace and MavGetTraceLevel. An adapter looks
// them up once in the process (it links nothing of the library), and writes
// only when the library's trace level has the bit: with no trace asked for,
// the cost is one load and a test. Without a host library nothing is written.
#ifndef PEL_TRACE_H
#define PEL_TRACE_H

#include <dlfcn.h>
#include <stdint.h>

namespace pel {

// Level bits of the library's trace.
constexpr uint32_t kTraceError = 0x2u;
constexpr uint32_t kTraceWarning = 0x4u;
constexpr uint32_t kTraceInfo = 0x8u;

struct HostTrace {
    void (*print)(uint32_t, const char*, const char*, int, const char*, ...);
    uint32_t (*level)(void);
};

inline const HostTrace& Host() {
    static const HostTrace host = [] {
        HostTrace h{};
        h.print = reinterpret_cast<decltype(h.print)>(dlsym(RTLD_DEFAULT, "MavPPrintTrace"));
        h.level = reinterpret_cast<decltype(h.level)>(dlsym(RTLD_DEFAULT, "MavGetTraceLevel"));
        if (h.print == nullptr || h.level == nullptr) h = HostTrace{};
        return h;
    }();
    return host;
}

inline bool TraceOn(uint32_t bit) {
    const HostTrace& h = Host();
    return h.level != nullptr && (h.level() & bit) != 0;
}

}  // namespace pel

// PEL_TRACE(pel::kTraceInfo, "format\n", ...): one line of the library's trace.
#define PEL_TRACE(bit, ...)                                                        \
    do {                                                                           \
        if (pel::TraceOn(bit)) pel::Host().print(bit, __FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)

#endif  // PEL_TRACE_H
