#include "bench/common/PluginHost.h"

namespace bench {

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
    for (const std::wstring& folder : {coreTempParent, coreTemp, root + L"\\Engines", engines, engines + L"\\Plugins",
                                       root + L"\\Engines\\20240415", common}) {
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
