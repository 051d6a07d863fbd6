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
        // Lines are written after leaving the lock: log.dll is never called under it.
        uint64_t ownSave = 0;
        DWORD early = kSuccess;
        bool unchanged = false;
        {
            auto lock = stateLock.Lock();
            if (status == settings.enableBackup) {
                unchanged = true;
            } else {
                AntivirusScanSettings changed = settings;
                changed.enableBackup = status;
                if (SaveSwitches(changed)) {
                    ownSave = switchSaves;
                    BeginBackupCall();
                } else {
                    early = kCantWrite;
                }
            }
        }
        if (unchanged) {
            QV_LOG(LOG_SEV_INFO, L"already in this state");
            return kSuccess;
        }
        if (early != kSuccess) {
            QV_LOG(LOG_SEV_ERROR, L"save failed");
            return early;
        }
        const bool applied = ApplyCountedBackupCall(status);
        if (!applied) QV_LOG(LOG_SEV_ERROR, L"apply failed");
        bool again;
        {
            auto lock = stateLock.Lock();
            again = EndBackupCall();
            if (applied) {
                settings.enableBackup = status;
                // The store is ahead of the record from the save above until here: a switch that
                // saved the record in between wrote the old backup value back.
                if (switchSaves != ownSave) SaveSwitches(settings);
            } else {
                // Put the old value back in the store: the provider still runs with it.
                SaveSwitches(settings);
            }
        }
        RepeatBackupPush(again);
        if (!applied) return kInternalError;
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
        bool unchanged = false, saved = true;
        {
            auto lock = stateLock.Lock();
            if (enabled == field(settings)) {
                unchanged = true;
                SaveSwitches(settings);
            } else {
                AntivirusScanSettings changed = settings;
                field(changed) = enabled;
                saved = SaveSwitches(changed);
                if (saved) settings = changed;
            }
        }
        if (unchanged) {
            WriteMessage(LOG_SEV_INFO, function, L"already in this state");
            return kSuccess;
        }
        if (!saved) {
            WriteMessage(LOG_SEV_ERROR, function, L"save failed");
            return kCantWrite;
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

// A known name is answered here and nothing else runs: no allocation and no call that can throw,
// so no exception guard, and no local whose address is taken, so the hardened build adds no stack
// canary to the path that every scan decision takes. Every other name goes to
// GetUnlistedFeatureStatus, which lives in its own source so that it is never inlined back here.
DWORD AntivirusScanAL::GetFeatureStatus(const StringW& name, bool* isLocked) {
    QV_FUNCTION(L"AntivirusScanAL::GetFeatureStatus");
    if (IsNullArgument(qvFunctionName_, isLocked)) return kInvalidParameter;
    {
        auto lock = stateLock.Lock();
        if (const bool* known = featureLocks.FindConst(name)) {
            *isLocked = *known;
            return kSuccess;
        }
    }
    return GetUnlistedFeatureStatus(qvFunctionName_, name, isLocked);
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
    bool status = false, again = false;
    const bool applied = PushBackupStatus(status, again);
    if (!applied) QV_LOG(LOG_SEV_WARNING, L"Cannot apply backup status [value = %d]", status ? 1 : 0);
    RepeatBackupPush(again);
    return applied ? 1 : 0;
}

// No lock is held while the provider answers, so that a provider waiting for one of the callers
// cannot deadlock with it. What a lock across the call would give is kept by bookkeeping under
// stateLock instead:
// - the store: every save of the switches is counted, and EnableBackup, whose save runs ahead of
//   the record until the provider has answered, saves the record again when the count moved;
// - the provider: calls with the backup value may overlap (EnableBackup on callers' threads, the
//   refresh after a reload on the update thread), and which of them the provider takes last
//   cannot be known. The last of overlapping calls to end pushes the record's value once more.
bool AntivirusScanAL::SaveSwitches(const AntivirusScanSettings& record) {
    ++switchSaves;
    return SaveSettings(record);
}

void AntivirusScanAL::BeginBackupCall() {
    if (backupCalls++ != 0) backupCallsOverlapped = true;
}

// True when this call ended the last of overlapping ones.
bool AntivirusScanAL::EndBackupCall() {
    if (--backupCalls != 0 || !backupCallsOverlapped) return false;
    backupCallsOverlapped = false;
    return true;
}

// Applies the record's backup value as one counted call; `again` tells whether the value has to
// be pushed once more.
bool AntivirusScanAL::PushBackupStatus(bool& status, bool& again) {
    {
        auto lock = stateLock.Lock();
        status = settings.enableBackup;
        BeginBackupCall();
    }
    const bool applied = ApplyCountedBackupCall(status);
    auto lock = stateLock.Lock();
    again = EndBackupCall();
    return applied;
}

// The provider call of a counted backup call. A call that throws is no longer in flight; an
// overlap seen so far stays marked for the next call to end.
bool AntivirusScanAL::ApplyCountedBackupCall(bool status) {
    try {
        return ApplyBackupStatus(status);
    } catch (...) {
        auto lock = stateLock.Lock();
        --backupCalls;
        throw;
    }
}

// Never throws: the repeat is fenced as a step of its own.
void AntivirusScanAL::RepeatBackupPush(bool again) {
    QV_FUNCTION(L"AntivirusScanAL::RefreshBackupStatus");
    GuardedStep(qvFunctionName_, [&] {
        while (again) {
            bool status = false;
            if (!PushBackupStatus(status, again))
                QV_LOG(LOG_SEV_WARNING, L"Cannot apply backup status [value = %d]", status ? 1 : 0);
        }
    });
}

} // namespace qv
