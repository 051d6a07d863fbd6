#include "host/PluginLibrary.h"

#include <atomic>

namespace host {

std::wstring ExeFolder() {
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, n);
    return folder.substr(0, folder.find_last_of(L'\\'));
}

std::wstring FreshFolder(const wchar_t* prefix, const wchar_t* tag) {
    static std::atomic<int> counter{0};
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    // Wine reuses process ids from run to run: a name left by an earlier run is skipped.
    for (;;) {
        std::wstring folder = std::wstring(temp) + prefix + tag + L"-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                              std::to_wstring(counter++);
        if (CreateDirectoryW(folder.c_str(), nullptr) || GetLastError() != ERROR_ALREADY_EXISTS) return folder;
    }
}

PluginLibrary::PluginLibrary() : PluginLibrary(ExeFolder() + L"\\AntivirusScan.AL") {}

PluginLibrary::PluginLibrary(const std::wstring& path) {
    module_ = LoadLibraryW(path.c_str());
    if (!module_) {
        loadError_ = GetLastError();
        return;
    }
    create = reinterpret_cast<CreateFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvCreateObject")));
    destroy = reinterpret_cast<DestroyFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvDestroyObject")));
}

void PluginLibrary::Unload() {
    if (module_) FreeLibrary(module_);
    module_ = nullptr;
    create = nullptr;
    destroy = nullptr;
}

} // namespace host
