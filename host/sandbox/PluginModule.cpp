#include "host/sandbox/PluginModule.h"

#include "host/sandbox/TextUtil.h"
#include "sdk/PluginIds.h"

namespace sandbox {

namespace ids = qv::kxsdk::ids;

bool PluginModule::Load(const std::wstring& path, std::string& error) {
    Unload();
    path_ = path;
    module_ = LoadLibraryW(path.c_str());
    if (!module_) {
        error = "cannot load " + Utf8(path) + " [error = " + std::to_string(GetLastError()) + "]";
        return false;
    }
    create_ = reinterpret_cast<CreateFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvCreateObject")));
    destroy_ = reinterpret_cast<DestroyFn>(reinterpret_cast<void*>(GetProcAddress(module_, "QvDestroyObject")));
    if (!create_ || !destroy_) {
        error = Utf8(path) + " lacks QvCreateObject or QvDestroyObject";
        Unload();
        return false;
    }
    return true;
}

bool PluginModule::Create(std::string& error) {
    void* primary = nullptr;
    const DWORD result = create_(ids::kAntivirusScanObjectName, ids::kPrimaryFaceId, &primary);
    if (result != 0 || !primary) {
        error = "QvCreateObject(\"AntivirusScan\") failed: " + CodeText(result);
        return false;
    }
    lifecycle_ = static_cast<IDelayedServPlugin*>(primary);
    scan_ = static_cast<qv::kxsdk::AntivirusScan::IAntivirusScan*>(lifecycle_->QueryInterface(ids::kAntivirusScanFaceId));
    if (!scan_) {
        error = "the object does not hand out its IAntivirusScan face";
        Destroy();
        return false;
    }
    return true;
}

void PluginModule::Destroy() {
    if (lifecycle_ && destroy_) destroy_(ids::kAntivirusScanObjectName, lifecycle_);
    lifecycle_ = nullptr;
    scan_ = nullptr;
}

void PluginModule::Unload() {
    Destroy();
    if (module_) FreeLibrary(module_);
    module_ = nullptr;
    create_ = nullptr;
    destroy_ = nullptr;
}

} // namespace sandbox
