// mavprofile_hex.cpp - \u escapes of configuration names, values and paths.
//
// Encoding writes one "\u00XX" per byte of 0x80 and above. Decoding parses the
// hex digits after "\u" without a length limit and then always moves on six
// characters; configurations written for this format depend on that.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mavprofile_i.h"

namespace {

void appendEscaped(std::string& out, unsigned char c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
        return;
    }
    char buf[8];
    std::snprintf(buf, sizeof buf, "\\u%04X", static_cast<unsigned>(c));
    out.append(buf);
}

// The byte of a "\u" escape whose digits start at text + i + 2.
char escapedByte(const std::string& text, size_t i) {
    return static_cast<char>(std::strtoul(text.c_str() + i + 2, nullptr, 16) & 0xFF);
}

bool isEscape(const std::string& text, size_t i) {
    return text[i] == '\\' && i + 1 < text.size() && text[i + 1] == 'u';
}

char* decode(const std::string& text, bool path) {
    if (text.empty()) return nullptr;
    char* out = static_cast<char*>(MavIAlloc(text.size() + 1, true));
    if (out == nullptr) return nullptr;
    size_t o = 0;
    size_t i = 0;
    while (i < text.size()) {
        if (isEscape(text, i)) {
            out[o++] = escapedByte(text, i);
            i += 6;
        } else if (path && text[i] == '\\' && i + 1 < text.size() &&
                   (text[i + 1] == ':' || text[i + 1] == '\\')) {
            out[o++] = text[i + 1];
            i += 2;
        } else {
            out[o++] = text[i++];
        }
    }
    return out;
}

}  // namespace

std::string convertToHexString(const char* text) {
    std::string out;
    if (text == nullptr) return out;
    for (const char* p = text; *p != '\0'; ++p) appendEscaped(out, static_cast<unsigned char>(*p));
    return out;
}

char* convertFromHexString(const std::string& text) {
    return decode(text, false);
}

char* convertFromHexPath(const std::string& text) {
    return decode(text, true);
}

namespace mav {

std::string ToHex(const std::string& text) {
    std::string out;
    for (char c : text) appendEscaped(out, static_cast<unsigned char>(c));
    return out;
}

std::string FromHex(const std::string& text) {
    std::string out;
    size_t i = 0;
    while (i < text.size()) {
        if (isEscape(text, i)) {
            out.push_back(escapedByte(text, i));
            i += 6;
        } else {
            out.push_back(text[i++]);
        }
    }
    return out;
}

}  // namespace mav
