// testpel_shim.cpp - test-only JNI library: lets Java tests script the test
// adapter. It dlopens the same libtestpel.so file that the library loads, so
// both share the adapter's state, and forwards the tpel_* control calls.
// Not part of libkormomav.
#include <dlfcn.h>
#include <jni.h>

#include <cstdio>
#include <string>
#include <vector>

#include "testpel_ctl.h"

#define TESTPEL(type, name) \
    extern "C" JNIEXPORT type JNICALL Java_kormo_security_core_server_mav_service_jni_TestPel_##name
// The control function fn of the adapter (TestPel opens it before any call).
#define CTL(fn) reinterpret_cast<decltype(&fn)>(dlsym(adapter, #fn))

namespace {

void* adapter = nullptr;

// A Java string as std::string; null stays null.
struct JStr {
    bool null = true;
    std::string text;
    JStr(JNIEnv* env, jstring s) {
        const char* c = s != nullptr ? env->GetStringUTFChars(s, nullptr) : nullptr;
        if (c == nullptr) return;
        null = false;
        text = c;
        env->ReleaseStringUTFChars(s, c);
    }
    const char* get() const { return null ? nullptr : text.c_str(); }
};

}  // namespace

TESTPEL(jboolean, open)(JNIEnv* env, jclass, jstring path) {
    adapter = dlopen(JStr(env, path).get(), RTLD_NOW);
    return adapter != nullptr ? JNI_TRUE : JNI_FALSE;
}

TESTPEL(void, reset)(JNIEnv*, jclass) { CTL(tpel_reset)(); }

TESTPEL(void, addParam)(JNIEnv* env, jclass, jboolean init, jint code, jint type, jstring value) {
    CTL(tpel_add_param)(init ? 1 : 0, code, type, JStr(env, value).get());
}

TESTPEL(void, fail)(JNIEnv* env, jclass, jint entry, jint rc, jstring text) {
    CTL(tpel_fail)(entry, rc, JStr(env, text).get());
}

TESTPEL(jint, calls)(JNIEnv*, jclass, jint entry) { return CTL(tpel_calls)(entry); }

TESTPEL(jint, liveInits)(JNIEnv*, jclass) { return CTL(tpel_live_inits)(); }

TESTPEL(void, scriptRc)(JNIEnv*, jclass, jint rc) { CTL(tpel_script_rc)(rc); }

TESTPEL(void, scriptInfection)(JNIEnv* env, jclass, jstring virus, jstring object, jint id,
                               jboolean repairable, jlong size, jstring text) {
    CTL(tpel_script_infection)(JStr(env, virus).get(), JStr(env, object).get(),
                               static_cast<uint32_t>(id), repairable ? 1 : 0,
                               static_cast<size_t>(size), JStr(env, text).get());
}

TESTPEL(void, scriptScanError)(JNIEnv* env, jclass, jstring object, jint rc, jstring text,
                               jlong size) {
    CTL(tpel_script_scan_error)(JStr(env, object).get(), rc, JStr(env, text).get(),
                                static_cast<size_t>(size));
}

TESTPEL(void, scriptCleaned)(JNIEnv* env, jclass, jbyteArray bytes) {
    std::vector<jbyte> copy(static_cast<size_t>(env->GetArrayLength(bytes)) + 1);
    env->GetByteArrayRegion(bytes, 0, static_cast<jsize>(copy.size() - 1), copy.data());
    CTL(tpel_script_cleaned)(copy.data(), copy.size() - 1);
}

// The last scan request as "scan-code action job had-bytes length had-report
// file-existed name" (name "null" when none was passed).
TESTPEL(jstring, lastScan)(JNIEnv* env, jclass) {
    TPEL_LAST_SCAN last = {};
    if (CTL(tpel_last_scan)(&last) == 0) return nullptr;
    std::vector<char> text(sizeof last.szObjectName + 128);
    snprintf(text.data(), text.size(), "%u %u %u %d %zu %d %d %s", last.uiScanCode,
             last.uiActionCode, last.uiJobID, last.bHadBytes, last.lLength, last.bHadScanInfoPtr,
             last.bFileExisted, last.bHadObjectName ? last.szObjectName : "null");
    return env->NewStringUTF(text.data());
}
