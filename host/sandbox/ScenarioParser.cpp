#include "host/sandbox/ScenarioParser.h"

#include "host/sandbox/TextUtil.h"
#include "sdk/PluginIds.h"

#include <cstdlib>
#include <memory>
#include <set>

namespace sandbox {
namespace {

namespace ids = qv::kxsdk::ids;

[[noreturn]] void Fail(const std::string& field, const std::string& problem) {
    throw ScenarioError("field \"" + field + "\": " + problem);
}

std::string Describe(const Json::Value& value) {
    switch (value.type()) {
    case Json::nullValue:
        return "null";
    case Json::booleanValue:
        return value.asBool() ? "true" : "false";
    case Json::stringValue:
        return "the string " + CompactJson(value);
    case Json::arrayValue:
        return "an array";
    case Json::objectValue:
        return "an object";
    default:
        return "the number " + CompactJson(value);
    }
}

// Typed access to the members of one JSON object; remembers which members were read so that
// Finish can reject the ones nobody asked for.
class Fields {
public:
    Fields(const Json::Value& value, std::string path) : value_(value), path_(std::move(path)) {
        if (!value_.isObject()) Fail(path_, "expected an object, found " + Describe(value_));
    }
    std::string Path(const std::string& key) const { return path_.empty() ? key : path_ + "." + key; }
    bool Has(const std::string& key) const { return value_.isMember(key); }
    const Json::Value& Raw(const std::string& key) {
        seen_.insert(key);
        return value_[key];
    }
    std::string String(const std::string& key, const std::string& fallback = std::string()) {
        if (!Has(key)) return fallback;
        const Json::Value& v = Raw(key);
        if (!v.isString()) Fail(Path(key), "expected a string, found " + Describe(v));
        return v.asString();
    }
    std::wstring WideString(const std::string& key, const std::wstring& fallback = std::wstring()) {
        return Has(key) ? Wide(String(key)) : fallback;
    }
    std::string RequiredString(const std::string& key) {
        if (!Has(key)) Fail(Path(key), "is required");
        return String(key);
    }
    bool Bool(const std::string& key, bool fallback) {
        if (!Has(key)) return fallback;
        const Json::Value& v = Raw(key);
        if (!v.isBool()) Fail(Path(key), "expected true or false, found " + Describe(v));
        return v.asBool();
    }
    bool RequiredBool(const std::string& key) {
        if (!Has(key)) Fail(Path(key), "is required (true or false)");
        return Bool(key, false);
    }
    int64_t Integer(const std::string& key, int64_t fallback, int64_t low, int64_t high) {
        if (!Has(key)) return fallback;
        const Json::Value& v = Raw(key);
        if (!v.isIntegral() || v.isBool() || !v.isInt64())
            Fail(Path(key), "expected a whole number, found " + Describe(v));
        int64_t n = v.asInt64();
        if (n < low || n > high)
            Fail(Path(key), "must be between " + std::to_string(low) + " and " + std::to_string(high) + ", found " +
                                std::to_string(n));
        return n;
    }
    // A Windows error code: a number from 0 to 4294967295, or a hexadecimal text "0x8004D082".
    DWORD Code(const std::string& key, DWORD fallback = 0) {
        if (!Has(key)) return fallback;
        const Json::Value& v = Raw(key);
        if (v.isString()) {
            const std::string text = v.asString();
            char* end = nullptr;
            unsigned long long n = 0;
            if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
                n = strtoull(text.c_str() + 2, &end, 16);
            if (end && *end == '\0' && n <= 0xFFFFFFFFull) return static_cast<DWORD>(n);
            Fail(Path(key), "expected an error code (a number or a text like \"0x8004D082\"), found " + Describe(v));
        }
        return static_cast<DWORD>(Integer(key, 0, 0, 0xFFFFFFFFll));
    }
    std::vector<std::wstring> StringList(const std::string& key) {
        std::vector<std::wstring> list;
        if (!Has(key)) return list;
        const Json::Value& v = Raw(key);
        if (!v.isArray()) Fail(Path(key), "expected an array of strings, found " + Describe(v));
        for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
            if (!v[i].isString())
                Fail(Path(key) + "[" + std::to_string(i) + "]", "expected a string, found " + Describe(v[i]));
            list.push_back(Wide(v[i].asString()));
        }
        return list;
    }
    void Finish() const {
        for (const std::string& key : value_.getMemberNames()) {
            if (!seen_.count(key)) Fail(Path(key), "unknown field");
        }
    }

private:
    const Json::Value& value_;
    std::string path_;
    std::set<std::string> seen_;
};

// Paths that the sandbox writes or deletes stay inside it.
std::wstring SandboxRelative(const std::wstring& path, const std::string& field, bool allowEmpty = false) {
    if (path.empty()) {
        if (allowEmpty) return path;
        Fail(field, "must not be empty");
    }
    if (path[0] == L'\\' || path[0] == L'/' || path.find(L':') != std::wstring::npos)
        Fail(field, "must be a path relative to the sandbox folder, found \"" + Utf8(path) + "\"");
    std::wstring normal = path;
    for (wchar_t& c : normal) {
        if (c == L'/') c = L'\\';
    }
    std::wstring part;
    for (size_t i = 0; i <= normal.size(); ++i) {
        if (i == normal.size() || normal[i] == L'\\') {
            if (part == L"..") Fail(field, "must not leave the sandbox folder (\"..\")");
            part.clear();
        } else {
            part += normal[i];
        }
    }
    return normal;
}

std::vector<std::wstring> RelativeList(Fields& f, const std::string& key) {
    std::vector<std::wstring> list = f.StringList(key);
    for (size_t i = 0; i < list.size(); ++i)
        list[i] = SandboxRelative(list[i], f.Path(key) + "[" + std::to_string(i) + "]");
    return list;
}

PluginState ParsePluginState(const Json::Value& v, const std::string& field, bool isScanSp) {
    PluginState state;
    if (v.isString()) {
        const std::string s = v.asString();
        if (s == "present") {
            state.kind = PluginState::Present;
        } else if (s == "missing") {
            state.kind = PluginState::Missing;
        } else if (s == "files" && isScanSp) {
            state.kind = PluginState::Files;
        } else {
            Fail(field, std::string("expected \"present\", \"missing\"") + (isScanSp ? ", \"files\"" : "") +
                            " or {\"refuse\": code}, found " + Describe(v));
        }
        return state;
    }
    if (!v.isObject())
        Fail(field, std::string("expected \"present\", \"missing\"") + (isScanSp ? ", \"files\"" : "") +
                        " or {\"refuse\": code}, found " + Describe(v));
    Fields f(v, field);
    if (!f.Has("refuse")) Fail(f.Path("refuse"), "is required (the error code the manager answers)");
    state.kind = PluginState::Refusing;
    state.code = f.Code("refuse");
    if (state.code == 0) Fail(f.Path("refuse"), "must be a non-zero error code");
    f.Finish();
    return state;
}

void ParseContent(Fields& f, EnginesContent& content) {
    content.files = RelativeList(f, "files");
    content.emptyFiles = RelativeList(f, "emptyFiles");
    content.hasUpdateFile = f.Has("version") || f.Has("count");
    content.version = f.WideString("version");
    content.count = f.Integer("count", 0, INT64_MIN, INT64_MAX);
}

ConfigText ParseConfigText(Fields& f, bool nameRequired) {
    ConfigText text;
    text.category = static_cast<int32_t>(f.Integer("category", 0, INT32_MIN, INT32_MAX));
    if (!f.Has("category")) Fail(f.Path("category"), "is required");
    text.name = Wide(nameRequired ? f.RequiredString("name") : f.String("name"));
    if (!f.Has("text")) Fail(f.Path("text"), "is required (a string, or null to unset it)");
    const Json::Value& t = f.Raw("text");
    if (t.isNull()) {
        text.clear = true;
    } else if (t.isString()) {
        text.text = Wide(t.asString());
    } else {
        Fail(f.Path("text"), "expected a string or null, found " + Describe(t));
    }
    return text;
}

const char* const kQueries[] = {"scanType",          "scanModes",       "backup",  "hashChain", "signatureInfo",
                                "signaturesVersion", "signaturesCount", "feature", "all"};

struct Verb {
    const char* text;
    Action::Kind kind;
};
const Verb kVerbs[] = {
    {"init", Action::Init},
    {"start", Action::Start},
    {"delayedStart", Action::DelayedStart},
    {"stop", Action::Stop},
    {"uninit", Action::UnInit},
    {"query", Action::Query},
    {"enableBackup", Action::EnableBackup},
    {"reportHashChain", Action::ReportHashChain},
    {"reportSignatureInfo", Action::ReportSignatureInfo},
    {"setFeature", Action::SetFeature},
    {"install", Action::Install},
    {"remoteStatus", Action::RemoteStatus},
    {"remoteSettings", Action::RemoteSettings},
    {"remoteScanMode", Action::RemoteScanMode},
    {"plugin", Action::SetPlugin},
    {"config", Action::SetConfig},
    {"deleteFile", Action::DeleteFile},
    {"writeFile", Action::WriteFile},
    {"restartService", Action::RestartService},
};

template <class Items, class Text> std::string JoinedList(const Items& items, Text text) {
    std::string list;
    for (const auto& item : items) list += std::string(list.empty() ? "" : ", ") + text(item);
    return list;
}

Action::Kind ParseVerb(Fields& f, const std::string& verb) {
    for (const Verb& v : kVerbs) {
        if (verb == v.text) return v.kind;
    }
    const std::string verbs = JoinedList(kVerbs, [](const Verb& v) { return v.text; });
    Fail(f.Path("do"), "unknown action \"" + verb + "\" (one of: " + verbs + ")");
    return Action::Kind();
}

void ParseQuery(Fields& f, Action& a) {
    a.what = f.RequiredString("what");
    bool ok = false;
    for (const char* q : kQueries) ok = ok || a.what == q;
    if (!ok) {
        const std::string list = JoinedList(kQueries, [](const char* q) { return q; });
        Fail(f.Path("what"), "unknown query \"" + a.what + "\" (one of: " + list + ")");
    }
    if (a.what == "feature") a.name = Wide(f.RequiredString("name"));
    if (f.Has("answer")) {
        if (a.what == "all") Fail(f.Path("answer"), "cannot be checked for the query \"all\"");
        a.hasExpectValue = true;
        a.expectValue = f.Raw("answer");
    }
    if (a.what == "all" && a.hasExpect) Fail(f.Path("expect"), "cannot be checked for the query \"all\"");
}

void ParseInstall(Fields& f, Action& a, const Scenario& scenario) {
    a.kit = Wide(f.RequiredString("kit"));
    const bool isFolder = a.kit.find_first_of(L"\\/:") != std::wstring::npos;
    if (!isFolder && !scenario.kits.count(a.kit))
        Fail(f.Path("kit"),
             "no kit named \"" + Utf8(a.kit) + "\" in \"kits\" (give a folder path for a kit elsewhere)");
    a.target = SandboxRelative(f.WideString("target"), f.Path("target"), true);
    a.updater = f.WideString("updater", a.updater);
    a.component = f.WideString("component", a.component);
    a.recordStatistics = f.Bool("statistics", true);
}

// The three remote-scan events; a status change may come with a new fallback mode.
void ParseRemoteEvent(Fields& f, Action& a) {
    if (a.kind == Action::RemoteStatus) a.flag = f.RequiredBool("value");
    if (f.Has("fallbackMode")) {
        a.hasFallbackMode = true;
        a.fallbackMode = static_cast<uint32_t>(f.Integer("fallbackMode", 0, 0, 0xFFFFFFFFll));
    }
    if (a.kind != Action::RemoteStatus && f.Has("status")) {
        a.hasStatus = true;
        a.flag = f.Bool("status", false);
    }
}

void ParseSetPlugin(Fields& f, Action& a) {
    a.name = Wide(f.RequiredString("name"));
    if (!IsKnownPluginName(a.name)) Fail(f.Path("name"), "unknown plug-in \"" + Utf8(a.name) + "\"");
    if (!f.Has("state")) Fail(f.Path("state"), "is required");
    a.plugin = ParsePluginState(f.Raw("state"), f.Path("state"), a.name == ids::kScanSpName);
}

// What each kind of action takes besides "do" and "expect".
void ParseActionFields(Fields& f, Action& a, const Scenario& scenario) {
    switch (a.kind) {
    case Action::Query:
        ParseQuery(f, a);
        break;
    case Action::EnableBackup:
    case Action::ReportHashChain:
    case Action::ReportSignatureInfo:
        a.flag = f.RequiredBool("value");
        break;
    case Action::SetFeature:
        a.name = Wide(f.RequiredString("name"));
        a.flag = f.RequiredBool("locked");
        break;
    case Action::Install:
        ParseInstall(f, a, scenario);
        break;
    case Action::RemoteStatus:
    case Action::RemoteSettings:
    case Action::RemoteScanMode:
        ParseRemoteEvent(f, a);
        break;
    case Action::SetPlugin:
        ParseSetPlugin(f, a);
        break;
    case Action::SetConfig:
        a.config = ParseConfigText(f, true);
        break;
    case Action::DeleteFile:
        a.path = SandboxRelative(Wide(f.RequiredString("path")), f.Path("path"));
        break;
    case Action::WriteFile:
        a.path = SandboxRelative(Wide(f.RequiredString("path")), f.Path("path"));
        a.text = f.WideString("text");
        break;
    default:
        break;
    }
}

Action ParseAction(const Json::Value& value, const std::string& field, const Scenario& scenario) {
    Fields f(value, field);
    Action a;
    a.field = field;
    a.verb = f.RequiredString("do");
    a.kind = ParseVerb(f, a.verb);
    if (f.Has("expect")) {
        a.hasExpect = true;
        a.expect = f.Code("expect");
    }
    ParseActionFields(f, a, scenario);
    f.Finish();
    return a;
}

std::string OneLine(const std::string& text) {
    std::string line;
    bool space = false;
    for (char c : text) {
        if (c == '\n' || c == '\r' || c == '\t' || c == ' ') {
            space = !line.empty();
            continue;
        }
        if (space) line += ' ';
        space = false;
        line += c;
    }
    return line;
}

// jsoncpp reports "* Line 3, Column 5\n  Missing ',' or '}' in object declaration\n"; one line
// reads "line 3, column 5: Missing ',' or '}' in object declaration".
std::string SyntaxError(const std::string& errors) {
    std::string text = errors;
    if (text.rfind("* ", 0) == 0) text = text.substr(2);
    const size_t newline = text.find('\n');
    if (newline != std::string::npos) text = text.substr(0, newline) + ":" + text.substr(newline);
    text = OneLine(text);
    if (text.rfind("Line ", 0) == 0) text[0] = 'l';
    const size_t column = text.find(", Column ");
    if (column != std::string::npos) text[column + 2] = 'c';
    return text;
}

} // namespace

