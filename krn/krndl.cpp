// krndl.cpp - dynamic loading and the per-thread last-error store.
#include "krndl.h"

#include <dlfcn.h>

#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace {

// Loader handles are indexes into this table; a free slot holds null.
// The table lock is a leaf: dlopen/dlclose run outside it, since a library's
// constructors may load further libraries.
constexpr size_t kMaxLibs = 4096;
std::mutex dlTableLock;
std::vector<void*> dlTable;

thread_local std::string errLastText;

void ErrSet(const char* text) {
    try {
        errLastText.assign(text != nullptr ? text : "");
    } catch (const std::bad_alloc&) {
        errLastText.clear();
    }
}

// The library at handle, or null when the handle is not open.
void* Lookup(int handle) {
    std::lock_guard<std::mutex> guard(dlTableLock);
    if (handle < 0 || static_cast<size_t>(handle) >= dlTable.size()) return nullptr;
    return dlTable[static_cast<size_t>(handle)];
}

// Stores lib in the lowest free slot; -1 when the table is full.
int Insert(void* lib) {
    std::lock_guard<std::mutex> guard(dlTableLock);
    for (size_t i = 0; i < dlTable.size(); ++i) {
        if (dlTable[i] == nullptr) {
            dlTable[i] = lib;
            return static_cast<int>(i);
        }
    }
    if (dlTable.size() >= kMaxLibs) return -1;
    try {
        dlTable.push_back(lib);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return static_cast<int>(dlTable.size() - 1);
}

}  // namespace

extern "C" {

int DlLoadLib(const char* fileName, int* handle) {
    if (handle != nullptr) *handle = -1;
    if (fileName == nullptr || handle == nullptr) return DL_RC_INVALID;
    void* lib = dlopen(fileName, RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        ErrSet(dlerror());
        return DL_RC_LOAD_FAILED;
    }
    int slot = Insert(lib);
    if (slot < 0) {
        dlclose(lib);
        ErrSet("no free slot in the loader table");
        return DL_RC_NO_SPACE;
    }
    *handle = slot;
    return DL_RC_OK;
}

int DlLoadFunc(int handle, const char* symbol, void** fn) {
    if (fn != nullptr) *fn = nullptr;
    if (symbol == nullptr || fn == nullptr) return DL_RC_INVALID;
    void* lib = Lookup(handle);
    if (lib == nullptr) return DL_RC_INVALID;
    dlerror();  // a null symbol value is told from failure by dlerror
    void* sym = dlsym(lib, symbol);
    const char* err = dlerror();
    if (err != nullptr) {
        ErrSet(err);
        return DL_RC_NOT_FOUND;
    }
    *fn = sym;
    return DL_RC_OK;
}

int DlUnloadLib(int* handle) {
    if (handle == nullptr) return DL_RC_INVALID;
    void* lib = nullptr;
    {
        std::lock_guard<std::mutex> guard(dlTableLock);
        int h = *handle;
        if (h < 0 || static_cast<size_t>(h) >= dlTable.size()) return DL_RC_INVALID;
        lib = dlTable[static_cast<size_t>(h)];
        if (lib == nullptr) return DL_RC_INVALID;
        dlTable[static_cast<size_t>(h)] = nullptr;
    }
    *handle = -1;
    if (dlclose(lib) != 0) {
        ErrSet(dlerror());
        return DL_RC_INVALID;
    }
    return DL_RC_OK;
}

const char* ErrGetLastText(void) {
    return errLastText.c_str();
}

void ErrClear(void) {
    errLastText.clear();
}

}  // extern "C"

// Held across fork() by the library's fork handlers (sec/mav/mavxxi_fork.cpp),
// so a child never inherits the table lock taken by a thread it lost.
extern "C" __attribute__((visibility("hidden"))) void KrnDlForkLock(void) {
    dlTableLock.lock();
}
extern "C" __attribute__((visibility("hidden"))) void KrnDlForkUnlock(void) {
    dlTableLock.unlock();
}
