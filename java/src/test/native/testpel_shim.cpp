// testpel_shim.cpp - test-only JNI library: lets Java tests script the test
// adapter. It dlopens the same libtestpel.so file that the library loads, so
// both share the adapter's state, and forwards the tpel_* control calls.
// Not part of libkormomav.
#include <dlfcn.h>
#include <jni.h>

#include <cstring>
#include <string>
#include <vector>

#include "testpel_ctl.h"

#define TESTPEL(name) Java_kormo_security_core_server_mav_service_jni_TestPel_##name
#define SHIM_EXPORT extern "C" JNIEXPORT

namespace {

void* adapter = nullptr;

// The control function `name` of the opened adapter (null before open).
template <typename Fn>
Fn Resolve(const char* name) {
    return adapter != nullptr ? reinterpret_cast<Fn>(dlsym(adapter, name)) : nullptr;
}

#define CALL(fn, ...)                                                        \
    do {                                                                     \
        if (auto fp_ = Resolve<decltype(&fn)>(#fn)) return fp_(__VA_ARGS__); \
    } while (0)

// A Java string as std::string; null stays distinguishable.
struct JStr {
    bool null = true;
    std::string text;
    JStr(JNIEnv* env, jstring s) {
        if (s == nullptr) return;
        const char* c = env->GetStringUTFChars(s, nullptr);
        if (c == nullptr) return;
        null = false;
        text = c;
        env->ReleaseStringUTFChars(s, c);
    }
    const char* get() const { return null ? nullptr : text.c_str(); }
};

}  // namespace

SHIM_EXPORT jboolean JNICALL TESTPEL(open)(JNIEnv* env, jclass, jstring path) {
    JStr p(env, path);
    if (p.get() == nullptr) return JNI_FALSE;
    adapter = dlopen(p.get(), RTLD_NOW);
    return adapter != nullptr ? JNI_TRUE : JNI_FALSE;
}

SHIM_EXPORT void JNICALL TESTPEL(reset)(JNIEnv*, jclass) {
    CALL(tpel_reset);
}

SHIM_EXPORT void JNICALL TESTPEL(setAdapterInfo)(JNIEnv* env, jclass, jint id, jint threadModel,
                                                 jint mavVersion, jint major, jint minor,
                                                 jstring vendor, jstring name) {
    JStr v(env, vendor), n(env, name);
    CALL(tpel_set_adapter_info, static_cast<uint32_t>(id), static_cast<uint32_t>(threadModel),
         static_cast<uint16_t>(mavVersion), static_cast<uint16_t>(major),
         static_cast<uint16_t>(minor), v.get(), n.get());
}

SHIM_EXPORT void JNICALL TESTPEL(setNoAdapterInfo)(JNIEnv*, jclass, jboolean on) {
    CALL(tpel_set_no_adapter_info, on ? 1 : 0);
}

SHIM_EXPORT void JNICALL TESTPEL(addParam)(JNIEnv* env, jclass, jboolean initList, jint code,
                                           jint type, jstring value) {
    JStr v(env, value);
    CALL(tpel_add_param, initList ? 1 : 0, code, type, v.get());
}

SHIM_EXPORT void JNICALL TESTPEL(fail)(JNIEnv* env, jclass, jint entry, jint rc, jstring text) {
    JStr t(env, text);
    CALL(tpel_fail, entry, rc, t.get());
}

SHIM_EXPORT jint JNICALL TESTPEL(calls)(JNIEnv*, jclass, jint entry) {
    CALL(tpel_calls, entry);
    return -1;
}

SHIM_EXPORT jint JNICALL TESTPEL(liveInits)(JNIEnv*, jclass) {
    CALL(tpel_live_inits);
    return -1;
}

SHIM_EXPORT void JNICALL TESTPEL(scriptClear)(JNIEnv*, jclass) {
    CALL(tpel_script_clear);
}

SHIM_EXPORT void JNICALL TESTPEL(scriptRc)(JNIEnv*, jclass, jint rc) {
    CALL(tpel_script_rc, rc);
}

SHIM_EXPORT void JNICALL TESTPEL(scriptInfection)(JNIEnv* env, jclass, jstring virus,
                                                  jstring object, jint id, jboolean repairable,
                                                  jlong size, jstring freeText) {
    JStr v(env, virus), o(env, object), f(env, freeText);
    CALL(tpel_script_infection, v.get(), o.get(), static_cast<uint32_t>(id), repairable ? 1 : 0,
         static_cast<size_t>(size), f.get());
}

SHIM_EXPORT void JNICALL TESTPEL(scriptScanError)(JNIEnv* env, jclass, jstring object, jint rc,
                                                  jstring text, jlong size) {
    JStr o(env, object), t(env, text);
    CALL(tpel_script_scan_error, o.get(), rc, t.get(), static_cast<size_t>(size));
}

SHIM_EXPORT void JNICALL TESTPEL(scriptContent)(JNIEnv* env, jclass, jstring object,
                                                jstring extension, jstring contentType,
                                                jstring charSet, jint objectType, jlong size) {
    JStr o(env, object), e(env, extension), c(env, contentType), s(env, charSet);
    CALL(tpel_script_content, o.get(), e.get(), c.get(), s.get(), static_cast<uint32_t>(objectType),
         static_cast<size_t>(size));
}

SHIM_EXPORT void JNICALL TESTPEL(scriptCleaned)(JNIEnv* env, jclass, jbyteArray bytes) {
    jsize n = env->GetArrayLength(bytes);
    std::vector<jbyte> copy(static_cast<size_t>(n) + 1);
    env->GetByteArrayRegion(bytes, 0, n, copy.data());
    if (env->ExceptionCheck()) return;
    CALL(tpel_script_cleaned, copy.data(), static_cast<size_t>(n));
}

SHIM_EXPORT void JNICALL TESTPEL(setEngine)(JNIEnv* env, jclass, jint major, jint minor,
                                            jstring text, jlong date, jlong viruses) {
    JStr t(env, text);
    CALL(tpel_set_engine, static_cast<uint16_t>(major), static_cast<uint16_t>(minor), t.get(),
         static_cast<int64_t>(date), static_cast<uint32_t>(viruses));
}

SHIM_EXPORT void JNICALL TESTPEL(clearDrivers)(JNIEnv*, jclass) {
    CALL(tpel_clear_drivers);
}

SHIM_EXPORT void JNICALL TESTPEL(addDriver)(JNIEnv* env, jclass, jstring name, jint major,
                                            jint minor, jlong date, jlong viruses, jlong variants,
                                            jint driverRc) {
    JStr n(env, name);
    CALL(tpel_add_driver, n.get(), static_cast<uint16_t>(major), static_cast<uint16_t>(minor),
         static_cast<int64_t>(date), static_cast<uint32_t>(viruses),
         static_cast<uint32_t>(variants), driverRc);
}

// The last scan request as {scan code, action code, job ID, had bytes, length,
// had scan info pointer, file existed}; null when no scan happened yet.
SHIM_EXPORT jlongArray JNICALL TESTPEL(lastScan)(JNIEnv* env, jclass) {
    auto f = Resolve<decltype(&tpel_last_scan)>("tpel_last_scan");
    TPEL_LAST_SCAN last;
    memset(&last, 0, sizeof last);
    if (f == nullptr || f(&last) == 0) return nullptr;
    jlong v[7] = {last.uiScanCode,
                  last.uiActionCode,
                  last.uiJobID,
                  last.bHadBytes,
                  static_cast<jlong>(last.lLength),
                  last.bHadScanInfoPtr,
                  last.bFileExisted};
    jlongArray out = env->NewLongArray(7);
    if (out == nullptr) return nullptr;
    env->SetLongArrayRegion(out, 0, 7, v);
    return out;
}

// The object name of the last scan request, or null.
SHIM_EXPORT jstring JNICALL TESTPEL(lastObjectName)(JNIEnv* env, jclass) {
    auto f = Resolve<decltype(&tpel_last_scan)>("tpel_last_scan");
    TPEL_LAST_SCAN last;
    memset(&last, 0, sizeof last);
    if (f == nullptr || f(&last) == 0 || !last.bHadObjectName) return nullptr;
    return env->NewStringUTF(last.szObjectName);
}