bool IsKnownPluginName(const std::wstring& name) {
    for (const wchar_t* known : {ids::kServConfigName, ids::kSettingsName, ids::kUpdateName, ids::kRemoteScanName,
                                 ids::kCtcName, ids::kScanSpName, ids::kTelemetryName}) {
        if (name == known) return true;
    }
    return false;
}

namespace {

void ParseConfig(Fields& top, Scenario& s) {
    if (!top.Has("config")) return;
    Fields config(top.Raw("config"), "config");
    if (config.Has("scanType")) {
        const Json::Value& t = config.Raw("scanType");
        if (t.isNull()) {
            s.scanTypeSet = false;
        } else if (t.isString()) {
            s.scanType = Wide(t.asString());
        } else {
            Fail("config.scanType",
                 "expected a string (\"full\", \"light\", \"remote\") or null, found " + Describe(t));
        }
    }
    if (config.Has("texts")) {
        const Json::Value& list = config.Raw("texts");
        if (!list.isArray()) Fail("config.texts", "expected an array, found " + Describe(list));
        for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
            Fields t(list[i], "config.texts[" + std::to_string(i) + "]");
            s.texts.push_back(ParseConfigText(t, true));
            t.Finish();
        }
    }
    config.Finish();
}

void ParsePlugins(Fields& top, Scenario& s) {
    if (!top.Has("plugins")) return;
    Fields plugins(top.Raw("plugins"), "plugins");
    for (const std::string& key : top.Raw("plugins").getMemberNames()) {
        const std::wstring name = Wide(key);
        if (!IsKnownPluginName(name)) Fail(plugins.Path(key), "unknown plug-in");
        s.plugins[name] = ParsePluginState(plugins.Raw(key), plugins.Path(key), name == ids::kScanSpName);
    }
    plugins.Finish();
}

