// mavxxjni.h - shared helpers of the Java bridge (natives of Mavgate).
//
// The bridge is stateless: every native finds the holder's class with
// GetObjectClass and looks every field up by name and descriptor on each call;
// a missing field is skipped. Two rules hold throughout:
//  - Failed lookups (GetFieldID, GetMethodID, FindClass) clear the error they
//    raise, so a holder without a field behaves as "field absent".
//  - Any other Java exception (out of memory, an exception thrown by a Java
//    constructor or list) ends all further JNI use of the native, except the
//    release calls JNI allows; the native returns its code and the exception
//    surfaces in Java. Every helper below is a no-op while one is pending.
// Local references made inside loops are deleted per entry.
#ifndef MAVXXJNI_H
#define MAVXXJNI_H

#include <cstring>

#include <jni.h>

#include <string>

#include "kormomav.h"
#include "kormopel.h"

#define MAVJNI_EXPORT extern "C" JNIEXPORT

// Type descriptors of the holder fields.
#define MAVJNI_STR "Ljava/lang/String;"
// Exported name of a native of Mavgate.
#define MAVGATE(name) Java_kormo_security_core_server_mav_service_jni_Mavgate_##name
// Descriptor of the add method of result lists.
#define MAVJNI_LIST_ADD "(Ljava/lang/Object;)Z"

namespace mavjni {

// Field names of the handle holder.
constexpr const char* kHandle = "m_Handle";
constexpr const char* kLastError = "m_lastError";
constexpr const char* kLastErrorDescription = "m_lastErrorDescription";
constexpr const char* kRc = "m_rc";
constexpr const char* kNumberOfParameters = "m_NumberOfParameters";
constexpr const char* kVendorPelName = "m_VendorPelName";
constexpr const char* kVendorInfoText = "m_VendorInfoText";
constexpr const char* kMajPelVersion = "m_MajPelVersion";
constexpr const char* kMinPelVersion = "m_MinPelVersion";
constexpr const char* kCleanedLength = "m_CleanedLength";

// A local reference deleted when it goes out of scope.
template <typename T>
class LocalRef {
  public:
    LocalRef(JNIEnv* env, T ref) : env_(env), ref_(ref) {}
    ~LocalRef() {
        if (ref_ != nullptr) env_->DeleteLocalRef(ref_);
    }
    LocalRef(const LocalRef&) = delete;
    LocalRef& operator=(const LocalRef&) = delete;
    T get() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }

  private:
    JNIEnv* env_;
    T ref_;
};

// True while a Java exception is pending.
inline bool Pending(JNIEnv* env) {
    return env->ExceptionCheck() == JNI_TRUE;
}

// Class of obj (null for a null object or with an exception pending).
jclass ClassOf(JNIEnv* env, jobject obj);
// Lookups; null when missing (the lookup's own error is cleared).
jfieldID FieldId(JNIEnv* env, jclass cls, const char* name, const char* sig);
jmethodID MethodId(JNIEnv* env, jclass cls, const char* name, const char* sig);
jclass FindClass(JNIEnv* env, const char* path);

// A Java string from UTF-8 text; null for null text or on failure.
jstring NewString(JNIEnv* env, const char* utf8);

// Field access by name; a missing field (or class) is skipped. The getters
// return whether the field was found.
bool GetLong(JNIEnv* env, jobject obj, jclass cls, const char* name, jlong* out);
bool GetInt(JNIEnv* env, jobject obj, jclass cls, const char* name, jint* out);
bool GetBool(JNIEnv* env, jobject obj, jclass cls, const char* name, jboolean* out);
// A String field's value as a new local reference (null when absent or null).
jstring GetString(JNIEnv* env, jobject obj, jclass cls, const char* name);
void SetLong(JNIEnv* env, jobject obj, jclass cls, const char* name, jlong value);
void SetInt(JNIEnv* env, jobject obj, jclass cls, const char* name, jint value);
void SetString(JNIEnv* env, jobject obj, jclass cls, const char* name, const char* utf8);

