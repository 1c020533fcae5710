// param_values.cpp - fuzz target: parameter names, types and values as text.
//
// A handle on the test adapter offers a parameter of every type on both
// lists; the input is a list of operations on the handle and two instances,
// one per line:
//
//     <op><target><name>|<type>|<value>
//
//   op      S set, R reset (null value), G get, E enumerate, D all defaults,
//           X scan (the adapter reads the optional parameters), C lookups
//   target  h handle, i / j an instance
//   type    a type name ("LONG") or a decimal number
//   value   the text to set; for G and E a decimal buffer size (E: "index,size")
//
// Invariants: every call answers with a documented code; buffers are never
// written beyond the size given; a value that was set reads back (integers
// as the same number, texts unchanged); a change that fails leaves the value
// as it was; a change on an instance leaves the handle's value alone. Every
// input starts and ends its own handle, so no state passes between inputs.
#include <dlfcn.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kormomav.h"

namespace {

const size_t kMaxInput = 4096;
const size_t kMaxOps = 64;

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "param_values: invariant broken: %s\n", what);
    std::abort();
}

bool Known(MAV_RC rc) {
    return rc >= MAV_E_BLOCKED_BY_POLICY && rc <= MAV_E_NO_DEFAULT_PROFILE;
}

std::string AdapterPath() {
    const char* dir = std::getenv("TESTPEL_DIR");
    return std::string(dir != nullptr && *dir != '\0' ? dir : TESTPEL_DIR) + "/libtestpel.so";
}

// The test adapter's control functions used here.
struct Adapter {
    void (*reset)(void);
    void (*add_param)(int, int32_t, int32_t, const char*);
    int (*live_inits)(void);
    int (*live_scaninfos)(void);
};
Adapter pel;
std::string pelPath;

int Quiet(const char*, const char*, int, uint32_t, const char*) {
    return 0;
}

template <typename F>
void Resolve(void* dl, const char* name, F* fn) {
    check((*fn = reinterpret_cast<F>(dlsym(dl, name))) != nullptr, name);
}

// Every type on both lists; a CHAR default that is no UTF-8 as well.
void OfferParameters() {
    pel.reset();
    pel.add_param(1, VS_P_INITDRIVERS, VS_TYPE_CHAR, "drivers");
    pel.add_param(1, VS_P_INITEXTRADRIVERS, VS_TYPE_OBJECT, "extra");
    pel.add_param(1, VS_P_INITSERVERS, VS_TYPE_CHAR, "srv \xff");
    pel.add_param(1, VS_P_INITTIMEOUT, VS_TYPE_INT, "30");
    pel.add_param(1, VS_P_INITRECONNECTTIME, VS_TYPE_LONG, "-7");
    pel.add_param(1, VS_P_INITREGEXFLAGS, VS_TYPE_SHORT, "3");
    pel.add_param(1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, "");
    pel.add_param(1, VS_P_INITENGINES, VS_TYPE_SIZE_T, "4");
    pel.add_param(0, 100, VS_TYPE_BOOL, "1");        // SCANBESTEFFORT
    pel.add_param(0, 101, VS_TYPE_BYTE, "0");        // SCANALLFILES
    pel.add_param(0, 104, VS_TYPE_CHAR, "exe,com");  // SCANEXTENSIONS
    pel.add_param(0, 105, VS_TYPE_SHORT, "2");       // SCANHEURISTICLEVEL
    pel.add_param(0, 107, VS_TYPE_LONG, "1000");     // SCANLIMIT
    pel.add_param(0, 110, VS_TYPE_SIZE_T, "4096");   // SCANEXTRACT_SIZE
    pel.add_param(0, 111, VS_TYPE_TIME_T, "60");     // SCANEXTRACT_TIME
    pel.add_param(0, 112, VS_TYPE_INT, "5");         // SCANEXTRACT_DEPTH
    pel.add_param(0, 113, VS_TYPE_DOUBLE, "3");      // SCANEXTRACT_RATIO
    pel.add_param(0, 116, VS_TYPE_FLOAT, "1");       // SCANSUBDIRLEVEL
    pel.add_param(0, 118, VS_TYPE_OBJECT, "mime");   // SCANMIMETYPES
    pel.add_param(0, 200, VS_TYPE_BOOL, "0");        // CLEANRENAME
    pel.add_param(0, 300, VS_TYPE_CHAR, "text/x");   // BLOCKMIMETYPES
    pel.add_param(0, 301, VS_TYPE_OBJECT, "ext");    // BLOCKEXTENSIONS
}

