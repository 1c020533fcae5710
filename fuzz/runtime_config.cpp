// runtime_config.cpp - fuzz target: MavStartRuntime on any configuration text.
//
// Every provider loads the test adapter: PEL_LIB names it and AdapterPath
// lines are dropped from the input, so no other library is ever loaded. Inputs
// that name an existing file are skipped (the file route is tested elsewhere
// and a device such as /dev/stdin would block). Each input starts the runtime,
// takes and scans through profile instances when the configuration is small
// enough for an instance build to stay cheap, and stops the runtime again;
// the reader's key map is emptied afterwards so that inputs do not influence
// each other.
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "mavprofile_i.h"

namespace {

const size_t kMaxInput = 4096;
// Instance builds are exponential in a configuration whose profiles repeat
// sub-profile steps; only small step counts are built.
const size_t kMaxEntries = 16;

// The input without lines that would name an adapter file.
std::string withoutAdapterPaths(const std::string& text) {
    std::istringstream in(text);
    std::string out, line;
    while (std::getline(in, line)) {
        std::string squeezed = line;  // the reader drops blanks inside a key
        squeezed.erase(std::remove_if(squeezed.begin(), squeezed.end(),
                                      [](char c) { return c == ' ' || c == '\t'; }),
                       squeezed.end());
        if (squeezed.find("AdapterPath") == std::string::npos) out += line + '\n';
    }
    if (!out.empty() && text.back() != '\n') out.pop_back();
    return out;
}

void useProfile(const char* name) {
    MAV_INST inst = nullptr;
    MAV_RC rc = MavGetProfileInstance(name, &inst);
    CHECK(rc == MAV_OK || (rc >= MAV_E_NO_PROFILE_DEFINED && rc <= MAV_E_NO_DEFAULT_PROFILE));
    if (inst == nullptr) return;
    unsigned char bytes[4] = {'f', 'u', 'z', 'z'};
    size_t length = sizeof bytes;
    MavScanClean(inst, VS_SC_BYTES, 0, "fuzz", nullptr, bytes, &length, 0, nullptr);
    CHECK(MavFreeInstance(&inst) == MAV_OK);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("PEL_LIB", TESTPEL_DIR "/libtestpel.so", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    std::string text = withoutAdapterPaths(std::string(reinterpret_cast<const char*>(data), size));
    struct stat st;
    if (!text.empty() && stat(text.c_str(), &st) == 0) return 0;

    MAV_RC rc = MavStartRuntime(text.empty() ? nullptr : text.data(), text.size());
    CHECK(rc == MAV_OK || rc == MAV_E_NOT_INITIALISED);
    if (rc == MAV_OK) {
        size_t entries = 0;
        std::vector<std::string> names;
        for (const auto& p : mav::mav_profiles) {
            entries += p.second->getEntries().size();
            names.push_back(mav::FromHex(p.first));
        }
        if (entries <= kMaxEntries) {
            useProfile(nullptr);
            for (size_t i = 0; i < names.size() && i < 8; ++i) useProfile(names[i].c_str());
        }
    }
    CHECK(MavStopRuntime() == MAV_OK);
    CHECK(mav::mav_profiles.empty() && mav::mav_groups.empty() && mav::mav_providers.empty());
    mav::mav_properties = mav::PropertyReader();
    return 0;
}
