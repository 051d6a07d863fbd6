// Engine plug-in files that a remote-only installation must not have and the others need.
// The second name of each list keeps its trailing blank: the Windows path functions ignore a
// trailing blank on the last element, so "nnml.cvd" is the file reached.
#include "plugin/AntivirusScanAL.h"
#include "plugin/DeleteBelow.h"
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

// Runs `action(name, path)` for each listed file of an engines folder that exists.
template <size_t Count, class Action> void ForEachPluginFile(const wchar_t* function, const StringW& engines,
                                                             const wchar_t* const (&names)[Count], Action action) {
    if (!PathFileExistsW(engines.c_str())) {
        WriteMessage(LOG_SEV_INFO, function, L"Invalid engines path = %s", engines.c_str());
        return;
    }
    for (const wchar_t* name : names) action(name, PluginFile(engines, name));
}
} // namespace

void AntivirusScanAL::GenerateNonRemoteScanPlugins() {
    QV_TRACE(L"AntivirusScanAL::GenerateNonRemoteScanPlugins");
    if (scanType == kxsdk::AntivirusScan::RemoteOnly) return;
    const StringW engines = GetScanSpFolder();
    ForEachPluginFile(qvFunctionName_, engines, kCreatedWhenMissing, [&](const wchar_t* name, const StringW& path) {
        if (PathFileExistsW(path.c_str())) return;
        QV_LOG(LOG_SEV_WARNING, L"File %s does not exist. Will create it", path.c_str());
        GenerateDummyFile(engines, PluginName(name).c_str());
    });
}

void AntivirusScanAL::RemoveNonRemoteScanPlugins() {
    QV_TRACE(L"AntivirusScanAL::RemoveNonRemoteScanPlugins");
    if (scanType != kxsdk::AntivirusScan::RemoteOnly) return;
    const StringW engines = GetScanSpFolder();
    const file::NoteFn notes = FileNotes(qvFunctionName_);
    ForEachPluginFile(qvFunctionName_, engines, kDeletedWhenPresent, [&](const wchar_t* name, const StringW& path) {
        DWORD error = kSuccess;
        if (!DeleteFileBelowKeepingLinks(qvFunctionName_, engines, PluginName(name).c_str(), path, error, notes))
            QV_LOG(LOG_SEV_WARNING, L"Cannot delete file [path = %s] [error = %d]", path.c_str(),
                   static_cast<int>(error));
    });
}

} // namespace qv
