#pragma once
// One installation under a fresh temporary folder, for the whole-plug-in fault tests: a core temp
// folder with a stale sibling, an engines folder whose kit names version 9.9.9 and 1000
// signatures, the common folder's two cache files and one signature folder.
#include "host/HostEnvironment.h"

#include <string>

namespace testing_support {

struct Installation {
    explicit Installation(const wchar_t* tag);
    ~Installation();
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;
    // Names the folders in the service configuration, with the remote-scan service up (fallback 2,
    // or 0 for a remote-only scan type) and update statistics of 1.2.3 and 42.
    void Configure(host::HostEnvironment& env, const wchar_t* scanType = L"full") const;

    std::wstring root, coreTemp, engines, common, settingsFile;
};

} // namespace testing_support
