#pragma once
#include "sdk/IAntivirusScan.h"
#include "sdk/StringT.h"

namespace qv {

// The values this plug-in stores under "engines/reloadStatus". The store may hold any number;
// only these are written.
enum ReloadStatus : uint32_t {
    kReloadStarted = 1,
    kReloadLoaded = 2,
    kReloadSkippedForMaintenance = 3,
};

// In-memory mirror of the "/AntivirusScan" settings document.
struct AntivirusScanSettings {
    bool enableBackup = false;
    bool reportSignatureInfo = false;
    kxsdk::AntivirusScan::HashChainSettings hashChain{false};
    StringW enginesFolder;
    uint32_t reloadStatus = kReloadLoaded;
};

} // namespace qv
