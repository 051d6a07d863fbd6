// Every call the plug-in makes into a sibling plug-in, failed in turn in a fresh plug-in: the
// documented code and log line, no crash, no lock held, everything handed back, and a settings
// file in which every key holds its old value or the new one. Then file-system faults.
#include "tests/common/FaultInjection.h"
#include "tests/common/Installation.h"
#include "tests/common/LogAndFileChecks.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace testing_support;
using namespace testing_support::slots;
namespace ids = qv::kxsdk::ids;

// Replaces the placeholders {engines}, {core}, {common}, {root} and {exe} in a log text.
std::wstring Expand(const Installation& site, std::wstring text) {
    const std::pair<const wchar_t*, std::wstring> tokens[] = {{L"{engines}", site.engines},
                                                              {L"{core}", site.coreTemp},
                                                              {L"{common}", site.common},
                                                              {L"{root}", site.root},
                                                              {L"{exe}", ExeFolder()}};
    for (const auto& token : tokens) {
        for (size_t at; (at = text.find(token.first)) != std::wstring::npos;)
            text.replace(at, wcslen(token.first), token.second);
    }
    return text;
}

enum class Mode { Normal, Recovery };

// One plug-in in one installation, with every sibling call going through the fault injector.
struct Rig {
    explicit Rig(Mode mode) : mode(mode) {
        plugin.env.settings.UseFile(site.settingsFile);
        site.Configure(plugin.env);
        if (mode == Mode::Recovery) plugin.env.manager.SetMissing(ids::kScanSpName);
    }
    Mode mode;
    Installation site{L"faults"};
    PluginUnderTest plugin;
    FaultyHost faults{plugin.env};
};

// The three switches as the plug-in's getters answer them.
std::vector<bool> ReadSwitches(void* scan) { return {BackupOf(scan), HashChainOf(scan), SignatureInfoOf(scan)}; }

struct Step {
    const char* name;
    std::function<DWORD(Rig&)> run;
    // For a switch: the key it changes and the value it writes.
    const char* key = nullptr;
    Json::Value newValue = Json::Value();
};

std::vector<Step> Scenario() {
    std::vector<Step> steps;
    steps.push_back({"Init", [](Rig& r) { return r.plugin.Init(); }});
    steps.push_back({"Start", [](Rig& r) { return r.plugin.Start(); }});
    steps.push_back({"DelayedStart", [](Rig& r) { return r.plugin.DelayedStart(); }});
    steps.push_back({"OnScanModeChanged", [](Rig& r) {
                         r.plugin.env.remoteScan.SetFallbackMode(1);
                         return r.plugin.env.remoteScan.FireScanModeChanged();
                     }});
    steps.push_back({"OnComponentInstalled", [](Rig& r) {
                         // In recovery the repaired engines can now be loaded: the restart path.
                         if (r.mode == Mode::Recovery) r.plugin.env.manager.Restore(ids::kScanSpName);
                         return r.plugin.env.update.DeliverComponentInstalled(L"Updater", L"Antivirus",
                                                                              r.site.engines.c_str());
                     }});
    steps.push_back(
        {"EnableBackup", [](Rig& r) { return EnableBackup(r.plugin.scan, true); }, "enableBackup", Json::Value(true)});
    Json::Value hashChainOn(Json::objectValue);
    hashChainOn["enabled"] = true;
    steps.push_back({"ReportHashChain", [](Rig& r) { return ReportHashChain(r.plugin.scan, true); }, "reportHashChain",
                     hashChainOn});
    steps.push_back({"ReportSignatureInfo", [](Rig& r) { return ReportSignatureInfo(r.plugin.scan, true); },
                     "reportSignatureInfo", Json::Value(true)});
    steps.push_back({"SetFeatureStatus",
                     [](Rig& r) { return SetFeatureStatus(r.plugin.scan, qv::StringW(L"Quarantine"), false); },
                     "Quarantine", Json::Value(false)});
    steps.push_back({"GetFeatureStatus", [](Rig& r) {
                         bool locked = false;
                         return GetFeatureStatus(r.plugin.scan, qv::StringW(L"Firewall"), &locked);
                     }});
    steps.push_back({"Stop", [](Rig& r) { return r.plugin.Stop(); }});
    steps.push_back({"UnInit", [](Rig& r) { return r.plugin.UnInit(); }});
    return steps;
}

// What a failed call must lead to: the step's result and the log lines it writes.
struct Outcome {
    DWORD code;
    std::vector<std::pair<std::wstring, uint32_t>> lines;
};
constexpr DWORD kAsUsual = 0xFFFFFFFFu; // the result the step gives without any fault

