#pragma once
// The host's component manager: serves sibling plug-ins by name and interface id. Each plug-in
// can be made present, missing, or refusing with a given code, and gets and releases are
// counted per name so that a leaked or doubly released plug-in shows.
#include "sdk/QvBase.h"

#include <map>
#include <mutex>
#include <string>

namespace host {

class ComponentManager : public IComponentManager {
public:
    struct Counts {
        int gets = 0;      // successful gets
        int attempts = 0;  // every call of GetPlugin for the name
        int releases = 0;
    };

    // Offers a plug-in under a name and id; replaces an earlier offer of the name.
    void Offer(const wchar_t* name, const GUID& id, void* plugin);
    // The name is not served (error 1168) until offered again or restored.
    void SetMissing(const wchar_t* name);
    // The name is refused with this code; with writeAnyway the interface is still written out.
    void SetRefusing(const wchar_t* name, DWORD code, bool writeAnyway = false);
    void Restore(const wchar_t* name);

    Counts CountsOf(const wchar_t* name) const;
    // True when every plug-in was released as often as it was successfully got.
    bool Balanced() const;
    int Outstanding(const wchar_t* name) const;
    void ResetCounts();

    DWORD GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) override;
    DWORD ReleasePlugin(const wchar_t* name) override;

private:
    enum class Mode { Present, Missing, Refusing };
    struct Entry {
        GUID id{};
        void* plugin = nullptr;
        Mode mode = Mode::Present;
        DWORD refuseCode = 0;
        bool writeAnyway = false;
        Counts counts;
    };
    mutable std::mutex mutex_;
    std::map<std::wstring, Entry> entries_;
};

// The host object handed to Init: slot 1 yields the component manager.
class HostObject : public IQvHost {
public:
    explicit HostObject(IComponentManager* manager) : manager_(manager) {}
    void* QueryInterface(const GUID&) override { return nullptr; }
    IComponentManager* GetComponentManager() override { return manager_; }
    void SetComponentManager(IComponentManager* manager) { manager_ = manager; }

private:
    IComponentManager* manager_;
};

} // namespace host
