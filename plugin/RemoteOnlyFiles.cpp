// Engine plug-in files that a remote-only installation must not have and the others need.
// The second name of each list keeps its trailing blank: the Windows path functions ignore a
// trailing blank on the last element, so "nnml.cvd" is the file reached.
#include "plugin/AntivirusScanAL.h"
#include "support/FileUtil.h"
#include "support/FolderHandle.h"

#include <shlwapi.h>

namespace qv {

using namespace logging;

namespace {
const wchar_t* const kCreatedWhenMissing[] = {L"lhdb.cvd", L"nnml.cvd ", L"xgdb.cvd"};
const wchar_t* const kDeletedWhenPresent[] = {L"dalvik.cvd", L"dalvik.ivd", L"dalvik.xmd", L"lhdb.cvd", L"nnml.cvd ",
                                              L"xgdb.cvd",   L"mdx.xmd",    L"sdx.cvd",    L"sdx.ivd",  L"sdx.xmd"};

// "Plugins\<name>", below the engines folder.
StringW PluginName(const wchar_t* name) {
    StringW relative = L"Plugins";
    file::JoinPath(relative, name);
    return relative;
}

StringW PluginFile(const StringW& engines, const wchar_t* name) {
    StringW path = engines;
    file::JoinPath(path, PluginName(name).c_str());
    return path;
}
} // namespace

void AntivirusScanAL::GenerateNonRemoteScanPlugins() {
    QV_TRACE(L"AntivirusScanAL::GenerateNonRemoteScanPlugins");
    if (scanType == kxsdk::AntivirusScan::RemoteOnly) return;
    const StringW engines = GetScanSpFolder();
    if (!PathFileExistsW(engines.c_str())) {
        QV_LOG(LOG_SEV_INFO, L"Invalid engines path = %s", engines.c_str());
        return;
    }
    for (const wchar_t* name : kCreatedWhenMissing) {
        const StringW path = PluginFile(engines, name);
        if (PathFileExistsW(path.c_str())) continue;
        QV_LOG(LOG_SEV_WARNING, L"File %s does not exist. Will create it", path.c_str());
        GenerateDummyFile(engines, PluginName(name).c_str());
    }
}

void AntivirusScanAL::RemoveNonRemoteScanPlugins() {
    QV_TRACE(L"AntivirusScanAL::RemoveNonRemoteScanPlugins");
    if (scanType != kxsdk::AntivirusScan::RemoteOnly) return;
    const StringW engines = GetScanSpFolder();
    if (!PathFileExistsW(engines.c_str())) {
        QV_LOG(LOG_SEV_INFO, L"Invalid engines path = %s", engines.c_str());
        return;
    }
    for (const wchar_t* name : kDeletedWhenPresent) {
        const StringW path = PluginFile(engines, name);
        // "Plugins" and the file are opened below the engines folder without following a link
        // and the file is deleted through its own handle: a link (the file's or the folder's)
        // leads out of the engines folder, and what it points to is not ours to delete.
        DWORD error = kSuccess;
        switch (file::DeleteFileBelow(engines.c_str(), PluginName(name).c_str(), error)) {
        case file::EntryResult::Done:
        case file::EntryResult::Absent: break;
        case file::EntryResult::NotFollowed:
            QV_LOG(LOG_SEV_WARNING, L"Link not followed, file kept [path = %s]", path.c_str());
            break;
        case file::EntryResult::Failed:
            QV_LOG(LOG_SEV_WARNING, L"Cannot delete file [path = %s] [error = %d]", path.c_str(), static_cast<int>(error));
            break;
        }
    }
}

} // namespace qv