// One documented call into a sibling: the part of the step that makes it, the call as
// "Plugin::Operation(argument)", and what its failure leads to.
struct Call {
    const char* part;
    std::string site;
    Outcome outcome;
};
using Calls = std::vector<Call>;
using Table = std::map<std::string, Calls>; // by scenario step, in the documented order

std::wstring RemoteInfo(int status, int rsMode) {
    return L"RemoteScan info [status = " + std::to_wstring(status) + L"] [fallback = 1] [rsMode = " +
           std::to_wstring(rsMode) + L"] ";
}

// The remote-scan queries: their answers are ignored; a failed one leaves its initial value.
void AddRemoteQueries(Calls& c, const char* part, int rsMode) {
    c.push_back({part, "RemoteScan::GetStatus", {kAsUsual, {{RemoteInfo(0, rsMode), 32}}}});
    c.push_back({part, "RemoteScan::GetServerCount", {kAsUsual, {{RemoteInfo(1, rsMode), 32}}}});
    c.push_back({part,
                 "RemoteScan::GetFallbackMode",
                 {kAsUsual, {{RemoteInfo(1, 0), 32}, {L"ScanModeNone when using fallback.", 8}}}});
}

const char kSection[] = "Settings::OpenSection(/AntivirusScan)";

// A switch saves the whole record: the section, then the three switches.
void AddSaveSettings(Calls& c, const char* part, const Outcome& outcome) {
    for (const char* site : {kSection, "Section::SetBool(enableBackup)", "Section::SetValue(reportHashChain)",
                             "Section::SetBool(reportSignatureInfo)"})
        c.push_back({part, site, outcome});
}

// The engines folder recorded as last known good with reload status 2.
void AddFolderRecord(Calls& c, const char* part, const std::wstring& oldPath) {
    const std::wstring paths = L"[oldPath = " + oldPath + L"] [newPath = {engines}]";
    const Outcome notSaved{0, {{L"Cannot save reload info " + paths, 8}}};
    c.push_back({part, "ServConfig::GetText(2,scansp)", {0, {{L"[oldPath = " + oldPath + L"] [newPath = ]", 32}}}});
    c.push_back({part, kSection, {0, {{paths, 32}}}});
    c.push_back({part, "Section::SetString(engines/folder)", notSaved});
    c.push_back({part, "Section::SetUInt(engines/reloadStatus)", notSaved});
}

Outcome Missing(const wchar_t* name, DWORD code, const wchar_t* message, uint32_t severity) {
    return {code, {{L"Error 1168 getting plugin \"" + std::wstring(name) + L"\"", 8}, {message, severity}}};
}

std::string Get(const wchar_t* name) { return "Manager::GetPlugin(" + Narrow(name) + ")"; }
std::string Release(const wchar_t* name) { return "Manager::ReleasePlugin(" + Narrow(name) + ")"; }