struct Op {
    char op;
    char target;
    std::string name, type, value;
};

std::vector<Op> Parse(const std::string& text) {
    std::vector<Op> ops;
    std::istringstream in(text);
    for (std::string line; ops.size() < kMaxOps && std::getline(in, line);) {
        if (line.size() < 2) continue;
        Op op{line[0], line[1], "", "", ""};
        std::istringstream rest(line.substr(2));
        std::getline(rest, op.name, '|');
        std::getline(rest, op.type, '|');
        std::getline(rest, op.value);
        ops.push_back(op);
    }
    return ops;
}

int32_t TypeOf(const std::string& t) {
    if (!t.empty() && (t[0] == '-' || (t[0] >= '0' && t[0] <= '9')))
        return static_cast<int32_t>(std::strtol(t.c_str(), nullptr, 10));
    return MavParamType(t.c_str());
}

size_t SizeOf(const std::string& v, size_t fallback) {
    if (v.empty() || v[0] < '0' || v[0] > '9') return fallback;
    size_t n = std::strtoul(v.c_str(), nullptr, 10);
    return n > 65536 ? 65536 : n;
}

// A parameter's value as text, read into a heap buffer of exactly size bytes
// (ASan sees any write beyond it).
struct Value {
    MAV_RC rc;
    int32_t type;
    std::string text;
};
Value Get(void* h, const std::string& name, size_t size) {
    std::unique_ptr<char[]> buf(size != 0 ? new char[size] : nullptr);
    if (size != 0) std::memset(buf.get(), 0x55, size);
    size_t len = size;
    Value v{MAV_OK, -1, ""};
    v.rc = MavGetParameter(h, name.c_str(), &v.type, buf.get(), &len);
    check(Known(v.rc), "MavGetParameter code");
    if (v.rc == MAV_OK && buf) {
        check(len <= size, "length beyond the buffer");
        if (len > 0) {
            check(len < size && buf[len] == '\0', "value not terminated");
            v.text.assign(buf.get(), len);
        }
    }
    return v;
}

bool IsIntegerType(int32_t t) {
    return t == VS_TYPE_SHORT || t == VS_TYPE_INT || t == VS_TYPE_LONG || t == VS_TYPE_TIME_T ||
           t == VS_TYPE_SIZE_T;
}

void Set(void* h, void* handle, const Op& op, bool reset) {
    const size_t big = 65536;
    Value before = Get(h, op.name, big);
    Value handleBefore = Get(handle, op.name, big);
    int32_t type = TypeOf(op.type);
    MAV_RC rc = MavSetParameter(h, op.name.c_str(), type, reset ? nullptr : op.value.c_str());
    check(Known(rc), "MavSetParameter code");
    Value after = Get(h, op.name, big);
    if (h != handle) {
        Value handleAfter = Get(handle, op.name, big);
        check(handleAfter.rc == handleBefore.rc && handleAfter.text == handleBefore.text,
              "a change on an instance reached the handle");
    }
    if (rc != MAV_OK) {
        // INITTEMP_PATH keeps a new value that names no usable directory.
        bool tmpPath = rc == MAV_E_INVALID_PARAM && MavParamCode(op.name.c_str()) == 10;
        check(tmpPath || (after.rc == before.rc && after.text == before.text),
              "a failed change altered the value");
        return;
    }
    if (reset || after.rc != MAV_OK) return;
    if (IsIntegerType(after.type)) {
        errno = 0;
        long long want = std::strtoll(op.value.c_str(), nullptr, 10);
        if (after.type == VS_TYPE_SIZE_T)
            want = static_cast<long long>(std::strtoull(op.value.c_str(), nullptr, 10));
        check(std::strtoll(after.text.c_str(), nullptr, 10) == want, "integer did not read back");
    } else if (after.type == VS_TYPE_BOOL) {
        check(after.text == "0" || after.text == "1", "boolean reads back as 0 or 1");
    } else if (after.type == VS_TYPE_CHAR) {
        check(after.text == std::string(op.value.c_str()), "text did not read back");
    }
}

