// Scan type from the service configuration, and the primary and fallback scan modes derived
// from it and from the remote-scan plug-in's state.
#include "plugin/AntivirusScanAL.h"
#include "plugin/SlotGuard.h"

namespace qv {

using namespace logging;
using namespace kxsdk::AntivirusScan;

StringW AntivirusScanAL::ConfigText(int32_t category, const wchar_t* name) {
    // The text is copied while the plug-in is pinned: it belongs to the plug-in.
    auto config = servConfigPlugin.Acquire();
    if (!config) return StringW();
    const wchar_t* text = config->GetText(category, name);
    return StringW(text ? text : L"");
}

bool AntivirusScanAL::InitScanType() {
    QV_TRACE(L"AntivirusScanAL::InitScanType");
    if (!servConfigPlugin.IsHeld()) return false;
    StringW text = ConfigText(kxsdk::config::kScanTypeCategory, L"BASE");
    QV_LOG(LOG_SEV_INFO, L"ScanType = %s", text.c_str());
    auto lock = stateLock.Lock();
    if (text.EqualsNoCase(L"full")) {
        scanType = Full;
    } else if (text.EqualsNoCase(L"light")) {
        scanType = Light;
    } else if (text.EqualsNoCase(L"remote")) {
        scanType = RemoteOnly;
    } else {
        QV_LOG(LOG_SEV_ERROR, L"Invalid scan type [config = %s]", text.c_str());
        return false;
    }
    return true;
}

bool AntivirusScanAL::ComputeScanModes(ScanMode& primary, ScanMode& fallback) {
    QV_TRACE(L"AntivirusScanAL::ComputeScanModes");
    primary = ScanModeNone;
    fallback = ScanModeNone;
    bool status = false;
    uint32_t rsMode = 0;
    bool useFallback = false;
    uint32_t type;
    {
        auto lock = stateLock.Lock();
        type = scanType;
    }
    if (auto remote = remoteScanPlugin.Acquire()) {
        uint32_t unused = 0;
        (void)remote->GetStatus(&status);
        (void)remote->GetServerCount(&unused);
        (void)remote->GetFallbackMode(&rsMode);
        useFallback = type != RemoteOnly;
    }
    QV_LOG(LOG_SEV_INFO, L"RemoteScan info [status = %d] [fallback = %d] [rsMode = %d] ", status ? 1 : 0,
           useFallback ? 1 : 0, static_cast<int>(rsMode));

    if (type == RemoteOnly) {
        if (!status || useFallback) {
            QV_LOG(LOG_SEV_ERROR, L"Invalid remote scan settings.");
            return false;
        }
        primary = ScanModeRemote;
        if (rsMode == IRemoteScan::NoFallback) return true;
        if (rsMode == IRemoteScan::FallbackRemote) {
            fallback = ScanModeRemote;
            return true;
        }
        QV_LOG(LOG_SEV_ERROR, L"No local engines installed.");
        return false;
    }

    const ScanMode local = type == Light ? ScanModeLocalLight : ScanModeLocalFull;
    const ScanMode remote = type == Light ? ScanModeRemoteLight : ScanModeRemoteFull;
    if (!status) {
        primary = local;
        fallback = local;
        return true;
    }
    if (useFallback) {
        primary = remote;
        if (rsMode == IRemoteScan::FallbackRemote) {
            fallback = remote;
        } else if (rsMode == IRemoteScan::FallbackLocal) {
            fallback = local;
        } else {
            QV_LOG(LOG_SEV_WARNING, L"ScanModeNone when using fallback.");
        }
        return true;
    }
    // Unreachable while the fallback flag is derived from the plug-in and the scan type; kept
    // for the day the two are decoupled.
    primary = ScanModeRemote;
    if (rsMode == IRemoteScan::NoFallback) return true;
    if (rsMode == IRemoteScan::FallbackRemote) {
        fallback = ScanModeRemote;
        return true;
    }
    QV_LOG(LOG_SEV_ERROR, L"No fallback should be use.");
    return false;
}

uint32_t AntivirusScanAL::InitScanMode() {
    QV_TRACE(L"AntivirusScanAL::InitScanMode");
    ScanMode primary, fallback;
    if (!ComputeScanModes(primary, fallback)) {
        QV_LOG(LOG_SEV_ERROR, L"Cannot compute scan mode");
        return 0;
    }
    auto lock = stateLock.Lock();
    primaryScanMode = primary;
    fallbackScanMode = fallback;
    return 1;
}

bool AntivirusScanAL::RefreshScanModes() {
    QV_TRACE(L"AntivirusScanAL::RefreshScanModes");
    ScanMode primary, fallback;
    if (!ComputeScanModes(primary, fallback)) return false;
    {
        auto lock = stateLock.Lock();
        if (primary == primaryScanMode && fallback == fallbackScanMode) return true;
        primaryScanMode = primary;
        fallbackScanMode = fallback;
    }
    // Outside the state lock, so that a sink may call back into GetScanModes.
    scanModesChanged.Fire(primary, fallback);
    return true;
}

void AntivirusScanAL::UnInitScanMode() { QV_TRACE(L"AntivirusScanAL::UnInitScanMode"); }

DWORD AntivirusScanAL::GetScanType(ScanType* type) {
    QV_FUNCTION(L"AntivirusScanAL::GetScanType");
    if (IsNullArgument(qvFunctionName_, type)) return kInvalidParameter;
    auto lock = stateLock.Lock();
    *type = static_cast<ScanType>(scanType);
    return kSuccess;
}

DWORD AntivirusScanAL::GetScanModes(ScanMode* primary, ScanMode* fallback) {
    QV_FUNCTION(L"AntivirusScanAL::GetScanModes");
    if (IsNullArgument(qvFunctionName_, primary, fallback)) return kInvalidParameter;
    if (enginesRecoveryInProgress) {
        QV_LOG(LOG_SEV_WARNING, L"EnginesRecoveryInProgress...");
        *primary = ScanModeNone;
        *fallback = ScanModeNone;
        return kRecoveryInProgress;
    }
    auto lock = stateLock.Lock();
    *primary = primaryScanMode;
    *fallback = fallbackScanMode;
    return kSuccess;
}

DWORD AntivirusScanAL::OnStatusChanged(bool status) {
    QV_TRACE(L"AntivirusScanAL::OnStatusChanged");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        uint32_t type;
        {
            auto lock = stateLock.Lock();
            type = scanType;
        }
        if (status || type != RemoteOnly) {
            RefreshScanModes();
            return kSuccess;
        }
        QV_LOG(LOG_SEV_WARNING, L"RemoteScan status cannot be OFF when scan type is RemoteOnly");
        return kInvalidData;
    });
}

DWORD AntivirusScanAL::OnSettingsChanged() {
    QV_TRACE(L"AntivirusScanAL::OnSettingsChanged");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        RefreshScanModes();
        return kSuccess;
    });
}

DWORD AntivirusScanAL::OnScanModeChanged() {
    QV_TRACE(L"AntivirusScanAL::OnScanModeChanged");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        RefreshScanModes();
        return kSuccess;
    });
}

} // namespace qv
