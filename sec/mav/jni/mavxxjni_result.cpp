// mavxxjni_result.cpp - result natives of the Java bridge: drivers,
// infections, scan errors and content information of the last scan as Java
// objects, and the engine.
#include "mavxxjni.h"

using namespace mavjni;

namespace {

// Kinds of getInstanceInfo (bit values).
constexpr jint kKindDrivers = 1;
constexpr jint kKindInfections = 2;
constexpr jint kKindScanErrors = 4;
constexpr jint kKindContent = 8;

constexpr const char* kEngineClass = "kormo/security/core/server/mav/api/Engine";
constexpr const char* kEngineInit = "(IILjava/lang/String;JJS)V";
constexpr const char* kDriverClass = "kormo/security/core/server/mav/api/Driver";
constexpr const char* kDriverInit = "(IILjava/lang/String;JJ)V";
constexpr const char* kInfectionClass = "kormo/security/core/server/mav/api/Infection";
constexpr const char* kInfectionInit =
    "(ZJJLjava/lang/String;Ljava/lang/String;JLjava/lang/String;)V";
constexpr const char* kScanErrorClass = "kormo/security/core/server/mav/api/ScanError";
constexpr const char* kScanErrorInit = "(JJLjava/lang/String;Ljava/lang/String;J)V";
constexpr const char* kContentClass = "kormo/security/core/server/mav/api/ContentInfo";
constexpr const char* kContentInit = "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;J)V";
constexpr const char* kListAdd = MAVJNI_LIST_ADD;

// Seconds to milliseconds; wraps instead of overflowing on absurd dates.
jlong Millis(int64_t seconds) {
    return static_cast<jlong>(static_cast<uint64_t>(seconds) * 1000u);
}

// One entry of a list at index as a new Java object; null (and *rc set) when
// the entry cannot be read, null with an exception pending when Java failed.
jobject NewDriver(JNIEnv* env, jclass cls, jmethodID init, void* hdl, uint32_t index,
                  MAV_RC* rc) {
    uint32_t version = 0, viruses = 0;
    uint64_t date = 0;
    Texts t;
    *rc = WithTexts(t, [&](Texts& x) {
        return MavEnumDriverInfo(hdl, index, &version, x.Buf(0), x.Len(0), &date, &viruses);
    });
    if (*rc != MAV_OK) return nullptr;
    LocalRef<jstring> name(env, NewString(env, t.Get(0)));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, static_cast<jint>(version >> 16),
                          static_cast<jint>(version & 0xFFFFu), name.get(),
                          Millis(static_cast<int64_t>(date)), static_cast<jlong>(viruses));
}

jobject NewInfection(JNIEnv* env, jclass cls, jmethodID init, void* hdl, uint32_t index,
                     MAV_RC* rc) {
    uint8_t repairable = 0;
    uint32_t virusId = 0, jobId = 0;
    uint64_t size = 0;
    Texts t;
    *rc = WithTexts(t, [&](Texts& x) {
        return MavEnumInfections(hdl, index, &repairable, &virusId, x.Buf(0), x.Len(0), x.Buf(1),
                                 x.Len(1), &size, x.Buf(2), x.Len(2));
    });
    if (*rc == MAV_OK) *rc = MavGetListInfo(hdl, MAV_LIST_INFECTIONS, index, nullptr, &jobId, nullptr);
    if (*rc != MAV_OK) return nullptr;
    LocalRef<jstring> virus(env, NewString(env, t.Get(0)));
    LocalRef<jstring> object(env, NewString(env, t.Get(1)));
    LocalRef<jstring> text(env, NewString(env, t.Get(2)));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, static_cast<jboolean>(repairable), static_cast<jlong>(jobId),
                          static_cast<jlong>(virusId), virus.get(), object.get(),
                          static_cast<jlong>(size), text.get());
}