// The engines folder, the other folders and files laid out before the run, and the kits.
void ParseFiles(Fields& top, Scenario& s) {
    if (top.Has("engines")) {
        Fields e(top.Raw("engines"), "engines");
        s.enginesFolder = SandboxRelative(e.WideString("folder", s.enginesFolder), "engines.folder");
        ParseContent(e, s.engines);
        e.Finish();
    }
    s.signatureFolders = RelativeList(top, "signatureFolders");
    s.commonFiles = RelativeList(top, "common");
    s.tempLeftovers = RelativeList(top, "coreTempLeftovers");
    if (!top.Has("kits")) return;
    Fields kits(top.Raw("kits"), "kits");
    for (const std::string& key : top.Raw("kits").getMemberNames()) {
        if (key.empty() || key.find_first_of("\\/:") != std::string::npos || key == "." || key == "..")
            Fail(kits.Path(key), "a kit name must be a plain folder name");
        Fields kit(kits.Raw(key), kits.Path(key));
        ParseContent(kit, s.kits[Wide(key)]);
        kit.Finish();
    }
    kits.Finish();
}

void ParseScanSpAndRemoteScan(Fields& top, Scenario& s) {
    if (top.Has("scanSp")) {
        Fields f(top.Raw("scanSp"), "scanSp");
        if (f.Has("requiredFiles")) s.scanSp.requiredFiles = RelativeList(f, "requiredFiles");
        s.scanSp.emptyFilesLoad = f.Bool("emptyFilesLoad", false);
        s.scanSp.reloadError = f.Code("reloadError");
        s.scanSp.optionError = f.Code("optionError");
        f.Finish();
    }
    if (top.Has("remoteScan")) {
        Fields f(top.Raw("remoteScan"), "remoteScan");
        s.remoteScan.status = f.Bool("status", false);
        s.remoteScan.fallbackMode = static_cast<uint32_t>(f.Integer("fallbackMode", 0, 0, 0xFFFFFFFFll));
        s.remoteScan.queryError = f.Code("queryError");
        s.remoteScan.registrationError = f.Code("registrationError");
        f.Finish();
    }
}

