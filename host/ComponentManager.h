#pragma once
// The host's component manager: serves sibling plug-ins by name and interface id. Each plug-in
// can be made present, missing, or refusing with a given code; gets and releases are counted per
// name and journaled in order, so that a leaked, doubly released or out-of-order plug-in shows.
#include "host/ServedPlugin.h"
#include "sdk/QvBase.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace host {

class ComponentManager : public IComponentManager {
public:
    struct Counts {
        int gets = 0;     // successful gets
        int attempts = 0; // every call of GetPlugin for the name
        int releases = 0;
    };

    struct JournalEntry {
        enum Kind { Get, Refused, Release } kind;
        std::wstring name;
        bool operator==(const JournalEntry& other) const { return kind == other.kind && name == other.name; }
    };

    // Offers a plug-in under a name and id; replaces an earlier offer of the name. With served,
    // the plug-in is told when it is held and handed back.
    void Offer(const wchar_t* name, const GUID& id, void* plugin, ServedPlugin* served = nullptr);
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
    // Every get, refused get and release, in the order they were made (cleared by ResetCounts).
    std::vector<JournalEntry> Journal() const;

    DWORD GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) override;
    DWORD ReleasePlugin(const wchar_t* name) override;

private:
    enum class Mode { Present, Missing, Refusing };
    struct Entry {
        GUID id{};
        void* plugin = nullptr;
        ServedPlugin* served = nullptr;
        Mode mode = Mode::Present;
        DWORD refuseCode = 0;
        bool writeAnyway = false;
        Counts counts;
    };
    mutable std::mutex mutex_;
    std::map<std::wstring, Entry> entries_;
    std::vector<JournalEntry> journal_;
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
