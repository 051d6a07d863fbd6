#pragma once
// The host side of one service process in the sandbox: the sibling plug-ins of
// host::HostEnvironment, configured from the scenario and backed by the sandbox's files.
// - The settings store is bound to the sandbox's settings file, telemetry to its JSON-lines file.
// - The scan service provider ("scansp" in "files" state) can be obtained, and reloads, only
//   while the engines folder named by the service configuration holds its required files.
// - The update plug-in installs an engines kit by copying a folder, then tells the plug-in
//   OnComponentInstalled on its own notification thread.
// What a restart of the service keeps (configuration texts, plug-in states, update statistics)
// lives in HostState, outside the process-like ServiceHost.
#include "host/HostEnvironment.h"
#include "host/sandbox/SandboxFolder.h"
#include "host/sandbox/Scenario.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace sandbox {

struct HostState {
    std::map<std::pair<int32_t, std::wstring>, std::wstring> texts; // (category, name) -> text; absent: unset
    std::map<std::wstring, PluginState> plugins;                    // every known plug-in name
    ScanSpSetup scanSp;
    RemoteScanSetup remoteScan;
    UpdateSetup update;
    DWORD telemetryResult = 0;
    bool settingsFailWrites = false;
    bool settingsRefuseOpen = false;
};

// Builds the state a scenario starts from: default texts for the sandbox, then the scenario's.
HostState InitialState(const Scenario& scenario, const SandboxLayout& layout);

struct ScanSpCheck {
    bool loadable = false;
    std::wstring reason; // what made the decision, for the trace
};

struct InstallOutcome {
    DWORD result = 0; // the plug-in's answer to OnComponentInstalled (1168: nobody listens; 3: no kit)
    std::wstring kitFolder;
    std::wstring target;
    std::vector<std::wstring> copied;
    std::string error; // the kit could not be found or copied
    bool statisticsRecorded = false;
    std::wstring version;
    int64_t count = 0;
};

class ServiceHost {
public:
    using Note = std::function<void(const std::string&)>;

    // state outlives the host and is updated by it (texts repointed by an install, statistics).
    ServiceHost(const SandboxLayout& layout, HostState& state, Note note);
    ~ServiceHost();
    ServiceHost(const ServiceHost&) = delete;
    ServiceHost& operator=(const ServiceHost&) = delete;

    host::HostEnvironment& Env() { return *env_; }
    IQvHost* HostObject() { return &env_->host; }

    void SetText(const ConfigText& text);
    void SetPlugin(const std::wstring& name, const PluginState& state);
    void SetRemoteScan(const RemoteScanSetup& remote);
    std::wstring EnginesFolder() const;
    ScanSpCheck CheckEngines() const;
    // Copies the kit into its target, records the statistics and tells the plug-in; waits.
    InstallOutcome Install(const Action& action, const std::wstring& kitFolder);

    int ScanSpLookups() const { return lookups_; }

private:
    class FileBackedManager;
    void ApplyPlugin(const std::wstring& name, const PluginState& state);
    DWORD Reload();

    const SandboxLayout& layout_;
    HostState& state_;
    Note note_;
    mutable std::mutex mutex_; // guards state_ against the notification threads
    int lookups_ = 0;
    std::unique_ptr<host::HostEnvironment> env_;
    std::unique_ptr<FileBackedManager> manager_;
};

} // namespace sandbox
