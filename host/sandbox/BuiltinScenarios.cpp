#include "host/sandbox/BuiltinScenarios.h"

namespace sandbox {
namespace {

const char* const kDefault = R"json({
  "name": "default",
  "description": "A normal start, the queries, an engines update that reloads the engines, a switch change, a remote-scan status change, stop and shutdown.",
  "engines": {
    "folder": "engines\\2024.05.01",
    "files": ["qvcore.dll", "scanclient.dll", "smartdbv2.dat",
              "Plugins\\lhdb.cvd", "Plugins\\xgdb.cvd", "Plugins\\sdx.cvd"],
    "version": "2024.05.01.0830",
    "count": 7412385
  },
  "signatureFolders": ["2024.04.30", "2024.05.01"],
  "common": ["installer\\wslib.db", "installer\\wslib.m"],
  "coreTempLeftovers": ["scan-4711.tmp", "dumps\\crash-0001.dmp"],
  "kits": {
    "antivirus-2024.06.12": {
      "files": ["qvcore.dll", "scanclient.dll", "smartdbv2.dat",
                "Plugins\\lhdb.cvd", "Plugins\\nnml.cvd", "Plugins\\xgdb.cvd", "Plugins\\sdx.cvd"],
      "version": "2024.06.12.1015",
      "count": 7533120
    }
  },
  "remoteScan": {"status": false, "fallbackMode": 2},
  "actions": [
    {"do": "init", "expect": 0},
    {"do": "start", "expect": 0},
    {"do": "delayedStart", "expect": 0},
    {"do": "query", "what": "scanType", "expect": 0, "answer": "full"},
    {"do": "query", "what": "scanModes", "expect": 0, "answer": [5, 5]},
    {"do": "query", "what": "backup", "expect": 0, "answer": false},
    {"do": "query", "what": "signaturesVersion", "expect": 0, "answer": "2024.05.01.0830"},
    {"do": "query", "what": "signaturesCount", "expect": 0, "answer": 7412385},
    {"do": "install", "kit": "antivirus-2024.06.12", "target": "engines\\2024.06.12", "expect": 0},
    {"do": "query", "what": "signaturesVersion", "expect": 0, "answer": "2024.06.12.1015"},
    {"do": "query", "what": "signaturesCount", "expect": 0, "answer": 7533120},
    {"do": "enableBackup", "value": true, "expect": 0},
    {"do": "query", "what": "backup", "expect": 0, "answer": true},
    {"do": "remoteStatus", "value": true, "expect": 0},
    {"do": "query", "what": "scanModes", "expect": 0, "answer": [3, 5]},
    {"do": "stop", "expect": 0},
    {"do": "uninit", "expect": 0}
  ]
})json";

const char* const kRecovery = R"json({
  "name": "recovery",
  "description": "The engines cannot load (qvcore.dll and smartdbv2.dat are missing): at delayed start the plug-in reports it to telemetry, deletes the scan cache, creates placeholders and asks for a signature update; the update installs a complete engines kit, the scan service provider loads again and the plug-in asks for a restart of the service.",
  "engines": {
    "folder": "engines\\2024.05.01",
    "files": ["scanclient.dll", "Plugins\\lhdb.cvd", "Plugins\\nnml.cvd", "Plugins\\xgdb.cvd"],
    "version": "2024.05.01.0830",
    "count": 7412385
  },
  "common": ["installer\\wslib.db", "installer\\wslib.m"],
  "coreTempLeftovers": ["scan-4711.tmp"],
  "kits": {
    "antivirus-repair": {
      "files": ["qvcore.dll", "scanclient.dll", "smartdbv2.dat",
                "Plugins\\lhdb.cvd", "Plugins\\nnml.cvd", "Plugins\\xgdb.cvd"],
      "version": "2024.06.12.1015",
      "count": 7533120
    }
  },
  "settings": {"section": {"engines": {"folder": "{engines}", "reloadStatus": 2}}},
  "update": {"locations": ["https://updates.example.invalid/antivirus"]},
  "actions": [
    {"do": "init", "expect": 0},
    {"do": "start", "expect": 0},
    {"do": "delayedStart", "expect": 0},
    {"do": "query", "what": "scanType", "expect": 0, "answer": "full"},
    {"do": "query", "what": "scanModes", "expect": "0x8004D082", "answer": [0, 0]},
    {"do": "query", "what": "signaturesVersion", "expect": "0x8004D082", "answer": ""},
    {"do": "query", "what": "signaturesCount", "expect": "0x8004D082", "answer": 0},
    {"do": "install", "kit": "antivirus-repair", "expect": 0},
    {"do": "stop", "expect": 0},
    {"do": "uninit", "expect": 0}
  ]
})json";

const char* const kRemoteOnly = R"json({
  "name": "remote-only",
  "description": "A remote-only installation: at Init the plug-in deletes the ten local engine plug-in files, creates none at delayed start and scans remotely; a change of the remote-scan settings drops the fallback, and the remote service cannot be turned off.",
  "config": {"scanType": "remote"},
  "engines": {
    "folder": "engines\\2024.05.01",
    "files": ["qvcore.dll", "scanclient.dll", "smartdbv2.dat",
              "Plugins\\dalvik.cvd", "Plugins\\dalvik.ivd", "Plugins\\dalvik.xmd", "Plugins\\lhdb.cvd",
              "Plugins\\nnml.cvd", "Plugins\\xgdb.cvd", "Plugins\\mdx.xmd", "Plugins\\sdx.cvd",
              "Plugins\\sdx.ivd", "Plugins\\sdx.xmd", "Plugins\\rdx.cvd"],
    "version": "2024.05.01.0830",
    "count": 7412385
  },
  "remoteScan": {"status": true, "fallbackMode": 1},
  "actions": [
    {"do": "init", "expect": 0},
    {"do": "start", "expect": 0},
    {"do": "delayedStart", "expect": 0},
    {"do": "query", "what": "scanType", "expect": 0, "answer": "remote"},
    {"do": "query", "what": "scanModes", "expect": 0, "answer": [1, 1]},
    {"do": "remoteSettings", "fallbackMode": 0, "expect": 0},
    {"do": "query", "what": "scanModes", "expect": 0, "answer": [1, 0]},
    {"do": "remoteStatus", "value": false, "expect": 13},
    {"do": "query", "what": "scanModes", "expect": 0, "answer": [1, 0]},
    {"do": "stop", "expect": 0},
    {"do": "uninit", "expect": 0}
  ]
})json";

} // namespace

const std::vector<BuiltinScenario>& BuiltinScenarios() {
    static const std::vector<BuiltinScenario> scenarios = {
        {"default", "start, queries, engines update and reload, switch, remote-scan change, stop", kDefault},
        {"recovery", "engine files missing: recovery, kit installed, service restart requested", kRecovery},
        {"remote-only", "remote scan type: ten local engine files deleted, remote scan modes", kRemoteOnly},
    };
    return scenarios;
}

const BuiltinScenario* FindBuiltinScenario(const std::string& name) {
    for (const BuiltinScenario& s : BuiltinScenarios()) {
        if (name == s.name) return &s;
    }
    return nullptr;
}

} // namespace sandbox