void Enumerate(void* h, const Op& op) {
    uint32_t index = static_cast<uint32_t>(std::strtoul(op.value.c_str(), nullptr, 10));
    size_t comma = op.value.find(',');
    size_t nameSize = comma == std::string::npos ? 64 : SizeOf(op.value.substr(comma + 1), 64);
    size_t valueSize = SizeOf(op.name, 256);
    std::unique_ptr<char[]> name(nameSize != 0 ? new char[nameSize] : nullptr);
    std::unique_ptr<char[]> value(valueSize != 0 ? new char[valueSize] : nullptr);
    size_t nameLen = nameSize, valueLen = valueSize;
    int32_t type = -1;
    MAV_RC rc = MavEnumParameters(h, index, name.get(), &nameLen, &type, value.get(), &valueLen);
    check(Known(rc), "MavEnumParameters code");
    // A null name buffer asks for the size needed instead.
    check((!name || nameLen <= nameSize) && valueLen <= valueSize, "length beyond the buffer");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pelPath = AdapterPath();
    void* dl = dlopen(pelPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    check(dl != nullptr, "test adapter not found (TESTPEL_DIR)");
    Resolve(dl, "tpel_reset", &pel.reset);
    Resolve(dl, "tpel_add_param", &pel.add_param);
    Resolve(dl, "tpel_live_inits", &pel.live_inits);
    Resolve(dl, "tpel_live_scaninfos", &pel.live_scaninfos);
    OfferParameters();
    MavSetTraceHandler(Quiet);  // error lines are expected here, by the thousand
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    if (pel.reset == nullptr) LLVMFuzzerInitialize(nullptr, nullptr);
    std::vector<Op> ops = Parse(std::string(reinterpret_cast<const char*>(data), size));

    MAV_HANDLE hdl = nullptr;
    check(MavInit(pelPath.c_str(), &hdl) == MAV_OK, "MavInit");
    MAV_INST inst[2] = {nullptr, nullptr};
    for (MAV_INST& i : inst) check(MavCreateInstance(hdl, &i) == MAV_OK, "MavCreateInstance");

    for (const Op& op : ops) {
        void* target = op.target == 'i' ? inst[0] : op.target == 'j' ? inst[1] : hdl;
        switch (op.op) {
            case 'S':
            case 'R':
                Set(target, hdl, op, op.op == 'R');
                break;
            case 'G':
                Get(target, op.name, SizeOf(op.value, 64));
                break;
            case 'E':
                Enumerate(target, op);
                break;
            case 'D':
                check(Known(MavSetDefaultConfig(target)), "MavSetDefaultConfig code");
                break;
            case 'X': {
                if (target == hdl) break;
                unsigned char bytes[8] = {'p', 'a', 'r', 'a', 'm', 's', 0, 0};
                MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
                check(MavScanBytes(target, "fuzz", bytes, sizeof bytes, 0, &si) == MAV_OK,
                      "scan with changed parameters");
                break;
            }
            case 'C': {
                // Name and code lookups agree (an unknown "CUST..." name gives
                // the code of CUST_ACTIVE_CONTENT, on purpose).
                int32_t code = MavParamCode(op.name.c_str());
                const char* back = MavParamCodeName(code);
                check(back != nullptr, "MavParamCodeName");
                check(code == -1 || strcasecmp(back, op.name.c_str()) == 0 ||
                          (code == -100 && strncasecmp(op.name.c_str(), "CUST", 4) == 0),
                      "name and code lookups disagree");
                int32_t type = TypeOf(op.type);
                const char* typeName = MavParamTypeName(type);
                check(typeName == nullptr || MavParamType(typeName) == type, "type lookups");
                break;
            }
            default:
                break;
        }
    }

    for (MAV_INST& i : inst) check(MavFreeInstance(&i) == MAV_OK, "MavFreeInstance");
    check(MavEnd(&hdl) == MAV_OK && hdl == nullptr, "MavEnd");
    check(pel.live_inits() == 0 && pel.live_scaninfos() == 0, "adapter records left");
    return 0;
}
