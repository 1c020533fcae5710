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

jobject NewDriver(JNIEnv* env, jclass cls, jmethodID init, const PEL_DRIVERINFO& d) {
    LocalRef<jstring> name(env, NewString(env, d.pszName));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, static_cast<jint>(d.usDrMajVersion),
                          static_cast<jint>(d.usDrMinVersion), name.get(), Millis(d.utcDate),
                          static_cast<jlong>(d.uiViruses));
}

jobject NewInfection(JNIEnv* env, jclass cls, jmethodID init, const PEL_VIRUSINFO& v) {
    LocalRef<jstring> virus(env, NewString(env, v.pszVirusName));
    LocalRef<jstring> object(env, NewString(env, v.pszObjectName));
    LocalRef<jstring> text(env, NewString(env, v.pszFreeTextInfo));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, static_cast<jboolean>(v.bRepairable),
                          static_cast<jlong>(v.uiJobID), static_cast<jlong>(v.uiVirusID),
                          virus.get(), object.get(), static_cast<jlong>(v.lObjectSize), text.get());
}

jobject NewScanError(JNIEnv* env, jclass cls, jmethodID init, const PEL_SCANERROR& e) {
    LocalRef<jstring> text(env, NewString(env, e.pszErrorText));
    LocalRef<jstring> object(env, NewString(env, e.pszObjectName));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, static_cast<jlong>(e.uiJobID), static_cast<jlong>(e.iErrorRC),
                          text.get(), object.get(), static_cast<jlong>(e.lObjectSize));
}

jobject NewContent(JNIEnv* env, jclass cls, jmethodID init, const PEL_CONTENTINFO& c) {
    LocalRef<jstring> ext(env, NewString(env, c.pszExtension));
    LocalRef<jstring> type(env, NewString(env, c.pszContentType));
    LocalRef<jstring> object(env, NewString(env, c.pszObjectName));
    if (Pending(env)) return nullptr;
    return env->NewObject(cls, init, ext.get(), type.get(), object.get(),
                          static_cast<jlong>(c.lObjectSize));
}

// Builds one object per record and adds it to the list. Each entry's local
// references are deleted before the next, so any number of records fits the
// local reference table.
template <typename Rec, typename Make>
MAV_RC FillList(JNIEnv* env, jobject list, const char* clsPath, const char* initSig,
                const Rec* recs, uint32_t count, Make make) {
    LocalRef<jclass> cls(env, FindClass(env, clsPath));
    if (!cls) {
        MAV_TRC_E("CLASS could not be found\n");
        return MAV_E_NULL_PARAM;
    }
    LocalRef<jclass> listCls(env, ClassOf(env, list));
    jmethodID add = MethodId(env, listCls.get(), "add", kListAdd);
    jmethodID init = MethodId(env, cls.get(), "<init>", initSig);
    if (add == nullptr || init == nullptr) return MAV_E_NULL_PARAM;
    for (uint32_t i = 0; i < count && !Pending(env); ++i) {
        LocalRef<jobject> obj(env, make(env, cls.get(), init, recs[i]));
        // An object that could not be built is skipped, unless the failure is
        // an exception, which ends the walk.
        if (Pending(env)) break;
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
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        ReportRc(env, holder, cls.get(), MAV_E_NULL_PARAM);
        return MAV_E_NULL_PARAM;
    }

    MAV_RC rc = MAV_OK;
    // The records are turned into Java objects under the handle lock: a
    // reload on another thread ends the engine record under it.
    MAV_HDL_REC* owner = MavILockOwner(hdl);
    const PEL_INIT* init = owner != nullptr ? EngineOf(hdl) : nullptr;
    const PEL_SCANINFO* scan = owner != nullptr ? ScanInfoOf(hdl) : nullptr;
    switch (kind) {
        case kKindDrivers:
            MAVJNI_TRC("            return driver info \n");
            if (init == nullptr || init->hEngine == nullptr || init->pDriver == nullptr) {
                MAV_TRC_E("Invalid NULL handle for PEL config\n");
                rc = MAV_E_INVALID_HANDLE;
            } else {
                rc = FillList(env, list, kDriverClass, kDriverInit, init->pDriver, init->usDrivers,
                              NewDriver);
            }
            break;
        case kKindInfections:
            MAV_TRC(MAV_TRC_INFO, "            return infection info \n");
            if (init == nullptr) {
                MAV_TRC_E("Invalid NULL handle for PEL config\n");
                rc = MAV_E_INVALID_HANDLE;
            } else if (scan == nullptr || scan->pVirusInfo == nullptr) {
                rc = MAV_E_NO_SCANINFO;
            } else {
                rc = FillList(env, list, kInfectionClass, kInfectionInit, scan->pVirusInfo,
                              scan->uiInfections, NewInfection);
            }
            break;
        case kKindScanErrors:
            MAV_TRC(MAV_TRC_INFO, "            return scan error info \n");
            if (init == nullptr) {
                MAV_TRC_E("Invalid NULL handle for PEL config\n");
                rc = MAV_E_INVALID_HANDLE;
            } else if (scan == nullptr || scan->pScanError == nullptr) {
                rc = MAV_E_NO_SCANINFO;
            } else {
                rc = FillList(env, list, kScanErrorClass, kScanErrorInit, scan->pScanError,
                              scan->uiScanErrors, NewScanError);
            }
            break;
        case kKindContent:
            MAV_TRC(MAV_TRC_INFO, "            return content info \n");
            if (init == nullptr) {
                MAV_TRC_E("Invalid NULL handle for PEL config\n");
                rc = MAV_E_INVALID_HANDLE;
            } else if (scan == nullptr || scan->pContentInfo == nullptr) {
                rc = MAV_E_NO_SCANINFO;
            } else {
                rc = FillList(env, list, kContentClass, kContentInit, scan->pContentInfo,
                              scan->uiScanned, NewContent);
            }
            break;
        default:
            // Deliberately a success with nothing listed.
            MAV_TRC_E("Type unknown, undefined situation\n");
            break;
    }
    if (owner != nullptr) MavIUnlockHdl(owner);
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
        MAV_TRC_E("Invalid NULL parameter for handle\n");
        SetInt(env, holder, cls.get(), kRc, MAV_E_NULL_PARAM);
        ReportRc(env, holder, cls.get(), MAV_E_NULL_PARAM);
        return nullptr;
    }
    MAV_RC rc = MAV_OK;
    jobject engine = nullptr;
    MAV_HDL_REC* owner = MavILockOwner(hdl);  // see getInstanceInfo
    const PEL_INIT* init = owner != nullptr ? EngineOf(hdl) : nullptr;
    if (init == nullptr || init->hEngine == nullptr) {
        MAV_TRC_E("Invalid NULL handle for PEL config\n");
        rc = MAV_E_INVALID_HANDLE;
    } else {
        jmethodID ctor = MethodId(env, engineCls.get(), "<init>", kEngineInit);
        if (ctor != nullptr) {
            LocalRef<jstring> text(env, NewString(env, init->pszEngineVersionText));
            if (!Pending(env)) {
                engine = env->NewObject(
                    engineCls.get(), ctor, static_cast<jint>(init->usEngineMajVersion),
                    static_cast<jint>(init->usEngineMinVersion), text.get(), Millis(init->utcDate),
                    static_cast<jlong>(init->uiViruses), static_cast<jshort>(init->usDrivers));
                if (Pending(env)) engine = nullptr;
            }
        }
    }
    if (owner != nullptr) MavIUnlockHdl(owner);
    SetInt(env, holder, cls.get(), kRc, rc);
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return engine;
}
