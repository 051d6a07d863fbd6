#include "host/sandbox/ServiceHost.h"

#include "host/sandbox/TextUtil.h"
#include "sdk/IServConfig.h"
#include "sdk/PluginIds.h"

#include <shlwapi.h>

namespace sandbox {
namespace {

namespace ids = qv::kxsdk::ids;
namespace config = qv::kxsdk::config;

const wchar_t* const kPluginNames[] = {ids::kServConfigName, ids::kSettingsName, ids::kUpdateName,
                                       ids::kRemoteScanName, ids::kCtcName,      ids::kScanSpName,
                                       ids::kTelemetryName};

std::wstring Join(const std::wstring& folder, const std::wstring& name) {
    if (folder.empty() || folder.back() == L'\\' || folder.back() == L'/') return folder + name;
    return folder + L"\\" + name;
}

} // namespace

HostState InitialState(const Scenario& scenario, const SandboxLayout& layout) {
    HostState state;
    if (scenario.scanTypeSet) state.texts[{config::kScanTypeCategory, L"BASE"}] = scenario.scanType;
    state.texts[{config::kEnginesFolderCategory, L"scansp"}] = layout.engines;
    state.texts[{config::kCoreTempCategory, L"scansp"}] = layout.coreTemp;
    state.texts[{config::kFoldersCategory, L"signaturesPatterns"}] = layout.signatures + L"\\*";
    state.texts[{config::kFoldersCategory, L"common"}] = layout.common;
    for (const ConfigText& t : scenario.texts) {
        if (t.clear)
            state.texts.erase({t.category, t.name});
        else
            state.texts[{t.category, t.name}] = layout.Expand(t.text);
    }
    for (const wchar_t* name : kPluginNames) {
        PluginState s;
        if (std::wstring(name) == ids::kScanSpName) s.kind = PluginState::Files;
        auto it = scenario.plugins.find(name);
        state.plugins[name] = it == scenario.plugins.end() ? s : it->second;
    }
    state.scanSp = scenario.scanSp;
    state.remoteScan = scenario.remoteScan;
    state.update = scenario.update;
    state.telemetryResult = scenario.telemetryResult;
    state.settingsFailWrites = scenario.settings.failWrites;
    state.settingsRefuseOpen = scenario.settings.refuseOpen;
    return state;
}

// The manager handed to the plug-in: the environment's own manager, except that a "scansp" in
// "files" state is made present or missing from the engines folder just before each lookup.
class ServiceHost::FileBackedManager : public IComponentManager {
public:
    explicit FileBackedManager(ServiceHost& host) : host_(host) {}
    DWORD GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) override {
        if (name && std::wstring(name) == ids::kScanSpName) {
            bool filesDecide;
            {
                std::lock_guard<std::mutex> lock(host_.mutex_);
                filesDecide = host_.state_.plugins[ids::kScanSpName].kind == PluginState::Files;
                ++host_.lookups_;
            }
            if (filesDecide) {
                const ScanSpCheck check = host_.CheckEngines();
                if (check.loadable)
                    host_.env_->manager.Restore(ids::kScanSpName);
                else
                    host_.env_->manager.SetMissing(ids::kScanSpName);
                host_.note_(std::string("scansp ") + (check.loadable ? "loads: " : "cannot load: ") +
                            Utf8(check.reason));
            }
        }
        return host_.env_->manager.GetPlugin(name, interfaceId, plugin);
    }
    DWORD ReleasePlugin(const wchar_t* name) override { return host_.env_->manager.ReleasePlugin(name); }

private:
    ServiceHost& host_;
};