void AddInitCalls(Table& t, bool rec) {
    Calls& init = t["Init"];
    init.push_back({"service configuration", Get(ids::kServConfigName),
                    Missing(ids::kServConfigName, 5002, L"Dependency not found : ServConfig.", 4)});
    init.push_back({"InitCoreTempFolder", "ServConfig::GetText(17,scansp)", {0, {{L"Core temp path is empty!", 4}}}});
    init.push_back({"InitScanType",
                    "ServConfig::GetText(51,BASE)",
                    {13, {{L"Invalid scan type [config = ]", 4}, {L"Invalid scan type.", 4}}}});
    init.push_back({"update plug-in", Get(ids::kUpdateName),
                    Missing(ids::kUpdateName, 5002, L"Dependency not found : Update.", 4)});
    init.push_back({"settings plug-in", Get(ids::kSettingsName),
                    Missing(ids::kSettingsName, 5002, L"Dependency not found : Settings.", 4)});
    init.push_back({"InitSettings", kSection, {0, {{L"Cannot load settings.", 8}, {L"[backup = 0]", 32}}}});
    for (const char* get : {"GetBool(enableBackup)", "GetValue(reportHashChain)", "GetBool(reportSignatureInfo)"})
        init.push_back({"InitSettings", std::string("Section::") + get, {0, {{L"[backup = 0]", 32}}}});
    init.push_back(
        {"InitSettings", "Section::GetUInt(engines/reloadStatus)", {0, {{L"Last reload engines status = 2", 32}}}});
    init.push_back({"InitSettings", "Section::GetString(engines/folder)", {0, {{L"LastOk engines folder = ", 32}}}});
    init.push_back(
        {"LogEnginesFolder", "ServConfig::GetText(0,signaturesPatterns)", {0, {{L"No sig folder pattern", 8}}}});
    init.push_back({"LogEnginesFolder", "ServConfig::GetText(2,scansp)", {0, {{L"Latest engines folder = ", 32}}}});
    init.push_back({"scan service provider", Get(ids::kScanSpName),
                    Missing(ids::kScanSpName, 0, L"Dependency not found : ScanSp.", 8)});
    if (!rec) AddFolderRecord(init, "OnReloadSuccessfull", L"");
    init.push_back({"remote-scan plug-in", Get(ids::kRemoteScanName),
                    Missing(ids::kRemoteScanName, 0, L"Dependency not found : RemoteScan.", 8)});
    AddRemoteQueries(init, "InitScanMode", 2);
    init.push_back({"CTC plug-in", Get(ids::kCtcName), Missing(ids::kCtcName, 0, L"Dependency not found : CTC.", 32)});
    if (!rec) {
        init.push_back({"DisableScanCrashHandler", "ScanSp::GetInterface", {0, {}}});
        init.push_back({"DisableScanCrashHandler",
                        "CrashHandler::SetOption(6001)",
                        {0, {{L"SilentSubmitDump [error = 31]", 32}}}});
        init.push_back({"DisableScanCrashHandler",
                        "CrashHandler::SetOption(6002)",
                        {0, {{L"SilentSubmitDefaultAct [error = 31]", 32}}}});
        init.push_back(
            {"ApplyBackupStatus", "ScanSp::SetOption(9)", {0, {{L"Cannot apply backup status. [error = 31]", 8}}}});
    }
}

void AddStartCalls(Table& t, bool rec) {
    t["Start"] = {
        {"update events", "Update::RegisterEvents", {15025, {{L"Cannot register update events [error = 31]", 4}}}},
        {"remote-scan events",
         "RemoteScan::RegisterEvents",
         {15025, {{L"Cannot register remote scan events [error = 31]", 4}}}}};

    Calls& delayed = t["DelayedStart"];
    const Outcome noEngines{0, {{L"Invalid engines path = ", 32}}};
    delayed.push_back({"GenerateNonRemoteScanPlugins", "ServConfig::GetText(2,scansp)", noEngines});
    if (!rec) {
        delayed.push_back({"ComputeSigInfo",
                           "Update::GetStatistics",
                           {0,
                            {{L"Cannot obtain update statistics. [error = 31]", 4},
                             {L"Signature [version = 9.9.9] [count = 1000]", 32}}}});
        AddRemoteQueries(delayed, "RefreshScanModes", 2);
    } else {
        delayed.push_back(
            {"recovery-started event", Get(ids::kTelemetryName), {0, {{L"Cannot obtain Telemetry plugin", 4}}}});
        delayed.push_back({"recovery-started event", "Telemetry::SubmitEvent", {0, {}}});
        delayed.push_back({"recovery-started event", Release(ids::kTelemetryName), {0, {}}});
        delayed.push_back({"RecoveryStep_InvalidateCache",
                           "ServConfig::GetText(0,common)",
                           {0, {{L"deleting wslib.db = {exe}\\installer\\wslib.db", 32}}}});
        delayed.push_back({"RecoveryStep_GenDummyMissingFiles", "ServConfig::GetText(2,scansp)", noEngines});
        delayed.push_back({"RecoveryStep_StartUpdateSig",
                           "Update::GetUpdateSettings",
                           {0, {{L"Failed to read the update settings [error = 31]", 4}}}});
        delayed.push_back({"RecoveryStep_StartUpdateSig",
                           "Update::StartUpdate",
                           {0, {{L"StartUpdate failed [error = 31] [status = 0]", 32}}}});
    }

    AddRemoteQueries(t["OnScanModeChanged"], "RefreshScanModes", 1);
}

