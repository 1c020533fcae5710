// hex_codec.cpp - fuzz target: the \u decoders and encoders on any bytes.
//
// The C-string decoders never write more bytes than they read and agree with
// FromHex up to the first zero byte; encoding then decoding returns any text
// that holds no backslash-u pair and no escaped byte followed by a hex digit
// (the digit would extend the unbounded parse of the escape).
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "mavprofile_i.h"

namespace {

bool roundTrips(const std::string& text) {
    if (text.find("\\u") != std::string::npos) return false;
    for (size_t i = 0; i + 1 < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80 &&
            std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            return false;
        }
    }
    return true;
}

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    char* plain = convertFromHexString(text);
    char* path = convertFromHexPath(text);
    std::string decoded = mav::FromHex(text);
    check(!text.empty() || plain == nullptr);
    check(decoded.size() <= text.size());
    if (plain != nullptr) {
        size_t n = std::strlen(plain);
        check(n <= text.size());
        check(decoded.compare(0, n, plain, n) == 0);
        check(n == decoded.size() || decoded[n] == '\0');
    }
    if (path != nullptr) check(std::strlen(path) <= text.size());
    MavIFree(plain);
    MavIFree(path);

    std::string encoded = mav::ToHex(text);
    check(encoded.size() >= text.size());
    if (roundTrips(text)) {
        check(mav::FromHex(encoded) == text);
        if (text.find('\0') == std::string::npos) {
            check(convertToHexString(text.c_str()) == encoded);
            char* back = convertFromHexString(encoded);
            check(text.empty() ? back == nullptr : back != nullptr && text == back);
            MavIFree(back);
        }
    }
    return 0;
}
