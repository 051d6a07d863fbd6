// Scan type from the service configuration, and the primary and fallback scan modes derived
// from it and from the remote-scan plug-in's state.
#include "plugin/AntivirusScanAL.h"
#include "plugin/SlotGuard.h"

namespace qv {

using namespace logging;
using namespace kxsdk::AntivirusScan;

namespace {

// What the remote-scan plug-in reports, read afresh for every computation.
struct RemoteScanState {
    bool status = false;
    // Not reported: true when the plug-in is held and the installation also scans locally.
    bool useFallback = false;
    uint32_t rsMode = IRemoteScan::NoFallback;
};

// The pair the table gives, whether it may be used, and the one line it logs (if any). On an
// invalid row the pair still holds what was decided so far; callers must not use it.
struct ScanModeDecision {
    ScanMode primary = ScanModeNone;
    ScanMode fallback = ScanModeNone;
    bool valid = true;
    uint32_t severity = 0;
    const wchar_t* message = nullptr;
};

// The results of the three queries are ignored: a plug-in that fails one leaves the default.
RemoteScanState ReadRemoteScanState(ServPlugin<IRemoteScan>& plugin, uint32_t type) {
    RemoteScanState state;
    if (auto remote = plugin.Acquire()) {
        uint32_t unused = 0;
        (void)remote->GetStatus(&state.status);
        (void)remote->GetServerCount(&unused);
        (void)remote->GetFallbackMode(&state.rsMode);
        state.useFallback = type != RemoteOnly;
    }
    return state;
}

// Remote scanning alone, with the fallback the remote-scan plug-in allows.
ScanModeDecision RemoteAlone(uint32_t type, uint32_t rsMode) {
    if (rsMode == IRemoteScan::NoFallback) return {ScanModeRemote, ScanModeNone};
    if (rsMode == IRemoteScan::FallbackRemote) return {ScanModeRemote, ScanModeRemote};
    return {ScanModeRemote, ScanModeNone, false, LOG_SEV_ERROR,
            type == RemoteOnly ? L"No local engines installed." : L"No fallback should be use."};
}

// The decision table: pure, from the scan type and the remote-scan state.
ScanModeDecision DecideScanModes(uint32_t type, const RemoteScanState& remote) {
    if (type == RemoteOnly) {
        if (!remote.status || remote.useFallback)
            return {ScanModeNone, ScanModeNone, false, LOG_SEV_ERROR, L"Invalid remote scan settings."};
        return RemoteAlone(type, remote.rsMode);
    }
    const ScanMode local = type == Light ? ScanModeLocalLight : ScanModeLocalFull;
    const ScanMode remoteMode = type == Light ? ScanModeRemoteLight : ScanModeRemoteFull;
    if (!remote.status) return {local, local};
    // Unreachable while the fallback flag is derived from the plug-in and the scan type (a
    // status needs the plug-in); kept for the day the two are decoupled.
    if (!remote.useFallback) return RemoteAlone(type, remote.rsMode);
    if (remote.rsMode == IRemoteScan::FallbackRemote) return {remoteMode, remoteMode};
    if (remote.rsMode == IRemoteScan::FallbackLocal) return {remoteMode, local};
    return {remoteMode, ScanModeNone, true, LOG_SEV_WARNING, L"ScanModeNone when using fallback."};
}

} // namespace

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
    uint32_t type;
    if (text.EqualsNoCase(L"full")) {
        type = Full;
    } else if (text.EqualsNoCase(L"light")) {
        type = Light;
    } else if (text.EqualsNoCase(L"remote")) {
        type = RemoteOnly;
    } else {
        QV_LOG(LOG_SEV_ERROR, L"Invalid scan type [config = %s]", text.c_str());
        return false;
    }
    // Only the store is made under the lock: log.dll is never called while holding it.
    auto lock = stateLock.Lock();
    scanType = type;
    return true;
}

bool AntivirusScanAL::ComputeScanModes(ScanMode& primary, ScanMode& fallback) {
    QV_TRACE(L"AntivirusScanAL::ComputeScanModes");
    primary = ScanModeNone;
    fallback = ScanModeNone;
    uint32_t type;
    {
        auto lock = stateLock.Lock();
        type = scanType;
    }
    const RemoteScanState remote = ReadRemoteScanState(remoteScanPlugin, type);
    QV_LOG(LOG_SEV_INFO, L"RemoteScan info [status = %d] [fallback = %d] [rsMode = %d] ", remote.status ? 1 : 0,
           remote.useFallback ? 1 : 0, static_cast<int>(remote.rsMode));
    const ScanModeDecision decision = DecideScanModes(type, remote);
    if (decision.message) QV_LOG(decision.severity, decision.message);
    primary = decision.primary;
    fallback = decision.fallback;
    return decision.valid;
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
