// The scan service provider's core temp folder and its crash handler.
#include "plugin/AntivirusScanAL.h"
#include "plugin/DeleteBelow.h"
#include "plugin/SlotGuard.h"
#include "support/DirectoryWalker.h"
#include "support/FileUtil.h"
#include "support/FolderHandle.h"
#include "support/VolumeRoot.h"

#include <shlwapi.h>

namespace qv {

using namespace logging;

void AntivirusScanAL::InitCoreTempFolder() {
    QV_TRACE(L"AntivirusScanAL::InitCoreTempFolder");
    auto lock = stateLock.Lock();
    if (!servConfigPlugin.IsHeld()) return;
    StringW path = ConfigText(kxsdk::config::kCoreTempCategory, L"scansp");
    QV_LOG(LOG_SEV_INFO, L"Core temp %s", path.c_str());
    if (path.IsEmpty()) {
        QV_LOG(LOG_SEV_ERROR, L"Core temp path is empty!");
        return;
    }
    if (!PathFileExistsW(path.c_str()) && !file::CreateFolderTree(path.c_str())) {
        QV_LOG(LOG_SEV_ERROR, L"Cannot create core temp folder [path = %s]", path.c_str());
    }
    coreTempFolder = path;
}

// Removes every sibling of the core temp folder within its parent and keeps the folder itself.
// On purpose: the parent is the provider's working area, and what lies beside the folder in use
// is left over from earlier runs; the folder itself is the provider's current one.
void AntivirusScanAL::CleanCoreTempFolder() {
    QV_TRACE(L"AntivirusScanAL::CleanCoreTempFolder");
    StringW folder;
    {
        auto lock = stateLock.Lock();
        folder = coreTempFolder;
    }
    if (folder.IsEmpty() || !PathFileExistsW(folder.c_str())) {
        QV_LOG(LOG_SEV_INFO, L"Core temp folder not found [path = %s]", folder.c_str());
        return;
    }
    // A relative path would let the process's current folder (or drive) decide what is cleaned.
    StringW canonical;
    if (!file::IsFullPath(folder.c_str()) || !file::CanonicalPath(folder.c_str(), canonical)) {
        QV_LOG(LOG_SEV_WARNING, L"Core temp folder is not a full path, not cleaned [path = %s]", folder.c_str());
        return;
    }
    // The parent as the configured text names it: the paths logged and compared are built on it.
    StringW base = folder;
    size_t length = base.Length();
    while (length && base[length - 1] == L'\\') --length;
    base.SetLength(length);
    const wchar_t* cut = wcsrchr(base.c_str(), L'\\');
    base.SetLength(cut ? static_cast<size_t>(cut - base.c_str()) : 0);

    // A core temp folder directly under a drive, volume or share root, however its path is
    // written, would make its "siblings" the whole volume: never clean there. The folder cleaned
    // is the parent the full path resolves to, asked what it is once opened.
    StringW real;
    file::FolderHandle parent;
    if (!file::ParentPath(canonical, real) || file::IsRootPath(real)) {
        QV_LOG(LOG_SEV_WARNING, L"Core temp folder parent is a root, not cleaned [path = %s]", folder.c_str());
        return;
    }
    const DWORD opened = parent.Open(real.c_str());
    if (opened != kSuccess) {
        QV_LOG(LOG_SEV_WARNING, L"Cannot open core temp folder parent [path = %s] [error = %d]", real.c_str(),
               static_cast<int>(opened));
        return;
    }
    if (file::IsVolumeRoot(parent, real)) {
        QV_LOG(LOG_SEV_WARNING, L"Core temp folder parent is a root, not cleaned [path = %s]", folder.c_str());
        return;
    }
    // The text and the resolved path must name the same parent ("C:\T\U\." names U itself).
    StringW textual;
    if (base.IsEmpty() || !file::CanonicalPath(base.c_str(), textual) || textual.CompareNoCase(real.c_str()) != 0) {
        QV_LOG(LOG_SEV_WARNING, L"Core temp folder path is ambiguous, not cleaned [path = %s]", folder.c_str());
        return;
    }
    StringW root = base;
    root.Append(L'\\');

    // The parent is opened once; every sibling is listed, opened, checked and deleted through
    // that handle, so no name swapped for a link meanwhile can lead the deletion elsewhere.
    const file::NoteFn note = FileNotes(qvFunctionName_);
    file::DirectoryWalker walker(parent.Get());
    while (walker.Next()) {
        if (!cleanAllowed) break;
        const std::wstring& name = walker.Name();
        StringW full = root;
        full.Append(name.c_str());
        if (full.CompareNoCase(folder.c_str()) == 0) continue;
        QV_LOG(LOG_SEV_DETAIL, L"Deleting [%s]", full.c_str());
        // Links among the siblings go as links: what they point to is not the provider's. A
        // read-only file stays, as DeleteFileW leaves it; inside a sibling's tree it goes.
        file::DeleteEntry(parent, base, name.c_str(), name.size(), file::Listed::Of(walker), file::ReadOnlyBit::Keep,
                          note);
    }
    if (walker.Error() != kSuccess) note(file::Note::ListingFailed, base, walker.Error());
}

void AntivirusScanAL::DisableScanCrashHandler() {
    QV_TRACE(L"AntivirusScanAL::DisableScanCrashHandler");
    auto provider = scanSpPlugin.Acquire();
    if (!provider) return;
    // The handler goes back to the provider on every path, an exception out of one of its own
    // calls included; one out of the hand-back itself is fenced here, in a destructor.
    struct HandedBack {
        IScanSp* provider;
        void* object = nullptr;
        ~HandedBack() {
            if (object)
                GuardedStep(L"AntivirusScanAL::DisableScanCrashHandler", [&] { provider->ReleaseInterface(object); });
        }
    } handler{provider.Get()};
    const DWORD got = provider->GetInterface(kxsdk::scansp::kCrashHandlerId, &handler.object);
    if (got != 0 || !handler.object) return;
    auto* options = static_cast<IScanCrashHandler*>(handler.object);
    DWORD error = options->SetOption(kxsdk::scansp::kOptionSilentSubmitDump, 1);
    QV_LOG(LOG_SEV_INFO, L"SilentSubmitDump [error = %d]", static_cast<int>(error));
    error = options->SetOption(kxsdk::scansp::kOptionSilentSubmitDefaultAction, 0);
    QV_LOG(LOG_SEV_INFO, L"SilentSubmitDefaultAct [error = %d]", static_cast<int>(error));
}

} // namespace qv