void ParseStatistics(Fields& f, Scenario& s) {
    if (!f.Has("statistics")) return;
    const Json::Value& list = f.Raw("statistics");
    if (!list.isArray()) Fail("update.statistics", "expected an array, found " + Describe(list));
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        Fields st(list[i], "update.statistics[" + std::to_string(i) + "]");
        Statistic stat;
        stat.component = Wide(st.String("component", "Antivirus"));
        stat.version = Wide(st.RequiredString("version"));
        stat.count = static_cast<int32_t>(st.Integer("count", 0, INT32_MIN, INT32_MAX));
        st.Finish();
        s.update.statistics.push_back(stat);
    }
}

void ParseUpdate(Fields& top, Scenario& s) {
    if (!top.Has("update")) return;
    Fields f(top.Raw("update"), "update");
    ParseStatistics(f, s);
    s.update.statisticsError = f.Code("statisticsError");
    s.update.settingsError = f.Code("settingsError");
    s.update.startUpdateError = f.Code("startUpdateError");
    s.update.startUpdateStatus = static_cast<uint32_t>(f.Integer("startUpdateStatus", 0, 0, 0xFFFFFFFFll));
    s.update.restartError = f.Code("restartError");
    s.update.registrationError = f.Code("registrationError");
    s.update.locations = f.StringList("locations");
    f.Finish();
}

