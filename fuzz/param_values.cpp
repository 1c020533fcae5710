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
//   value   the text to set; for G a buffer size; for E "index,name size"
//           (the value buffer's size is then the name field)
//
// Invariants: every call answers with a documented code; buffers are never
// written beyond the size given; a value that was set reads back (integers
// as the same number, texts unchanged); a change that fails leaves the value
// as it was; a change on an instance leaves the handle's value alone. Every
// input starts and ends its own handle, so no state passes between inputs.
#include <dlfcn.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "fuzz_check.h"
#include "kormomav.h"

namespace {

// Every call answers with a documented code.
void Known(MAV_RC rc) { CHECK(rc >= MAV_E_BLOCKED_BY_POLICY && rc <= MAV_E_NO_DEFAULT_PROFILE); }

std::string pelPath;
int (*liveInits)(void);
int (*liveScanInfos)(void);

int Quiet(const char*, const char*, int, uint32_t, const char*) { return 0; }

// Every type on both lists; a CHAR default that is no UTF-8 as well.
const struct Offer {
    int initList;
    int32_t code, type;
    const char* value;
} kOffers[] = {
    {1, VS_P_INITDRIVERS, VS_TYPE_CHAR, "drivers"}, {1, VS_P_INITEXTRADRIVERS, VS_TYPE_OBJECT, "x"},
    {1, VS_P_INITSERVERS, VS_TYPE_CHAR, "srv \xff"}, {1, VS_P_INITTIMEOUT, VS_TYPE_INT, "30"},
    {1, VS_P_INITRECONNECTTIME, VS_TYPE_LONG, "-7"}, {1, VS_P_INITREGEXFLAGS, VS_TYPE_SHORT, "3"},
    {1, VS_P_INITTEMP_PATH, VS_TYPE_CHAR, ""}, {1, VS_P_INITENGINES, VS_TYPE_SIZE_T, "4"},
    {0, 100, VS_TYPE_BOOL, "1"}, {0, 101, VS_TYPE_BYTE, "0"}, {0, 104, VS_TYPE_CHAR, "exe,com"},
    {0, 105, VS_TYPE_SHORT, "2"}, {0, 107, VS_TYPE_LONG, "1000"}, {0, 110, VS_TYPE_SIZE_T, "4096"},
    {0, 111, VS_TYPE_TIME_T, "60"}, {0, 112, VS_TYPE_INT, "5"}, {0, 113, VS_TYPE_DOUBLE, "3"},
    {0, 116, VS_TYPE_FLOAT, "1"}, {0, 118, VS_TYPE_OBJECT, "mime"}, {0, 200, VS_TYPE_BOOL, "0"},
    {0, 300, VS_TYPE_CHAR, "text/x"}, {0, 301, VS_TYPE_OBJECT, "ext"}};

int32_t TypeOf(const std::string& t) {
    if (!t.empty() && (t[0] == '-' || (t[0] >= '0' && t[0] <= '9')))
        return static_cast<int32_t>(std::strtol(t.c_str(), nullptr, 10));
    return MavParamType(t.c_str());
}

size_t SizeOf(const std::string& v, size_t fallback) {
    if (v.empty() || v[0] < '0' || v[0] > '9') return fallback;
    return std::min<size_t>(std::strtoul(v.c_str(), nullptr, 10), 65536);
}

// A heap buffer of exactly size bytes (ASan sees any write beyond it).
std::unique_ptr<char[]> Buffer(size_t size) {
    return std::unique_ptr<char[]>(size != 0 ? new char[size] : nullptr);
}

struct Value {
    MAV_RC rc;
    int32_t type;
    std::string text;
    bool operator==(const Value& o) const { return rc == o.rc && text == o.text; }
};

Value Get(void* h, const std::string& name, size_t size = 65536) {
    std::unique_ptr<char[]> buf = Buffer(size);
    size_t len = size;
    Value v{MAV_OK, -1, ""};
    v.rc = MavGetParameter(h, name.c_str(), &v.type, buf.get(), &len);
    Known(v.rc);
    if (v.rc != MAV_OK || !buf) return v;
    CHECK(len == 0 || (len < size && buf[len] == '\0'));
    v.text.assign(buf.get(), len);
    return v;
}

void Set(void* h, void* handle, const std::string& name, int32_t type, const char* value) {
    Value before = Get(h, name), handleBefore = Get(handle, name);
    MAV_RC rc = MavSetParameter(h, name.c_str(), type, value);
    Known(rc);
    Value after = Get(h, name);
    CHECK(h == handle || Get(handle, name) == handleBefore);
    // INITTEMP_PATH keeps a new value that names no usable directory.
    if (rc == MAV_E_INVALID_PARAM && MavParamCode(name.c_str()) == VS_P_INITTEMP_PATH) return;
    CHECK(rc == MAV_OK || after == before);
    if (rc != MAV_OK || value == nullptr || after.rc != MAV_OK) return;
    const char* got = after.text.c_str();
    const int32_t t = after.type;
    if (t == VS_TYPE_SHORT || t == VS_TYPE_INT || t == VS_TYPE_LONG || t == VS_TYPE_TIME_T)
        CHECK(std::strtoll(got, nullptr, 10) == std::strtoll(value, nullptr, 10));
    if (t == VS_TYPE_SIZE_T)
        CHECK(std::strtoull(got, nullptr, 10) == std::strtoull(value, nullptr, 10));
    if (t == VS_TYPE_BOOL) CHECK(after.text == "0" || after.text == "1");
    if (t == VS_TYPE_CHAR) CHECK(after.text == value);
}

void Enumerate(void* h, const std::string& sizes, const std::string& value) {
    size_t comma = sizes.find(',');
    size_t nameSize = comma == std::string::npos ? 64 : SizeOf(sizes.substr(comma + 1), 64);
    size_t valueSize = SizeOf(value, 256), nameLen = nameSize, valueLen = valueSize;
    std::unique_ptr<char[]> name = Buffer(nameSize), text = Buffer(valueSize);
    int32_t type = -1;
    Known(MavEnumParameters(h, static_cast<uint32_t>(std::strtoul(sizes.c_str(), nullptr, 10)),
                            name.get(), &nameLen, &type, text.get(), &valueLen));
    // A null name buffer asks for the size needed instead.
    CHECK((!name || nameLen <= nameSize) && valueLen <= valueSize);
}

// Name and code lookups agree (an unknown "CUST..." name gives the code of
// CUST_ACTIVE_CONTENT, on purpose); so do the type lookups.
void Lookups(const std::string& name, int32_t type) {
    int32_t code = MavParamCode(name.c_str());
    const char* back = MavParamCodeName(code);
    CHECK(back != nullptr && (code == -1 || strcasecmp(back, name.c_str()) == 0 ||
                              (code == -100 && strncasecmp(name.c_str(), "CUST", 4) == 0)));
    const char* typeName = MavParamTypeName(type);
    CHECK(typeName == nullptr || MavParamType(typeName) == type);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* dir = std::getenv("TESTPEL_DIR");
    pelPath = std::string(dir != nullptr && *dir != '\0' ? dir : TESTPEL_DIR) + "/libtestpel.so";
    void* dl = dlopen(pelPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    CHECK(dl != nullptr);
    reinterpret_cast<void (*)(void)>(dlsym(dl, "tpel_reset"))();
    auto add = reinterpret_cast<void (*)(int, int32_t, int32_t, const char*)>(
        dlsym(dl, "tpel_add_param"));
    for (const Offer& o : kOffers) add(o.initList, o.code, o.type, o.value);
    liveInits = reinterpret_cast<int (*)(void)>(dlsym(dl, "tpel_live_inits"));
    liveScanInfos = reinterpret_cast<int (*)(void)>(dlsym(dl, "tpel_live_scaninfos"));
    MavSetTraceHandler(Quiet);  // error lines are expected here, by the thousand
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) return 0;
    if (liveInits == nullptr) LLVMFuzzerInitialize(nullptr, nullptr);
    MAV_HANDLE hdl = nullptr;
    CHECK(MavInit(pelPath.c_str(), &hdl) == MAV_OK);
    MAV_INST inst[2] = {nullptr, nullptr};
    for (MAV_INST& i : inst) CHECK(MavCreateInstance(hdl, &i) == MAV_OK);

    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    std::string line;
    for (int ops = 0; ops < 64 && std::getline(in, line);) {
        if (line.size() < 2) continue;
        ++ops;
        std::string name, type, value;  // fields a line lacks stay empty
        std::istringstream rest(line.substr(2));
        std::getline(rest, name, '|');
        std::getline(rest, type, '|');
        std::getline(rest, value);
        void* target = line[1] == 'i' ? inst[0] : line[1] == 'j' ? inst[1] : hdl;
        unsigned char bytes[8] = {'p', 'a', 'r', 'a', 'm', 's', 0, 0};
        MAV_SCANINFO si = {sizeof(MAV_SCANINFO), 0, 0, 0, 0, 0, 0};
        if (line[0] == 'S' || line[0] == 'R')
            Set(target, hdl, name, TypeOf(type), line[0] == 'R' ? nullptr : value.c_str());
        if (line[0] == 'G') Get(target, name, SizeOf(value, 64));
        if (line[0] == 'E') Enumerate(target, value, name);
        if (line[0] == 'D') Known(MavSetDefaultConfig(target));
        if (line[0] == 'X' && target != hdl)
            CHECK(MavScanBytes(target, "fuzz", bytes, sizeof bytes, 0, &si) == MAV_OK);
        if (line[0] == 'C') Lookups(name, TypeOf(type));
    }
    for (MAV_INST& i : inst) CHECK(MavFreeInstance(&i) == MAV_OK);
    CHECK(MavEnd(&hdl) == MAV_OK && hdl == nullptr);
    CHECK(liveInits() == 0 && liveScanInfos() == 0);
    return 0;
}
