// Backup, hash-chain and signature-information switches, and the feature locks. A switch is
// changed in one order: compare under the state lock, write the store, apply where needed,
// update the record, and fire the event after leaving the lock.
#include "plugin/AntivirusScanAL.h"
#include "plugin/FeatureNames.h"
#include "plugin/SettingsSection.h"
#include "plugin/SlotGuard.h"

namespace qv {

using namespace logging;

DWORD AntivirusScanAL::EnableBackup(bool status) {
    QV_TRACE(L"AntivirusScanAL::EnableBackup");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        QV_LOG(LOG_SEV_INFO, L"[status = %d]", status ? 1 : 0);
        {
            // From the save to the record update the store is ahead of the record: no other
            // switch may save the record (and with it the old backup value) in between.
            auto switching = switchLock.Lock();
            {
                auto lock = stateLock.Lock();
                if (status == settings.enableBackup) {
                    QV_LOG(LOG_SEV_INFO, L"already in this state");
                    return kSuccess;
                }
                AntivirusScanSettings changed = settings;
                changed.enableBackup = status;
                if (!SaveSettings(changed)) {
                    QV_LOG(LOG_SEV_ERROR, L"save failed");
                    return kCantWrite;
                }
            }
            if (!ApplyBackupStatus(status)) {
                QV_LOG(LOG_SEV_ERROR, L"apply failed");
                // Put the old value back in the store: the provider still runs with it.
                auto lock = stateLock.Lock();
                SaveSettings(settings);
                return kInternalError;
            }
            auto lock = stateLock.Lock();
            settings.enableBackup = status;
        }
        backupStatusChanged.Fire(status);
        return kSuccess;
    });
}

DWORD AntivirusScanAL::IsBackupEnabled(bool* enabled) {
    if (IsNullArgument(L"AntivirusScanAL::IsBackupEnabled", enabled)) return kInvalidParameter;
    auto lock = stateLock.Lock();
    *enabled = settings.enableBackup;
    return kSuccess;
}

DWORD AntivirusScanAL::ReportHashChain(const HashChainSettings& value) {
    QV_TRACE(L"AntivirusScanAL::ReportHashChain");
    const bool enabled = value.enabled;
    return ChangeReportingSwitch(
        qvFunctionName_, enabled, [](AntivirusScanSettings& record) -> bool& { return record.hashChain.enabled; },
        [&] { hashChainSettingsChanged.Fire(HashChainSettings{enabled}); });
}

DWORD AntivirusScanAL::GetHashChainSettings(HashChainSettings* value) {
    if (IsNullArgument(L"AntivirusScanAL::GetHashChainSettings", value)) return kInvalidParameter;
    auto lock = stateLock.Lock();
    *value = settings.hashChain;
    return kSuccess;
}

DWORD AntivirusScanAL::ReportSignatureInfo(bool enabled) {
    QV_TRACE(L"AntivirusScanAL::ReportSignatureInfo");
    return ChangeReportingSwitch(
        qvFunctionName_, enabled, [](AntivirusScanSettings& record) -> bool& { return record.reportSignatureInfo; },
        [&] { signatureInfoReportingChanged.Fire(enabled); });
}

// The reporting switches differ from backup on purpose: an unchanged value is written to the
// store again, so that the store always ends up holding the whole record.
template <class Field, class Notify>
DWORD AntivirusScanAL::ChangeReportingSwitch(const wchar_t* function, bool enabled, Field field, Notify notify) {
    return GuardedSlot(function, [&]() -> DWORD {
        WriteMessage(LOG_SEV_INFO, function, L"[enabled = %d]", enabled ? 1 : 0);
        {
            auto switching = switchLock.Lock();
            auto lock = stateLock.Lock();
            if (enabled == field(settings)) {
                SaveSettings(settings);
                WriteMessage(LOG_SEV_INFO, function, L"already in this state");
                return kSuccess;
            }
            AntivirusScanSettings changed = settings;
            field(changed) = enabled;
            if (!SaveSettings(changed)) {
                WriteMessage(LOG_SEV_ERROR, function, L"save failed");
                return kCantWrite;
            }
            settings = changed;
        }
        notify();
        return kSuccess;
    });
}

DWORD AntivirusScanAL::IsSignatureInfoReported(bool* enabled) {
    if (IsNullArgument(L"AntivirusScanAL::IsSignatureInfoReported", enabled)) return kInvalidParameter;
    auto lock = stateLock.Lock();
    *enabled = settings.reportSignatureInfo;
    return kSuccess;
}

DWORD AntivirusScanAL::SetFeatureStatus(const StringW& name, bool isLocked) {
    QV_TRACE(L"AntivirusScanAL::SetFeatureStatus");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        if (!AcceptFeatureName(qvFunctionName_, name)) return kInvalidParameter;
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the caller's string may change on its thread.
        const StringW feature = name;
        QV_LOG(LOG_SEV_INFO, L"[name = %s] [isLocked = %d]", feature.c_str(), isLocked ? 1 : 0);
        {
            auto lock = stateLock.Lock();
            featureLocks.Set(feature, isLocked);
            SettingsSection section(settingsPlugin);
            if (section) (void)section->SetBool(feature.c_str(), isLocked);
        }
        featureStatusChanged.Fire(feature, isLocked);
        return kSuccess;
    });
}

DWORD AntivirusScanAL::GetFeatureStatus(const StringW& name, bool* isLocked) {
    QV_FUNCTION(L"AntivirusScanAL::GetFeatureStatus");
    if (IsNullArgument(qvFunctionName_, isLocked)) return kInvalidParameter;
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        auto lock = stateLock.Lock();
        if (const bool* known = featureLocks.FindConst(name)) {
            *isLocked = *known;
            return kSuccess;
        }
        // A refused name is never stored and names compare in full length, so only a name the
        // table does not know needs the check: it stays off the path of known features.
        if (!AcceptFeatureName(qvFunctionName_, name)) return kInvalidParameter;
        // Unknown features count as locked.
        bool locked = true;
        SettingsSection section(settingsPlugin);
        if (section && !section->GetBool(name.c_str(), locked)) locked = true;
        featureLocks.Set(name, locked);
        *isLocked = locked;
        return kSuccess;
    });
}

bool AntivirusScanAL::ApplyBackupStatus(bool status) {
    QV_TRACE(L"AntivirusScanAL::ApplyBackupStatus");
    auto provider = scanSpPlugin.Acquire();
    if (!provider) {
        QV_LOG(LOG_SEV_WARNING, L"ScanSp not loaded.");
        return false;
    }
    uint32_t value = status ? 1 : 0;
    DWORD error = provider->SetOption(kxsdk::scansp::kOptionBackup, 0, &value, sizeof value);
    if (error == 0) return true;
    QV_LOG(LOG_SEV_WARNING, L"Cannot apply backup status. [error = %d]", static_cast<int>(error));
    return false;
}

uint32_t AntivirusScanAL::RefreshBackupStatus() {
    QV_TRACE(L"AntivirusScanAL::RefreshBackupStatus");
    // Read and applied as one step, so that a stale value never overtakes a newer one.
    auto switching = switchLock.Lock();
    bool status;
    {
        auto lock = stateLock.Lock();
        status = settings.enableBackup;
    }
    if (ApplyBackupStatus(status)) return 1;
    QV_LOG(LOG_SEV_WARNING, L"Cannot apply backup status [value = %d]", status ? 1 : 0);
    return 0;
}

} // namespace qv
