/*
 * pel_init.h - the PEL_INIT records an adapter hands out, and the entry point
 * steps around them that every adapter takes the same way.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#ifndef KORMO_PEL_INIT_H
#define KORMO_PEL_INIT_H

#include <cstdint>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>

#include "kormopel.h"
#include "pel_records.h"

namespace pelcommon {

// A PEL_INIT with a link back to the adapter object that owns it. The record
// is the first member, so the PEL_INIT* the library holds converts back; Mark,
// the adapter's own value, tells a live block from anything else.
template <class Owner, uint32_t Mark>
struct InitBlock {
    PEL_INIT init;  // first member
    uint32_t mark;
    Owner* owner;

    // Zeroes the block and links it to its owner.
    void Open(Owner* o) {
        std::memset(this, 0, sizeof *this);
        init.struct_size = sizeof(PEL_INIT);
        mark = Mark;
        owner = o;
    }
    // Wipes the mark: a stale PEL_INIT* is refused from now on.
    void Close() { mark = 0; }

    // The owner of the block behind init, or null.
    static Owner* OwnerOf(PEL_INIT* init) {
        static_assert(std::is_standard_layout<InitBlock>::value, "PEL_INIT must convert back");
        auto* b = reinterpret_cast<InitBlock*>(init);
        return b != nullptr && b->mark == Mark ? b->owner : nullptr;
    }
};

// The base of an adapter's engine instance D: it owns the block the library
// holds as its PEL_INIT, and the text of a failed start.
template <class D, uint32_t Mark>
class InitOwner {
  public:
    InitOwner() { block_.Open(static_cast<D*>(this)); }
    ~InitOwner() { block_.Close(); }
    InitOwner(const InitOwner&) = delete;
    InitOwner& operator=(const InitOwner&) = delete;

    PEL_INIT* Init() { return &block_.init; }
    static D* FromInit(PEL_INIT* init) { return InitBlock<D, Mark>::OwnerOf(init); }

  protected:
    // Puts the reason of a failed start into the PEL_INIT; returns rc.
    int Fail(int rc, int vendorRc, const std::string& text) {
        errorText_ = text;
        block_.init.iErrorRC = vendorRc;
        block_.init.pszErrorText = errorText_.c_str();
        return rc;
    }
    int Fail(int rc, const std::string& text) { return Fail(rc, rc, text); }

    InitBlock<D, Mark> block_;
    std::string errorText_;
};

// The owners of the PEL_INIT records of failed PelInit calls: the library
// keeps reading such a record but never hands it back, so it is freed at
// PelCleanup. Owner provides Init() and static FromInit(PEL_INIT*).
template <class Owner>
class FailedInits {
  public:
    // The end of PelInit: hands out owner's PEL_INIT whatever rc is, and keeps
    // the owner when rc is not kOk. Returns rc.
    int HandOut(Owner* owner, int rc, PEL_INIT** ppInit) {
        *ppInit = owner->Init();
        if (rc != kOk) {
            std::lock_guard<std::mutex> l(lock_);
            owners_.insert(owner);
        }
        return rc;
    }

    // PelEnd: frees the owner of *ppInit (failed or not) and nulls the pointer.
    int End(PEL_INIT** ppInit) {
        if (ppInit == nullptr) return kNullParam;
        if (*ppInit == nullptr) return kOk;
        Owner* owner = Owner::FromInit(*ppInit);
        if (owner == nullptr) return kInvalidParam;
        {
            std::lock_guard<std::mutex> l(lock_);
            owners_.erase(owner);
        }
        delete owner;
        *ppInit = nullptr;
        return kOk;
    }

    // PelCleanup: frees the owners of failed PelInit calls not ended.
    void Cleanup() {
        std::set<Owner*> failed;
        {
            std::lock_guard<std::mutex> l(lock_);
            failed.swap(owners_);
        }
        for (Owner* o : failed) delete o;
    }

  private:
    std::mutex lock_;
    std::set<Owner*> owners_;
};

// PelScan's checks around the owner's scan(owner): nulls *ppScanInfo, refuses
// a null PEL_INIT (kNullParam), one that is not the adapter's or comes from a
// failed PelInit (kNotInitialised), and turns an exception into kNoSpace.
template <class Owner, class Scan>
int ScanOn(PEL_INIT* pInit, PEL_SCANINFO** ppScanInfo, Scan&& scan) {
    if (ppScanInfo != nullptr) *ppScanInfo = nullptr;
    Owner* owner = Owner::FromInit(pInit);
    if (owner == nullptr) return pInit == nullptr ? kNullParam : kNotInitialised;
    if (pInit->hEngine == nullptr) return kNotInitialised;  // a failed PelInit
    try {
        return scan(owner);
    } catch (...) {
        return kNoSpace;
    }
}

}  // namespace pelcommon

#endif
