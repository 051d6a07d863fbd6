#pragma once
#include "sdk/IAntivirusScan.h"
#include "sdk/StringT.h"

namespace qv {

// In-memory mirror of the "/AntivirusScan" settings document.
struct AntivirusScanSettings {
    bool enableBackup = false;
    bool reportSignatureInfo = false;
    kxsdk::AntivirusScan::HashChainSettings hashChain{false};
    StringW enginesFolder;
    uint32_t reloadStatus = 2;
};

} // namespace qv
