// Engines reload after an installed "Antivirus" component, and the bookkeeping of the last
// engines folder that loaded and of the reload status.
#include "plugin/AntivirusScanAL.h"
#include "plugin/ErrorCodes.h"
#include "plugin/SettingsSection.h"
#include "plugin/SlotGuard.h"
#include "support/FileUtil.h"
#include "support/WinHandle.h"

#include <psapi.h>
#include <shlwapi.h>

namespace qv {

using namespace logging;

namespace {
const wchar_t* const kMaintenanceUpdaters[] = {L"kitInstaller_{7E5B1734-06EF-4D5F-A7DA-D1824BB1B954}",
                                               L"kitInstaller_sync"};
const wchar_t* OrEmpty(const wchar_t* text) { return text ? text : L""; }
} // namespace

DWORD AntivirusScanAL::OnComponentInstalled(const IUpdate::ComponentInfo& info, const wchar_t* enginesPath) {
    QV_TRACE(L"AntivirusScanAL::OnComponentInstalled");
    return GuardedSlot(qvFunctionName_, [&]() -> DWORD {
        const wchar_t* updater = OrEmpty(info.updater);
        const wchar_t* component = OrEmpty(info.component);
        QV_LOG(LOG_SEV_INFO, L"[updater = %s] [component = %s] [enginesPath = %s]", updater, component,
               OrEmpty(enginesPath));
        if (!enginesPath || !*enginesPath || !*component) return kInvalidParameter;

        const bool antivirus = _wcsicmp(component, L"Antivirus") == 0;
        for (const wchar_t* maintenance : kMaintenanceUpdaters) {
            if (_wcsicmp(updater, maintenance) != 0) continue;
            QV_LOG(LOG_SEV_WARNING, L"Skip reload engines because of maintenance update [updater = %s]", updater);
            if (antivirus) OnBeforeReload(kReloadSkippedForMaintenance);
            return kSuccess;
        }
        if (!antivirus) return kSuccess;

        // Each step is fenced on its own: a sink or sibling that throws, or memory that runs out,
        // in one of them must not keep the later ones from refreshing what the reload changed.
        const wchar_t* const step = qvFunctionName_;
        GuardedStep(step, [&] { OnBeforeReload(kReloadStarted); });
        DWORD result = kInternalError;
        GuardedStep(step, [&] { result = ReloadEngines(StringW(enginesPath)); });
        if (result == kSuccess || result == kDataLostRepair) GuardedStep(step, [&] { OnReloadSuccessfull(); });
        GuardedStep(step, [&] { RefreshBackupStatus(); });
        GuardedStep(step, [&] { ComputeSigInfo(); });
        GuardedStep(step, [&] { RefreshScanModes(); });
        GuardedStep(step, [&] { CleanCoreTempFolder(); });
        (void)K32EmptyWorkingSet(GetCurrentProcess());
        if (result == kDataLostRepair) GuardedStep(step, [&] { RecoveryStep_RestartService(); });
        return kSuccess;
    });
}

DWORD AntivirusScanAL::ReloadEngines(const StringW& path) {
    QV_TRACE(L"AntivirusScanAL::ReloadEngines");
    if (!enginesRecoveryInProgress) {
        if (!scanSpPlugin.IsHeld()) return kDependencyNotFound;
        // The provider is pinned only for its own call, never while the sinks run: UnInit's
        // release waits for the pinned calls, and a sink may wait for the host's thread. A sink
        // that throws is fenced on its own, so that the reload and its outcome still count.
        GuardedStep(qvFunctionName_, [&] { reloadStarted.Fire(path); });
        QV_LOG(LOG_SEV_INFO, L"OnReloadStarted [path = %s]", path.c_str());
        DWORD error = kDependencyNotFound; // handed back since: reported as missing
        if (auto provider = scanSpPlugin.Acquire()) {
            // The provider finds the new engines itself; the path is only for the sinks.
            error = provider->ReloadEngines();
        }
        QV_LOG(error ? LOG_SEV_ERROR : LOG_SEV_INFO, L"OnReloadEnded [path = %s] [error = %d]", path.c_str(),
               static_cast<int>(error));
        GuardedStep(qvFunctionName_, [&] { reloadEnded.Fire(path, static_cast<int>(error)); });
        return error;
    }

    QV_LOG(LOG_SEV_WARNING, L"EnginesRecoveryInProgress: check new engines folder integrity.");
    // The probe's get and release go through the holder like UnInit's release, without a lock
    // across the manager's answers: whichever of the two comes second hands the provider back.
    bool loadedHere = false;
    if (scanSpPlugin.IsHeld()) {
        QV_LOG(LOG_SEV_WARNING, L"ScanSp loaded by someone else");
    } else {
        QV_LOG(LOG_SEV_WARNING, L"ScanSp not loaded => load now");
        loadedHere = scanSpPlugin.GetPlugin(ComponentManager());
    }
    const bool fixed = loadedHere || scanSpPlugin.IsHeld();
    // This process keeps running without engines; the restart loads them normally.
    if (loadedHere) scanSpPlugin.Release();
    if (!fixed) {
        QV_LOG(LOG_SEV_WARNING, L"ScanSp load NOT-FIXED => invalidate_cache");
        RecoveryStep_InvalidateCache();
        return kDependencyNotFound;
    }
    QV_LOG(LOG_SEV_WARNING, L"ScanSp load FIXED => restart service required");
    return kDataLostRepair;
}

void AntivirusScanAL::OnBeforeReload(ReloadStatus newStatus) {
    QV_TRACE(L"AntivirusScanAL::OnBeforeReload");
    auto lock = stateLock.Lock();
    QV_LOG(LOG_SEV_INFO, L"[lastOk = %s] [oldReloadStatus = %d] [newReloadStatus = %d]", settings.enginesFolder.c_str(),
           static_cast<int>(settings.reloadStatus), static_cast<int>(newStatus));
    SettingsSection section(settingsPlugin);
    if (!section) return;
    if (!section->SetUInt(L"engines/reloadStatus", newStatus)) {
        QV_LOG(LOG_SEV_WARNING, L"Cannot save reload info [lastOk = %s]", settings.enginesFolder.c_str());
    }
    settings.reloadStatus = newStatus;
}

void AntivirusScanAL::OnReloadSuccessfull() {
    QV_TRACE(L"AntivirusScanAL::OnReloadSuccessfull");
    auto lock = stateLock.Lock();
    const StringW newPath = GetScanSpFolder();
    const StringW oldPath = settings.enginesFolder;
    QV_LOG(LOG_SEV_INFO, L"[oldPath = %s] [newPath = %s]", oldPath.c_str(), newPath.c_str());
    if (settings.reloadStatus == kReloadLoaded && newPath.CompareNoCase(oldPath.c_str()) == 0) return;
    SettingsSection section(settingsPlugin);
    if (!section) return;
    if (!section->SetString(L"engines/folder", newPath.c_str()) ||
        !section->SetUInt(L"engines/reloadStatus", kReloadLoaded)) {
        QV_LOG(LOG_SEV_WARNING, L"Cannot save reload info [oldPath = %s] [newPath = %s]", oldPath.c_str(),
               newPath.c_str());
    }
    settings.enginesFolder = newPath;
    settings.reloadStatus = kReloadLoaded;
}

StringW AntivirusScanAL::GetScanSpFolder() {
    StringW folder = ConfigText(kxsdk::config::kEnginesFolderCategory, L"scansp");
    file::RemoveBackslash(folder);
    return folder;
}

std::vector<StringW> AntivirusScanAL::GetSigFolders() {
    QV_TRACE(L"AntivirusScanAL::GetSigFolders");
    std::vector<StringW> folders;
    if (!servConfigPlugin.IsHeld()) {
        QV_LOG(LOG_SEV_ERROR, L"ServConfig not loaded");
        return folders;
    }
    const StringW pattern = ConfigText(kxsdk::config::kFoldersCategory, L"signaturesPatterns");
    if (pattern.IsEmpty()) {
        QV_LOG(LOG_SEV_WARNING, L"No sig folder pattern");
        return folders;
    }
    StringW base = pattern;
    file::RemoveFileName(base);
    WIN32_FIND_DATAW entry;
    // A pattern with wildcards: the one listing that is made by name.
    UniqueHFind find(FindFirstFileW(pattern.c_str(), &entry));
    if (!find) {
        QV_LOG(LOG_SEV_ERROR, L"Path not found [pattern = %s]", pattern.c_str());
        return folders;
    }
    do {
        if (!(entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) continue;
        StringW folder = base;
        file::JoinPath(folder, entry.cFileName);
        file::RemoveBackslash(folder);
        folders.push_back(folder);
    } while (FindNextFileW(find.Get(), &entry));
    return folders;
}

void AntivirusScanAL::LogEnginesFolder() {
    QV_TRACE(L"AntivirusScanAL::LogEnginesFolder");
    if (!servConfigPlugin.IsHeld()) return;
    const std::vector<StringW> folders = GetSigFolders();
    const StringW latest = GetScanSpFolder();
    uint32_t status;
    StringW lastOk;
    {
        auto lock = stateLock.Lock();
        status = settings.reloadStatus;
        lastOk = settings.enginesFolder;
    }
    QV_LOG(LOG_SEV_INFO, L"Last reload engines status = %d", static_cast<int>(status));
    QV_LOG(LOG_SEV_INFO, L"LastOk engines folder = %s", lastOk.c_str());
    QV_LOG(LOG_SEV_INFO, L"Latest engines folder = %s", latest.c_str());
    QV_LOG(LOG_SEV_INFO, L"Engines folders [size = %d] :", static_cast<int>(folders.size()));
    for (const StringW& folder : folders) QV_LOG(LOG_SEV_INFO, L"  => %s", folder.c_str());
}

} // namespace qv
