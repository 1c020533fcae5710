// mavxxjni_life.cpp - lifecycle and pool natives of the Java bridge: start,
// end and reload of an adapter handle, instances, pools, error texts.
#include <unistd.h>

#include <cstring>
#include <string>

#include "mavxxjni.h"

using namespace mavjni;

namespace {

constexpr unsigned kReloadAttempts = 1000;

// The handle's latest failure text (MavAdapterErrorText); false when it has
// none or it cannot be read.
bool AdapterErrorText(void* hdl, std::string* out) {
    size_t length = 0;
    if (MavAdapterErrorText(hdl, nullptr, &length) != MAV_OK || length == 0) return false;
    std::string buf(length + 2, '\0');
    KORMO_CHAR* text = &buf[0];
    length = buf.size() - 1;
    MAV_RC rc = MavAdapterErrorText(hdl, &text, &length);
    // A text that grew meanwhile comes in a buffer of the library's.
    if (rc == MAV_OK) out->assign(text, strnlen(text, length));
    if (text != &buf[0]) MavFreeBuffer(text);
    return rc == MAV_OK && !out->empty();
}

// The number of adapter parameters of a handle or instance (0 when unknown).
jint ParameterCount(void* hdl) {
    uint32_t parameters = 0;
    MavGetPelInfo(hdl, nullptr, &parameters, nullptr, nullptr, nullptr, nullptr, nullptr);
    return static_cast<jint>(parameters);
}

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
        uint32_t version = 0, parameters = 0;
        Texts t;  // adapter name, vendor text
        rc = WithTexts(t, [&](Texts& x) {
            return MavGetPelInfo(hdl, &version, &parameters, nullptr, x.Buf(0), x.Len(0),
                                 x.Buf(1), x.Len(1));
        });
        if (rc != MAV_OK) {
            rc = MAV_E_INVALID_HANDLE;
            MAVJNI_TRC_E("Invalid NULL handle for PEL config\n");
        } else if (!CanHoldHandle(env, cls.get())) {
            rc = MAV_E_INVALID_PARAM;
        } else {
            SetString(env, holder, cls.get(), kVendorPelName, t.Get(0));
            SetString(env, holder, cls.get(), kVendorInfoText, t.Get(1));
            SetInt(env, holder, cls.get(), kMajPelVersion, static_cast<jint>(version >> 16));
            SetInt(env, holder, cls.get(), kMinPelVersion, static_cast<jint>(version & 0xFFFFu));
            SetInt(env, holder, cls.get(), kNumberOfParameters, static_cast<jint>(parameters));
            SetLong(env, holder, cls.get(), kHandle, ToJava(hdl));
            ReportRc(env, holder, cls.get(), MAV_OK);
            MAVJNI_EXIT(MAV_OK);
            return MAV_OK;
        }
    }
    // Failure: the adapter's last message, when there is one, in both fields.
    std::string text;
    if (hdl != nullptr && AdapterErrorText(hdl, &text)) {
        SetErrorTexts(env, holder, cls.get(), text.c_str(), text.c_str());
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
            MAVJNI_TRC_W("Timeout of %u trails has been reached. No reload of PEL performed\n",
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
        SetInt(env, instHolder, cls.get(), kNumberOfParameters, ParameterCount(inst));
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
        // The adapter's own text when it has one.
        std::string text;
        if (AdapterErrorText(hdl, &text)) {
            SetErrorTexts(env, holder, cls.get(), text.c_str(), text.c_str());
        } else {
            ReportRc(env, holder, cls.get(), rc);
        }
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