ServiceHost::ServiceHost(const SandboxLayout& layout, HostState& state, Note note)
    : layout_(layout), state_(state), note_(std::move(note)) {
    env_.reset(new host::HostEnvironment(layout.settingsFile));
    manager_.reset(new FileBackedManager(*this));
    env_->host.SetComponentManager(manager_.get());

    env_->servConfig.ClearAll();
    for (const auto& kv : state_.texts)
        env_->servConfig.SetText(kv.first.first, kv.first.second.c_str(), kv.second.c_str());
    for (const auto& kv : state_.plugins) ApplyPlugin(kv.first, kv.second);

    env_->settings.FailAllSets(state_.settingsFailWrites);
    env_->settings.RefuseOpen(state_.settingsRefuseOpen);

    env_->scanSp.SetOptionResult(state_.scanSp.optionError);
    env_->scanSp.SetReloadHandler([this] { return Reload(); });

    SetRemoteScan(state_.remoteScan);

    const UpdateSetup& u = state_.update;
    for (const Statistic& s : u.statistics) env_->update.SetStatistic(s.component.c_str(), s.version.c_str(), s.count);
    env_->update.FailStatistics(u.statisticsError);
    env_->update.FailSettings(u.settingsError);
    env_->update.SetStartUpdateResult(u.startUpdateError, u.startUpdateStatus);
    env_->update.SetRestartResult(u.restartError);
    env_->update.RefuseRegistration(u.registrationError);
    host::UpdateSettingsRecord settings;
    for (const std::wstring& url : u.locations) settings.locations.push_back(host::LocationRecord{url, 0});
    settings.timeout = 30000;
    env_->update.SetReportedSettings(settings);

    env_->telemetry.SetResult(state_.telemetryResult);
    env_->telemetry.SetJsonLinesFile(layout.telemetryFile);
}

ServiceHost::~ServiceHost() {
    // Notification threads may still be inside the plug-in or this host; let them finish first.
    env_->update.WaitForDeliveries(INFINITE);
    env_->remoteScan.WaitForFires(INFINITE);
    env_->scanSp.SetReloadHandler(nullptr);
    env_->update.SetBeforeDelivery(nullptr);
}

void ServiceHost::ApplyPlugin(const std::wstring& name, const PluginState& state) {
    switch (state.kind) {
    case PluginState::Present:
    case PluginState::Files: // decided at each lookup
        env_->manager.Restore(name.c_str());
        break;
    case PluginState::Missing:
        env_->manager.SetMissing(name.c_str());
        break;
    case PluginState::Refusing:
        env_->manager.SetRefusing(name.c_str(), state.code);
        break;
    }
}

void ServiceHost::SetText(const ConfigText& text) {
    const std::wstring value = layout_.Expand(text.text);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (text.clear)
            state_.texts.erase({text.category, text.name});
        else
            state_.texts[{text.category, text.name}] = value;
    }
    env_->servConfig.SetText(text.category, text.name.c_str(), text.clear ? nullptr : value.c_str());
}

void ServiceHost::SetPlugin(const std::wstring& name, const PluginState& state) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_.plugins[name] = state;
    }
    ApplyPlugin(name, state);
}

void ServiceHost::SetRemoteScan(const RemoteScanSetup& remote) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_.remoteScan = remote;
    }
    env_->remoteScan.SetStatus(remote.status);
    env_->remoteScan.SetFallbackMode(remote.fallbackMode);
    env_->remoteScan.SetServerCount(remote.status ? 1 : 0);
    env_->remoteScan.FailQueries(remote.queryError);
    env_->remoteScan.RefuseRegistration(remote.registrationError);
}

std::wstring ServiceHost::EnginesFolder() const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = state_.texts.find({config::kEnginesFolderCategory, L"scansp"});
    return it == state_.texts.end() ? std::wstring() : it->second;
}

ScanSpCheck ServiceHost::CheckEngines() const {
    const std::wstring folder = EnginesFolder();
    ScanSpSetup setup;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        setup = state_.scanSp;
    }
    ScanSpCheck check;
    const std::wstring shown = layout_.Relative(folder);
    if (folder.empty() || !FileExists(folder)) {
        check.reason = L"engines folder \"" + shown + L"\" not found";
        return check;
    }
    std::wstring missing, empty;
    for (const std::wstring& name : setup.requiredFiles) {
        uint64_t size = 0;
        if (!FileSize(Join(folder, name), size))
            missing += (missing.empty() ? L"" : L", ") + name;
        else if (size == 0 && !setup.emptyFilesLoad)
            empty += (empty.empty() ? L"" : L", ") + name;
    }
    if (!missing.empty()) {
        check.reason = missing + L" missing in " + shown;
    } else if (!empty.empty()) {
        check.reason = empty + L" empty (placeholder) in " + shown;
    } else {
        check.loadable = true;
        check.reason = L"engines complete in " + shown;
    }
    return check;
}