void AddInstalledCalls(Table& t, bool rec) {
    Calls& installed = t["OnComponentInstalled"];
    const std::wstring lastOk = rec ? L"" : L"{engines}";
    installed.push_back({"reload status 1",
                         kSection,
                         {0, {{L"[lastOk = " + lastOk + L"] [oldReloadStatus = 2] [newReloadStatus = 1]", 32}}}});
    installed.push_back({"reload status 1",
                         "Section::SetUInt(engines/reloadStatus)",
                         {0, {{L"Cannot save reload info [lastOk = " + lastOk + L"]", 8}}}});
    if (!rec) {
        installed.push_back(
            {"reload", "ScanSp::ReloadEngines", {0, {{L"OnReloadEnded [path = {engines}] [error = 31]", 4}}}});
    } else {
        installed.push_back(
            {"recovery reload", Get(ids::kScanSpName), {0, {{L"ScanSp load NOT-FIXED => invalidate_cache", 8}}}});
        installed.push_back({"recovery reload",
                             Release(ids::kScanSpName),
                             {0, {{L"ScanSp load FIXED => restart service required", 8}}}});
    }
    AddFolderRecord(installed, "OnReloadSuccessfull", lastOk);
    if (!rec) {
        installed.push_back(
            {"ApplyBackupStatus",
             "ScanSp::SetOption(9)",
             {0, {{L"Cannot apply backup status. [error = 31]", 8}, {L"Cannot apply backup status [value = 0]", 8}}}});
        installed.push_back(
            {"ComputeSigInfo", "Update::GetStatistics", {0, {{L"Cannot obtain update statistics. [error = 31]", 4}}}});
    }
    AddRemoteQueries(installed, "RefreshScanModes", 1);
    if (rec) {
        installed.push_back({"RecoveryStep_RestartService",
                             "Update::RestartService",
                             {0, {{L"Restart service using Update failed [error = 31]", 4}}}});
    }
}

void AddSlotCalls(Table& t, bool rec) {
    const Outcome saveFailed{1013, {{L"save failed", 4}}};
    AddSaveSettings(t["EnableBackup"], "save", saveFailed);
    if (!rec) {
        t["EnableBackup"].push_back({"apply",
                                     "ScanSp::SetOption(9)",
                                     {1359, {{L"Cannot apply backup status. [error = 31]", 8}, {L"apply failed", 4}}}});
    } else {
        // Without the provider the backup cannot be applied and the old record is written back;
        // a failure of that write changes nothing in the answer.
        AddSaveSettings(t["EnableBackup"], "old record written back",
                        {1359, {{L"ScanSp not loaded.", 8}, {L"apply failed", 4}}});
    }
    for (const char* step : {"ReportHashChain", "ReportSignatureInfo"}) AddSaveSettings(t[step], "save", saveFailed);
    for (const char* site : {kSection, "Section::SetBool(Quarantine)"})
        t["SetFeatureStatus"].push_back({"save", site, {0, {{L"[name = Quarantine] [isLocked = 0]", 32}}}});
    for (const char* site : {kSection, "Section::GetBool(Firewall)"})
        t["GetFeatureStatus"].push_back({"read", site, {0, {}}});
    t["Stop"] = {{"update events", "Update::UnregisterEvents", {0, {}}},
                 {"remote-scan events", "RemoteScan::UnregisterEvents", {0, {}}}};
    // Handed back in the documented order.
    for (const wchar_t* name : {ids::kCtcName, ids::kRemoteScanName, ids::kServConfigName, ids::kSettingsName,
                                ids::kUpdateName, ids::kScanSpName})
        if (!(rec && name == ids::kScanSpName)) t["UnInit"].push_back({"hand back", Release(name), {0, {}}});
}

// Every call each step makes into a sibling, in the documented order, with what its failure
// leads to. The scenario must make exactly these calls: one left out, added or moved fails.
const Table& Documented(Mode mode) {
    static Table normal, recovery;
    Table& t = mode == Mode::Normal ? normal : recovery;
    if (!t.empty()) return t;
    const bool rec = mode == Mode::Recovery;

    AddInitCalls(t, rec);
    AddStartCalls(t, rec);
    AddInstalledCalls(t, rec);
    AddSlotCalls(t, rec);
    return t;
}

using Golden = std::vector<DWORD>; // each step's result without a fault

// The scenario without a fault: every step makes exactly its documented calls, in order.
Golden RunGolden(Mode mode) {
    Golden golden;
    Rig rig(mode);
    const Table& table = Documented(mode);
    for (const Step& step : Scenario()) {
        rig.faults.plan.Arm();
        golden.push_back(step.run(rig));
        rig.faults.plan.Disarm();
        std::vector<std::string> documented;
        auto it = table.find(step.name);
        if (it != table.end())
            for (const Call& call : it->second) documented.push_back(call.site);
        EXPECT_EQ(documented, rig.faults.plan.Sites()) << step.name << ": calls into the siblings";
    }
    rig.plugin.stopped = true;
    return golden;
}

const Golden& GoldenFor(Mode mode) {
    static Golden normal = RunGolden(Mode::Normal);
    static Golden recovery = RunGolden(Mode::Recovery);
    return mode == Mode::Normal ? normal : recovery;
}

