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
    DWORD GetUpdateSettings(UpdateSettings*) override { return ERROR_NOT_SUPPORTED; }
    DWORD StartUpdate(const UpdateRequest&, uint32_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD RestartService(uint32_t, const wchar_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD StopUpdate() override { return ERROR_NOT_SUPPORTED; }
    DWORD IsUpdateRunning(bool*) override { return ERROR_NOT_SUPPORTED; }
    DWORD SetUpdateSettings(const UpdateSettings&) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetLastResult(DWORD*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetLastUpdateTime(uint64_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetComponentVersion(const wchar_t*, qv::StringW*) override { return ERROR_NOT_SUPPORTED; }
    DWORD ScheduleUpdate(uint32_t) override { return ERROR_NOT_SUPPORTED; }
    DWORD CancelSchedule() override { return ERROR_NOT_SUPPORTED; }
    DWORD Rollback(const wchar_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetDownloadProgress(uint32_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD VerifyComponent(const wchar_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetUpdateServer(qv::StringW*) override { return ERROR_NOT_SUPPORTED; }
    DWORD SetLicense(const wchar_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD Flush() override { return ERROR_NOT_SUPPORTED; }
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
        const struct { const wchar_t* name; GUID id; void* face; } served[] = {
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
bool PrintVersion(const std::wstring& path) {
    DWORD ignored = 0;
    std::vector<char> block(GetFileVersionInfoSizeW(path.c_str(), &ignored));
    VS_FIXEDFILEINFO* fixed = nullptr;
    wchar_t *description = nullptr, *original = nullptr;
    UINT size = 0;
    if (block.empty() || !GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) ||
        !VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &size) ||
        !VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\FileDescription",
                        reinterpret_cast<void**>(&description), &size) ||
        !VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\OriginalFilename",
                        reinterpret_cast<void**>(&original), &size)) {
        std::printf("no version resource\n");
        return false;
    }
    std::printf("version %u.%u.%u.%u, \"%ls\", %ls\n", HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
                HIWORD(fixed->dwFileVersionLS), LOWORD(fixed->dwFileVersionLS), description, original);
    return true;
}

} // namespace

int main() {
    wchar_t self[MAX_PATH];
    DWORD length = GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, length);
    path.erase(path.find_last_of(L'\\') + 1).append(L"AntivirusScan.AL");
    bool ok = PrintVersion(path);

    HMODULE module = LoadLibraryW(path.c_str());
    using CreateFn = DWORD (*)(const wchar_t*, GUID, void**);
    using DestroyFn = DWORD (*)(const wchar_t*, void*);
    auto create = module ? reinterpret_cast<CreateFn>(reinterpret_cast<void*>(GetProcAddress(module, "QvCreateObject"))) : nullptr;
    auto destroy = module ? reinterpret_cast<DestroyFn>(reinterpret_cast<void*>(GetProcAddress(module, "QvDestroyObject"))) : nullptr;
    void* object = nullptr;
    if (!create || !destroy || !Report("QvCreateObject", create(ids::kAntivirusScanObjectName, ids::kDelayedServPluginFaceId, &object))) {
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
    FreeLibrary(module);
    std::printf("%s\n", ok ? "minimal host: done" : "minimal host: FAILED");
    return ok ? 0 : 1;
}