DWORD ServiceHost::Reload() {
    DWORD forced;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        forced = state_.scanSp.reloadError;
    }
    DWORD result = forced;
    std::string why = "configured failure";
    if (!forced) {
        const ScanSpCheck check = CheckEngines();
        result = check.loadable ? ERROR_SUCCESS : ERROR_MOD_NOT_FOUND;
        why = Utf8(check.reason);
    }
    note_("scansp reloads its engines -> " + CodeText(result) + ": " + why);
    return result;
}

InstallOutcome ServiceHost::Install(const Action& action, const std::wstring& kitFolder) {
    // Shared with the notification thread, which may outlive a timed-out wait.
    auto outcome = std::make_shared<InstallOutcome>();
    outcome->kitFolder = kitFolder;
    outcome->target = action.target.empty() ? EnginesFolder() : layout_.Absolute(action.target);
    const std::wstring currentEngines = EnginesFolder();
    const std::wstring component = action.component, updater = action.updater;
    if (!PathIsDirectoryW(kitFolder.c_str())) {
        // Nothing installed, so nobody is told.
        outcome->error = "kit folder " + Utf8(layout_.Relative(kitFolder)) + " not found";
        outcome->result = ERROR_PATH_NOT_FOUND;
        note_("update plug-in: " + outcome->error + "; nothing installed");
        return *outcome;
    }
    const bool recordStatistics = action.recordStatistics;

    env_->update.SetBeforeDelivery([=](const wchar_t*, const wchar_t*, const wchar_t*) {
        // On the update plug-in's notification thread, before the plug-in hears of it.
        InstallOutcome& o = *outcome;
        if (!CopyTree(kitFolder, o.target, o.copied, o.error)) {
            note_("update plug-in: kit copy failed: " + o.error);
            return;
        }
        note_("update plug-in: copied " + std::to_string(o.copied.size()) + " files of " +
              Utf8(layout_.Relative(kitFolder)) + " into " + Utf8(layout_.Relative(o.target)));
        if (!EqualNoCase(o.target, currentEngines)) {
            ConfigText text;
            text.category = config::kEnginesFolderCategory;
            text.name = L"scansp";
            text.text = o.target;
            SetText(text);
            note_("service configuration: engines folder is now " + Utf8(layout_.Relative(o.target)));
        }
        if (recordStatistics && ReadUpdateFile(o.target, o.version, o.count)) {
            env_->update.SetStatistic(component.c_str(), o.version.c_str(), static_cast<int32_t>(o.count));
            {
                std::lock_guard<std::mutex> lock(mutex_);
                bool replaced = false;
                for (Statistic& s : state_.update.statistics) {
                    if (s.component == component) {
                        s.version = o.version;
                        s.count = static_cast<int32_t>(o.count);
                        replaced = true;
                    }
                }
                if (!replaced)
                    state_.update.statistics.push_back(Statistic{component, o.version, static_cast<int32_t>(o.count)});
            }
            o.statisticsRecorded = true;
            note_("update plug-in: statistics " + Utf8(component) + " = " + Utf8(o.version) + ", " +
                  std::to_string(o.count) + " signatures");
        }
        note_("update plug-in: OnComponentInstalled(" + Utf8(updater) + ", " + Utf8(component) + ", " +
              Utf8(layout_.Relative(o.target)) + ") on its notification thread");
    });
    const DWORD result =
        env_->update.DeliverComponentInstalled(updater.c_str(), component.c_str(), outcome->target.c_str(), 120000);
    env_->update.SetBeforeDelivery(nullptr);
    InstallOutcome copy = *outcome;
    copy.result = result;
    return copy;
}

} // namespace sandbox
