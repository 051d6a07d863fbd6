#include "bench/common/PluginHost.h"

namespace bench {

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

void* PluginModule::Create() {
    void* object = nullptr;
    if (library_.Create(qv::kxsdk::ids::kPrimaryFaceId, &object) != 0) return nullptr;
    return object;
}

void* PluginModule::ScanFace() {
    void* face = nullptr;
    if (library_.Create(qv::kxsdk::ids::kAntivirusScanFaceId, &face) != 0) return nullptr;
    library_.Destroy(face);
    return face;
}

void PluginModule::Destroy(void* primary) { library_.Destroy(primary); }

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
