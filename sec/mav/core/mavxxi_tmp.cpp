// mavxxi_tmp.cpp - temporary files for adapters that cannot scan memory.
//
// A buffer is written to a fresh file that only this process can read
// (mkstemps: created exclusively, mode 0600, random part before the object
// name), scanned as a file and removed by the scan whatever its outcome.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <climits>

#include "krnflat.h"
#include "krntrc.h"
#include "mavxxi.h"

namespace {

// Longest object name kept as file name suffix: the whole file name must stay
// below the file system's limit of 255 bytes.
constexpr size_t kMaxSuffix = 200;

}  // namespace

extern "C" {

const char* MavPXGetDefaultTmpPath(void) {
    // A fixed buffer, filled once: the first MavInit must not meet
    // std::bad_alloc. A longer directory than PATH_MAX could not be used.
    static char path[PATH_MAX];
    static const bool filled = [] {
        const char* dir = "/tmp";
        static const char* const kVars[] = {"PEL_TMP", "TMP", "TEMP", "TMPDIR"};
        for (const char* var : kVars) {
            const char* v = getenv(var);
            if (v != nullptr && *v != '\0') {
                dir = v;
                break;
            }
        }
        snprintf(path, sizeof path, "%s", dir);
        return true;
    }();
    (void)filled;
    return path;
}

MAV_RC MavPXBytesToTempFile(const unsigned char* bytes, size_t length, const char* directory,
                            char* name, char** pathOut) {
    if (pathOut == nullptr) return MAV_E_NULL_PARAM;
    *pathOut = nullptr;
    const char* dir = directory != nullptr ? directory : MavPXGetDefaultTmpPath();
    char defaultName[] = "mav.com";
    if (name == nullptr) name = defaultName;
    for (char* p = name; *p != '\0'; ++p) {
        if (*p == '/' || *p == '\\') *p = '~';
    }
    size_t nameLen = strnlen(name, kMaxSuffix);

    size_t size = strlen(dir) + nameLen + 32;
    char* path = static_cast<char*>(MavIAlloc(size, false));
    if (path == nullptr) return MAV_E_NO_SPACE;
    *pathOut = path;
    snprintf(path, size, "%s%sXXXXXX%.*s", dir, "/", static_cast<int>(nameLen), name);

    int fd = mkstempsU(path, static_cast<int>(nameLen));
    if (fd < 0) {
        if (CTrcGetTraceLevel() > 0) {
            CTrcSaveLocation(__FILE__, __LINE__);
            DpTrcWarnA7("Error in mkstemp. Filename pattern=%s\n TempDir %s\n DefaultTempDir %s\n",
                        path, directory != nullptr ? directory : "(null)",
                        MavPXGetDefaultTmpPath());
        }
        MAV_TRC_E("fdopenU return %d, mkstemp failed\n", fd);
        // Nothing was created: leave no name that unlink could act on.
        path[0] = '\0';
        return MAV_E_SCAN_FAILED;
    }
    FILE* fp = fdopen(fd, "w+b");
    if (fp == nullptr) {
        close(fd);
        MAV_TRC_E("fdopenU return %d, mkstemp failed\n", fd);
        return MAV_E_SCAN_FAILED;
    }
    MAV_RC rc = MAV_OK;
    if (length > 0 && (bytes == nullptr || fwrite(bytes, 1, length, fp) != length)) {
        MAV_TRC_E("fwrite failed\n");
        rc = MAV_E_SCAN_FAILED;
    }
    if (fclose(fp) != 0 && rc == MAV_OK) {
        MAV_TRC_E("fwrite failed\n");
        rc = MAV_E_SCAN_FAILED;
    }
    return rc;
}

MAV_API MAV_RC MavPXBytesFromTempFile(const char* path, unsigned char* buffer, size_t* length) {
    if (path == nullptr || buffer == nullptr || length == nullptr) return MAV_E_NULL_PARAM;
    FILE* fp = fopen(path, "r+b");
    if (fp == nullptr) {
        MAV_TRC_E("fopen(%s) failed\n", path);
        return MAV_E_SCAN_FAILED;
    }
    *length = fread(buffer, 1, *length, fp);
    fclose(fp);
    return MAV_OK;
}

}  // extern "C"
