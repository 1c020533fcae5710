// krnutf8.cpp - conversion between UTF-8 and the process code page.
//
// Strict decoding after the well-formed byte sequences of Unicode: no
// overlong forms, no surrogates, nothing above U+10FFFF, no stray or missing
// continuation bytes. When the output does not fit, the rest of the input is
// still checked, so CP_RC_BUFFER_TOO_SMALL means a larger buffer will succeed.
#include <stdint.h>
#include <string.h>

#include "krncp.h"
#include "krncpi.h"

namespace krn {
namespace {

constexpr uint64_t kHighBits = 0x8080808080808080ull;

// Windows-1252 bytes 0x80..0x9F; 0 marks the five undefined bytes.
// clang-format off
constexpr uint16_t kWin1252High[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
    0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
// clang-format on

// Bounded output: never writes past cap bytes. After the first write that
// does not fit it writes nothing more and only records the overflow.
class Sink {
  public:
    Sink(unsigned char* d, size_t cap) : d_(d), cap_(cap) {}
    void Put(unsigned char b) {
        if (pos_ < cap_) {
            d_[pos_++] = b;
        } else {
            Full();
        }
    }
    void PutN(const unsigned char* s, size_t n) {
        if (cap_ - pos_ >= n) {
            memcpy(d_ + pos_, s, n);
            pos_ += n;
        } else {
            Full();
        }
    }
    void PutCodePoint(uint32_t c) {
        unsigned char b[4];
        size_t n;
        if (c < 0x80) {
            b[0] = static_cast<unsigned char>(c);
            n = 1;
        } else if (c < 0x800) {
            b[0] = static_cast<unsigned char>(0xC0 | (c >> 6));
            b[1] = static_cast<unsigned char>(0x80 | (c & 0x3F));
            n = 2;
        } else if (c < 0x10000) {
            b[0] = static_cast<unsigned char>(0xE0 | (c >> 12));
            b[1] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
            b[2] = static_cast<unsigned char>(0x80 | (c & 0x3F));
            n = 3;
        } else {
            b[0] = static_cast<unsigned char>(0xF0 | (c >> 18));
            b[1] = static_cast<unsigned char>(0x80 | ((c >> 12) & 0x3F));
            b[2] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
            b[3] = static_cast<unsigned char>(0x80 | (c & 0x3F));
            n = 4;
        }
        PutN(b, n);
    }
    bool Overflowed() const { return over_; }
    size_t Length() const { return pos_; }

  private:
    void Full() {
        over_ = true;
        cap_ = pos_;
    }
    unsigned char* d_;
    size_t cap_;
    size_t pos_ = 0;
    bool over_ = false;
};

// Copies the ASCII run at s[*i] in blocks of eight; stops at the first byte
// >= 0x80 or fewer than eight bytes before the end.
inline void AsciiBlocks(const unsigned char* s, size_t n, size_t* i, Sink* out) {
    size_t k = *i;
    while (n - k >= 8) {
        uint64_t w;
        memcpy(&w, s + k, 8);
        if ((w & kHighBits) != 0) break;
        out->PutN(s + k, 8);
        k += 8;
    }
    *i = k;
}

// Length of the well-formed sequence at s whose lead byte is >= 0x80, with
// its value in *c; 0 when the sequence is ill-formed or truncated.
inline size_t Decode(const unsigned char* s, size_t avail, uint32_t* c) {
    const unsigned char b0 = s[0];
    if (b0 < 0xC2) return 0;  // stray continuation, or overlong C0/C1 lead
    if (b0 < 0xE0) {
        if (avail < 2 || (s[1] & 0xC0) != 0x80) return 0;
        *c = (uint32_t(b0 & 0x1F) << 6) | (s[1] & 0x3F);
        return 2;
    }
    if (b0 < 0xF0) {
        // E0: A0..BF (no overlong forms), ED: 80..9F (no surrogates).
        const unsigned char lo = b0 == 0xE0 ? 0xA0 : 0x80;
        const unsigned char hi = b0 == 0xED ? 0x9F : 0xBF;
        if (avail < 2 || s[1] < lo || s[1] > hi) return 0;
        if (avail < 3 || (s[2] & 0xC0) != 0x80) return 0;
        *c = (uint32_t(b0 & 0x0F) << 12) | (uint32_t(s[1] & 0x3F) << 6) | (s[2] & 0x3F);
        return 3;
    }
    if (b0 < 0xF5) {
        // F0: 90..BF (no overlong forms), F4: 80..8F (nothing above U+10FFFF).
        const unsigned char lo = b0 == 0xF0 ? 0x90 : 0x80;
        const unsigned char hi = b0 == 0xF4 ? 0x8F : 0xBF;
        if (avail < 2 || s[1] < lo || s[1] > hi) return 0;
        if (avail < 3 || (s[2] & 0xC0) != 0x80) return 0;
        if (avail < 4 || (s[3] & 0xC0) != 0x80) return 0;
        *c = (uint32_t(b0 & 0x07) << 18) | (uint32_t(s[1] & 0x3F) << 12) |
             (uint32_t(s[2] & 0x3F) << 6) | (s[3] & 0x3F);
        return 4;
    }
    return 0;
}

// The Windows-1252 byte of c, or -1 when the page has none.
inline int Win1252Byte(uint32_t c) {
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) return static_cast<int>(c);
    for (int i = 0; i < 32; ++i) {
        if (kWin1252High[i] != 0 && kWin1252High[i] == c) return 0x80 + i;
    }
    return -1;
}

int FromUtf8(CodePage cp, const unsigned char* s, size_t n, Sink* out) {
    size_t i = 0;
    while (i < n) {
        AsciiBlocks(s, n, &i, out);
        // At most one block byte by byte, then back to the block loop.
        const size_t stop = n - i > 8 ? i + 8 : n;
        while (i < stop && s[i] < 0x80) out->Put(s[i++]);
        if (i >= n || s[i] < 0x80) continue;
        uint32_t c = 0;
        size_t len = Decode(s + i, n - i, &c);
        if (len == 0) return CP_RC_INVALID_INPUT;
        if (cp == kCpUtf8) {
            out->PutN(s + i, len);
        } else {
            int b = cp == kCpLatin1 ? (c <= 0xFF ? static_cast<int>(c) : -1) : Win1252Byte(c);
            if (b < 0) return CP_RC_INVALID_INPUT;
            out->Put(static_cast<unsigned char>(b));
        }
        i += len;
    }
    return out->Overflowed() ? CP_RC_BUFFER_TOO_SMALL : CP_RC_OK;
}

int ToUtf8(CodePage cp, const unsigned char* s, size_t n, Sink* out) {
    if (cp == kCpUtf8) return FromUtf8(kCpUtf8, s, n, out);
    size_t i = 0;
    while (i < n) {
        AsciiBlocks(s, n, &i, out);
        const size_t stop = n - i > 8 ? i + 8 : n;
        for (; i < stop; ++i) {
            const unsigned char b = s[i];
            uint32_t c = b;
            if (cp == kCpWin1252 && b >= 0x80 && b < 0xA0) {
                c = kWin1252High[b - 0x80];
                if (c == 0) return CP_RC_INVALID_INPUT;
            }
            out->PutCodePoint(c);
        }
    }
    return out->Overflowed() ? CP_RC_BUFFER_TOO_SMALL : CP_RC_OK;
}

using Converter = int (*)(CodePage, const unsigned char*, size_t, Sink*);

int Convert(Converter conv, char* dest, size_t destSize, size_t* length, const char* src) {
    if (dest == nullptr || length == nullptr || src == nullptr) return CP_RC_NULL_PARAM;
    const size_t n = *length == static_cast<size_t>(-1) ? strlen(src) : *length;
    // One byte is kept for the terminating NUL.
    Sink out(reinterpret_cast<unsigned char*>(dest), destSize > 0 ? destSize - 1 : 0);
    int rc = conv(CurrentCodePage(), reinterpret_cast<const unsigned char*>(src), n, &out);
    if (rc == CP_RC_OK && destSize == 0) rc = CP_RC_BUFFER_TOO_SMALL;
    if (rc != CP_RC_OK) {
        if (destSize > 0) dest[0] = '\0';
        return rc;
    }
    dest[out.Length()] = '\0';
    *length = out.Length();
    return CP_RC_OK;
}

}  // namespace
}  // namespace krn

extern "C" {

int Utf8sToUcs(char* dest, size_t destSize, size_t* length, const char* src) {
    return krn::Convert(krn::FromUtf8, dest, destSize, length, src);
}

int UcsToUtf8s(char* dest, size_t destSize, size_t* length, const char* src) {
    return krn::Convert(krn::ToUtf8, dest, destSize, length, src);
}

}  // extern "C"
