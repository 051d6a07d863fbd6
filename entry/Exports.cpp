// The library's two exports. Nothing thrown inside may reach the host.
#include "entry/ExportedSingleton.h"
#include "plugin/AntivirusScanAL.h"
#include "sdk/PluginIds.h"

#include <new>

namespace {
qv::ExportedSingletonDeclaration<qv::AntivirusScanAL> g_antivirusScan(qv::kxsdk::ids::kAntivirusScanObjectName);

// Gives one reference of the named object back. Allocates nothing and cannot fail once the
// registry exists (the declaration holds it from load to unload): a destroy, and the undo of a
// create, must not lose their release when memory has run out.
void ReleaseNamed(const wchar_t* name, IQvBaseInterface* object) noexcept {
    qv::ObjectRegistry* registry = qv::ObjectRegistry::AddRef();
    if (!registry) return;
    {
        auto lock = registry->Lock();
        if (qv::IObjectConstructor* constructor = registry->Find(name)) constructor->ReleaseInstance(object);
    }
    qv::ObjectRegistry::Release();
}
} // namespace

extern "C" DWORD QvCreateObject(const wchar_t* name, GUID interfaceId, void** result) {
    if (!result) return qv::kInvalidParameter;
    *result = nullptr;
    if (!name) return qv::kNotFound;
    IQvBaseInterface* root = nullptr;
    try {
        qv::RegistryScope registry;
        qv::IObjectConstructor* constructor = registry->Find(name);
        if (!constructor) return qv::kNotFound;
        root = constructor->CreateInstance();
    } catch (const std::bad_alloc&) {
        // The object could not be built: nothing was counted.
        return qv::kNotEnoughMemory;
    } catch (...) {
        return qv::kInternalError;
    }
    void* face = root ? root->QueryInterface(interfaceId) : nullptr;
    if (face) {
        *result = face;
        return qv::kSuccess;
    }
    ReleaseNamed(name, root);
    return qv::kNotFound;
}

extern "C" DWORD QvDestroyObject(const wchar_t* name, void* object) {
    ReleaseNamed(name, static_cast<IQvBaseInterface*>(object));
    return qv::kSuccess;
}
