// Delayed start, and the engines recovery run when the scan service provider could not be
// obtained at Init: cache deletion, placeholder engine files, a signature update and, once the
// engines load again, a restart of the service. Every step logs and goes on.
#include "plugin/AntivirusScanAL.h"
#include "plugin/DeleteBelow.h"
#include "plugin/SlotGuard.h"
#include "support/FileUtil.h"
#include "support/FolderHandle.h"

#include <shlwapi.h>

namespace qv {

using namespace logging;

DWORD AntivirusScanAL::DelayedStart() {
    QV_TRACE(L"AntivirusScanAL::DelayedStart");
    GuardedStep(qvFunctionName_, [&] { GenerateNonRemoteScanPlugins(); });
    if (scanSpPlugin.IsHeld()) {
        GuardedStep(qvFunctionName_, [&] { ComputeSigInfo(); });
        GuardedStep(qvFunctionName_, [&] { RefreshScanModes(); });
        GuardedStep(qvFunctionName_, [&] { CleanCoreTempFolder(); });
        return kSuccess;
    }
    QV_LOG(LOG_SEV_WARNING, L"[(Engines-Recovery)]");
    GuardedStep(qvFunctionName_, [&] { SendEnginesRecoveryStartedEvent(); });
    GuardedStep(qvFunctionName_, [&] { RecoveryStep_InvalidateCache(); });
    GuardedStep(qvFunctionName_, [&] { RecoveryStep_GenDummyMissingFiles(); });
    GuardedStep(qvFunctionName_, [&] { RecoveryStep_StartUpdateSig(); });
    return kSuccess;
}

StringW AntivirusScanAL::GetCommonFolder() {
    StringW common = ConfigText(kxsdk::config::kFoldersCategory, L"common");
    if (!common.IsEmpty() && PathFileExistsW(common.c_str()) && PathIsDirectoryW(common.c_str())) return common;
    StringW moduleFolder;
    file::GetModuleFolder(moduleFolder);
    return moduleFolder;
}

bool AntivirusScanAL::RecoveryStep_InvalidateCache() {
    QV_TRACE(L"AntivirusScanAL::RecoveryStep_InvalidateCache");
    const StringW common = GetCommonFolder();
    struct CacheFile {
        const wchar_t* name;
        const wchar_t* message;
    };
    const CacheFile files[] = {{L"installer\\wslib.db", L"deleting wslib.db = %s"},
                               {L"installer\\wslib.m", L"deleting wslib.m = %s"}};
    const file::NoteFn notes = FileNotes(qvFunctionName_);
    for (const CacheFile& cache : files) {
        StringW path = common;
        file::JoinPath(path, cache.name);
        QV_LOG(LOG_SEV_INFO, cache.message, path.c_str());
        DWORD error = kSuccess;
        if (!DeleteFileBelowKeepingLinks(qvFunctionName_, common, cache.name, path, error, notes))
            QV_LOG(LOG_SEV_ERROR, L"Cannot delete file [error = %d] [path = %s]", static_cast<int>(error),
                   path.c_str());
    }
    return true;
}

bool AntivirusScanAL::RecoveryStep_GenDummyMissingFiles() {
    QV_TRACE(L"AntivirusScanAL::RecoveryStep_GenDummyMissingFiles");
    if (!servConfigPlugin.IsHeld()) {
        QV_LOG(LOG_SEV_ERROR, L"ServConfig required!");
        return false;
    }
    const StringW engines = GetScanSpFolder();
    if (!PathFileExistsW(engines.c_str())) {
        QV_LOG(LOG_SEV_INFO, L"Invalid engines path = %s", engines.c_str());
        return false;
    }
    bool all = true;
    for (const wchar_t* name : {L"qvcore.dll", L"scanclient.dll", L"smartdbv2.dat"}) {
        if (!GenerateDummyFile(engines, name)) all = false;
    }
    return all;
}

// Never touches an existing file: the file is created relative to its opened folder only if no
// entry of that name exists, a dangling link included.
bool AntivirusScanAL::GenerateDummyFile(const StringW& folder, const wchar_t* name) {
    QV_TRACE(L"AntivirusScanAL::GenerateDummyFile");
    StringW path = folder;
    file::JoinPath(path, name);
    QV_LOG(LOG_SEV_INFO, L"Generating missing file. [path = %s]", path.c_str());
    if (PathFileExistsW(path.c_str())) return true;
    DWORD error = kSuccess;
    switch (file::CreateFileBelow(folder.c_str(), name, error, FileNotes(qvFunctionName_))) {
    case file::EntryResult::Done:
        QV_LOG(LOG_SEV_INFO, L"Missing file created. [path = %s]", path.c_str());
        return true;
    case file::EntryResult::NotFollowed:
        QV_LOG(LOG_SEV_WARNING, L"Link not followed, file not created [path = %s]", path.c_str());
        return false;
    case file::EntryResult::Absent:
        error = kPathNotFound; // what creating by path answers for a missing folder
        break;
    case file::EntryResult::Failed:
        break;
    }
    QV_LOG(LOG_SEV_ERROR, L"Cannot create missing file. [error = %d] [path = %s]", static_cast<int>(error),
           path.c_str());
    return false;
}

bool AntivirusScanAL::RecoveryStep_StartUpdateSig() {
    QV_TRACE(L"AntivirusScanAL::RecoveryStep_StartUpdateSig");
    auto update = updatePlugin.Acquire();
    if (!update) return false;
    IUpdate::UpdateSettings current;
    DWORD error = update->GetUpdateSettings(&current);
    if (error != 0) {
        QV_LOG(LOG_SEV_ERROR, L"Failed to read the update settings [error = %d]", static_cast<int>(error));
        return false;
    }
    IUpdate::UpdateRequest request;
    request.requester = L"Antivirus-Engines-Recovery";
    request.proxies = current.proxies;
    request.locations = current.locations;
    request.schedule = current.schedule;
    request.timeout = current.timeout;
    request.options = 0;
    request.interactive = 0;
    request.signaturesOnly = 1;
    uint32_t status = 0;
    error = update->StartUpdate(request, &status);
    if (error != 0) {
        QV_LOG(LOG_SEV_INFO, L"StartUpdate failed [error = %d] [status = %d]", static_cast<int>(error),
               static_cast<int>(status));
        return false;
    }
    return true;
}

bool AntivirusScanAL::RecoveryStep_RestartService() {
    QV_TRACE(L"AntivirusScanAL::RecoveryStep_RestartService");
    auto update = updatePlugin.Acquire();
    if (!update) return false;
    DWORD error = update->RestartService(1, L"KXSecurityService");
    if (error != 0) {
        QV_LOG(LOG_SEV_ERROR, L"Restart service using Update failed [error = %d]", static_cast<int>(error));
        return false;
    }
    QV_LOG(LOG_SEV_INFO, L"Restart request sent to the Update service");
    return true;
}

} // namespace qv