Json::Value FileSection(const Installation& site, bool* valid) {
    Json::Value document;
    *valid = true;
    if (!Exists(site.settingsFile)) return Json::Value(Json::objectValue);
    *valid = ReadSettingsFile(site.settingsFile, document);
    Json::Value section = ModuleSection(document);
    return section.isNull() ? Json::Value(Json::objectValue) : section;
}

// Every key of the section after a step holds its value from before the step or the value this
// step writes; never anything else.
void ExpectOldOrNew(const Step& step, const Json::Value& before, const Json::Value& after, const Installation& site) {
    const std::string engines = Narrow(site.engines);
    std::vector<std::string> keys = before.getMemberNames();
    for (const std::string& k : after.getMemberNames())
        if (!before.isMember(k)) keys.push_back(k);
    for (const std::string& key : keys) {
        const Json::Value& was = before[key];
        const Json::Value& now = after[key];
        if (now == was) continue;
        if (step.key && key == step.key && now == step.newValue) continue;
        const std::string name = step.name;
        if ((name == "Init" || name == "OnComponentInstalled") && key == "engines" && now.isObject()) {
            bool ok = true;
            for (const std::string& k : now.getMemberNames()) {
                const Json::Value& v = now[k];
                if (k == "reloadStatus")
                    ok = ok && v.isUInt() && (v.asUInt() == 1 || v.asUInt() == 2);
                else if (k == "folder")
                    ok = ok && v.isString() && (v.asString() == engines || v.asString().empty());
                else
                    ok = false;
            }
            if (ok) continue;
        }
        // A switch save writes all three switches: one never stored before appears with the
        // value the plug-in holds for it, which is still its default here.
        if (was.isNull()) {
            Json::Value off(Json::objectValue);
            off["enabled"] = false;
            if ((key == "enableBackup" || key == "reportSignatureInfo") && now == Json::Value(false)) continue;
            if (key == "reportHashChain" && now == off) continue;
        }
        ADD_FAILURE() << "key \"" << key << "\" went from " << was.toStyledString() << " to " << now.toStyledString();
    }
}

bool SwitchValue(void* scan, const std::string& step) {
    return step == "EnableBackup"      ? BackupOf(scan)
           : step == "ReportHashChain" ? HashChainOf(scan)
                                       : SignatureInfoOf(scan);
}

// Nothing was left locked by the failed step.
void ExpectNothingLocked(void* scan) {
    std::string wrong;
    if (!AnswersFromAnotherThread(scan, wrong)) {
        fprintf(stderr, "FATAL: the plug-in stayed locked after a failed call\n");
        fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 3);
    }
    EXPECT_EQ("", wrong);
}

void ExpectEverythingGivenBack(Rig& rig) {
    EXPECT_EQ("", StillHeld(rig.plugin.env));
    EXPECT_EQ(0, rig.faults.OutstandingCrashHandlers());
}

using Refusal = FaultyHost::Refusal;

// A plug-in refused rather than missing: the same outcome with the refusal's code, or, when the
// manager writes the interface all the same, the step going on as usual.
Outcome ForRefusal(const Outcome& missing, Refusal refusal, const std::string& site) {
    const std::wstring missingText = L"Error 1168 getting plugin";
    const std::wstring refusedText = L"Error " + std::to_wstring(kRefusedError) + L" getting plugin";
    Outcome outcome = missing;
    if (refusal == Refusal::RefusedButWritten) {
        const std::string name = site.substr(site.find('(') + 1, site.find(')') - site.find('(') - 1);
        outcome = {kAsUsual, {{refusedText + L" \"" + std::wstring(name.begin(), name.end()) + L"\"", 8}}};
    }
    for (auto& line : outcome.lines)
        if (line.first.compare(0, missingText.size(), missingText) == 0)
            line.first.replace(0, missingText.size(), refusedText);
    return outcome;
}

// Runs the scenario up to the step, fails the documented call in it (the `occurrence`-th call
// of that site within the step), and checks everything a failure must leave behind.
using Failure = FaultPlan::Failure;