// The holder's m_Handle; 0 when class or field is missing.
void* ReadHandle(JNIEnv* env, jobject holder, jclass cls);
// Both error fields set to the given texts (null clears).
void SetErrorTexts(JNIEnv* env, jobject holder, jclass cls, const char* name, const char* desc);
// Common reporting: name and description for a non-zero code, null for 0.
void ReportRc(JNIEnv* env, jobject holder, jclass cls, MAV_RC rc);

// Modified UTF-8 of a Java string, released at scope end; null for null.
class Utf {
  public:
    Utf(JNIEnv* env, jstring str);
    ~Utf();
    Utf(const Utf&) = delete;
    Utf& operator=(const Utf&) = delete;
    const char* get() const { return chars_; }

  private:
    JNIEnv* env_;
    jstring str_;
    const char* chars_;
};

// Up to four texts of one public call that fills caller buffers: the call is
// made once with null buffers to learn the sizes, then with buffers. A text
// the call gives as null (size 0) stays null.
class Texts {
  public:
    // The buffer and length arguments of slot i for the current pass.
    KORMO_CHAR* Buf(int i) { return present_[i] ? &bufs_[i][0] : nullptr; }
    size_t* Len(int i) { return sized_ && !present_[i] ? nullptr : &sizes_[i]; }
    // Between the passes: makes the buffers; false when out of memory.
    bool Size();
    // After the second pass: keeps what it wrote.
    void Finish();
    // The text of slot i, null when it has none.
    const char* Get(int i) const { return present_[i] ? bufs_[i].c_str() : nullptr; }

  private:
    bool sized_ = false;
    size_t sizes_[4] = {0, 0, 0, 0};
    bool present_[4] = {false, false, false, false};
    std::string bufs_[4];
};

// Runs call(texts) twice as Texts describes; the code of the failing or the
// second pass.
template <typename Call>
MAV_RC WithTexts(Texts& texts, Call call) {
    MAV_RC rc = call(texts);
    if (rc != MAV_OK) return rc;
    if (!texts.Size()) return MAV_E_NO_SPACE;
    rc = call(texts);
    if (rc == MAV_OK) texts.Finish();
    return rc;
}

// Adds obj to a list through its add method (result ignored).
void ListAdd(JNIEnv* env, jobject list, jmethodID add, jobject obj);

}  // namespace mavjni

// Trace shorthands of the bridge (level bit 0x4000).
// The Java method name of a native (its JNI name without the class prefix),
// as the entry and exit traces show it.
inline const char* MavJniMethodName(const char* jniName) {
    static const char kPrefix[] = "Java_kormo_security_core_server_mav_service_jni_Mavgate_";
    return std::strncmp(jniName, kPrefix, sizeof kPrefix - 1) == 0 ? jniName + sizeof kPrefix - 1
                                                                    : jniName;
}
// True when a line of this level bit is written (error lines whenever the
// level is non-zero), as the library's trace writer decides it.
inline bool MavJniTraceOn(uint32_t bit) {
    uint32_t l = MavGetTraceLevel();
    return (l & bit) != 0 || ((bit & MAV_TRC_ERROR) != 0 && l != 0);
}
#define MAVJNI_NAME MavJniMethodName(__func__)
#define MAVJNI_TRC_AT(bit, ...)                                                                \
    do {                                                                                       \
        if (MavJniTraceOn(bit)) MavPPrintTrace((bit), __FILE__, __func__, __LINE__, __VA_ARGS__); \
    } while (0)
#define MAVJNI_TRC(...) MAVJNI_TRC_AT(MAV_TRC_JNI, __VA_ARGS__)
#define MAVJNI_TRC_E(...) MAVJNI_TRC_AT(MAV_TRC_ERROR, __VA_ARGS__)
#define MAVJNI_TRC_W(...) MAVJNI_TRC_AT(MAV_TRC_WARNING, __VA_ARGS__)
#define MAVJNI_EXIT(rc) \
    MAVJNI_TRC("<<  end  << %s(MAV_RC==%s) \n", MAVJNI_NAME, MavErrorName(rc))

#endif
