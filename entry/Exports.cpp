// The library's two exports. Nothing thrown inside may reach the host.
#include "entry/ExportedSingleton.h"
#include "plugin/AntivirusScanAL.h"

#include <new>

namespace {
qv::ExportedSingletonDeclaration<qv::AntivirusScanAL> g_antivirusScan(L"AntivirusScan");
}

extern "C" DWORD QvCreateObject(const wchar_t* name, GUID interfaceId, void** result) {
    if (!result) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    if (!name) return ERROR_NOT_FOUND;
    try {
        IQvBaseInterface* root = nullptr;
        {
            qv::RegistryScope registry;
            qv::IObjectConstructor* constructor = registry->Find(name);
            if (!constructor) return ERROR_NOT_FOUND;
            root = constructor->CreateInstance();
        }
        void* face = root ? root->QueryInterface(interfaceId) : nullptr;
        if (face) {
            *result = face;
            return ERROR_SUCCESS;
        }
        qv::RegistryScope registry;
        if (qv::IObjectConstructor* constructor = registry->Find(name)) constructor->ReleaseInstance(root);
        return ERROR_NOT_FOUND;
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
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
    return ERROR_SUCCESS;
}
