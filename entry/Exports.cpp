// The library's two exports. Nothing thrown inside may reach the host.
#include "entry/ExportedSingleton.h"
#include "plugin/AntivirusScanAL.h"
#include "sdk/PluginIds.h"

#include <new>

namespace {
qv::ExportedSingletonDeclaration<qv::AntivirusScanAL> g_antivirusScan(qv::kxsdk::ids::kAntivirusScanObjectName);
}

extern "C" DWORD QvCreateObject(const wchar_t* name, GUID interfaceId, void** result) {
    if (!result) return qv::kInvalidParameter;
    *result = nullptr;
    if (!name) return qv::kNotFound;
    try {
        IQvBaseInterface* root = nullptr;
        {
            qv::RegistryScope registry;
            qv::IObjectConstructor* constructor = registry->Find(name);
            if (!constructor) return qv::kNotFound;
            root = constructor->CreateInstance();
        }
        void* face = root ? root->QueryInterface(interfaceId) : nullptr;
        if (face) {
            *result = face;
            return qv::kSuccess;
        }
        qv::RegistryScope registry;
        if (qv::IObjectConstructor* constructor = registry->Find(name)) constructor->ReleaseInstance(root);
        return qv::kNotFound;
    } catch (const std::bad_alloc&) {
        return qv::kNotEnoughMemory;
    } catch (...) {
        return qv::kInternalError;
    }
}

extern "C" DWORD QvDestroyObject(const wchar_t* name, void* object) {
    try {
        qv::RegistryScope registry;
        if (qv::IObjectConstructor* constructor = registry->Find(name)) {
            constructor->ReleaseInstance(static_cast<IQvBaseInterface*>(object));
        }
    } catch (...) {
    }
    return qv::kSuccess;
}
