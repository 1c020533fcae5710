// mavxxjni_param.cpp - parameter natives of the Java bridge: list, read and
// set adapter parameters as Parameter objects, reset to defaults.
#include <cstdio>
#include <string>

#include "mavxxjni.h"

using namespace mavjni;

namespace {

constexpr const char* kParameterClass = "kormo/security/core/server/mav/api/Parameter";
constexpr const char* kParameterInit = "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)V";
constexpr const char* kListAdd = MAVJNI_LIST_ADD;
// Fields of a parameter object.
constexpr const char* kParameterName = "m_ParameterName";
constexpr const char* kParameterType = "m_ParameterType";
constexpr const char* kParameterValue = "m_ParameterValue";

// The three texts of a parameter entry. The value is only replaced for types
// that have a value text, so a BYTE, FLOAT, DOUBLE or OBJECT entry keeps the
// value of the entry before it (callers that reuse one ParamTexts see that).
struct ParamTexts {
    const char* name = nullptr;
    const char* type = nullptr;
    std::string value;
    bool hasValue = false;

    void From(const PEL_PARAM& p) {
        name = MavIXGetPelParamName(p.tCode);
        type = MavParamTypeName(p.tType);
        switch (p.tType) {
            case VS_TYPE_SHORT:
            case VS_TYPE_INT:
            case VS_TYPE_LONG:
            case VS_TYPE_TIME_T:
            case VS_TYPE_SIZE_T: {
                long number = static_cast<long>(reinterpret_cast<intptr_t>(p.pvValue));
                char buf[256];
                if (number != 0) {
                    snprintf(buf, sizeof buf, "%ld", number);
                } else {
                    snprintf(buf, sizeof buf, "0");
                }
                value = buf;
                hasValue = true;
                break;
            }
            case VS_TYPE_CHAR:
                value = p.pvValue != nullptr ? static_cast<const char*>(p.pvValue) : "";
                hasValue = true;
                break;
            case VS_TYPE_BOOL:
                value = p.pvValue != nullptr ? "true" : "false";
                hasValue = true;
                break;
            default:
                break;
        }
    }
    const char* Value() const { return hasValue ? value.c_str() : nullptr; }
};

}  // namespace

