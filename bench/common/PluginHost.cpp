#include "bench/common/PluginHost.h"

#include <atomic>

namespace bench {

std::wstring ExeFolder() {
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, n);
    return folder.substr(0, folder.find_last_of(L'\\'));
}

std::wstring FreshFolder(const wchar_t* tag) {
    static std::atomic<int> counter{0};
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::wstring folder = std::wstring(temp) + L"avbench-" + tag + L"-" + std::to_wstring(GetCurrentProcessId()) +
                          L"-" + std::to_wstring(counter++);
    CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

void RemoveTree(const std::wstring& path) {
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &entry);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            std::wstring name = entry.cFileName;
            if (name == L"." || name == L"..") continue;
            std::wstring full = path + L"\\" + name;
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(full);
            else
                DeleteFileW(full.c_str());
        } while (FindNextFileW(find, &entry));
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}

PluginModule::PluginModule() {
    module_ = LoadLibraryW((ExeFolder() + L"\\AntivirusScan.AL").c_str());
    if (!module_) return;
    create_ = reinterpret_cast<CreateFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvCreateObject")));
    destroy_ = reinterpret_cast<DestroyFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvDestroyObject")));
}

PluginModule::~PluginModule() {
    if (module_) FreeLibrary(module_);
}

void* PluginModule::Create() {
    void* object = nullptr;
    if (create_(qv::kxsdk::ids::kAntivirusScanObjectName, qv::kxsdk::ids::kPrimaryFaceId, &object) != 0) return nullptr;
    return object;
}

void* PluginModule::ScanFace() {
    void* face = nullptr;
    if (create_(qv::kxsdk::ids::kAntivirusScanObjectName, qv::kxsdk::ids::kAntivirusScanFaceId, &face) != 0)
        return nullptr;
    destroy_(qv::kxsdk::ids::kAntivirusScanObjectName, face);
    return face;
}

void PluginModule::Destroy(void* primary) { destroy_(qv::kxsdk::ids::kAntivirusScanObjectName, primary); }

Installation::Installation(const wchar_t* tag) {
    root = FreshFolder(tag);
    coreTempParent = root + L"\\Temp";
    coreTemp = coreTempParent + L"\\scansp";
    engines = root + L"\\Engines\\20240501";
    common = root + L"\\Common";
    for (const std::wstring& folder : {coreTempParent, coreTemp, root + L"\\Engines", engines,
                                       engines + L"\\Plugins", root + L"\\Engines\\20240415", common}) {
        CreateDirectoryW(folder.c_str(), nullptr);
    }
}

Installation::~Installation() { RemoveTree(root); }

void Installation::Configure(host::HostEnvironment& env) const {
    namespace config = qv::kxsdk::config;
    env.servConfig.SetText(config::kScanTypeCategory, L"BASE", L"full");
    env.servConfig.SetText(config::kCoreTempCategory, L"scansp", coreTemp.c_str());
    env.servConfig.SetText(config::kEnginesFolderCategory, L"scansp", engines.c_str());
    env.servConfig.SetText(config::kFoldersCategory, L"signaturesPatterns", (root + L"\\Engines\\*").c_str());
    env.servConfig.SetText(config::kFoldersCategory, L"common", common.c_str());
    env.update.SetStatistic(L"Antivirus", L"20.5.1.1024", 987654);
    env.update.SetStatistic(L"AntiSpam", L"3.1", 1200);
}

} // namespace bench
