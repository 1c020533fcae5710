/*
 * pel_records.cpp - result codes and scan results of an adapter.
 *
 * Under the project's licence, not the GPL (see pel_records.h).
 */
#include "pel_records.h"

#include <cctype>
#include <cstring>
#include <type_traits>

namespace pelcommon {

static_assert(std::is_standard_layout<ScanResult>::value,
              "the PEL_SCANINFO must convert back to its owner");

ScanResult::ScanResult(uint32_t mark, uint32_t jobId, const std::string& objectName,
                       size_t objectSize, uint32_t objectType)
    : mark_(mark), objectType_(objectType), objectName_(objectName), objectSize_(objectSize) {
    std::memset(&info_, 0, sizeof info_);
    info_.struct_size = sizeof(PEL_SCANINFO);
    info_.uiJobID = jobId;
    std::memset(&content_, 0, sizeof content_);
}

char* ScanResult::Keep(const std::string& s) {
    strings_.push_back(s);
    return strings_.back().data();
}

void ScanResult::SetContent(const std::string& extension, const std::string& contentType,
                            const std::string& charset) {
    hasContent_ = true;
    content_.struct_size = sizeof(PEL_CONTENTINFO);
    content_.tObjectType = objectType_;
    content_.pszExtension = Keep(extension);
    content_.pszContentType = Keep(contentType);
    content_.pszCharSet = Keep(charset);
    content_.uiJobID = info_.uiJobID;
    content_.pszObjectName = Keep(objectName_);
    content_.lObjectSize = objectSize_;
}

void ScanResult::AddInfection(const std::string& virusName, uint32_t detectType,
                              const std::string& freeText) {
    PEL_VIRUSINFO v;
    std::memset(&v, 0, sizeof v);
    v.struct_size = sizeof v;
    v.bRepairable = 0;
    v.tDetectType = detectType;
    v.tObjectType = objectType_;
    v.pszVirusName = Keep(virusName);
    v.uiJobID = info_.uiJobID;
    v.pszObjectName = Keep(objectName_);
    v.lObjectSize = objectSize_;
    v.pszFreeTextInfo = Keep(freeText);
    infections_.push_back(v);
}

void ScanResult::AddScanError(int32_t code, const std::string& text) {
    PEL_SCANERROR e;
    std::memset(&e, 0, sizeof e);
    e.struct_size = sizeof e;
    e.uiJobID = info_.uiJobID;
    e.pszObjectName = Keep(objectName_);
    e.lObjectSize = objectSize_;
    e.iErrorRC = code;
    e.pszErrorText = Keep(text);
    errors_.push_back(e);
}

void ScanResult::Finish(int rc) {
    info_.uiScanned = hasContent_ ? 1 : 0;
    info_.uiClean = rc == kOk ? 1 : 0;
    info_.uiNotScanned = rc > 0 || rc == kBlockedByPolicy ? 1 : 0;
    info_.uiInfections = static_cast<uint32_t>(infections_.size());
    info_.uiScanErrors = static_cast<uint32_t>(errors_.size());
    info_.pContentInfo = hasContent_ ? &content_ : nullptr;
    info_.pVirusInfo = infections_.empty() ? nullptr : infections_.data();
    info_.pScanError = errors_.empty() ? nullptr : errors_.data();
}

ScanResult* ScanResult::FromInfo(PEL_SCANINFO* info, uint32_t mark) {
    auto* r = reinterpret_cast<ScanResult*>(info);
    return r != nullptr && r->mark_ == mark ? r : nullptr;
}

namespace {

// Sends one message when the caller's mask asks for it; false when the
// handler asked to stop.
bool Send(const PEL_CALLBACK* cb, void* adapterData, uint32_t message, void* data) {
    if ((cb->uiMessageMask & message) == 0) return true;
    return cb->pfnCallback(adapterData, message, data, cb->pvContext) == VS_CALLRC_CONTINUE;
}

}  // namespace

bool ScanResult::ReportNewInfections(const PEL_CALLBACK* cb, void* adapterData) {
    if (cb == nullptr || cb->pfnCallback == nullptr) {
        infectionsReported_ = infections_.size();
        return true;
    }
    while (infectionsReported_ < infections_.size()) {
        if (!Send(cb, adapterData, VS_M_VIRUS, &infections_[infectionsReported_++])) return false;
    }
    return true;
}

bool ScanResult::Report(const PEL_CALLBACK* cb, void* adapterData,
                        const std::vector<std::string>& objects, const std::string& engineError) {
    if (cb == nullptr || cb->pfnCallback == nullptr) return true;
    auto send = [&](uint32_t message, void* data) { return Send(cb, adapterData, message, data); };
    for (const std::string& name : objects) {
        if (!send(VS_M_OBJECTFOUND, const_cast<char*>(name.c_str()))) return false;
    }
    for (size_t i = infectionsReported_; i < infections_.size(); ++i) {
        if (!send(VS_M_VIRUS, &infections_[i])) return false;
    }
    if (!engineError.empty() && !send(VS_M_ERROR, const_cast<char*>(engineError.c_str()))) {
        return false;
    }
    for (PEL_SCANERROR& e : errors_) {
        if (!send(VS_M_NOTSCANNED, &e)) return false;
    }
    if (info_.uiClean != 0 &&
        !send(VS_M_CLEAN, reinterpret_cast<void*>(static_cast<uintptr_t>(info_.uiJobID)))) {
        return false;
    }
    return true;
}

int ReleaseScan(PEL_SCANINFO** ppScanInfo, uint32_t mark) {
    if (ppScanInfo == nullptr) return kNullParam;
    if (*ppScanInfo == nullptr) return kOk;
    ScanResult* r = ScanResult::FromInfo(*ppScanInfo, mark);
    if (r == nullptr) return kInvalidParam;
    delete r;
    *ppScanInfo = nullptr;
    return kOk;
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string NameExtension(const std::string& name) {
    size_t slash = name.find_last_of("/\\");
    std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
    size_t dot = base.find_last_of('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == base.size()) return std::string();
    return Lower(base.substr(dot + 1));
}

}  // namespace pelcommon