jobject NewScanError(JNIEnv* env, jclass cls, jmethodID init, void* hdl, uint32_t index,
                     MAV_RC* rc) {
    uint32_t code = 0, jobId = 0;
    uint64_t size = 0;
    Texts t;
    *rc = WithTexts(t, [&](Texts& x) {
        return MavEnumScanErrors(hdl, index, &code, x.Buf(0), x.Len(0), x.Buf(1), x.Len(1), &size);
    });
    if (*rc == MAV_OK) *rc = MavGetListInfo(hdl, MAV_LIST_SCAN_ERRORS, index, nullptr, &jobId, nullptr);
    if (*rc != MAV_OK) return nullptr;
    LocalRef<jstring> text(env, NewString(env, t.Get(0)));
    LocalRef<jstring> object(env, NewString(env, t.Get(1)));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, static_cast<jlong>(jobId),
                          static_cast<jlong>(static_cast<int32_t>(code)), text.get(), object.get(),
                          static_cast<jlong>(size));
}

jobject NewContent(JNIEnv* env, jclass cls, jmethodID init, void* hdl, uint32_t index,
                   MAV_RC* rc) {
    uint32_t type = 0;
    uint64_t size = 0;
    Texts t;
    *rc = WithTexts(t, [&](Texts& x) {
        return MavEnumContentInfo(hdl, index, &type, x.Buf(0), x.Len(0), x.Buf(1), x.Len(1),
                                  x.Buf(2), x.Len(2), nullptr);
    });
    if (*rc == MAV_OK) *rc = MavGetListInfo(hdl, MAV_LIST_CONTENT, index, nullptr, nullptr, &size);
    if (*rc != MAV_OK) return nullptr;
    LocalRef<jstring> ext(env, NewString(env, t.Get(0)));
    LocalRef<jstring> ctype(env, NewString(env, t.Get(1)));
    LocalRef<jstring> object(env, NewString(env, t.Get(2)));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, ext.get(), ctype.get(), object.get(),
                          static_cast<jlong>(size));
}

// Builds one object per entry of the list kind of hdl and adds it to the
// Java list. Each entry's local references are deleted before the next, so
// any number of entries fits the local reference table.
template <typename Make>
MAV_RC FillList(JNIEnv* env, jobject list, const char* clsPath, const char* initSig, void* hdl,
                uint32_t kind, Make make) {
    uint32_t count = 0;
    MAV_RC rc = MavGetListInfo(hdl, kind, 0, &count, nullptr, nullptr);
    if (rc != MAV_OK) return rc;
    LocalRef<jclass> cls(env, FindClass(env, clsPath));
    if (!cls) {
        MAVJNI_TRC_E("CLASS could not be found\n");
        return MAV_E_NULL_PARAM;
    }
    LocalRef<jclass> listCls(env, ClassOf(env, list));
    jmethodID add = MethodId(env, listCls.get(), "add", kListAdd);
    jmethodID init = MethodId(env, cls.get(), "<init>", initSig);
    if (add == nullptr || init == nullptr) return MAV_E_NULL_PARAM;
    for (uint32_t i = 0; i < count && !Pending(env); ++i) {
        MAV_RC erc = MAV_OK;
        LocalRef<jobject> obj(env, make(env, cls.get(), init, hdl, i, &erc));
        // An entry that a reload took away meanwhile ends the list; one that
        // could not be built is skipped, unless the failure is an exception,
        // which ends the walk.
        if (erc == MAV_E_INVALID_ENUM_INDEX || Pending(env)) break;
        ListAdd(env, list, add, obj.get());
    }
    return MAV_OK;
}

}  // namespace

MAVJNI_EXPORT jint JNICALL MAVGATE(getInstanceInfo)(JNIEnv* env, jobject self, jobject holder,
                                                    jint kind, jobject list) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%d,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), kind,
               static_cast<void*>(list));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    if (list == nullptr) {
        ReportRc(env, holder, cls.get(), MAV_E_NULL_PARAM);
        return MAV_E_NULL_PARAM;
    }
    void* hdl = ReadHandle(env, holder, cls.get());
    if (hdl == nullptr) {
        MAVJNI_TRC_E("Invalid NULL parameter for handle\n");
        ReportRc(env, holder, cls.get(), MAV_E_NULL_PARAM);
        return MAV_E_NULL_PARAM;
    }

    MAV_RC rc = MAV_OK;
    switch (kind) {
        case kKindDrivers:
            MAVJNI_TRC("            return driver info \n");
            rc = FillList(env, list, kDriverClass, kDriverInit, hdl, MAV_LIST_DRIVERS, NewDriver);
            // An engine without a driver list is no engine to list drivers of.
            if (rc == MAV_E_NO_SCANINFO) rc = MAV_E_INVALID_HANDLE;
            break;
        case kKindInfections:
            MAVJNI_TRC_AT(MAV_TRC_INFO, "            return infection info \n");
            rc = FillList(env, list, kInfectionClass, kInfectionInit, hdl, MAV_LIST_INFECTIONS,
                          NewInfection);
            break;
        case kKindScanErrors:
            MAVJNI_TRC_AT(MAV_TRC_INFO, "            return scan error info \n");
            rc = FillList(env, list, kScanErrorClass, kScanErrorInit, hdl, MAV_LIST_SCAN_ERRORS,
                          NewScanError);
            break;
        case kKindContent:
            MAVJNI_TRC_AT(MAV_TRC_INFO, "            return content info \n");
            rc = FillList(env, list, kContentClass, kContentInit, hdl, MAV_LIST_CONTENT,
                          NewContent);
            break;
        default:
            // Deliberately a success with nothing listed.
            MAVJNI_TRC_E("Type unknown, undefined situation\n");
            break;
    }
    if (rc == MAV_E_INVALID_HANDLE) MAVJNI_TRC_E("Invalid NULL handle for PEL config\n");
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}