void RunFault(Mode mode, size_t stepIndex, const Call& call, int occurrence, Refusal refusal = Refusal::Missing,
              Failure how = Failure::Error) {
    const Golden& golden = GoldenFor(mode);
    const std::vector<Step> steps = Scenario();
    const Step& step = steps[stepIndex];
    const char* const refusals[] = {"", " (refused)", " (refused, interface written)"};
    SCOPED_TRACE(std::string(mode == Mode::Normal ? "normal" : "recovery") + " " + step.name + " / " + call.part +
                 " | " + call.site + " #" + std::to_string(occurrence) + refusals[static_cast<int>(refusal)] +
                 (how == Failure::Throw         ? " throwing"
                  : how == Failure::OutOfMemory ? " out of memory"
                                                : ""));

    Rig rig(mode);
    rig.faults.refusal = refusal;
    for (size_t i = 0; i < stepIndex; ++i) ASSERT_EQ(golden[i], steps[i].run(rig)) << steps[i].name;
    bool valid = false;
    const Json::Value before = FileSection(rig.site, &valid);
    const bool oldValue = step.key && step.newValue.isBool() ? SwitchValue(rig.plugin.scan, step.name) : false;

    avhost::ClearCapturedLines();
    rig.faults.plan.Arm(call.site, occurrence, how);
    const DWORD result = step.run(rig);
    rig.faults.plan.Disarm();
    ASSERT_TRUE(rig.faults.plan.Failed()) << "the documented call was not made";

    if (how == Failure::Error) {
        const Outcome outcome =
            refusal == Refusal::Missing ? call.outcome : ForRefusal(call.outcome, refusal, call.site);
        EXPECT_EQ(outcome.code == kAsUsual ? golden[stepIndex] : outcome.code, result);
        for (const auto& line : outcome.lines) {
            const std::wstring text = Expand(rig.site, line.first);
            EXPECT_TRUE(LineWith(text, line.second)) << "missing line: " << Narrow(text) << " (" << line.second << ")";
        }
        EXPECT_FALSE(LineStartingWith(L"unexpected exception"));
    } else {
        // The fence of the slot, or of a step inside it that only logs: the step either ends with
        // the fence's code or goes on as it would have, and the fence's line is written either way.
        const bool memory = how == Failure::OutOfMemory;
        const DWORD fenced = memory ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INTERNAL_ERROR;
        EXPECT_TRUE(result == fenced || result == golden[stepIndex]) << "result " << result;
        EXPECT_TRUE(memory ? CountLines(L"out of memory", 4) > 0
                           : CountFramed(L"unexpected exception [what = injected by " +
                                             std::wstring(call.site.begin(), call.site.end()),
                                         L"]", 4) > 0)
            << "no line from the fence";
    }
    if (stepIndex + 2 < steps.size() && rig.plugin.primary) ExpectNothingLocked(rig.plugin.scan);
    // A failed Init undoes itself: nothing is left for UnInit to hand back.
    if (std::string(step.name) == "Init" && result != 0) ExpectEverythingGivenBack(rig);

    const Json::Value after = FileSection(rig.site, &valid);
    EXPECT_TRUE(valid) << "the settings file is no longer one JSON object";
    ExpectOldOrNew(step, before, after, rig.site);
    const std::string name = step.name;
    if (name == "EnableBackup" || name == "ReportHashChain" || name == "ReportSignatureInfo") {
        const bool now = SwitchValue(rig.plugin.scan, name);
        if (result == 0) {
            EXPECT_TRUE(now);
            const Json::Value stored = after[step.key];
            EXPECT_EQ(Json::Value(true), stored.isObject() ? stored["enabled"] : stored) << "store and record disagree";
        } else {
            EXPECT_EQ(oldValue, now) << "a failed switch changed the record";
        }
    }
    if (name == "SetFeatureStatus") {
        bool locked = true;
        EXPECT_EQ(0u, GetFeatureStatus(rig.plugin.scan, qv::StringW(L"Quarantine"), &locked));
        EXPECT_FALSE(locked) << "the in-memory lock table is the authority";
    }

    for (size_t i = stepIndex + 1; i < steps.size(); ++i) {
        const std::string later = steps[i].name;
        if (later == "Stop" || later == "UnInit") steps[i].run(rig);
    }
    rig.plugin.stopped = true;
    ExpectEverythingGivenBack(rig);
    FileSection(rig.site, &valid);
    EXPECT_TRUE(valid);
}