void ParseTelemetryAndSettings(Fields& top, Scenario& s) {
    if (top.Has("telemetry")) {
        Fields f(top.Raw("telemetry"), "telemetry");
        s.telemetryResult = f.Code("result");
        f.Finish();
    }
    if (!top.Has("settings")) return;
    Fields f(top.Raw("settings"), "settings");
    if (f.Has("section")) {
        s.settings.section = f.Raw("section");
        if (!s.settings.section.isObject())
            Fail("settings.section",
                 "expected an object (the \"/AntivirusScan\" section), found " + Describe(s.settings.section));
    }
    s.settings.failWrites = f.Bool("failWrites", false);
    s.settings.refuseOpen = f.Bool("refuseOpen", false);
    f.Finish();
}

void ParseActions(Fields& top, Scenario& s) {
    if (!top.Has("actions")) Fail("actions", "is required (the host's actions, in order)");
    const Json::Value& actions = top.Raw("actions");
    if (!actions.isArray()) Fail("actions", "expected an array, found " + Describe(actions));
    if (actions.size() == 0) Fail("actions", "must hold at least one action");
    for (Json::ArrayIndex i = 0; i < actions.size(); ++i)
        s.actions.push_back(ParseAction(actions[i], "actions[" + std::to_string(i) + "]", s));
}

Json::Value ParseJson(const std::string& text, const std::string& source) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors))
        throw ScenarioError(source + ": not valid JSON: " + SyntaxError(errors));
    return root;
}

} // namespace

Scenario ParseScenario(const std::string& text, const std::string& source) {
    const Json::Value root = ParseJson(text, source);
    try {
        Scenario s;
        s.source = source;
        if (!root.isObject()) throw ScenarioError("a scenario is a JSON object, found " + Describe(root));
        Fields top(root, "");
        s.name = top.String("name", "unnamed");
        s.description = top.String("description");
        ParseConfig(top, s);
        ParsePlugins(top, s);
        ParseFiles(top, s);
        ParseScanSpAndRemoteScan(top, s);
        ParseUpdate(top, s);
        ParseTelemetryAndSettings(top, s);
        ParseActions(top, s);
        top.Finish();
        return s;
    } catch (const ScenarioError& e) {
        throw ScenarioError(source + ": " + e.what());
    } catch (const Json::Exception& e) {
        throw ScenarioError(source + ": " + OneLine(e.what()));
    }
}

} // namespace sandbox
