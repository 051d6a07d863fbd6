#include "host/sandbox/PluginModule.h"

#include "host/sandbox/TextUtil.h"
#include "sdk/PluginIds.h"

namespace sandbox {

namespace ids = qv::kxsdk::ids;

bool PluginModule::Load(const std::wstring& path, std::string& error) {
    Unload();
    path_ = path;
    library_ = std::make_unique<host::PluginLibrary>(path);
    if (library_->LoadError()) {
        error = "cannot load " + Utf8(path) + " [error = " + std::to_string(library_->LoadError()) + "]";
        library_.reset();
        return false;
    }
    if (!library_->Loaded()) {
        error = Utf8(path) + " lacks QvCreateObject or QvDestroyObject";
        Unload();
        return false;
    }
    return true;
}

bool PluginModule::Create(std::string& error) {
    void* primary = nullptr;
    const DWORD result = library_->Create(ids::kPrimaryFaceId, &primary);
    if (result != 0 || !primary) {
        error = "QvCreateObject(\"AntivirusScan\") failed: " + CodeText(result);
        return false;
    }
    lifecycle_ = static_cast<IDelayedServPlugin*>(primary);
    scan_ =
        static_cast<qv::kxsdk::AntivirusScan::IAntivirusScan*>(lifecycle_->QueryInterface(ids::kAntivirusScanFaceId));
    if (!scan_) {
        error = "the object does not hand out its IAntivirusScan face";
        Destroy();
        return false;
    }
    return true;
}

void PluginModule::Destroy() {
    if (lifecycle_ && library_ && library_->Loaded()) library_->Destroy(lifecycle_);
    lifecycle_ = nullptr;
    scan_ = nullptr;
}

void PluginModule::Unload() {
    Destroy();
    library_.reset();
}

} // namespace sandbox
