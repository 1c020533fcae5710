// mavxxjni_life.cpp - lifecycle and pool natives of the Java bridge: start,
// end and reload of an adapter handle, instances, pools, error texts.
#include <unistd.h>

#include "mavxxjni.h"

using namespace mavjni;

namespace {

constexpr unsigned kReloadAttempts = 1000;

jlong ToJava(void* hdl) {
    return static_cast<jlong>(reinterpret_cast<intptr_t>(hdl));
}

// True when the holder can take a handle; a handle that Java cannot hold
// could never be ended.
bool CanHoldHandle(JNIEnv* env, jclass cls) {
    return FieldId(env, cls, kHandle, "J") != nullptr;
}

}  // namespace

MAVJNI_EXPORT jint JNICALL MAVGATE(initPEL)(JNIEnv* env, jobject self, jstring config,
                                            jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(config), static_cast<void*>(holder));
    MAV_HANDLE hdl = nullptr;
    if (holder == nullptr) {
        MavEnd(&hdl);
        return MAV_E_NULL_PARAM;
    }
    MAV_RC rc;
    {
        Utf path(env, config);
        if (Pending(env)) return MAV_E_NO_SPACE;
        rc = MavInit(path.get(), &hdl);
    }
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    if (rc == MAV_OK) {
        MAV_HDL_REC* rec = MavIGetHandle(hdl);
        const PEL_CONFIG* pelCfg = rec != nullptr ? rec->pPelConfig : nullptr;
        const PEL_ADAPTERINFO* info = pelCfg != nullptr ? pelCfg->pAdapterInfo : nullptr;
        if (info == nullptr) {
            rc = MAV_E_INVALID_HANDLE;
            MAV_TRC_E("Invalid NULL handle for PEL config\n");
        } else if (!CanHoldHandle(env, cls.get())) {
            rc = MAV_E_INVALID_PARAM;
        } else {
            SetString(env, holder, cls.get(), kVendorPelName, info->pszAdapterName);
            SetString(env, holder, cls.get(), kVendorInfoText, info->pszVendorInfo);
            SetInt(env, holder, cls.get(), kMajPelVersion, info->usPelMajorVersion);
            SetInt(env, holder, cls.get(), kMinPelVersion, info->usPelMinorVersion);
            SetInt(env, holder, cls.get(), kNumberOfParameters,
                   static_cast<jint>(MavIXGetParamNum(hdl)));
            SetLong(env, holder, cls.get(), kHandle, ToJava(hdl));
            ReportRc(env, holder, cls.get(), MAV_OK);
            MAVJNI_EXIT(MAV_OK);
            return MAV_OK;
        }
    }
    // Failure: the adapter's last message, when there is one, in both fields.
    MAV_HDL_REC* rec = MavIGetHandle(hdl);
    if (rec != nullptr && rec->errors != nullptr && rec->errorCount > 0) {
        const MAV_ERROR_ENTRY& last = rec->errors[rec->errorCount - 1];
        const char* text =
            last.lLength != 0 && last.pszText != nullptr ? last.pszText : MavErrorDescription(rc);
        SetErrorTexts(env, holder, cls.get(), text, text);
    } else {
        ReportRc(env, holder, cls.get(), rc);
    }
    MavEnd(&hdl);
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(endPEL)(JNIEnv* env, jobject self, jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    MAV_HANDLE hdl = ReadHandle(env, holder, cls.get());
    MAV_RC rc = MavEnd(&hdl);
    if (rc == MAV_OK) {
        SetLong(env, holder, cls.get(), kHandle, ToJava(hdl));
        SetString(env, holder, cls.get(), kVendorPelName, nullptr);
        SetString(env, holder, cls.get(), kVendorInfoText, nullptr);
        SetInt(env, holder, cls.get(), kMajPelVersion, 0);
        SetInt(env, holder, cls.get(), kMinPelVersion, 0);
        SetInt(env, holder, cls.get(), kNumberOfParameters, 0);
    }
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(reloadPEL)(JNIEnv* env, jobject self, jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder));
    // A null holder means every adapter.
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    MAV_HANDLE hdl = holder != nullptr ? ReadHandle(env, holder, cls.get()) : nullptr;
    // Every failure is retried, one second apart, at most 999 times.
    unsigned attempt = 1;
    for (;;) {
        MAV_RC rc;
        if (hdl == nullptr) {
            MAVJNI_TRC("            global reload of all adapters\n");
            rc = MavReload(nullptr);
        } else {
            rc = MavReload(hdl);
        }
        if (rc == MAV_OK) {
            ReportRc(env, holder, cls.get(), MAV_OK);
            MAVJNI_EXIT(MAV_OK);
            return MAV_OK;
        }
        ++attempt;
        sleep(1);
        if (attempt >= kReloadAttempts) {
            MAV_TRC_W("Timeout of %u trails has been reached. No reload of PEL performed\n",
                      kReloadAttempts);
            ReportRc(env, holder, cls.get(), MAV_E_IN_PROGRESS);
            MAVJNI_EXIT(MAV_E_IN_PROGRESS);
            return MAV_E_IN_PROGRESS;
        }
    }
}

