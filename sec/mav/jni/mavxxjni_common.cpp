// mavxxjni_common.cpp - field access, strings and reporting shared by the
// natives of the Java bridge.
#include "mavxxjni.h"

namespace mavjni {

jclass ClassOf(JNIEnv* env, jobject obj) {
    if (obj == nullptr || Pending(env)) return nullptr;
    return env->GetObjectClass(obj);
}

jfieldID FieldId(JNIEnv* env, jclass cls, const char* name, const char* sig) {
    if (cls == nullptr || Pending(env)) return nullptr;
    jfieldID id = env->GetFieldID(cls, name, sig);
    if (Pending(env)) {
        // NoSuchFieldError: the holder simply lacks the field.
        env->ExceptionClear();
        return nullptr;
    }
    return id;
}

jmethodID MethodId(JNIEnv* env, jclass cls, const char* name, const char* sig) {
    if (cls == nullptr || Pending(env)) return nullptr;
    jmethodID id = env->GetMethodID(cls, name, sig);
    if (Pending(env)) {
        env->ExceptionClear();
        return nullptr;
    }
    return id;
}

jclass FindClass(JNIEnv* env, const char* path) {
    if (Pending(env)) return nullptr;
    jclass cls = env->FindClass(path);
    if (Pending(env)) {
        // NoClassDefFoundError and kin: the class is not there.
        env->ExceptionClear();
        return nullptr;
    }
    return cls;
}

jstring NewString(JNIEnv* env, const char* utf8) {
    if (utf8 == nullptr || Pending(env)) return nullptr;
    jstring s = env->NewStringUTF(utf8);
    if (Pending(env)) return nullptr;  // out of memory: left pending
    return s;
}

bool GetLong(JNIEnv* env, jobject obj, jclass cls, const char* name, jlong* out) {
    jfieldID id = FieldId(env, cls, name, "J");
    if (id == nullptr) return false;
    *out = env->GetLongField(obj, id);
    return true;
}

bool GetInt(JNIEnv* env, jobject obj, jclass cls, const char* name, jint* out) {
    jfieldID id = FieldId(env, cls, name, "I");
    if (id == nullptr) return false;
    *out = env->GetIntField(obj, id);
    return true;
}

bool GetBool(JNIEnv* env, jobject obj, jclass cls, const char* name, jboolean* out) {
    jfieldID id = FieldId(env, cls, name, "Z");
    if (id == nullptr) return false;
    *out = env->GetBooleanField(obj, id);
    return true;
}

jstring GetString(JNIEnv* env, jobject obj, jclass cls, const char* name) {
    jfieldID id = FieldId(env, cls, name, MAVJNI_STR);
    if (id == nullptr) return nullptr;
    return static_cast<jstring>(env->GetObjectField(obj, id));
}

void SetLong(JNIEnv* env, jobject obj, jclass cls, const char* name, jlong value) {
    jfieldID id = FieldId(env, cls, name, "J");
    if (id != nullptr) env->SetLongField(obj, id, value);
}

void SetInt(JNIEnv* env, jobject obj, jclass cls, const char* name, jint value) {
    jfieldID id = FieldId(env, cls, name, "I");
    if (id != nullptr) env->SetIntField(obj, id, value);
}

void SetString(JNIEnv* env, jobject obj, jclass cls, const char* name, const char* utf8) {
    jfieldID id = FieldId(env, cls, name, MAVJNI_STR);
    if (id == nullptr) return;
    LocalRef<jstring> s(env, NewString(env, utf8));
    if (Pending(env)) return;
    env->SetObjectField(obj, id, s.get());
}

void* ReadHandle(JNIEnv* env, jobject holder, jclass cls) {
    jlong h = 0;
    if (!GetLong(env, holder, cls, kHandle, &h)) return nullptr;
    return reinterpret_cast<void*>(static_cast<intptr_t>(h));
}

void SetErrorTexts(JNIEnv* env, jobject holder, jclass cls, const char* name, const char* desc) {
    SetString(env, holder, cls, kLastError, name);
    SetString(env, holder, cls, kLastErrorDescription, desc);
}

void ReportRc(JNIEnv* env, jobject holder, jclass cls, MAV_RC rc) {
    if (rc != MAV_OK) {
        SetErrorTexts(env, holder, cls, MavErrorName(rc), MavErrorDescription(rc));
    } else {
        SetErrorTexts(env, holder, cls, nullptr, nullptr);
    }
}

Utf::Utf(JNIEnv* env, jstring str) : env_(env), str_(str), chars_(nullptr) {
    if (str_ == nullptr || Pending(env_)) return;
    chars_ = env_->GetStringUTFChars(str_, nullptr);
    if (Pending(env_)) chars_ = nullptr;  // out of memory: nothing to release
}

Utf::~Utf() {
    if (chars_ != nullptr) env_->ReleaseStringUTFChars(str_, chars_);
}

bool Texts::Size() {
    try {
        for (int i = 0; i < 4; ++i) {
            present_[i] = sizes_[i] != 0;
            if (present_[i]) bufs_[i].assign(sizes_[i], '\0');
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    sized_ = true;
    return true;
}

void Texts::Finish() {
    for (int i = 0; i < 4; ++i) {
        if (present_[i]) bufs_[i].resize(strnlen(bufs_[i].c_str(), sizes_[i]));
    }
}

void ListAdd(JNIEnv* env, jobject list, jmethodID add, jobject obj) {
    if (obj == nullptr || Pending(env)) return;
    env->CallBooleanMethod(list, add, obj);
    // An exception thrown by add stays pending and ends the native's JNI use;
    // checking here keeps the next call legal.
    (void)Pending(env);
}

}  // namespace mavjni
