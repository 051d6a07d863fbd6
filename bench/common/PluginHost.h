#pragma once
// Drives AntivirusScan.AL as the host does: LoadLibraryW, the two exports, and the faces' slots
// by number. The host's sibling plug-ins come from host/ (host::HostEnvironment).
#include "host/HostEnvironment.h"
#include "host/PluginLibrary.h"
#include "host/RemoveTree.h"
#include "sdk/IAntivirusScan.h"
#include "sdk/PluginIds.h"

#include <string>

namespace bench {

using host::CallSlot;
using host::ExeFolder;
using host::RemoveTree;

using namespace host::slots;

// A fresh folder under the temporary folder; removed by RemoveTree.
inline std::wstring FreshFolder(const wchar_t* tag) { return host::FreshFolder(L"avbench-", tag); }

class PluginModule {
public:
    PluginModule() = default;
    explicit PluginModule(const std::wstring& path) : library_(path) {}
    PluginModule(const PluginModule&) = delete;
    PluginModule& operator=(const PluginModule&) = delete;

    bool Loaded() const { return library_.Loaded(); }
    // The primary face, or null.
    void* Create();
    // The IAntivirusScan face of the same object (its reference is given back at once).
    void* ScanFace();
    void Destroy(void* primary);

private:
    host::PluginLibrary library_;
};

// Folders a realistic start-up touches: the core temp folder inside a parent of its own, the
// engines folder with its plug-in folder, the signature folders and the common folder.
struct Installation {
    std::wstring root;
    std::wstring coreTempParent;
    std::wstring coreTemp;
    std::wstring engines;
    std::wstring common;

    explicit Installation(const wchar_t* tag);
    ~Installation();
    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;
    void Configure(host::HostEnvironment& env) const;
};

} // namespace bench
