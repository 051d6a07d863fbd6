#include "host/sandbox/Summary.h"

#include "host/sandbox/Console.h"
#include "host/sandbox/TextUtil.h"

#include <cstdio>

namespace sandbox {
namespace {

Json::Value List(const std::vector<std::wstring>& items) {
    Json::Value list(Json::arrayValue);
    for (const auto& item : items) list.append(Utf8(item));
    return list;
}

Json::Value Files(const FileChanges& changes) {
    Json::Value files(Json::objectValue);
    files["created"] = List(changes.created);
    files["deleted"] = List(changes.deleted);
    files["changed"] = List(changes.changed);
    return files;
}

Json::Value Event(const SinkEvent& e) {
    Json::Value j(Json::objectValue);
    j["sink"] = e.sink;
    j["event"] = e.event;
    j["args"] = e.args;
    return j;
}

Json::Value Array(const std::vector<Json::Value>& items) {
    Json::Value list(Json::arrayValue);
    for (const auto& item : items) list.append(item);
    return list;
}

const Json::Value& Section(const RunRecord& r) {
    static const Json::Value none;
    if (!r.settingsDocument.isObject() || !r.settingsDocument["/AntivirusScan"].isObject()) return none;
    return r.settingsDocument["/AntivirusScan"];
}

std::string Shown(const Json::Value& v) {
    if (v.isNull()) return "(not set)";
    if (v.isBool()) return v.asBool() ? "on" : "off";
    if (v.isString()) return v.asString().empty() ? "(empty)" : v.asString();
    return CompactJson(v);
}

std::string ModeName(unsigned mode) {
    static const char* const names[] = {"None", "Remote", "RemoteLight", "RemoteFull", "LocalLight", "LocalFull"};
    return std::to_string(mode) + " " + (mode < 6 ? names[mode] : "?");
}

void Row(const std::string& label, const std::string& value) {
    char head[40];
    snprintf(head, sizeof head, "  %-26s", label.c_str());
    Out().Line(head + value);
}

void Rows(const std::string& label, const std::vector<std::string>& values) {
    if (values.empty()) {
        Row(label, "none");
        return;
    }
    for (size_t i = 0; i < values.size(); ++i) Row(i == 0 ? label : std::string(), values[i]);
}

} // namespace

int RunRecord::ExpectationsMet() const {
    int met = 0;
    for (const auto& s : steps) met += (s.hasExpect || s.hasExpectValue) && s.ok;
    return met;
}

int RunRecord::ExpectationsFailed() const {
    int failed = 0;
    for (const auto& s : steps) failed += !s.ok;
    return failed;
}

namespace {

template <class Events> Json::Value EventList(const Events& recorded) {
    Json::Value events(Json::arrayValue);
    for (const auto& e : recorded) events.append(Event(e));
    return events;
}

Json::Value SandboxJson(const RunRecord& r) {
    Json::Value sandbox(Json::objectValue);
    sandbox["root"] = Utf8(r.layout.root);
    sandbox["kept"] = r.kept;
    sandbox["engines"] = Utf8(r.layout.engines);
    sandbox["common"] = Utf8(r.layout.common);
    sandbox["coreTemp"] = Utf8(r.layout.coreTemp);
    sandbox["settingsFile"] = Utf8(r.layout.settingsFile);
    sandbox["telemetryFile"] = Utf8(r.layout.telemetryFile);
    sandbox["logFile"] = Utf8(r.layout.logFile);
    return sandbox;
}

Json::Value StepJson(const StepRecord& s) {
    Json::Value step(Json::objectValue);
    step["step"] = s.step;
    step["action"] = s.verb;
    if (!s.field.empty()) step["field"] = s.field;
    step["title"] = s.title;
    step["result"] = s.hasResult ? Json::Value(static_cast<Json::UInt>(s.result)) : Json::Value();
    if (s.hasExpect) step["expect"] = static_cast<Json::UInt>(s.expect);
    if (s.hasExpectValue) step["expectAnswer"] = s.expectValue;
    if (!s.value.isNull()) step["answer"] = s.value;
    step["ok"] = s.ok;
    if (!s.failure.empty()) step["failure"] = s.failure;
    Json::Value host(Json::arrayValue);
    for (const auto& h : s.host) host.append(h);
    step["host"] = host;
    Json::Value log(Json::arrayValue);
    for (const auto& l : s.log) {
        Json::Value line(Json::objectValue);
        line["severity"] = l.severity;
        line["function"] = l.function;
        line["text"] = l.text;
        log.append(line);
    }
    step["log"] = log;
    step["files"] = Files(s.files);
    step["sinkEvents"] = EventList(s.sinkEvents);
    step["telemetry"] = Array(s.telemetry);
    step["updateRequests"] = Array(s.updateRequests);
    step["restarts"] = Array(s.restarts);
    return step;
}

Json::Value Member(const Json::Value& object, const char* name) {
    return object.isObject() ? object.get(name, Json::Value()) : Json::Value();
}

// The settings the plug-in wrote, as the section holds them after the run.
Json::Value SettingsJson(const RunRecord& r) {
    const Json::Value& section = Section(r);
    Json::Value settings(Json::objectValue);
    settings["enableBackup"] = Member(section, "enableBackup");
    settings["reportHashChain"] = Member(section, "reportHashChain");
    settings["reportSignatureInfo"] = Member(section, "reportSignatureInfo");
    const Json::Value engines = Member(section, "engines");
    settings["reloadStatus"] = Member(engines, "reloadStatus");
    settings["lastOkFolder"] = Member(engines, "folder");
    settings["lastOkFolderInSandbox"] =
        settings["lastOkFolder"].isString()
            ? Json::Value(Utf8(r.layout.Relative(Wide(settings["lastOkFolder"].asString()))))
            : Json::Value();
    settings["section"] = section;
    return settings;
}

} // namespace

Json::Value BuildSummary(const RunRecord& r) {
    Json::Value j(Json::objectValue);
    j["scenario"]["name"] = r.scenarioName;
    j["scenario"]["source"] = r.scenarioSource;
    j["scenario"]["description"] = r.description;
    j["ok"] = r.Ok();
    j["expectations"]["met"] = r.ExpectationsMet();
    j["expectations"]["failed"] = r.ExpectationsFailed();
    j["sandbox"] = SandboxJson(r);
    Json::Value steps(Json::arrayValue);
    for (const StepRecord& s : r.steps) steps.append(StepJson(s));
    j["steps"] = steps;
    j["state"] = r.state;
    j["stateTaken"] = r.stateTaken;
    j["settings"] = SettingsJson(r);
    j["files"] = Files(r.files);
    j["sinkEvents"] = EventList(r.sinkEvents);
    j["telemetry"] = Array(r.telemetry);
    j["update"]["requests"] = Array(r.updateRequests);
    j["update"]["restarts"] = Array(r.restarts);
    j["update"]["installs"] = Array(r.installs);
    j["scanSp"]["lookups"] = r.scanSpLookups;
    j["scanSp"]["reloads"] = r.scanSpReloads;
    j["scanSp"]["backupOption"] = r.backupOption;
    j["plugins"]["balanced"] = r.pluginsBalanced;
    j["plugins"]["outstanding"] = r.outstanding;
    j["processes"] = r.processes;
    j["log"]["lines"] = r.logLines;
    j["log"]["errors"] = r.logErrors;
    j["log"]["warnings"] = r.logWarnings;
    return j;
}

void PrintFinalTable(const RunRecord& r) {
    Out().Line("");
    Out().Line("Final state  (scenario \"" + r.scenarioName + "\"" +
               (r.stateTaken.empty() ? std::string() : ", plug-in answers taken " + r.stateTaken) + ")");
    const Json::Value& s = r.state;
    if (s.isObject()) {
        Row("scan type", Shown(s["scanType"]));
        std::string modes;
        if (s["scanModesResult"].asUInt() == 0)
            modes = ModeName(s["scanModes"][0].asUInt()) + " / " + ModeName(s["scanModes"][1].asUInt());
        else
            modes = "not available: " + CodeText(s["scanModesResult"].asUInt());
        Row("scan modes", modes);
        Row("backup", Shown(s["backup"]));
        Row("hash-chain reporting", Shown(s["hashChain"]));
        Row("signature-info reporting", Shown(s["signatureInfo"]));
        if (s["signaturesVersionResult"].asUInt() == 0)
            Row("signatures", Shown(s["signaturesVersion"]) + ", " + CompactJson(s["signaturesCount"]) + " signatures");
        else
            Row("signatures", "not available: " + CodeText(s["signaturesVersionResult"].asUInt()));
    } else {
        Row("plug-in answers", "none (the plug-in was never initialised)");
    }
    const Json::Value summary = BuildSummary(r);
    const Json::Value& settings = summary["settings"];
    std::string status = Shown(settings["reloadStatus"]);
    if (settings["reloadStatus"].isUInt()) {
        switch (settings["reloadStatus"].asUInt()) {
        case 1:
            status += " (reload started, not confirmed)";
            break;
        case 2:
            status += " (engines loaded)";
            break;
        case 3:
            status += " (maintenance install, no reload)";
            break;
        default:
            break;
        }
    }
    Row("reload status", status);
    Row("last-OK folder", Shown(settings["lastOkFolderInSandbox"]));

    auto names = [](const std::vector<std::wstring>& list) {
        std::vector<std::string> out;
        for (const auto& f : list) out.push_back(Utf8(f));
        return out;
    };
    Rows("files created", names(r.files.created));
    Rows("files deleted", names(r.files.deleted));
    Rows("files changed", names(r.files.changed));
    std::vector<std::string> events;
    for (const auto& e : r.sinkEvents) events.push_back(e.sink + ": " + e.Text());
    Rows("events sent to sinks", events);
    std::vector<std::string> telemetry;
    for (const auto& t : r.telemetry)
        telemetry.push_back(t.get("issue", "?").asString() + " (" + CompactJson(t.get("error", "")) + ")");
    Rows("telemetry events", telemetry);
    std::vector<std::string> requests;
    for (const auto& u : r.updateRequests) requests.push_back("update by \"" + u["requester"].asString() + "\"");
    for (const auto& u : r.restarts)
        requests.push_back("restart of \"" + u["serviceName"].asString() + "\" (value " + CompactJson(u["value"]) +
                           ")");
    Rows("update plug-in requests", requests);
    Row("scansp", std::to_string(r.scanSpLookups) + " lookups, " + std::to_string(r.scanSpReloads) + " reloads");
    std::string plugins =
        r.pluginsBalanced ? "every plug-in handed back" : "NOT handed back: " + CompactJson(r.outstanding);
    Row("plug-ins", plugins);
    Row("log", std::to_string(r.logErrors) + " errors, " + std::to_string(r.logWarnings) + " warnings, " +
                   std::to_string(r.logLines) + " lines" + (r.kept ? " in " + Utf8(r.layout.logFile) : std::string()));
    Row("expectations",
        std::to_string(r.ExpectationsMet()) + " met, " + std::to_string(r.ExpectationsFailed()) + " failed");
    for (const auto& step : r.steps) {
        if (!step.ok) Row("", "step " + std::to_string(step.step) + " (" + step.verb + "): " + step.failure);
    }
}

} // namespace sandbox
