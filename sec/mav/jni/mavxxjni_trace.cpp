// mavxxjni_trace.cpp - trace natives of the Java bridge.
#include <cstdio>

#include "mavxxjni.h"

using namespace mavjni;

namespace {

// The previous trace file is kept under this name in the working directory.
constexpr const char* kOldTrace = "dev_MAV.old";

// The stream opened by setTrace (concurrent setTrace calls are not supported).
FILE* jniTraceStream = nullptr;

}  // namespace

MAVJNI_EXPORT jint JNICALL MAVGATE(getTraceLevel)(JNIEnv*, jobject) {
    return static_cast<jint>(MavGetTraceLevel());
}

// Zero does not switch the trace off: it answers the current level.
MAVJNI_EXPORT jint JNICALL MAVGATE(setTraceLevel)(JNIEnv*, jobject, jint level) {
    if (level != 0) {
        MavSetTraceLevel(static_cast<uint32_t>(level));
        return 0;
    }
    return static_cast<jint>(MavGetTraceLevel());
}

MAVJNI_EXPORT jint JNICALL MAVGATE(setTrace)(JNIEnv* env, jobject self, jstring path, jlong level) {
    MAVJNI_TRC(">> start >> %s(%p,%p,%p,%ld)\n", MAVJNI_NAME, static_cast<void*>(env),
               static_cast<void*>(self), static_cast<void*>(path), static_cast<long>(level));
    if (path == nullptr) return MAV_E_NULL_PARAM;
    remove(kOldTrace);
    FILE* stream;
    {
        Utf name(env, path);
        if (name.get() == nullptr) return MAV_E_NO_SPACE;  // out of memory, pending
        rename(name.get(), kOldTrace);
        stream = fopen(name.get(), "w");
        if (stream == nullptr) {
            MAVJNI_TRC_E("Unable to open tracefile %s. Using standard error output.\n", name.get());
            stream = stderr;
        }
    }
    // The previous stream of setTrace is closed once it is no longer the trace
    // stream, unless the library replaced it meanwhile (and closed it itself).
    // MavSetTraceFile returns once no line is being written to the stream it
    // replaced, so that stream can be closed here.
    FILE* previous = jniTraceStream;
    bool previousCurrent = previous != nullptr && MavGetTraceFile() == previous;
    MavSetTraceFile(stream);
    MavSetTraceLevel(static_cast<uint32_t>(level));
    if (previousCurrent && previous != stream && previous != stderr) fclose(previous);
    jniTraceStream = stream;
    MAVJNI_EXIT(MAV_OK);
    return MAV_OK;
}

// The library's version text ("1.1.0"), for the Java side's reports.
MAVJNI_EXPORT jstring JNICALL MAVGATE(getVersion)(JNIEnv* env, jclass) {
    return env->NewStringUTF(MavGetVersion(nullptr));
}
