#pragma once
// What one sandbox run is made of: the installation laid out on disk, the service
// configuration, the state of each sibling plug-in, and the host's actions in order. Built-in
// scenarios and scenario files both end up here (ScenarioParser).
#include <windows.h>

#include <json/json.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace sandbox {

// How the component manager serves one sibling plug-in.
struct PluginState {
    enum Kind { Present, Missing, Refusing, Files };
    Kind kind = Present;
    DWORD code = 0; // Refusing only
};

// A folder of engine files: the installed engines or a kit that an update installs.
struct EnginesContent {
    std::vector<std::wstring> files;      // relative names, written with some content
    std::vector<std::wstring> emptyFiles; // relative names, written with 0 bytes
    bool hasUpdateFile = false;           // "Plugins\update.txt"
    std::wstring version;
    int64_t count = 0;
};

struct ConfigText {
    int32_t category = 0;
    std::wstring name;
    bool clear = false; // the text is unset rather than set
    std::wstring text;  // may hold placeholders such as {engines}
};

struct Statistic {
    std::wstring component;
    std::wstring version;
    int32_t count = 0;
};

struct ScanSpSetup {
    // Files that must be in the engines folder for the provider to load and reload.
    std::vector<std::wstring> requiredFiles{L"qvcore.dll", L"scanclient.dll", L"smartdbv2.dat"};
    bool emptyFilesLoad = false; // a 0-byte placeholder counts as the file
    DWORD reloadError = 0;       // non-zero: every reload fails with it
    DWORD optionError = 0;
};

struct RemoteScanSetup {
    bool status = false;
    uint32_t fallbackMode = 0;
    DWORD queryError = 0;
    DWORD registrationError = 0;
};

struct UpdateSetup {
    std::vector<Statistic> statistics;
    DWORD statisticsError = 0;
    DWORD settingsError = 0;
    DWORD startUpdateError = 0;
    uint32_t startUpdateStatus = 0;
    DWORD restartError = 0;
    DWORD registrationError = 0;
    std::vector<std::wstring> locations;
};

struct SettingsSetup {
    Json::Value section; // initial "/AntivirusScan" section; null for none
    bool failWrites = false;
    bool refuseOpen = false;
};

struct Action {
    enum Kind {
        Init,
        Start,
        DelayedStart,
        Stop,
        UnInit,
        Query,
        EnableBackup,
        ReportHashChain,
        ReportSignatureInfo,
        SetFeature,
        Install,
        RemoteStatus,
        RemoteSettings,
        RemoteScanMode,
        SetPlugin,
        SetConfig,
        DeleteFile,
        WriteFile,
        RestartService,
    };
    Kind kind = Init;
    std::string verb;  // the "do" text, as written
    std::string field; // "actions[3]", for messages
    // Expected result code and, for queries, expected value.
    bool hasExpect = false;
    DWORD expect = 0;
    bool hasExpectValue = false;
    Json::Value expectValue;
    // Arguments; which are used depends on the kind.
    std::string what;  // Query: scanType, scanModes, backup, hashChain, signatureInfo, signaturesVersion,
                       // signaturesCount, feature, all
    std::wstring name; // SetFeature/Query feature: feature name; SetPlugin: plug-in name; SetConfig: text name
    bool flag = false; // the switch value, remote status, feature lock
    bool hasFallbackMode = false;
    uint32_t fallbackMode = 0;
    bool hasStatus = false;
    PluginState plugin;  // SetPlugin
    ConfigText config;   // SetConfig
    std::wstring path;   // DeleteFile/WriteFile: relative to the sandbox
    std::wstring text;   // WriteFile
    std::wstring kit;    // Install: a kit name or a folder
    std::wstring target; // Install: folder relative to the sandbox; empty: the current engines folder
    std::wstring updater{L"Update.UpdateAL"};
    std::wstring component{L"Antivirus"};
    bool recordStatistics = true;
};

struct Scenario {
    std::string name;
    std::string description;
    std::string source; // "built-in" or the file path

    std::wstring scanType{L"full"}; // null in the file: left unset
    bool scanTypeSet = true;
    std::vector<ConfigText> texts;               // applied after the defaults
    std::map<std::wstring, PluginState> plugins; // by plug-in name; absent: present ("files" for scansp)

    std::wstring enginesFolder{L"engines"}; // relative to the sandbox
    EnginesContent engines;
    std::vector<std::wstring> signatureFolders;
    std::vector<std::wstring> commonFiles;
    std::vector<std::wstring> tempLeftovers; // beside the core temp folder
    std::map<std::wstring, EnginesContent> kits;

    ScanSpSetup scanSp;
    RemoteScanSetup remoteScan;
    UpdateSetup update;
    DWORD telemetryResult = 0;
    SettingsSetup settings;

    std::vector<Action> actions;
};

} // namespace sandbox
