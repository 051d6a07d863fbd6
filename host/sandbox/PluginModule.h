#pragma once
// AntivirusScan.AL as the service loads it: LoadLibraryW, QvCreateObject for the primary
// (lifecycle) face, QueryInterface for the IAntivirusScan face, QvDestroyObject at the end.
#include "host/PluginLibrary.h"
#include "sdk/IAntivirusScan.h"
#include "sdk/QvBase.h"

#include <memory>
#include <string>

namespace sandbox {

class PluginModule {
public:
    PluginModule() = default;
    ~PluginModule() { Unload(); }
    PluginModule(const PluginModule&) = delete;
    PluginModule& operator=(const PluginModule&) = delete;

    bool Load(const std::wstring& path, std::string& error);
    // Creates the object and looks up its faces; false with a message when anything is missing.
    bool Create(std::string& error);
    void Destroy(); // QvDestroyObject on the primary face
    void Unload();  // destroys first when needed, then unloads the library

    IDelayedServPlugin* Lifecycle() const { return lifecycle_; }
    qv::kxsdk::AntivirusScan::IAntivirusScan* Scan() const { return scan_; }
    const std::wstring& Path() const { return path_; }

private:
    std::unique_ptr<host::PluginLibrary> library_;
    IDelayedServPlugin* lifecycle_ = nullptr;
    qv::kxsdk::AntivirusScan::IAntivirusScan* scan_ = nullptr;
    std::wstring path_;
};

} // namespace sandbox
