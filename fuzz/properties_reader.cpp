// properties_reader.cpp - fuzz target: the properties reader on any text.
//
// Checks the reader's invariants on every record it keeps: no blanks, no line
// break, a non-empty key that is no comment or section, a non-empty value; the
// map holds the first value of every key; a second read keeps the first read's
// values.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "mavprofile_i.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

bool hasAny(const std::string& s, const char* chars) {
    return s.find_first_of(chars) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mav::PropertyReader reader;
    bool any = reader.readbuffer(data, size);
    std::map<std::string, std::string> map = reader.getMap();
    check(any || map.empty());
    for (const auto& kv : map) {
        check(!kv.first.empty() && !kv.second.empty());
        check(!hasAny(kv.first, " \t\n=") && !hasAny(kv.second, " \t\n"));
        check(kv.first[0] != '[' && kv.first[0] != ';' && kv.first[0] != '#' &&
              kv.first[0] != ']' && kv.first.compare(0, 2, "//") != 0);
        check(reader.get_string(kv.first, "") == kv.second);
    }
    check(reader.get_string("never stored", "d") == "d");  // blanks are never kept
    for (const char* prefix : {"mav.profile", "mav.group", "mav.provider.Pelmark.Adapters", ""}) {
        for (const std::string& name : reader.getKeys(prefix)) {
            check(map.count(std::string(prefix) + "." + name) == 1);
        }
    }
    // A second read of other text adds keys but keeps every earlier value.
    static const char kOther[] = "fuzz.extra=1\n";
    reader.readbuffer(kOther, sizeof kOther - 1);
    for (const auto& kv : map) check(reader.get_string(kv.first, "") == kv.second);
    return 0;
}
