// profile_text.cpp - fuzz target: the profile runtime's text handling on any
// bytes: the properties reader and the \u decoders and encoders.
//
// Reader: every record it keeps has no blanks and no line break, a non-empty
// key that is no comment or section, a non-empty value; the map holds the
// first value of every key; a second read keeps the first read's values.
// Hex codec: the C-string decoders never write more bytes than they read and
// agree with FromHex up to the first zero byte; encoding then decoding returns
// any text that holds no backslash-u pair and no escaped byte followed by a
// hex digit (the digit would extend the unbounded parse of the escape).
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "mavprofile_i.h"

namespace {

// Text that encoding and decoding return unchanged: no backslash-u pair and no
// escaped byte followed by a hex digit.
bool roundTrips(const std::string& text) {
    for (size_t i = 0; i + 1 < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]), next = text[i + 1];
        if ((c == '\\' && next == 'u') || (c >= 0x80 && std::isxdigit(next))) return false;
    }
    return true;
}

void readProperties(const uint8_t* data, size_t size) {
    mav::PropertyReader reader;
    bool any = reader.readbuffer(data, size);
    std::map<std::string, std::string> map = reader.getMap();
    CHECK(any || map.empty());
    for (const auto& kv : map) {
        CHECK(!kv.second.empty() && kv.first.find_first_of(" \t\n=") == std::string::npos &&
              kv.second.find_first_of(" \t\n") == std::string::npos);
        CHECK(!kv.first.empty() && std::string("[];#").find(kv.first[0]) == std::string::npos &&
              kv.first.compare(0, 2, "//") != 0 && reader.get_string(kv.first, "") == kv.second);
    }
    CHECK(reader.get_string("never stored", "d") == "d");  // blanks are never kept
    for (const char* prefix : {"mav.profile", "mav.group", "mav.provider.Pelmark.Adapters", ""})
        for (const std::string& name : reader.getKeys(prefix))
            CHECK(map.count(std::string(prefix) + "." + name) == 1);
    // A second read of other text adds keys but keeps every earlier value.
    static const char kOther[] = "fuzz.extra=1\n";
    reader.readbuffer(kOther, sizeof kOther - 1);
    for (const auto& kv : map) CHECK(reader.get_string(kv.first, "") == kv.second);
}

void hexCodec(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    char* plain = convertFromHexString(text);
    char* path = convertFromHexPath(text);
    std::string decoded = mav::FromHex(text);
    CHECK((!text.empty() || plain == nullptr) && decoded.size() <= text.size());
    const size_t n = plain != nullptr ? std::strlen(plain) : 0;
    CHECK(n <= text.size() && decoded.compare(0, n, plain != nullptr ? plain : "", n) == 0 &&
          (plain == nullptr || n == decoded.size() || decoded[n] == '\0'));
    CHECK(path == nullptr || std::strlen(path) <= text.size());
    MavIFree(plain);
    MavIFree(path);

    std::string encoded = mav::ToHex(text);
    CHECK(encoded.size() >= text.size());
    if (roundTrips(text)) CHECK(mav::FromHex(encoded) == text);
    if (roundTrips(text) && text.find('\0') == std::string::npos) {
        CHECK(convertToHexString(text.c_str()) == encoded);
        char* back = convertFromHexString(encoded);
        CHECK(text.empty() ? back == nullptr : back != nullptr && text == back);
        MavIFree(back);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    readProperties(data, size);
    hexCodec(data, size);
    return 0;
}
