// A minimal host: loads AntivirusScan.AL from its own folder, serves the sibling plug-ins the
// plug-in asks for from small fakes, runs the lifecycle, asks three questions and shuts down.
// Exits with 0 only when every call succeeded.
#include "sdk/IAntivirusScan.h"
#include "sdk/IKXSettings.h"
#include "sdk/IScanSp.h"
#include "sdk/IServConfig.h"
#include "sdk/IUpdate.h"
#include "sdk/PluginIds.h"

#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

using namespace qv::kxsdk;

namespace {

// "productinfo": a full-scan installation. No folders are configured, so the plug-in touches no file.
struct ProductInfo : IServConfig {
    const wchar_t* GetProductName() override { return L"Minimal host"; }
    const wchar_t* GetProductVersion() override { return L"1.0"; }
    const wchar_t* GetLanguage() override { return L"en"; }
    DWORD GetNumber(int32_t, const wchar_t*, int64_t*) override { return ERROR_NOT_FOUND; }
    DWORD GetFlag(int32_t, const wchar_t*, bool*) override { return ERROR_NOT_FOUND; }
    DWORD Reload() override { return ERROR_SUCCESS; }
    const wchar_t* GetText(int32_t category, const wchar_t* name) override {
        bool scanType = category == config::kScanTypeCategory && name && std::wcscmp(name, L"BASE") == 0;
        return scanType ? L"full" : nullptr;
    }
};

// "KXSettings": an empty store that accepts every write and remembers none.
struct SettingsStore : IKXSettings, IKXSettingsSection {
    IKXSettingsSection* OpenSection(const wchar_t*, uint32_t, uint32_t, uint32_t) override { return this; }
    bool GetValue(const wchar_t*, Json::Value&) override { return false; }
    bool GetBool(const wchar_t*, bool&) override { return false; }
    bool GetUInt(const wchar_t*, uint32_t&) override { return false; }
    bool GetString(const wchar_t*, std::string&) override { return false; }
    bool SetValue(const wchar_t*, const Json::Value&) override { return true; }
    bool SetBool(const wchar_t*, bool) override { return true; }
    bool SetUInt(const wchar_t*, uint32_t) override { return true; }
    bool SetString(const wchar_t*, const wchar_t*) override { return true; }
    void Release() override {}
};

// "Update.UpdateAL": signature statistics of one "Antivirus" component; everything else refused.
struct Updater : Update::IUpdate {
    static constexpr DWORD kNo = ERROR_NOT_SUPPORTED;
    DWORD GetStatistics(Statistics* statistics) override {
        if (!statistics) return ERROR_INVALID_PARAMETER;
        SignatureStatistics antivirus;
        antivirus.version = L"2024.05.17.1";
        antivirus.count = 123456;
        statistics->signatures.Set(qv::StringW(L"Antivirus"), antivirus);
        return ERROR_SUCCESS;
    }
    DWORD RegisterEvents(IEvents*, uint32_t, const char*) override { return ERROR_SUCCESS; }
    DWORD UnregisterEvents(IEvents*, uint32_t, const char*) override { return ERROR_SUCCESS; }
    DWORD GetUpdateSettings(UpdateSettings*) override { return kNo; }
    DWORD StartUpdate(const UpdateRequest&, uint32_t*) override { return kNo; }
    DWORD RestartService(uint32_t, const wchar_t*) override { return kNo; }
    DWORD StopUpdate() override { return kNo; }
    DWORD IsUpdateRunning(bool*) override { return kNo; }
    DWORD SetUpdateSettings(const UpdateSettings&) override { return kNo; }
    DWORD GetLastResult(DWORD*) override { return kNo; }
    DWORD GetLastUpdateTime(uint64_t*) override { return kNo; }
    DWORD GetComponentVersion(const wchar_t*, qv::StringW*) override { return kNo; }
    DWORD ScheduleUpdate(uint32_t) override { return kNo; }
    DWORD CancelSchedule() override { return kNo; }
    DWORD Rollback(const wchar_t*) override { return kNo; }
    DWORD GetDownloadProgress(uint32_t*) override { return kNo; }
    DWORD VerifyComponent(const wchar_t*) override { return kNo; }
    DWORD GetUpdateServer(qv::StringW*) override { return kNo; }
    DWORD SetLicense(const wchar_t*) override { return kNo; }
    DWORD Flush() override { return kNo; }
};

// "scansp": engines that load and reload; no crash handler to hand out.
struct ScanProvider : IScanSp {
    DWORD SetOption(uint32_t, uint32_t, const void*, uint32_t) override { return ERROR_SUCCESS; }
    DWORD ReloadEngines() override { return ERROR_SUCCESS; }
    DWORD GetInterface(const GUID&, void** object) override {
        if (object) *object = nullptr;
        return ERROR_NOT_FOUND;
    }
    void ReleaseInterface(void*) override {}
};

// The host object and its component manager. The remote-scan, CTC and telemetry plug-ins are
// absent, which a full-scan installation tolerates.
struct Host : IQvHost, IComponentManager {
    void* QueryInterface(const GUID&) override { return nullptr; }
    IComponentManager* GetComponentManager() override { return this; }
    DWORD GetPlugin(const wchar_t* name, const GUID* id, void** plugin) override {
        if (!name || !id || !plugin) return ERROR_INVALID_PARAMETER;
        const struct {
            const wchar_t* name;
            GUID id;
            void* face;
        } served[] = {
            {ids::kServConfigName, ids::kServConfigId, static_cast<IServConfig*>(&productInfo)},
            {ids::kSettingsName, ids::kSettingsId, static_cast<IKXSettings*>(&settings)},
            {ids::kUpdateName, ids::kUpdateId, static_cast<Update::IUpdate*>(&updater)},
            {ids::kScanSpName, ids::kScanSpId, static_cast<IScanSp*>(&scanProvider)},
        };
        for (const auto& s : served) {
            if (std::wcscmp(name, s.name) == 0 && qv::SameInterfaceId(*id, s.id)) {
                *plugin = s.face;
                return ERROR_SUCCESS;
            }
        }
        return ERROR_NOT_FOUND;
    }
    DWORD ReleasePlugin(const wchar_t*) override { return ERROR_SUCCESS; }

