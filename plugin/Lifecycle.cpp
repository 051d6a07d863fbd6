// Construction, interface lookup and the host-driven lifecycle: Init, Start, Stop, UnInit.
// DelayedStart lives in Recovery.cpp, beside the engines recovery that it starts when the scan
// provider was missing at Init.
#include "plugin/AntivirusScanAL.h"
#include "plugin/ErrorCodes.h"
#include "plugin/SlotGuard.h"

namespace qv {

using namespace logging;

GUID PrimaryInterfaceId() { return kxsdk::ids::kPrimaryFaceId; }
GUID ServPluginInterfaceId() { return kxsdk::ids::kServPluginFaceId; }
GUID DelayedServPluginInterfaceId() { return kxsdk::ids::kDelayedServPluginFaceId; }
GUID AntivirusScanInterfaceId() { return kxsdk::ids::kAntivirusScanFaceId; }

AntivirusScanAL::AntivirusScanAL() {
    // Last step of construction: while the object lives, plain messages are written.
    logRef.Acquire();
}

// Members go in reverse declaration order after the body: sink containers, strings, the state
// lock, the feature table, then the holders, each handing back a plug-in it still holds.
AntivirusScanAL::~AntivirusScanAL() { logRef.Release(); }

void* AntivirusScanAL::QueryInterface(const GUID& id) {
    if (SameInterfaceId(id, PrimaryInterfaceId()) || SameInterfaceId(id, ServPluginInterfaceId()) ||
        SameInterfaceId(id, DelayedServPluginInterfaceId())) {
        return static_cast<IDelayedServPlugin*>(this);
    }
    if (SameInterfaceId(id, AntivirusScanInterfaceId())) return static_cast<IAntivirusScan*>(this);
    return nullptr;
}

IComponentManager* AntivirusScanAL::ComponentManager() const {
    IQvHost* host = hostContext.load();
    return host ? host->GetComponentManager() : nullptr;
}

DWORD AntivirusScanAL::Init(IQvHost* host) {
    QV_TRACE(L"AntivirusScanAL::Init");
    if (IsNullArgument(qvFunctionName_, host)) return kInvalidParameter;
    DWORD result = GuardedSlot(qvFunctionName_, [&] { return InitSteps(host); });
    if (result != kSuccess) UnInit();
    return result;
}

// Any non-zero result makes Init undo everything through UnInit.
DWORD AntivirusScanAL::InitSteps(IQvHost* host) {
    QV_FUNCTION(L"AntivirusScanAL::Init");
    hostContext.store(host);
    IComponentManager* manager = ComponentManager();

    if (!servConfigPlugin.GetPlugin(manager)) {
        QV_LOG(LOG_SEV_ERROR, L"Dependency not found : ServConfig.");
        return kDependencyNotFound;
    }
    InitCoreTempFolder();
    if (!InitScanType()) {
        QV_LOG(LOG_SEV_ERROR, L"Invalid scan type.");
        return kInvalidData;
    }
    if (!updatePlugin.GetPlugin(manager)) {
        QV_LOG(LOG_SEV_ERROR, L"Dependency not found : Update.");
        return kDependencyNotFound;
    }
    if (!settingsPlugin.GetPlugin(manager)) {
        QV_LOG(LOG_SEV_ERROR, L"Dependency not found : Settings.");
        return kDependencyNotFound;
    }
    if (!InitSettings()) QV_LOG(LOG_SEV_WARNING, L"InitSettings failed!");
    LogEnginesFolder();
    RemoveNonRemoteScanPlugins();

    if (scanSpPlugin.GetPlugin(manager)) {
        OnReloadSuccessfull();
    } else {
        QV_LOG(LOG_SEV_WARNING, L"Dependency not found : ScanSp.");
        enginesRecoveryInProgress = true;
    }
    if (!remoteScanPlugin.GetPlugin(manager)) {
        QV_LOG(LOG_SEV_WARNING, L"Dependency not found : RemoteScan.");
        if (scanType == kxsdk::AntivirusScan::RemoteOnly) {
            QV_LOG(LOG_SEV_ERROR, L"Cannot continue without RemoteScanAL plugin!");
            return kDependencyNotFound;
        }
    }
    if (!InitScanMode()) {
        QV_LOG(LOG_SEV_ERROR, L"InitScanMode failed!");
        return kInternalError;
    }
    if (!ctcPlugin.GetPlugin(manager)) QV_LOG(LOG_SEV_INFO, L"Dependency not found : CTC.");
    DisableScanCrashHandler();

    // Read under stateLock and applied after leaving it, counted with the switches' calls.
    bool backup = false, again = false;
    PushBackupStatus(backup, again);
    RepeatBackupPush(again);
    return kSuccess;
}

DWORD AntivirusScanAL::Start() {
    QV_TRACE(L"AntivirusScanAL::Start");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        if (!updatePlugin.IsHeld() || !settingsPlugin.IsHeld() || !servConfigPlugin.IsHeld()) {
            QV_LOG(LOG_SEV_ERROR, L"Dependency not found");
            return kDependencyNotFound;
        }
        if (scanType == kxsdk::AntivirusScan::RemoteOnly && !remoteScanPlugin.IsHeld()) {
            QV_LOG(LOG_SEV_ERROR, L"Invalid remote scan configuration");
            return kInvalidState;
        }
        DWORD error = kDependencyNotFound;
        if (auto update = updatePlugin.Acquire())
            error = update->RegisterEvents(static_cast<IUpdate::IEvents*>(this), 0, "");
        if (error != 0) {
            QV_LOG(LOG_SEV_ERROR, L"Cannot register update events [error = %d]", static_cast<int>(error));
            Stop();
            return kEventRegistrationRefused;
        }
        if (auto remote = remoteScanPlugin.Acquire()) {
            error = remote->RegisterEvents(static_cast<IRemoteScan::IEvents*>(this), 0);
            if (error != 0) {
                QV_LOG(LOG_SEV_ERROR, L"Cannot register remote scan events [error = %d]", static_cast<int>(error));
                Stop();
                return kEventRegistrationRefused;
            }
        }
        return kSuccess;
    });
}

DWORD AntivirusScanAL::Stop() {
    QV_TRACE(L"AntivirusScanAL::Stop");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        if (auto update = updatePlugin.Acquire())
            (void)update->UnregisterEvents(static_cast<IUpdate::IEvents*>(this), 0, "");
        if (auto remote = remoteScanPlugin.Acquire())
            (void)remote->UnregisterEvents(static_cast<IRemoteScan::IEvents*>(this), 0);
        return kSuccess;
    });
}

DWORD AntivirusScanAL::UnInit() {
    QV_TRACE(L"AntivirusScanAL::UnInit");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        UnInitScanMode();
        UnInitSettings();
        // Forgotten before the plug-ins go back, so that a recovery reload still running on the
        // update plug-in's thread cannot get the scan provider again behind UnInit.
        hostContext.store(nullptr);
        // Each release waits for the calls still in flight into that plug-in.
        ctcPlugin.Release();
        remoteScanPlugin.Release();
        servConfigPlugin.Release();
        settingsPlugin.Release();
        updatePlugin.Release();
        scanSpPlugin.Release();
        return kSuccess;
    });
}

} // namespace qv
