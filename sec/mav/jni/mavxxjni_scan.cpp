// mavxxjni_scan.cpp - the scan native of the Java bridge.
#include <string>

#include "mavxxjni.h"

using namespace mavjni;

namespace {

// Scan report fields of the holder (all "J").
constexpr const char* kScanInfo = "m_ScanInfo";
constexpr const char* kJobID = "m_JobID";
constexpr const char* kScannedObjects = "m_ScannedObjects";
constexpr const char* kNotScannedObjects = "m_NotScannedObjects";
constexpr const char* kCleanObjects = "m_CleanObjects";
constexpr const char* kInfections = "m_Infections";
constexpr const char* kScanErrors = "m_ScanErrors";

// Pinned elements of a byte array, released with mode 0 (copy back).
class PinnedBytes {
  public:
    PinnedBytes(JNIEnv* env, jbyteArray array) : env_(env), array_(array), bytes_(nullptr) {
        if (array_ == nullptr || Pending(env_)) return;
        bytes_ = env_->GetByteArrayElements(array_, nullptr);
        if (Pending(env_)) bytes_ = nullptr;
    }
    ~PinnedBytes() {
        if (bytes_ != nullptr) env_->ReleaseByteArrayElements(array_, bytes_, 0);
    }
    PinnedBytes(const PinnedBytes&) = delete;
    PinnedBytes& operator=(const PinnedBytes&) = delete;
    jbyte* get() const { return bytes_; }

  private:
    JNIEnv* env_;
    jbyteArray array_;
    jbyte* bytes_;
};

}  // namespace

MAVJNI_EXPORT jint JNICALL MAVGATE(pelScan)(JNIEnv* env, jobject self, jobject holder,
                                            jlong scanCode, jlong actionCode, jstring name,
                                            jbyteArray buffer, jlong length, jlong jobId) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%ld,%ld,%p,%p,%ld,%ld\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(holder), static_cast<long>(scanCode),
               static_cast<long>(actionCode), static_cast<void*>(name), static_cast<void*>(buffer),
               static_cast<long>(length), static_cast<long>(jobId));
    if (holder == nullptr) return MAV_E_NULL_PARAM;
    LocalRef<jclass> cls(env, ClassOf(env, holder));
    if (!cls) {
        MAVJNI_TRC_E("Invalid NULL parameter for handle\n");
        return MAV_E_INVALID_HANDLE;
    }
    jboolean wantReport = JNI_FALSE;
    GetBool(env, holder, cls.get(), kScanInfo, &wantReport);
    MAV_SCANINFO report = {};
    report.struct_size = sizeof(MAV_SCANINFO);

    MAV_INST inst = ReadHandle(env, holder, cls.get());
    MAV_RC rc = MAV_OK;
    if (inst == nullptr) {
        MAVJNI_TRC_E("Invalid NULL parameter for handle\n");
        rc = MAV_E_INVALID_HANDLE;
    } else if (buffer != nullptr && (length < 0 || length > env->GetArrayLength(buffer))) {
        // The C side would read and write past the array.
        rc = MAV_E_INVALID_PARAM;
    }
    if (rc != MAV_OK) {
        ReportRc(env, holder, cls.get(), rc);
        MAVJNI_EXIT(rc);
        return rc;
    }

    {
        PinnedBytes bytes(env, buffer);
        if (buffer != nullptr && bytes.get() == nullptr) return MAV_E_NO_SPACE;  // pending
        size_t cleanedLength = static_cast<size_t>(length);
        // A copy of the name: a byte scan that falls back to a temporary file
        // edits the UTF-8 name in place, and the JVM's text must stay intact.
        std::string objectName;
        bool haveName = false;
        {
            Utf utf(env, name);
            if (name != nullptr && utf.get() == nullptr) return MAV_E_NO_SPACE;  // pending
            if (utf.get() != nullptr) {
                objectName = utf.get();
                haveName = true;
            }
        }
        // Byte scans name the object in UTF-8; file scans take the same narrow
        // bytes as the KORMO_CHAR name.
        const char* utf8Name = nullptr;
        const KORMO_CHAR* kormoName = nullptr;
        if (haveName) {
            if (scanCode <= 2) {
                utf8Name = objectName.c_str();
            } else {
                kormoName = objectName.c_str();
            }
        }
        rc = MavScanClean(inst, static_cast<uint32_t>(scanCode), static_cast<uint32_t>(actionCode),
                          utf8Name, kormoName, reinterpret_cast<unsigned char*>(bytes.get()),
                          &cleanedLength, static_cast<uint32_t>(jobId),
                          wantReport ? &report : nullptr);
        if (rc == MAV_OK) {
            SetLong(env, holder, cls.get(), kCleanedLength, static_cast<jlong>(cleanedLength));
            if (wantReport) {
                SetLong(env, holder, cls.get(), kJobID, static_cast<jlong>(report.uiJobID));
                SetLong(env, holder, cls.get(), kScannedObjects,
                        static_cast<jlong>(report.uiScanned));
                SetLong(env, holder, cls.get(), kNotScannedObjects,
                        static_cast<jlong>(report.uiNotScanned));
                SetLong(env, holder, cls.get(), kCleanObjects, static_cast<jlong>(report.uiClean));
                SetLong(env, holder, cls.get(), kInfections,
                        static_cast<jlong>(report.uiInfections));
                SetLong(env, holder, cls.get(), kScanErrors,
                        static_cast<jlong>(report.uiScanErrors));
            }
        } else if (rc == MAV_E_CLEAN_OK && bytes.get() != nullptr && !Pending(env)) {
            // The cleaned bytes go back; m_CleanedLength is left as it was.
            jsize count = static_cast<jsize>(cleanedLength);
            jsize size = env->GetArrayLength(buffer);
            if (count < 0 || count > size) count = size;
            env->SetByteArrayRegion(buffer, 0, count, bytes.get());
            (void)Pending(env);
        }
    }
    ReportRc(env, holder, cls.get(), rc);
    MAVJNI_EXIT(rc);
    return rc;
}