    ProductInfo productInfo;
    SettingsStore settings;
    Updater updater;
    ScanProvider scanProvider;
};

bool Report(const char* call, DWORD result) {
    std::printf("%s: %lu\n", call, static_cast<unsigned long>(result));
    return result == ERROR_SUCCESS;
}

// What Explorer and the host's update plug-in read: the DLL's version resource.
bool PrintVersion(const wchar_t* path) {
    DWORD ignored = 0;
    std::vector<char> block(GetFileVersionInfoSizeW(path, &ignored));
    void *fixed = nullptr, *description = nullptr, *original = nullptr;
    UINT size = 0;
    if (block.empty() || !GetFileVersionInfoW(path, 0, static_cast<DWORD>(block.size()), block.data()) ||
        !VerQueryValueW(block.data(), L"\\", &fixed, &size) ||
        !VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\FileDescription", &description, &size) ||
        !VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\OriginalFilename", &original, &size)) {
        std::printf("no version resource\n");
        return false;
    }
    const auto* v = static_cast<const VS_FIXEDFILEINFO*>(fixed);
    std::printf("version %u.%u.%u.%u, \"%ls\", %ls\n", HIWORD(v->dwFileVersionMS), LOWORD(v->dwFileVersionMS),
                HIWORD(v->dwFileVersionLS), LOWORD(v->dwFileVersionLS), static_cast<const wchar_t*>(description),
                static_cast<const wchar_t*>(original));
    return true;
}

template <class Fn> Fn Export(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

} // namespace

int main() {
    // The plug-in is loaded from the program's own folder, as the service loads its plug-ins.
    wchar_t self[MAX_PATH];
    std::wstring path(self, GetModuleFileNameW(nullptr, self, MAX_PATH));
    path.erase(path.find_last_of(L'\\') + 1).append(L"AntivirusScan.AL");
    bool ok = PrintVersion(path.c_str());

    std::unique_ptr<HINSTANCE__, decltype(&FreeLibrary)> module(LoadLibraryW(path.c_str()), &FreeLibrary);
    using CreateFn = DWORD (*)(const wchar_t*, GUID, void**);
    using DestroyFn = DWORD (*)(const wchar_t*, void*);
    auto create = module ? Export<CreateFn>(module.get(), "QvCreateObject") : nullptr;
    auto destroy = module ? Export<DestroyFn>(module.get(), "QvDestroyObject") : nullptr;
    void* object = nullptr;
    if (!create || !destroy ||
        !Report("QvCreateObject", create(ids::kAntivirusScanObjectName, ids::kDelayedServPluginFaceId, &object))) {
        std::printf("cannot load the plug-in [error = %lu]\n", GetLastError());
        return 1;
    }
    auto* plugin = static_cast<IDelayedServPlugin*>(object);
    auto* scan = static_cast<AntivirusScan::IAntivirusScan*>(plugin->QueryInterface(ids::kAntivirusScanFaceId));

    Host host;
    ok = Report("Init", plugin->Init(&host)) && ok;
    ok = Report("Start", plugin->Start()) && ok;
    ok = Report("DelayedStart", plugin->DelayedStart()) && ok;
    if (scan) {
        AntivirusScan::ScanType type{};
        AntivirusScan::ScanMode primary{}, fallback{};
        qv::StringW version;
        ok = Report("GetScanType", scan->GetScanType(&type)) && ok;
        ok = Report("GetScanModes", scan->GetScanModes(&primary, &fallback)) && ok;
        ok = Report("GetEnginesVersion", scan->GetEnginesVersion(&version)) && ok;
        std::printf("scan type %u, scan modes %u/%u, engines version %s\n", type, primary, fallback,
                    version.ToUtf8().c_str());
    }
    ok = Report("Stop", plugin->Stop()) && scan && ok;
    ok = Report("UnInit", plugin->UnInit()) && ok;
    destroy(ids::kAntivirusScanObjectName, object);
    std::printf("%s\n", ok ? "minimal host: done" : "minimal host: FAILED");
    return ok ? 0 : 1;
}