MAVJNI_EXPORT jint JNICALL MAVGATE(createInstance)(JNIEnv* env, jobject self, jobject cfgHolder,
                                                   jobject instHolder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(cfgHolder),
               static_cast<void*>(instHolder));
    MAV_INST inst = nullptr;
    if (cfgHolder == nullptr || instHolder == nullptr) {
        MavFreeInstance(&inst);
        return MAV_E_NULL_PARAM;
    }
    MAV_HANDLE hdl;
    {
        LocalRef<jclass> cfgCls(env, ClassOf(env, cfgHolder));
        hdl = ReadHandle(env, cfgHolder, cfgCls.get());
    }
    LocalRef<jclass> cls(env, ClassOf(env, instHolder));
    MAV_RC rc = MavCreateInstance(hdl, &inst);
    if (rc == MAV_OK && !CanHoldHandle(env, cls.get())) rc = MAV_E_INVALID_PARAM;
    if (rc != MAV_OK) {
        ReportRc(env, instHolder, cls.get(), rc);
        MavFreeInstance(&inst);
    } else {
        SetLong(env, instHolder, cls.get(), kHandle, ToJava(inst));
        SetInt(env, instHolder, cls.get(), kNumberOfParameters,
               static_cast<jint>(MavIXGetParamNum(inst)));
        ReportRc(env, instHolder, cls.get(), MAV_OK);
    }
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(freeInstance)(JNIEnv* env, jobject self, jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    MAV_INST inst = ReadHandle(env, holder, cls.get());
    MAV_RC rc = MavFreeInstance(&inst);
    if (rc == MAV_OK) {
        SetLong(env, holder, cls.get(), kHandle, 0);
        SetLong(env, holder, cls.get(), kCleanedLength, 0);
    }
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(getPoolSize)(JNIEnv* env, jobject self, jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder));
    MAV_HANDLE hdl = nullptr;
    if (holder != nullptr) {
        LocalRef<jclass> cls(env, ClassOf(env, holder));
        hdl = ReadHandle(env, holder, cls.get());
    }
    jint size = static_cast<jint>(MavGetPoolSize(hdl));
    MAVJNI_TRC("<<  end  << %s(MAV_RC==MAV_OK) \n", MAVJNI_NAME);
    return size;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(setPoolSize)(JNIEnv* env, jobject self, jobject holder,
                                                jint size) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%d)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), size);
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    MAV_HANDLE hdl = ReadHandle(env, holder, cls.get());
    // A negative Java size would be a huge size_t.
    MAV_RC rc = size < 0 ? MAV_E_INVALID_PARAM : MavSetPoolSize(hdl, static_cast<size_t>(size));
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(freePool)(JNIEnv* env, jobject self, jobject holder) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    MAV_HANDLE hdl = ReadHandle(env, holder, cls.get());
    MAV_RC rc = MavFreePool(hdl);
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(loadPool)(JNIEnv* env, jobject self, jobject holder, jint count,
                                             jboolean flag) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%d,%c)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), count, flag);
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    MAV_HANDLE hdl = ReadHandle(env, holder, cls.get());
    MAV_RC rc = count < 0
                    ? MAV_E_INVALID_PARAM
                    : MavLoadPool(hdl, static_cast<size_t>(count), static_cast<uint8_t>(flag));
    if (rc == MAV_OK) {
        ReportRc(env, holder, cls.get(), rc);
    } else {
        // The adapter's own text when it has one. A buffer handed back is
        // ours (made through the memory hooks) and freed through them.
        KORMO_CHAR* text = nullptr;
        size_t length = 0;
        MAV_RC textRc = MavAdapterErrorText(hdl, &text, &length);
        if (textRc == MAV_OK && text != nullptr) {
            SetErrorTexts(env, holder, cls.get(), text, text);
        } else {
            ReportRc(env, holder, cls.get(), rc);
        }
        if (text != nullptr) MavIFree(text);
    }
    MAVJNI_EXIT(rc);
    return rc;
}

MAVJNI_EXPORT jint JNICALL MAVGATE(getErrorInfo)(JNIEnv* env, jobject self, jobject holder,
                                                 jint rc) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%d)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), rc);
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    (void)ReadHandle(env, holder, cls.get());
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_TRC("<<  end  << %s(MAV_RC==MAV_OK) \n", MAVJNI_NAME);
    return rc;
}
