// mavxxjni_param.cpp - parameter natives of the Java bridge: list, read and
// set adapter parameters as Parameter objects, reset to defaults.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

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

// Reads a parameter's value text with read(buffer, &length) (MavGetParameter
// or MavEnumParameters), which also stores the parameter's type in *type. The
// library gives no size for a value: a buffer shorter than a text value reads
// as empty (or MAV_E_BUFFER_TOO_SHORT), so an empty text is asked again with
// a buffer of 1 MiB, the largest value read.
template <typename Read>
MAV_RC ReadValue(Read read, const int32_t* type, std::string* value) {
    size_t size = 4096;
    for (;;) {
        std::vector<KORMO_CHAR> buf(size, '\0');
        size_t length = size;
        MAV_RC rc = read(buf.data(), &length);
        bool retry = rc == MAV_E_BUFFER_TOO_SHORT ||
                     (rc == MAV_OK && length == 0 && *type == VS_TYPE_CHAR);
        if (!retry || size >= (size_t{1} << 20)) {
            if (rc == MAV_E_BUFFER_TOO_SHORT) return rc;
            value->assign(buf.data(), strnlen(buf.data(), std::min(length, size)));
            return rc;
        }
        size = size_t{1} << 20;
    }
}

// The three texts of a parameter entry. The value is only replaced for types
// that have a value text, so a BYTE, FLOAT, DOUBLE or OBJECT entry keeps the
// value of the entry before it (callers that reuse one ParamTexts see that).
struct ParamTexts {
    std::string name;
    const char* type = nullptr;
    std::string value;
    bool hasValue = false;

    // From the code, type and value text the library gives for an entry.
    void From(int32_t code, int32_t tType, const std::string& text) {
        const char* n = MavParamCodeName(code);
        name = n != nullptr ? n : "";
        type = MavParamTypeName(tType);
        switch (tType) {
            case VS_TYPE_SHORT:
            case VS_TYPE_INT:
            case VS_TYPE_LONG:
            case VS_TYPE_TIME_T:
            case VS_TYPE_SIZE_T:
                value = text.empty() ? "0" : text;
                hasValue = true;
                break;
            case VS_TYPE_CHAR:
                value = text;
                hasValue = true;
                break;
            case VS_TYPE_BOOL:
                value = text == "1" ? "true" : "false";
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
        char name[256];
        size_t nameLength = sizeof name;
        int32_t type = -1;
        std::string text;
        MAV_RC rc = ReadValue(
            [&](KORMO_CHAR* buf, size_t* length) {
                nameLength = sizeof name;
                return MavEnumParameters(hdl, static_cast<uint32_t>(i), name, &nameLength, &type,
                                         buf, length);
            },
            &type, &text);
        if (rc == MAV_OK) texts.From(MavParamCode(name), type, text);
        if (rc != MAV_OK) {
            ReportRc(env, holder, cls.get(), rc);
            MAVJNI_EXIT(rc);
            return rc;
        }
        LocalRef<jstring> jname(env, NewString(env, texts.name.c_str()));
        LocalRef<jstring> jtype(env, NewString(env, texts.type));
        LocalRef<jstring> jvalue(env, NewString(env, texts.Value()));
        if (Pending(env)) break;
        LocalRef<jobject> param(
            env, env->NewObject(paramCls.get(), init, jname.get(), jtype.get(), jvalue.get()));
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
        ParamTexts texts;
        {
            Utf name(env, nameStr.get());
            Utf type(env, typeStr.get());
            int32_t actual = -1;
            std::string text;
            if (name.get() == nullptr) {
                rc = MAV_E_NULL_PARAM;
            } else {
                rc = ReadValue(
                    [&](KORMO_CHAR* buf, size_t* length) {
                        return MavGetParameter(hdl, name.get(), &actual, buf, length);
                    },
                    &actual, &text);
                // "BOOL" (0) passes for every parameter; an unknown or missing
                // type text (-1) fails.
                int32_t wanted = MavParamType(type.get());
                if (rc == MAV_OK && wanted != VS_TYPE_BOOL && wanted != actual) {
                    rc = MAV_E_INVALID_PARAM_TYPE;
                }
                if (rc == MAV_OK) texts.From(MavParamCode(name.get()), actual, text);
            }
        }
        if (rc == MAV_OK) {
            SetString(env, parameter, paramCls.get(), kParameterName, texts.name.c_str());
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
