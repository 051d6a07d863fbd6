#include "tests/common/PluginHarness.h"

#include <atomic>

namespace testing_support {

std::wstring ExeFolder() {
    wchar_t path[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, n);
    return folder.substr(0, folder.find_last_of(L'\\'));
}

std::wstring TempFolder(const wchar_t* tag) {
    static std::atomic<int> counter{0};
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    // Wine reuses process ids from run to run: a name left by an earlier run is skipped.
    for (;;) {
        std::wstring folder = std::wstring(temp) + L"avscan-" + tag + L"-" + std::to_wstring(GetCurrentProcessId()) +
                              L"-" + std::to_wstring(counter++);
        if (CreateDirectoryW(folder.c_str(), nullptr) || GetLastError() != ERROR_ALREADY_EXISTS) return folder;
    }
}

PluginLibrary::PluginLibrary(const std::wstring& path) {
    std::wstring file = path.empty() ? ExeFolder() + L"\\AntivirusScan.AL" : path;
    module_ = LoadLibraryW(file.c_str());
    if (!module_) return;
    create = reinterpret_cast<CreateFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvCreateObject")));
    destroy = reinterpret_cast<DestroyFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvDestroyObject")));
}

PluginLibrary::~PluginLibrary() { Unload(); }

void PluginLibrary::Unload() {
    if (module_) FreeLibrary(module_);
    module_ = nullptr;
    create = nullptr;
    destroy = nullptr;
}

DWORD PluginLibrary::Create(const GUID& id, void** out, const wchar_t* name) { return create(name, id, out); }
void PluginLibrary::Destroy(void* object, const wchar_t* name) { destroy(name, object); }

PluginUnderTest::PluginUnderTest() {
    if (!library.Loaded()) return;
    library.Create(qv::kxsdk::ids::kPrimaryFaceId, &primary);
    void* face = nullptr;
    library.Create(qv::kxsdk::ids::kAntivirusScanFaceId, &face);
    scan = face;
    // The second create counted a reference of its own; one destroy at the end is enough.
    if (face) library.Destroy(face);
}

PluginUnderTest::~PluginUnderTest() {
    if (!primary) return;
    if (!stopped) StopAll();
    library.Destroy(primary);
}

bool PluginUnderTest::StartAll() {
    stopped = false;
    return Init() == 0 && Start() == 0 && DelayedStart() == 0;
}

void PluginUnderTest::StopAll() {
    Stop();
    UnInit();
    stopped = true;
}

} // namespace testing_support
