#pragma once
// AntivirusScan.AL loaded as the service loads it: LoadLibraryW and the two exports resolved by
// name. Shared by the tests and the benchmarks, which drive the object through slot numbers.
#include "sdk/IAntivirusScan.h"
#include "sdk/IUpdate.h"
#include "sdk/PluginIds.h"
#include "sdk/QvBase.h"

#include <string>

namespace host {

using CreateFn = DWORD (*)(const wchar_t*, GUID, void**);
using DestroyFn = DWORD (*)(const wchar_t*, void*);

// Calls virtual slot `slot` of `object`; the x64 calling convention passes `this` first, as for
// a free function, so a reordered interface shows as a wrong call.
template <class R, class... Args> R CallSlot(void* object, int slot, Args... args) {
    using Fn = R (*)(void*, Args...);
    void** vtable = *static_cast<void***>(object);
    return reinterpret_cast<Fn>(vtable[slot])(object, args...);
}

// Slot numbers of the object's faces and of the update plug-in's event face, from the interfaces
// they number: the binary contract that a caller's compiled code uses.
namespace slots {
using namespace qv::kxsdk::slots;                // Lifecycle
using namespace qv::kxsdk::AntivirusScan::slots; // Scan
using namespace qv::kxsdk::Update::slots;        // kOnComponentInstalled
} // namespace slots

// Folder of the running program, without a trailing backslash.
std::wstring ExeFolder();
// A new, empty folder under the temporary folder named prefix + tag + a unique suffix.
std::wstring FreshFolder(const wchar_t* prefix, const wchar_t* tag);

class PluginLibrary {
public:
    PluginLibrary(); // the one beside the program
    explicit PluginLibrary(const std::wstring& path);
    ~PluginLibrary() { Unload(); }
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    bool Loaded() const { return module_ && create && destroy; }
    // GetLastError of a LoadLibraryW that failed; 0 when the module loaded (its exports may
    // still be missing).
    DWORD LoadError() const { return loadError_; }
    void Unload();
    DWORD Create(const GUID& id, void** out, const wchar_t* name = qv::kxsdk::ids::kAntivirusScanObjectName) {
        return create(name, id, out);
    }
    void Destroy(void* object, const wchar_t* name = qv::kxsdk::ids::kAntivirusScanObjectName) {
        destroy(name, object);
    }
    CreateFn create = nullptr;
    DestroyFn destroy = nullptr;

private:
    HMODULE module_ = nullptr;
    DWORD loadError_ = 0;
};

} // namespace host
