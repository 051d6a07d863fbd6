#include "host/sandbox/ScenarioRunner.h"

#include "host/LogCapture.h"
#include "host/sandbox/Console.h"
#include "host/sandbox/TextUtil.h"
#include "sdk/IScanSp.h"
#include "sdk/PluginIds.h"

namespace sandbox {
namespace {

namespace ids = qv::kxsdk::ids;
using namespace qv::kxsdk::AntivirusScan;

const char* const kIndent = "      ";

const char* ScanTypeName(uint32_t type) {
    switch (type) {
    case RemoteOnly:
        return "remote";
    case Light:
        return "light";
    case Full:
        return "full";
    default:
        return nullptr;
    }
}

const char* ScanModeName(uint32_t mode) {
    switch (mode) {
    case ScanModeNone:
        return "None";
    case ScanModeRemote:
        return "Remote";
    case ScanModeRemoteLight:
        return "RemoteLight";
    case ScanModeRemoteFull:
        return "RemoteFull";
    case ScanModeLocalLight:
        return "LocalLight";
    case ScanModeLocalFull:
        return "LocalFull";
    default:
        return "?";
    }
}

const char* SeverityName(uint32_t severity) {
    switch (severity) {
    case 4:
        return "ERROR  ";
    case 8:
        return "WARNING";
    case 16:
        return "DETAIL ";
    case 32:
        return "INFO   ";
    default:
        return "?      ";
    }
}

std::string OnOff(bool value) { return value ? "on" : "off"; }

std::string PluginStateText(const PluginState& state) {
    switch (state.kind) {
    case PluginState::Present:
        return "present";
    case PluginState::Missing:
        return "missing";
    case PluginState::Files:
        return "decided by the engines folder's files";
    case PluginState::Refusing:
        return "refusing with " + CodeText(state.code);
    }
    return "?";
}

bool IsTraceLine(uint16_t nesting) { return nesting == 1 || nesting == 0xFFFF; }

} // namespace

ScenarioRunner::ScenarioRunner(const Scenario& scenario, const SandboxLayout& layout, const RunOptions& options)
    : scenario_(scenario), layout_(layout), options_(options), state_(InitialState(scenario, layout)) {}

ScenarioRunner::~ScenarioRunner() { EndProcess(); }

void ScenarioRunner::Note(const std::string& text) {
    std::lock_guard<std::mutex> lock(noteMutex_);
    if (current_) current_->host.push_back(text);
    Out().Line(kIndent + std::string("host  ") + text);
}

std::wstring ScenarioRunner::KitFolder(const std::wstring& kit) const {
    if (scenario_.kits.count(kit)) return layout_.kits + L"\\" + kit;
    if (kit.find(L':') != std::wstring::npos || (!kit.empty() && (kit[0] == L'\\' || kit[0] == L'/'))) return kit;
    return layout_.Absolute(kit);
}

bool ScenarioRunner::StartProcess(std::string& error) {
    host_.reset(new ServiceHost(layout_, state_, [this](const std::string& text) { Note(text); }));
    seenTelemetry_ = seenRequests_ = seenRestarts_ = 0;
    ++record_->processes;
    sinks_.SetRoot(layout_.root);
    if (!module_.Load(avhost::ProgramFolder() + L"AntivirusScan.AL", error)) return false;
    if (!module_.Create(error)) return false;
    Note("service process " + std::to_string(record_->processes) + ": loaded " + Utf8(module_.Path()) +
         ", created the \"AntivirusScan\" object");
    return true;
}

void ScenarioRunner::EndProcess() {
    if (!host_) return;
    std::string answers;
    if (sinks_.Registered() && module_.Scan()) sinks_.Unregister(answers);
    host::HostEnvironment& env = host_->Env();
    if (record_) {
        record_->scanSpReloads += env.scanSp.GetCounts().reloads;
        record_->scanSpLookups += host_->ScanSpLookups();
        for (const auto& option : env.scanSp.Options()) {
            if (option.option == qv::kxsdk::scansp::kOptionBackup) record_->backupOption = option.value;
        }
    }
    module_.Unload();
    initialised_ = false;
    if (record_) {
        // Once the object is gone, every plug-in it obtained must have been handed back.
        for (const wchar_t* name : {ids::kServConfigName, ids::kSettingsName, ids::kUpdateName, ids::kRemoteScanName,
                                    ids::kCtcName, ids::kScanSpName, ids::kTelemetryName}) {
            const int outstanding = env.manager.Outstanding(name);
            if (outstanding != 0) {
                record_->pluginsBalanced = false;
                const std::string key = Utf8(name);
                record_->outstanding[key] = record_->outstanding.get(key, 0).asInt() + outstanding;
            }
        }
    }
    host_.reset();
}

Json::Value ScenarioRunner::Ask(const std::string& what, const std::wstring& feature, DWORD& result,
                                std::string& shown) {
    IAntivirusScan* scan = module_.Scan();
    Json::Value value;
    if (what == "scanType") {
        ScanType type = static_cast<ScanType>(0xFFFFFFFFu);
        result = scan->GetScanType(&type);
        const char* name = ScanTypeName(type);
        value = name ? Json::Value(name) : Json::Value(static_cast<unsigned>(type));
        shown = (name ? name : "?") + std::string(" (") + std::to_string(static_cast<unsigned>(type)) + ")";
    } else if (what == "scanModes") {
        ScanMode primary = ScanModeNone, fallback = ScanModeNone;
        result = scan->GetScanModes(&primary, &fallback);
        value = Json::Value(Json::arrayValue);
        value.append(static_cast<unsigned>(primary));
        value.append(static_cast<unsigned>(fallback));
        shown = std::to_string(primary) + " " + ScanModeName(primary) + " / " + std::to_string(fallback) + " " +
                ScanModeName(fallback);
    } else if (what == "backup") {
        bool enabled = false;
        result = scan->IsBackupEnabled(&enabled);
        value = enabled;
        shown = OnOff(enabled);
    } else if (what == "hashChain") {
        HashChainSettings settings{false};
        result = scan->GetHashChainSettings(&settings);
        value = settings.enabled;
        shown = OnOff(settings.enabled);
    } else if (what == "signatureInfo") {
        bool enabled = false;
        result = scan->IsSignatureInfoReported(&enabled);
        value = enabled;
        shown = OnOff(enabled);
    } else if (what == "signaturesVersion") {
        qv::StringW version;
        result = scan->GetEnginesVersion(&version);
        value = Utf8(version.c_str());
        shown = version.IsEmpty() ? std::string("(empty)") : "\"" + value.asString() + "\"";
    } else if (what == "signaturesCount") {
        uint64_t count = 0;
        result = scan->GetSignaturesCount(&count);
        value = Json::UInt64(count);
        shown = std::to_string(count);
    } else if (what == "feature") {
        qv::StringW name(feature.c_str());
        bool locked = false;
        result = scan->GetFeatureStatus(name, &locked);
        value = locked;
        shown = locked ? "locked" : "unlocked";
    }
    return value;
}

void ScenarioRunner::TakeState(const std::string& when) {
    if (!module_.Scan()) return;
    // Lines so far belong to the step; those of these questions belong to none.
    {
        std::lock_guard<std::mutex> lock(noteMutex_);
        DrainLog(current_);
    }
    Json::Value state(Json::objectValue);
    for (const char* what :
         {"scanType", "scanModes", "backup", "hashChain", "signatureInfo", "signaturesVersion", "signaturesCount"}) {
        DWORD result = 0;
        std::string shown;
        state[what] = Ask(what, std::wstring(), result, shown);
        state[std::string(what) + "Result"] = static_cast<Json::UInt>(result);
    }
    avhost::ClearCapturedLines();
    record_->state = state;
    record_->stateTaken = when;
}

void ScenarioRunner::BeginStep(StepRecord& step) {
    {
        std::lock_guard<std::mutex> lock(noteMutex_);
        current_ = &step;
    }
    Out().Line("");
    Out().Line("[" + std::to_string(step.step) + "] " + step.title);
}

void ScenarioRunner::CollectFromEnv(StepRecord& step) {
    if (!host_) return;
    host::HostEnvironment& env = host_->Env();
    const auto events = env.telemetry.Events();
    for (size_t i = seenTelemetry_; i < events.size(); ++i) {
        step.telemetry.push_back(events[i].event);
        Out().Line(kIndent + std::string("telemetry  ") + CompactJson(events[i].event));
    }
    seenTelemetry_ = events.size();
    const auto requests = env.update.Requests();
    for (size_t i = seenRequests_; i < requests.size(); ++i) {
        const host::UpdateRequestRecord& r = requests[i];
        Json::Value j(Json::objectValue);
        j["requester"] = Utf8(r.requester);
        j["interactive"] = r.interactive;
        j["signaturesOnly"] = r.signaturesOnly;
        j["options"] = r.options;
        j["schedule"] = r.schedule;
        j["timeout"] = r.timeout;
        j["locations"] = Json::Value(Json::arrayValue);
        for (const auto& l : r.locations) j["locations"].append(Utf8(l.url));
        j["proxies"] = static_cast<Json::UInt>(r.proxies.size());
        step.updateRequests.push_back(j);
        Out().Line(kIndent + std::string("update plug-in  update requested by \"") + Utf8(r.requester) + "\"" +
                   (r.signaturesOnly ? " (signatures only)" : ""));
    }
    seenRequests_ = requests.size();
    const auto restarts = env.update.Restarts();
    for (size_t i = seenRestarts_; i < restarts.size(); ++i) {
        Json::Value j(Json::objectValue);
        j["value"] = restarts[i].value;
        j["serviceName"] = Utf8(restarts[i].serviceName);
        step.restarts.push_back(j);
        Out().Line(kIndent + std::string("update plug-in  restart of \"") + Utf8(restarts[i].serviceName) +
                   "\" requested (value " + std::to_string(restarts[i].value) + ")");
    }
    seenRestarts_ = restarts.size();
}

void ScenarioRunner::DrainLog(StepRecord* step) {
    for (const avhost::LogLine& line : avhost::CapturedLines()) {
        ++record_->logLines;
        if (IsTraceLine(line.nesting)) continue;
        if (line.severity == 4) ++record_->logErrors;
        if (line.severity == 8) ++record_->logWarnings;
        const bool key = line.severity <= 8;
        if (key && step) step->log.push_back(LogEntry{line.severity, Utf8(line.function), Utf8(line.text)});
        if (key || options_.verbose)
            Out().Line(kIndent + std::string("log   ") + SeverityName(line.severity) + "  " + Utf8(line.text) + "   [" +
                       Utf8(line.function) + "]");
    }
    avhost::ClearCapturedLines();
}

void ScenarioRunner::FinishStep(StepRecord& step) {
    DrainLog(&step);
    CollectFromEnv(step);
    step.sinkEvents = sinks_.Drain();
    for (const SinkEvent& e : step.sinkEvents) Out().Line(kIndent + std::string("sink  ") + e.sink + ": " + e.Text());

    const FileSnapshot after = TakeSnapshot(layout_);
    step.files = CompareSnapshots(before_, after);
    before_ = after;
    for (const auto& f : step.files.created) Out().Line(kIndent + std::string("file  created  ") + Utf8(f));
    for (const auto& f : step.files.deleted) Out().Line(kIndent + std::string("file  deleted  ") + Utf8(f));
    for (const auto& f : step.files.changed) Out().Line(kIndent + std::string("file  changed  ") + Utf8(f));

    if (step.hasExpect && (!step.hasResult || step.result != step.expect)) {
        step.ok = false;
        step.failure = "expected result " + CodeText(step.expect) + ", got " +
                       (step.hasResult ? CodeText(step.result) : std::string("none"));
    }
    if (step.hasExpectValue && !SameJson(step.value, step.expectValue)) {
        step.ok = false;
        step.failure += std::string(step.failure.empty() ? "" : "; ") + "expected answer " +
                        CompactJson(step.expectValue) + ", got " + CompactJson(step.value);
    }
    if (step.hasResult || !step.ok) {
        std::string line = std::string(kIndent) + "=> ";
        line += step.hasResult ? CodeText(step.result) : std::string("-");
        if (!step.value.isNull() && step.verb == "query") line += "   answer " + CompactJson(step.value);
        if (!step.ok)
            line += "   !! " + step.failure;
        else if (step.hasExpect || step.hasExpectValue)
            line += "   (as expected)";
        Out().Line(line);
    }

    {
        std::lock_guard<std::mutex> lock(noteMutex_);
        current_ = nullptr;
    }
    for (const auto& e : step.sinkEvents) record_->sinkEvents.push_back(e);
    for (const auto& t : step.telemetry) record_->telemetry.push_back(t);
    for (const auto& r : step.updateRequests) record_->updateRequests.push_back(r);
    for (const auto& r : step.restarts) record_->restarts.push_back(r);
}

DWORD ScenarioRunner::DoInit() {
    const DWORD result = module_.Lifecycle()->Init(host_->HostObject());
    if (result == ERROR_SUCCESS) {
        initialised_ = true;
        record_->stateTaken.clear();
        std::string answers;
        if (sinks_.Register(module_.Scan(), answers))
            Note("a sibling plug-in registers engines, scan and settings sinks: " + answers);
        else
            Note("sink registration refused: " + answers);
    }
    return result;
}

DWORD ScenarioRunner::DoStop(int stepNumber) {
    if (initialised_ && record_->stateTaken.empty()) TakeState("before stop (step " + std::to_string(stepNumber) + ")");
    if (sinks_.Registered()) {
        std::string answers;
        sinks_.Unregister(answers);
        Note("the sibling plug-in unregisters its sinks: " + answers);
    }
    return module_.Lifecycle()->Stop();
}

DWORD ScenarioRunner::DoUnInit(StepRecord& step) {
    if (initialised_ && record_->stateTaken.empty())
        TakeState("before uninit (step " + std::to_string(step.step) + ")");
    if (sinks_.Registered()) {
        std::string answers;
        sinks_.Unregister(answers);
        Note("the sibling plug-in unregisters its sinks: " + answers);
    }
    const DWORD result = module_.Lifecycle()->UnInit();
    initialised_ = false;
    return result;
}

DWORD ScenarioRunner::DoInstall(const Action& action, StepRecord& step) {
    const std::wstring kit = KitFolder(action.kit);
    const InstallOutcome outcome = host_->Install(action, kit);
    Json::Value j(Json::objectValue);
    j["step"] = step.step;
    j["kit"] = Utf8(layout_.Relative(kit));
    j["target"] = Utf8(layout_.Relative(outcome.target));
    j["updater"] = Utf8(action.updater);
    j["component"] = Utf8(action.component);
    j["filesCopied"] = static_cast<Json::UInt>(outcome.copied.size());
    j["result"] = static_cast<Json::UInt>(outcome.result);
    if (!outcome.error.empty()) j["error"] = outcome.error;
    if (outcome.statisticsRecorded) {
        j["statistics"]["version"] = Utf8(outcome.version);
        j["statistics"]["count"] = Json::Int64(outcome.count);
    }
    record_->installs.push_back(j);
    return outcome.result;
}

DWORD ScenarioRunner::DoRemote(const Action& action) {
    RemoteScanSetup remote = state_.remoteScan;
    if (action.kind == Action::RemoteStatus || action.hasStatus) remote.status = action.flag;
    if (action.hasFallbackMode) remote.fallbackMode = action.fallbackMode;
    host_->SetRemoteScan(remote);
    host::RemoteScanPlugin& plugin = host_->Env().remoteScan;
    const std::string state =
        "status " + OnOff(remote.status) + ", fallback mode " + std::to_string(remote.fallbackMode);
    switch (action.kind) {
    case Action::RemoteStatus:
        Note("remote-scan plug-in: " + state + "; OnStatusChanged(" + (action.flag ? "true" : "false") +
             ") on its thread");
        return plugin.FireStatusChanged(action.flag);
    case Action::RemoteSettings:
        Note("remote-scan plug-in: " + state + "; OnSettingsChanged() on its thread");
        return plugin.FireSettingsChanged();
    default:
        Note("remote-scan plug-in: " + state + "; OnScanModeChanged() on its thread");
        return plugin.FireScanModeChanged();
    }
}

void ScenarioRunner::DoRestart(StepRecord& step, int stepNumber) {
    if (initialised_) {
        if (record_->stateTaken.empty()) TakeState("before the restart (step " + std::to_string(stepNumber) + ")");
        if (sinks_.Registered()) {
            std::string answers;
            sinks_.Unregister(answers);
        }
        const DWORD stop = module_.Lifecycle()->Stop();
        const DWORD uninit = module_.Lifecycle()->UnInit();
        initialised_ = false;
        Note("service stops the plug-in: Stop -> " + CodeText(stop) + ", UnInit -> " + CodeText(uninit));
    }
    CollectFromEnv(step);
    EndProcess();
    Note("service process ended (object destroyed, library unloaded); the service starts again");
}

namespace {

DWORD ChangeFile(const SandboxLayout& layout, const Action& action) {
    const std::wstring path = layout.Absolute(action.path);
    if (action.kind == Action::DeleteFile) return DeleteFileW(path.c_str()) ? ERROR_SUCCESS : GetLastError();
    const size_t slash = path.find_last_of(L'\\');
    const bool ok = CreateFolders(path.substr(0, slash)) && WriteFileText(path, Utf8(action.text));
    return ok ? ERROR_SUCCESS : GetLastError();
}

} // namespace

// "all" asks every query without a name and records the answers, not a result.
void ScenarioRunner::DoQuery(const Action& action, StepRecord& step) {
    if (action.what == "all") {
        Json::Value all(Json::objectValue);
        for (const char* what : {"scanType", "scanModes", "backup", "hashChain", "signatureInfo", "signaturesVersion",
                                 "signaturesCount"}) {
            DWORD result = 0;
            std::string shown;
            all[what] = Ask(what, std::wstring(), result, shown);
            Out().Line(kIndent + std::string(what) + " -> " + CodeText(result) + "   " + shown);
        }
        step.value = all;
        return;
    }
    DWORD result = 0;
    std::string shown;
    step.value = Ask(action.what, action.name, result, shown);
    step.hasResult = true;
    step.result = result;
    Out().Line(kIndent + std::string("answer  ") + shown);
}

void ScenarioRunner::RunAction(const Action& action, StepRecord& step) {
    IDelayedServPlugin* plugin = module_.Lifecycle();
    IAntivirusScan* scan = module_.Scan();
    auto setResult = [&step](DWORD result) {
        step.hasResult = true;
        step.result = result;
    };
    switch (action.kind) {
    case Action::Init:
        setResult(DoInit());
        break;
    case Action::Start:
        setResult(plugin->Start());
        break;
    case Action::DelayedStart:
        setResult(plugin->DelayedStart());
        break;
    case Action::Stop:
        setResult(DoStop(step.step));
        break;
    case Action::UnInit:
        setResult(DoUnInit(step));
        break;
    case Action::Query:
        DoQuery(action, step);
        break;
    case Action::EnableBackup:
        setResult(scan->EnableBackup(action.flag));
        break;
    case Action::ReportHashChain: {
        HashChainSettings settings{action.flag};
        setResult(scan->ReportHashChain(settings));
        break;
    }
    case Action::ReportSignatureInfo:
        setResult(scan->ReportSignatureInfo(action.flag));
        break;
    case Action::SetFeature: {
        qv::StringW name(action.name.c_str());
        setResult(scan->SetFeatureStatus(name, action.flag));
        break;
    }
    case Action::Install:
        setResult(DoInstall(action, step));
        break;
    case Action::RemoteStatus:
    case Action::RemoteSettings:
    case Action::RemoteScanMode:
        setResult(DoRemote(action));
        break;
    case Action::SetPlugin:
        host_->SetPlugin(action.name, action.plugin);
        Note("component manager: \"" + Utf8(action.name) + "\" is now " + PluginStateText(action.plugin));
        break;
    case Action::SetConfig:
        host_->SetText(action.config);
        Note("service configuration (" + std::to_string(action.config.category) + ", \"" + Utf8(action.config.name) +
             "\") " +
             (action.config.clear ? std::string("unset") : "= \"" + Utf8(layout_.Expand(action.config.text)) + "\""));
        break;
    case Action::DeleteFile:
    case Action::WriteFile:
        setResult(ChangeFile(layout_, action));
        break;
    case Action::RestartService:
        break; // handled by Run: it replaces the process
    }
}

void ScenarioRunner::RunShutdown(StepRecord& step) {
    const DWORD stop = DoStop(step.step);
    const DWORD uninit = DoUnInit(step);
    Note("Stop -> " + CodeText(stop) + ", UnInit -> " + CodeText(uninit));
    step.hasResult = true;
    step.result = stop ? stop : uninit;
}

namespace {

std::string Title(const Action& a) {
    switch (a.kind) {
    case Action::Init:
        return "Init(host)";
    case Action::Start:
        return "Start()";
    case Action::DelayedStart:
        return "DelayedStart()";
    case Action::Stop:
        return "Stop()";
    case Action::UnInit:
        return "UnInit()";
    case Action::Query:
        if (a.what == "all") return "a sibling plug-in asks every query of IAntivirusScan";
        return "a sibling plug-in asks " + a.what + (a.what == "feature" ? " \"" + Utf8(a.name) + "\"" : std::string());
    case Action::EnableBackup:
        return std::string("EnableBackup(") + (a.flag ? "true" : "false") + ")";
    case Action::ReportHashChain:
        return std::string("ReportHashChain({enabled: ") + (a.flag ? "true" : "false") + "})";
    case Action::ReportSignatureInfo:
        return std::string("ReportSignatureInfo(") + (a.flag ? "true" : "false") + ")";
    case Action::SetFeature:
        return "SetFeatureStatus(\"" + Utf8(a.name) + "\", " + (a.flag ? "locked" : "unlocked") + ")";
    case Action::Install:
        return "the update plug-in installs kit \"" + Utf8(a.kit) + "\" (" + Utf8(a.component) + ", updater " +
               Utf8(a.updater) + ")" + (a.target.empty() ? std::string() : " into " + Utf8(a.target));
    case Action::RemoteStatus:
        return std::string("the remote-scan service turns ") + (a.flag ? "on" : "off");
    case Action::RemoteSettings:
        return "the remote-scan settings change";
    case Action::RemoteScanMode:
        return "the remote-scan mode changes";
    case Action::SetPlugin:
        return "plug-in \"" + Utf8(a.name) + "\" becomes " + PluginStateText(a.plugin);
    case Action::SetConfig:
        return "the service configuration changes";
    case Action::DeleteFile:
        return "delete " + Utf8(a.path);
    case Action::WriteFile:
        return "write " + Utf8(a.path);
    case Action::RestartService:
        return "the security service restarts";
    }
    return a.verb;
}

} // namespace

bool ScenarioRunner::Run(RunRecord& record, std::string& error) {
    record_ = &record;
    record.scenarioName = scenario_.name;
    record.scenarioSource = scenario_.source;
    record.description = scenario_.description;
    record.layout = layout_;

    avhost::ConfigureLogOutput(layout_.logFile, false);
    avhost::ClearCapturedLines();
    before_ = TakeSnapshot(layout_);
    const FileSnapshot first = before_;

    bool fine = StartProcess(error);
    int number = 0;
    for (size_t i = 0; fine && i < scenario_.actions.size(); ++i) {
        const Action& action = scenario_.actions[i];
        StepRecord step;
        step.step = ++number;
        step.verb = action.verb;
        step.field = action.field;
        step.title = Title(action);
        step.hasExpect = action.hasExpect;
        step.expect = action.expect;
        step.hasExpectValue = action.hasExpectValue;
        step.expectValue = action.expectValue;
        BeginStep(step);
        if (action.kind == Action::RestartService) {
            DoRestart(step, step.step);
            fine = StartProcess(error);
        } else {
            RunAction(action, step);
        }
        FinishStep(step);
        record.steps.push_back(step);
    }
    if (fine && initialised_) {
        StepRecord step;
        step.step = ++number;
        step.verb = "shutdown";
        step.title = "end of the scenario: the service stops and uninitialises the plug-in";
        BeginStep(step);
        RunShutdown(step);
        FinishStep(step);
        record.steps.push_back(step);
    }
    if (fine && record.state.isNull()) TakeState("at the end of the scenario");
    EndProcess();

    record.files = CompareSnapshots(first, TakeSnapshot(layout_));
    std::string bytes;
    if (ReadFileText(layout_.settingsFile, bytes)) {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value document;
        if (reader->parse(bytes.data(), bytes.data() + bytes.size(), &document, nullptr))
            record.settingsDocument = document;
    }
    avhost::ConfigureLogOutput(std::wstring(), false);
    return fine;
}

} // namespace sandbox