// Every documented call failed in turn: with its error answer (and each get also refused, with
// and without the interface written), or thrown, alternately an exception and an allocation
// failure.
int RunSweep(Mode mode, bool throwing) {
    GoldenFor(mode);
    const std::vector<Step> steps = Scenario();
    const Table& table = Documented(mode);
    int points = 0;
    for (size_t step = 0; step < steps.size(); ++step) {
        auto it = table.find(steps[step].name);
        if (it == table.end()) continue;
        std::map<std::string, int> seen;
        for (const Call& call : it->second) {
            const int occurrence = ++seen[call.site];
            if (throwing) {
                RunFault(mode, step, call, occurrence, Refusal::Missing,
                         ++points % 2 ? Failure::Throw : Failure::OutOfMemory);
                continue;
            }
            RunFault(mode, step, call, occurrence);
            ++points;
            if (call.site.rfind("Manager::GetPlugin(", 0) != 0) continue;
            for (Refusal refusal : {Refusal::Refused, Refusal::RefusedButWritten}) {
                RunFault(mode, step, call, occurrence, refusal);
                ++points;
            }
        }
    }
    return points;
}

TEST(SiblingFaults, EveryCallOfANormalStartUpFailedInTurn) {
    const int points = RunSweep(Mode::Normal, false);
    printf("fault points (normal start-up): %d\n", points);
    EXPECT_GE(points, 60);
}

TEST(SiblingFaults, EveryCallOfARecoveryStartUpFailedInTurn) {
    const int points = RunSweep(Mode::Recovery, false);
    printf("fault points (engines recovery): %d\n", points);
    EXPECT_GE(points, 50);
}

TEST(SiblingFaults, EveryCallThrowingInTurnIsFenced) {
    const int points = RunSweep(Mode::Normal, true) + RunSweep(Mode::Recovery, true);
    printf("throwing fault points: %d\n", points);
    EXPECT_GE(points, 100);
}

// The settings file cannot be replaced (read-only, held without sharing, held for reading)
// during each write: the documented code and line, the file unchanged, the record unchanged; once
// writable again the same change goes through.
TEST(FileFaults, SettingsFileThatCannotBeReplacedFailsEachWriteCleanly) {
    // The scenario's steps that write the file, and the lines each writes when it cannot; the
    // switches answer 1013, the others go on.
    const std::map<std::string, std::vector<std::wstring>> blocked = {
        {"EnableBackup", {L"save failed"}},
        {"ReportHashChain", {L"save failed"}},
        {"ReportSignatureInfo", {L"save failed"}},
        {"SetFeatureStatus", {L"[name = Quarantine] [isLocked = 0]"}},
        {"OnComponentInstalled",
         {L"Cannot save reload info [lastOk = {engines}]",
          L"Cannot save reload info [oldPath = {engines}] [newPath = {engines}]"}}};
    const DWORD shares[] = {MAXDWORD /* read-only attribute */, 0, FILE_SHARE_READ};
    int points = 0;
    for (DWORD share : shares) {
        for (const Step& step : Scenario()) {
            if (!blocked.count(step.name)) continue;
            const bool isSwitch = step.key && std::string(step.name) != "SetFeatureStatus";
            SCOPED_TRACE(std::string(step.name) + " with block " + std::to_string(share));
            Rig rig(Mode::Normal);
            ASSERT_TRUE(rig.plugin.StartAll());
            ASSERT_EQ(0u, ReportSignatureInfo(rig.plugin.scan, false)); // the file now holds every key
            const std::wstring& file = rig.site.settingsFile;
            const std::string before = ReadBytes(file);
            const std::vector<bool> old = ReadSwitches(rig.plugin.scan);
            avhost::ClearCapturedLines();
            HANDLE held = INVALID_HANDLE_VALUE;
            if (share == MAXDWORD)
                SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
            else
                held = CreateFileW(file.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING, 0, nullptr);
            const DWORD result = step.run(rig);
            if (held != INVALID_HANDLE_VALUE) CloseHandle(held);
            SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);

            EXPECT_EQ(isSwitch ? 1013u : 0u, result);
            for (const std::wstring& line : blocked.at(step.name))
                EXPECT_TRUE(avhost::Contains(Expand(rig.site, line)))
                    << "missing line: " << Narrow(Expand(rig.site, line));
            EXPECT_EQ(before, ReadBytes(file)) << "the file changed although it could not be written";
            EXPECT_EQ(old, ReadSwitches(rig.plugin.scan)) << "a switch changed although it could not be saved";
            if (isSwitch) {
                EXPECT_EQ(0u, step.run(rig));
                Json::Value document;
                ASSERT_TRUE(ReadSettingsFile(file, document));
                const Json::Value stored = ModuleSection(document)[step.key];
                EXPECT_EQ(Json::Value(true), stored.isObject() ? stored["enabled"] : stored);
            }
            rig.plugin.StopAll();
            ExpectEverythingGivenBack(rig);
            ++points;
        }
    }
    printf("settings-file fault points: %d\n", points);
}

