// Fuzz target for the UTF-8 codec: checks every code page against a reference
// decoder, round trips, exact buffer limits and the NUL-terminated mode.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "krncp.h"

namespace {

#define CHECK(cond)                    \
    do {                               \
        if (!(cond)) __builtin_trap(); \
    } while (0)

// Reference decoder, deliberately unlike the library's: take the length from
// the lead byte's bit pattern, collect the value, then reject by value.
bool RefDecode(const uint8_t* s, size_t n, std::vector<uint32_t>* out) {
    for (size_t i = 0; i < n;) {
        uint8_t b = s[i];
        size_t len;
        uint32_t c;
        if (b < 0x80) {
            len = 1, c = b;
        } else if ((b & 0xE0) == 0xC0) {
            len = 2, c = b & 0x1F;
        } else if ((b & 0xF0) == 0xE0) {
            len = 3, c = b & 0x0F;
        } else if ((b & 0xF8) == 0xF0) {
            len = 4, c = b & 0x07;
        } else {
            return false;
        }
        if (n - i < len) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return false;
            c = (c << 6) | (s[i + k] & 0x3F);
        }
        static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (c < kMin[len] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
        out->push_back(c);
        i += len;
    }
    return true;
}

// clang-format off
const uint16_t kHigh[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
    0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
// clang-format on

// Windows-1252: the value of a byte 0x80..0x9F (0 when undefined), and the
// byte of a value (-1 when none).
uint32_t Win1252High(uint8_t b) {
    return b >= 0xA0 ? b : kHigh[b - 0x80];
}

int Win1252(uint32_t c) {
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) return static_cast<int>(c);
    for (int i = 0; i < 32; ++i)
        if (kHigh[i] != 0 && kHigh[i] == c) return 0x80 + i;
    return -1;
}

// One conversion into a heap buffer of exactly destSize bytes (ASan watches
// its end).
int Convert(bool toPage, const uint8_t* src, size_t n, size_t destSize, std::string* out) {
    std::unique_ptr<char[]> dest(new char[destSize]);
    std::string in(reinterpret_cast<const char*>(src), n);
    size_t length = n;
    int rc = toPage ? Utf8sToUcs(dest.get(), destSize, &length, in.c_str())
                    : UcsToUtf8s(dest.get(), destSize, &length, in.c_str());
    if (rc == CP_RC_OK) {
        CHECK(length < destSize && dest[length] == '\0');
        if (out != nullptr) out->assign(dest.get(), length);
    } else {
        CHECK(length == n);
    }
    return rc;
}

// Smaller buffers than the exact fit must all give code 32.
void CheckLimits(bool toPage, const uint8_t* src, size_t n, size_t written, uint8_t pick) {
    CHECK(Convert(toPage, src, n, written, nullptr) == CP_RC_BUFFER_TOO_SMALL);
    CHECK(Convert(toPage, src, n, pick % (written + 1), nullptr) == CP_RC_BUFFER_TOO_SMALL);
    CHECK(Convert(toPage, src, n, written + 1, nullptr) == CP_RC_OK);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const uint8_t kEmpty = 0;
    if (data == nullptr) data = &kEmpty;  // a driver may pass null for no bytes
    std::vector<uint32_t> cps;
    const bool valid = RefDecode(data, size, &cps);
    const uint8_t pick = size > 0 ? data[size / 2] : 0;
    const char* const pages[] = {"1208", "0819", "1252"};

    for (const char* page : pages) {
        CHECK(SetProcessCodePageFromEnv(page) == CP_RC_OK);
        const bool utf8 = strcmp(page, "1208") == 0, latin1 = strcmp(page, "0819") == 0;

        // UTF-8 -> page: succeeds exactly for valid, mappable input.
        std::string paged;
        bool mappable = valid;
        std::string expect;
        for (size_t i = 0; mappable && i < cps.size(); ++i) {
            int b = utf8 ? 0 : (latin1 ? (cps[i] <= 0xFF ? int(cps[i]) : -1) : Win1252(cps[i]));
            mappable = b >= 0;
            if (!utf8) expect += static_cast<char>(b);
        }
        if (utf8 && valid) expect.assign(reinterpret_cast<const char*>(data), size);
        int rc = Convert(true, data, size, size + 1, &paged);
        if (!mappable) {
            CHECK(rc == CP_RC_INVALID_INPUT);
            CHECK(Convert(true, data, size, pick % (size + 1), nullptr) == CP_RC_INVALID_INPUT);
        } else {
            CHECK(rc == CP_RC_OK && paged == expect);
            CheckLimits(true, data, size, paged.size(), pick);
            // ... and back: valid input comes back byte for byte.
            std::string back;
            CHECK(Convert(false, reinterpret_cast<const uint8_t*>(paged.data()), paged.size(),
                          size + 1, &back) == CP_RC_OK);
            CHECK(back.size() == size && memcmp(back.data(), data, size) == 0);
            if (!back.empty())
                CheckLimits(false, reinterpret_cast<const uint8_t*>(paged.data()), paged.size(),
                            back.size(), pick);
        }

        // Raw bytes as page text -> UTF-8.
        std::string up;
        rc = Convert(false, data, size, 3 * size + 1, &up);
        if (utf8) {
            CHECK((rc == CP_RC_OK) == valid);
        } else if (latin1) {
            size_t high = 0;
            for (size_t i = 0; i < size; ++i) high += data[i] >= 0x80;
            CHECK(rc == CP_RC_OK && up.size() == size + high);
        } else {
            bool defined = true;
            for (size_t i = 0; i < size; ++i)
                defined = defined && (data[i] < 0x80 || Win1252High(data[i]) != 0);
            CHECK((rc == CP_RC_OK) == defined);
        }
        if (rc == CP_RC_OK) {
            std::string again;
            CHECK(Convert(true, reinterpret_cast<const uint8_t*>(up.data()), up.size(), size + 1,
                          &again) == CP_RC_OK);
            CHECK(again.size() == size && memcmp(again.data(), data, size) == 0);
        }
    }

    // NUL-terminated mode reads up to the first NUL.
    CHECK(SetProcessCodePageFromEnv("1208") == CP_RC_OK);
    std::string text(reinterpret_cast<const char*>(data), size);
    size_t prefix = strlen(text.c_str());
    std::vector<char> dest(size + 1);
    size_t length = static_cast<size_t>(-1);
    int rc = Utf8sToUcs(dest.data(), dest.size(), &length, text.c_str());
    std::vector<uint32_t> ignored;
    const bool prefixValid = RefDecode(data, prefix, &ignored);
    CHECK((rc == CP_RC_OK) == prefixValid);
    if (rc == CP_RC_OK) CHECK(length == prefix && memcmp(dest.data(), data, prefix) == 0);
    return 0;
}
