// mavprofile_reader.cpp - the properties reader of the profile runtime.
//
// The format is deliberately crude and configurations rely on its quirks: all
// blanks vanish, the value is cut to the absolute position of the first ';',
// the first occurrence of a key wins, and section headers are ignored.
#include <cstring>
#include <fstream>
#include <sstream>

#include "mavprofile_i.h"

namespace {

bool isblank_(char c) {
    return c == ' ' || c == '\t';
}

// Removes every space and tab and says whether what is left is an entry or a
// section header.
bool isvalid(std::string& line) {
    std::string out;
    out.reserve(line.size());
    for (char c : line) {
        if (!isblank_(c)) out.push_back(c);
    }
    line.swap(out);
    if (line.empty()) return false;
    switch (line[0]) {
        case '[': {
            size_t close = line.rfind(']');
            return close != std::string::npos && close != 1;
        }
        case ';':
        case '#':
        case '=':
        case ']':
            return false;
        default:
            break;
    }
    if (line.compare(0, 2, "//") == 0) return false;
    size_t eq = line.rfind('=');
    return eq != std::string::npos && eq + 1 < line.size();
}

// A valid line becomes a record, or the current section name.
void parse(std::vector<mav::PropertyReader::record>& records, std::string& section,
           std::string& line) {
    if (line[0] == '[') {
        section = line.substr(1, line.rfind(']') - 1);
        return;
    }
    size_t e = line.find('=');
    size_t s = line.find(';');
    if (s == std::string::npos) s = line.size();
    // The length is the absolute position of the ';', not its distance from
    // the value's start: "key=value;comment" keeps "value;com".
    records.push_back({line.substr(0, e), line.substr(e + 1, s)});
}

}  // namespace

namespace mav {

PropertyReader::PropertyReader() = default;

PropertyReader::PropertyReader(const std::string& fileName) {
    (void)readfile(fileName);
}

PropertyReader::~PropertyReader() = default;

bool PropertyReader::readstream(std::istream& in) {
    // A stream swallows exceptions (std::bad_alloc in getline included) and
    // just stops: rethrown instead, so that a configuration is never taken
    // half read.
    in.exceptions(std::ios::badbit);
    std::string section;
    std::string line;
    while (std::getline(in, line, '\n')) {
        if (line.empty()) continue;
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        if (!isvalid(line)) continue;
        parse(records, section, line);
    }
    for (const record& r : records) properties.insert(std::make_pair(r.key, r.value));
    return true;
}

bool PropertyReader::readfile(const std::string& fileName) {
    records.clear();
    std::ifstream in(fileName, std::ios::in | std::ios::binary);
    if (!in.is_open()) return false;
    return readstream(in);
}

bool PropertyReader::readbuffer(const void* data, unsigned long length) {
    records.clear();
    if (data == nullptr && length != 0) return false;
    if (length == static_cast<unsigned long>(-1)) return false;
    char* copy = static_cast<char*>(MavIAlloc(length + 1, true));
    if (copy == nullptr) return false;
    if (length != 0) std::memcpy(copy, data, length);
    bool ok = false;
    try {
        std::istringstream in{std::string(copy)};
        readstream(in);
        ok = !records.empty();
    } catch (...) {
        MavIFree(copy);
        throw;
    }
    MavIFree(copy);
    return ok;
}

std::string PropertyReader::get_string(const std::string& key, std::string defaultValue) {
    auto it = properties.find(key);
    return it == properties.end() ? defaultValue : it->second;
}

std::vector<std::string> PropertyReader::getKeys(const std::string& prefix) {
    std::vector<std::string> keys;
    for (const record& r : records) {
        if (r.key.size() == prefix.size() + 1 + r.value.size() &&
            r.key.compare(0, prefix.size(), prefix) == 0 && r.key[prefix.size()] == '.' &&
            r.key.compare(prefix.size() + 1, std::string::npos, r.value) == 0) {
            keys.push_back(r.value);
        }
    }
    return keys;
}

std::map<std::string, std::string> PropertyReader::getMap() {
    return properties;
}

}  // namespace mav
