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

#include "mavxxi.h"

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

// Records of the object a handle value stands for (read without lock; Java
// must not scan and read results of one handle from two threads).
// The engine record: an instance's own, else the handle's shared one.
PEL_INIT* EngineOf(void* hdl);
// The result of the last scan (instances and profile instances only).
PEL_SCANINFO* ScanInfoOf(void* hdl);

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
#define MAVJNI_NAME MavJniMethodName(__func__)
#define MAVJNI_TRC(...) MAV_TRC(MAV_TRC_JNI, __VA_ARGS__)
#define MAVJNI_EXIT(rc) \
    MAV_TRC(MAV_TRC_JNI, "<<  end  << %s(MAV_RC==%s) \n", MAVJNI_NAME, MavErrorName(rc))

#endif