TEST(FileFaults, SettingsFileLockedAtInitOnlyLosesTheFolderBookkeeping) {
    Rig rig(Mode::Normal);
    ASSERT_TRUE(rig.plugin.env.settings.SetDocument(Json::Value(Json::objectValue)));
    HANDLE held = HoldOpen(rig.site.settingsFile);
    ASSERT_NE(INVALID_HANDLE_VALUE, held);
    EXPECT_EQ(0u, rig.plugin.Init());
    CloseHandle(held);
    EXPECT_TRUE(LineWith(Expand(rig.site, L"Cannot save reload info [oldPath = ] [newPath = {engines}]"), 8));
    Json::Value document;
    ASSERT_TRUE(ReadSettingsFile(rig.site.settingsFile, document));
    EXPECT_TRUE(ModuleSection(document).isNull());
    rig.plugin.StopAll();
    ExpectEverythingGivenBack(rig);
}

// Files the steps touch: each case prepares, starts everything, and checks its lines.
TEST(FileFaults, FilesTheStepsTouchBeingLockedOrUncreatable) {
    struct Case {
        const char* name;
        Mode mode;
        std::function<HANDLE(Rig&)> prepare; // a handle to close after the start-up, or INVALID_HANDLE_VALUE
        std::function<void(Rig&)> check;
    };
    const Case cases[] = {
        {"core temp folder below a plain file", Mode::Normal,
         [](Rig& r) {
             WriteBytes(r.site.root + L"\\blocker", "x");
             r.plugin.env.servConfig.SetText(17, L"scansp", (r.site.root + L"\\blocker\\scansp").c_str());
             return INVALID_HANDLE_VALUE;
         },
         [](Rig& r) {
             const std::wstring core = r.site.root + L"\\blocker\\scansp";
             EXPECT_TRUE(LineWith(L"Cannot create core temp folder [path = " + core + L"]", 4));
             EXPECT_TRUE(LineWith(L"Core temp folder not found [path = " + core + L"]", 32));
             EXPECT_TRUE(Exists(r.site.root + L"\\temp\\old.tmp"));
         }},
        {"core temp sibling held open", Mode::Normal,
         [](Rig& r) {
             WriteBytes(r.site.root + L"\\temp\\held.tmp", "busy");
             return HoldOpen(r.site.root + L"\\temp\\held.tmp");
         },
         [](Rig& r) {
             EXPECT_TRUE(Exists(r.site.root + L"\\temp\\held.tmp"));
             EXPECT_FALSE(Exists(r.site.root + L"\\temp\\old.tmp"));
         }},
        // A cache file that cannot be deleted. Held open without sharing rather than made
        // read-only: Windows refuses to delete a read-only file, but Wine deletes it.
        {"cache file held open in recovery", Mode::Recovery,
         [](Rig& r) { return HoldOpen(r.site.common + L"\\installer\\wslib.m"); },
         [](Rig& r) {
             const std::wstring m = r.site.common + L"\\installer\\wslib.m";
             EXPECT_FALSE(Exists(r.site.common + L"\\installer\\wslib.db"));
             EXPECT_TRUE(Exists(m));
             EXPECT_TRUE(LineWith(L"Cannot delete file [error = 32] [path = " + m + L"]", 4));
             EXPECT_EQ(1u, r.plugin.env.update.Requests().size()) << "the sequence went on";
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Rig rig(c.mode);
        HANDLE held = c.prepare(rig);
        ASSERT_TRUE(rig.plugin.StartAll());
        if (held != INVALID_HANDLE_VALUE) CloseHandle(held);
        c.check(rig);
        rig.plugin.StopAll();
        ExpectEverythingGivenBack(rig);
    }

    // The update file held open while the update plug-in fails: empty answers, then the file.
    Rig rig(Mode::Normal);
    rig.plugin.env.update.FailStatistics(1460);
    ASSERT_EQ(0u, rig.plugin.Init());
    HANDLE h = HoldOpen(rig.site.engines + L"\\Plugins\\update.txt");
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    qv::StringW version(L"stale");
    EXPECT_EQ(0u, GetEnginesVersion(rig.plugin.scan, &version));
    CloseHandle(h);
    EXPECT_EQ(L"", std::wstring(version.c_str()));
    EXPECT_TRUE(LineWith(L"Cannot obtain update statistics. [error = 1460]", 4));
    EXPECT_EQ(0u, GetEnginesVersion(rig.plugin.scan, &version));
    EXPECT_EQ(L"9.9.9", std::wstring(version.c_str()));
    rig.plugin.StopAll();
}

} // namespace
