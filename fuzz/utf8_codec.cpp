// Fuzz target for the UTF-8 codec: checks every code page against a reference
// decoder, round trips, exact buffer limits and the NUL-terminated mode.
// Windows-1252 is held to what needs no copy of its table: code points below
// 0x80 and from 0xA0 to 0xFF are their own byte, invalid UTF-8 is refused and
// whatever converts comes back unchanged.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "krncp.h"

namespace {

// Reference decoder, deliberately unlike the library's: take the length from
// the lead byte's bit pattern, collect the value, then reject by value.
bool RefDecode(const uint8_t* s, size_t n, std::vector<uint32_t>* out) {
    static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    for (size_t i = 0; i < n;) {
        uint8_t b = s[i];
        size_t len = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3
                                  : (b & 0xF8) == 0xF0 ? 4 : 0;
        if (len == 0 || n - i < len) return false;
        uint32_t c = len == 1 ? b : b & (0x7F >> len);
        for (size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return false;
            c = (c << 6) | (s[i + k] & 0x3F);
        }
        if (c < kMin[len] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        out->push_back(c);
        i += len;
    }
    return true;
}

// One conversion into a heap buffer of exactly destSize bytes (ASan watches
// its end); a failure leaves the length alone.
int Convert(bool toPage, const std::string& in, size_t destSize, std::string* out = nullptr) {
    std::unique_ptr<char[]> dest(new char[destSize]);
    size_t length = in.size();
    int rc = toPage ? Utf8sToUcs(dest.get(), destSize, &length, in.c_str())
                    : UcsToUtf8s(dest.get(), destSize, &length, in.c_str());
    if (rc != CP_RC_OK) CHECK(length == in.size());
    if (rc == CP_RC_OK) CHECK(length < destSize && dest[length] == '\0');
    if (rc == CP_RC_OK && out != nullptr) out->assign(dest.get(), length);
    return rc;
}

// The exact fit plus one works; it and any smaller buffer give code 32.
void CheckLimits(bool toPage, const std::string& in, size_t written, uint8_t pick) {
    CHECK(Convert(toPage, in, written) == CP_RC_BUFFER_TOO_SMALL);
    CHECK(Convert(toPage, in, pick % (written + 1)) == CP_RC_BUFFER_TOO_SMALL);
    CHECK(Convert(toPage, in, written + 1) == CP_RC_OK);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A driver may pass null for no bytes.
    const std::string text(size != 0 ? reinterpret_cast<const char*>(data) : "", size);
    std::vector<uint32_t> cps;
    const bool valid = RefDecode(reinterpret_cast<const uint8_t*>(text.data()), size, &cps);
    const uint8_t pick = size > 0 ? text[size / 2] : 0;
    // UTF-8, Latin-1 and Windows-1252, told apart by their last digit.
    std::string latin;  // the code points as bytes, when all are below 0x100
    bool latinOk = valid, plain = valid;
    for (uint32_t c : cps) {
        latinOk = latinOk && c <= 0xFF;
        plain = plain && (c < 0x80 || (c >= 0xA0 && c <= 0xFF));
        latin += static_cast<char>(c);
    }
    size_t high = 0, c1 = 0;  // bytes from 0x80; of them, those below 0xA0
    for (unsigned char c : text) {
        high += c >= 0x80;
        c1 += c >= 0x80 && c < 0xA0;
    }
    for (const char* page : {"1208", "0819", "1252"}) {
        CHECK(SetProcessCodePageFromEnv(page) == CP_RC_OK);
        const char kind = page[3];
        // UTF-8 -> page: the page's bytes for valid, mappable input; else refused.
        std::string paged, back, up, again;
        int rc = Convert(true, text, size + 1, &paged);
        if (kind == '8') CHECK((rc == CP_RC_OK) == valid && (!valid || paged == text));
        if (kind == '9') CHECK((rc == CP_RC_OK) == latinOk && (!latinOk || paged == latin));
        if (kind == '2')
            CHECK((valid || rc != CP_RC_OK) && (!plain || (rc == CP_RC_OK && paged == latin)));
        if (rc != CP_RC_OK) {
            CHECK(rc == CP_RC_INVALID_INPUT && Convert(true, text, pick % (size + 1)) == rc);
        } else {
            CheckLimits(true, text, paged.size(), pick);
            // ... and back: valid input comes back byte for byte.
            CHECK(Convert(false, paged, size + 1, &back) == CP_RC_OK && back == text);
            if (!back.empty()) CheckLimits(false, paged, back.size(), pick);
        }
        // Raw bytes as page text -> UTF-8, and back.
        rc = Convert(false, text, 3 * size + 1, &up);
        if (kind == '8') CHECK((rc == CP_RC_OK) == valid);
        if (kind == '9') CHECK(rc == CP_RC_OK && up.size() == size + high);
        if (kind == '2' && c1 == 0) CHECK(rc == CP_RC_OK);
        if (rc == CP_RC_OK) CHECK(Convert(true, up, size + 1, &again) == CP_RC_OK && again == text);
    }
    // NUL-terminated mode (length -1) reads up to the first NUL.
    CHECK(SetProcessCodePageFromEnv("1208") == CP_RC_OK);
    const size_t prefix = strlen(text.c_str());
    std::vector<char> dest(size + 1);
    size_t length = static_cast<size_t>(-1);
    int rc = Utf8sToUcs(dest.data(), dest.size(), &length, text.c_str());
    const bool prefixValid = RefDecode(reinterpret_cast<const uint8_t*>(text.data()), prefix, &cps);
    CHECK((rc == CP_RC_OK) == prefixValid);
    if (rc == CP_RC_OK) CHECK(length == prefix && memcmp(dest.data(), text.data(), prefix) == 0);
    return 0;
}