#define MAVJNI_INFO_NATIVE(method, kind)                                                   \
    MAVJNI_EXPORT jint JNICALL MAVGATE(method)(JNIEnv * env, jobject self, jobject holder, \
                                               jobject list) {                             \
        MAVJNI_TRC(">> start >> %s(%p,%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),     \
                   static_cast<void*>(self), static_cast<void*>(holder),                   \
                   static_cast<void*>(list));                                              \
        jint rc = MAVGATE(getInstanceInfo)(env, self, holder, kind, list);                 \
        MAVJNI_EXIT(rc);                                                                   \
        return rc;                                                                         \
    }

MAVJNI_INFO_NATIVE(getDrivers, kKindDrivers)
MAVJNI_INFO_NATIVE(getInfections, kKindInfections)
MAVJNI_INFO_NATIVE(getScanErrors, kKindScanErrors)
MAVJNI_INFO_NATIVE(getContentInfos, kKindContent)

MAVJNI_EXPORT jobject JNICALL MAVGATE(getEngine)(JNIEnv* env, jobject self, jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder));
    LocalRef<jclass> engineCls(env, FindClass(env, kEngineClass));
    if (holder == nullptr) return nullptr;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    void* hdl = ReadHandle(env, holder, cls.get());
    if (!cls || hdl == nullptr) {
        MAVJNI_TRC_E("Invalid NULL parameter for handle\n");
        SetInt(env, holder, cls.get(), kRc, MAV_E_NULL_PARAM);
        ReportRc(env, holder, cls.get(), MAV_E_NULL_PARAM);
        return nullptr;
    }
    jobject engine = nullptr;
    // An engine is one whose record names it (MAV_LIST_DRIVERS says so).
    MAV_RC rc = MavGetListInfo(hdl, MAV_LIST_DRIVERS, 0, nullptr, nullptr, nullptr);
    uint32_t version = 0, viruses = 0;
    uint64_t date = 0;
    uint16_t drivers = 0;
    Texts t;
    if (rc == MAV_OK || rc == MAV_E_NO_SCANINFO) {
        rc = WithTexts(t, [&](Texts& x) {
            return MavGetEngineInfo(hdl, &version, x.Buf(0), x.Len(0), &date, &viruses, &drivers);
        });
    }
    if (rc == MAV_E_INVALID_HANDLE) {
        MAVJNI_TRC_E("Invalid NULL handle for PEL config\n");
    } else if (rc == MAV_OK) {
        jmethodID ctor = MethodId(env, engineCls.get(), "<init>", kEngineInit);
        if (ctor != nullptr) {
            LocalRef<jstring> text(env, NewString(env, t.Get(0)));
            if (!Pending(env)) {
                engine = env->NewObject(engineCls.get(), ctor, static_cast<jint>(version >> 16),
                                        static_cast<jint>(version & 0xFFFFu), text.get(),
                                        Millis(static_cast<int64_t>(date)),
                                        static_cast<jlong>(viruses), static_cast<jshort>(drivers));
                if (Pending(env)) engine = nullptr;
            }
        }
    }
    SetInt(env, holder, cls.get(), kRc, rc);
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return engine;
}