MAVJNI_EXPORT jint JNICALL MAVGATE(getParameters)(JNIEnv* env, jobject self, jobject holder,
                                                  jobject list) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), static_cast<void*>(list));
    LocalRef<jclass> paramCls(env, FindClass(env, kParameterClass));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    void* hdl = ReadHandle(env, holder, cls.get());
    LocalRef<jclass> listCls(env, ClassOf(env, list));
    jmethodID add = MethodId(env, listCls.get(), "add", kListAdd);
    jmethodID init = MethodId(env, paramCls.get(), "<init>", kParameterInit);
    if (list == nullptr || hdl == nullptr || add == nullptr || init == nullptr) {
        ReportRc(env, holder, cls.get(), MAV_E_NULL_PARAM);
        MAVJNI_EXIT(MAV_E_NULL_PARAM);
        return MAV_E_NULL_PARAM;
    }
    jint count = 0;
    GetInt(env, holder, cls.get(), kNumberOfParameters, &count);
    ParamTexts texts;  // cleared once: the value carries over (see ParamTexts)
    for (jint i = 0; i < count && !Pending(env); ++i) {
        // Copied out under the handle lock: a parameter change on another
        // thread replaces the entry's text.
        PEL_PARAM* entry = nullptr;
        MAV_HDL_REC* owner = MavILockOwner(hdl);
        MAV_RC rc = owner == nullptr
                        ? MAV_E_INVALID_HANDLE
                        : MavIGetPelParameterByIndex(hdl, static_cast<uint32_t>(i), &entry);
        if (rc == MAV_OK) texts.From(*entry);
        if (owner != nullptr) MavIUnlockHdl(owner);
        if (rc != MAV_OK) {
            ReportRc(env, holder, cls.get(), rc);
            MAVJNI_EXIT(rc);
            return rc;
        }
        LocalRef<jstring> name(env, NewString(env, texts.name));
        LocalRef<jstring> type(env, NewString(env, texts.type));
        LocalRef<jstring> value(env, NewString(env, texts.Value()));
        if (Pending(env)) break;
        LocalRef<jobject> param(
            env, env->NewObject(paramCls.get(), init, name.get(), type.get(), value.get()));
        if (Pending(env)) break;
        ListAdd(env, list, add, param.get());
    }
    ReportRc(env, holder, cls.get(), MAV_OK);
    MAVJNI_EXIT(MAV_OK);
    return MAV_OK;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(getParameter)(JNIEnv* env, jobject self, jobject holder,
                                                 jobject parameter) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), static_cast<void*>(parameter));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    void* hdl = ReadHandle(env, holder, cls.get());
    MAV_RC rc = MAV_OK;
    if (parameter == nullptr || hdl == nullptr) {
        rc = MAV_E_NULL_PARAM;
    } else {
        LocalRef<jclass> paramCls(env, ClassOf(env, parameter));
        LocalRef<jstring> nameStr(env, GetString(env, parameter, paramCls.get(), kParameterName));
        LocalRef<jstring> typeStr(env, GetString(env, parameter, paramCls.get(), kParameterType));
        PEL_PARAM* entry = nullptr;
        ParamTexts texts;
        {
            Utf name(env, nameStr.get());
            Utf type(env, typeStr.get());
            // Read and copied under the handle lock (see getParameters).
            MAV_HDL_REC* owner = name.get() != nullptr ? MavILockOwner(hdl) : nullptr;
            if (name.get() == nullptr) {
                rc = MAV_E_NULL_PARAM;
            } else if (owner == nullptr) {
                rc = MAV_E_INVALID_HANDLE;
            } else {
                rc = MavIGetPelParameter(hdl, name.get(), 0, &entry);
                // "BOOL" (0) passes for every parameter; an unknown or missing
                // type text (-1) fails.
                int32_t wanted = MavParamType(type.get());
                if (rc == MAV_OK && wanted != VS_TYPE_BOOL && wanted != entry->tType) {
                    rc = MAV_E_INVALID_PARAM_TYPE;
                }
                if (rc == MAV_OK) texts.From(*entry);
            }
            if (owner != nullptr) MavIUnlockHdl(owner);
        }
        if (rc == MAV_OK) {
            SetString(env, parameter, paramCls.get(), kParameterName, texts.name);
            SetString(env, parameter, paramCls.get(), kParameterType, texts.type);
            SetString(env, parameter, paramCls.get(), kParameterValue, texts.Value());
        }
    }
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(setParameter)(JNIEnv* env, jobject self, jobject holder,
                                                 jobject parameter) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), static_cast<void*>(parameter));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    MAV_RC rc;
    if (parameter == nullptr) {
        rc = MAV_E_NULL_PARAM;
    } else {
        LocalRef<jclass> paramCls(env, ClassOf(env, parameter));
        LocalRef<jstring> nameStr(env, GetString(env, parameter, paramCls.get(), kParameterName));
        LocalRef<jstring> typeStr(env, GetString(env, parameter, paramCls.get(), kParameterType));
        LocalRef<jstring> valueStr(env, GetString(env, parameter, paramCls.get(), kParameterValue));
        Utf name(env, nameStr.get());
        Utf type(env, typeStr.get());
        Utf value(env, valueStr.get());
        if (Pending(env)) return MAV_E_NO_SPACE;  // out of memory, pending
        int32_t typeCode = MavParamType(type.get());
        void* hdl = ReadHandle(env, holder, cls.get());
        rc = hdl == nullptr ? MAV_E_NULL_PARAM
                            : MavSetParameter(hdl, name.get(), typeCode, value.get());
    }
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(setDefaultConfig)(JNIEnv* env, jobject self, jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    void* hdl = ReadHandle(env, holder, cls.get());
    MAV_RC rc = MavSetDefaultConfig(hdl);
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}
