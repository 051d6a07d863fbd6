#pragma once
// What a sandbox run observed, step by step and in total; the summary and the final table are
// made from it.
#include "host/sandbox/SandboxFolder.h"
#include "host/sandbox/SinkRecorder.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace sandbox {

struct LogEntry {
    uint32_t severity = 0;
    std::string function;
    std::string text;
};

struct StepRecord {
    int step = 0;      // 1-based
    std::string verb;  // "init", "query", ... ("shutdown" for the host's own shutdown at the end)
    std::string field; // "actions[3]"; empty for the host's own steps
    std::string title; // readable description
    bool hasResult = false;
    DWORD result = 0;
    bool hasExpect = false;
    DWORD expect = 0;
    bool hasExpectValue = false;
    Json::Value expectValue;
    Json::Value value; // a query's answer
    bool ok = true;
    std::string failure;           // why an expectation was not met
    std::vector<std::string> host; // what the host side did and saw
    std::vector<LogEntry> log;     // the plug-in's errors and warnings during the step
    FileChanges files;
    std::vector<SinkEvent> sinkEvents;
    std::vector<Json::Value> telemetry;
    std::vector<Json::Value> updateRequests;
    std::vector<Json::Value> restarts;
};

struct RunRecord {
    std::string scenarioName;
    std::string scenarioSource;
    std::string description;
    SandboxLayout layout;
    bool kept = false;

    std::vector<StepRecord> steps;
    Json::Value state;      // the plug-in's answers before it was stopped; null when never taken
    std::string stateTaken; // when the state was taken
    FileChanges files;      // first step to last
    std::vector<SinkEvent> sinkEvents;
    std::vector<Json::Value> telemetry;
    std::vector<Json::Value> updateRequests;
    std::vector<Json::Value> restarts;
    std::vector<Json::Value> installs;
    Json::Value settingsDocument; // the settings file at the end (null when absent or unreadable)

    int processes = 0; // service processes run (restarts + 1)
    int scanSpLookups = 0;
    int scanSpReloads = 0;
    Json::Value backupOption; // last value the plug-in set as the provider's backup option
    bool pluginsBalanced = true;
    Json::Value outstanding{Json::objectValue}; // plug-in name -> gets not handed back
    int logErrors = 0;
    int logWarnings = 0;
    int logLines = 0;

    int ExpectationsMet() const;
    int ExpectationsFailed() const;
    bool Ok() const { return ExpectationsFailed() == 0; }
};

} // namespace sandbox
