// krncp.cpp - the process code page.
#include "krncp.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <initializer_list>

#include "krncpi.h"

namespace krn {
namespace {

constexpr int kUnset = -1;
std::atomic<int> cpCurrent{kUnset};

const char* const kCpNames[] = {"1208", "0819", "1252"};

// Code set of a locale value such as "de_DE.ISO-8859-1@euro" (the whole
// value when it has no '.'), lower case, without '-' and '_'.
void NormalisedCodeSet(const char* locale, char* out, size_t size) {
    const char* dot = strchr(locale, '.');
    const char* p = dot != nullptr ? dot + 1 : locale;
    size_t n = 0;
    for (; *p != '\0' && *p != '@' && n + 1 < size; ++p) {
        char c = *p;
        if (c == '-' || c == '_') continue;
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        out[n++] = c;
    }
    out[n] = '\0';
}

// LC_ALL, then LC_CTYPE, then LANG, the first that is set and not empty.
// Anything not recognised is UTF-8.
CodePage CodePageFromEnv() {
    const char* value = nullptr;
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        value = getenv(name);
        if (value != nullptr && *value != '\0') break;
        value = nullptr;
    }
    if (value == nullptr) return kCpUtf8;
    char set[32];
    NormalisedCodeSet(value, set, sizeof set);
    if (strcmp(set, "iso88591") == 0 || strcmp(set, "latin1") == 0) return kCpLatin1;
    if (strcmp(set, "cp1252") == 0 || strcmp(set, "windows1252") == 0) return kCpWin1252;
    return kCpUtf8;
}

}  // namespace

CodePage CurrentCodePage() {
    int cp = cpCurrent.load(std::memory_order_relaxed);
    if (cp == kUnset) {
        int fresh = CodePageFromEnv();
        // Another thread may have set one meanwhile; its choice stands.
        if (!cpCurrent.compare_exchange_strong(cp, fresh, std::memory_order_relaxed))
            return CodePage(cp);
        cp = fresh;
    }
    return CodePage(cp);
}

}  // namespace krn

extern "C" {

int rscpInit(int defaultCp) {
    int cp;
    switch (defaultCp) {
        case -1:
            cp = krn::CodePageFromEnv();
            break;
        case 1208:
            cp = krn::kCpUtf8;
            break;
        case 819:
            cp = krn::kCpLatin1;
            break;
        case 1252:
            cp = krn::kCpWin1252;
            break;
        default:
            return CP_RC_UNKNOWN_CODEPAGE;
    }
    // Only the first start (or an earlier explicit setting) decides.
    int unset = krn::kUnset;
    krn::cpCurrent.compare_exchange_strong(unset, cp, std::memory_order_relaxed);
    return CP_RC_OK;
}

const char* GetProcessCodePageU(void) {
    return krn::kCpNames[krn::CurrentCodePage()];
}

int KrnCodePageIsUtf8(void) {
    int cp = krn::cpCurrent.load(std::memory_order_relaxed);
    if (__builtin_expect(cp == krn::kUnset, 0)) cp = krn::CurrentCodePage();
    return cp == krn::kCpUtf8;
}

int SetProcessCodePageFromEnv(const char* codePage) {
    int cp = -1;
    if (codePage == nullptr) {
        cp = krn::CodePageFromEnv();
    } else {
        for (int i = 0; i < 3; ++i) {
            if (strcmp(codePage, krn::kCpNames[i]) == 0) cp = i;
        }
        if (cp < 0) return CP_RC_UNKNOWN_CODEPAGE;
    }
    krn::cpCurrent.store(cp, std::memory_order_relaxed);
    return CP_RC_OK;
}

}  // extern "C"
