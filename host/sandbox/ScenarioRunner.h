#pragma once
// Drives AntivirusScan.AL through a scenario the way the security service does: one service
// process at a time (a ServiceHost and the loaded plug-in), lifecycle calls on the host's
// thread, IAntivirusScan calls as a sibling plug-in would make them, and the update and
// remote-scan plug-ins' notifications on their own threads. Prints a readable trace as it goes
// and fills a RunRecord.
#include "host/sandbox/PluginModule.h"
#include "host/sandbox/RunRecord.h"
#include "host/sandbox/Scenario.h"
#include "host/sandbox/ServiceHost.h"
#include "host/sandbox/SinkRecorder.h"

#include <memory>
#include <mutex>
#include <string>

namespace sandbox {

struct RunOptions {
    bool verbose = false; // print every log message of the plug-in, not only warnings and errors
};

class ScenarioRunner {
public:
    ScenarioRunner(const Scenario& scenario, const SandboxLayout& layout, const RunOptions& options);
    ~ScenarioRunner();
    // False when the plug-in could not be loaded or created (error says why); the record holds
    // what was observed until then.
    bool Run(RunRecord& record, std::string& error);

private:
    bool StartProcess(std::string& error);
    void EndProcess();
    void RunAction(const Action& action, StepRecord& step);
    void RunShutdown(StepRecord& step);
    void DoQuery(const Action& action, StepRecord& step);
    DWORD DoInit();
    DWORD DoStop(int stepNumber);
    DWORD DoUnInit(StepRecord& step);
    DWORD DoInstall(const Action& action, StepRecord& step);
    DWORD DoRemote(const Action& action);
    void DoRestart(StepRecord& step, int stepNumber);
    // One IAntivirusScan query; the answer as JSON and as readable text.
    Json::Value Ask(const std::string& what, const std::wstring& feature, DWORD& result, std::string& shown);
    void TakeState(const std::string& when);

    void Note(const std::string& text); // host-side observation, from any thread
    void BeginStep(StepRecord& step);
    void CollectFromEnv(StepRecord& step);
    void FinishStep(StepRecord& step);
    // The plug-in's log lines since the last drain: counted, printed, kept with the step if any.
    void DrainLog(StepRecord* step);
    std::wstring KitFolder(const std::wstring& kit) const;

    const Scenario& scenario_;
    const SandboxLayout& layout_;
    RunOptions options_;
    HostState state_;
    RunRecord* record_ = nullptr;

    std::unique_ptr<ServiceHost> host_;
    PluginModule module_;
    SinkRecorder sinks_;
    bool initialised_ = false;
    size_t seenTelemetry_ = 0, seenRequests_ = 0, seenRestarts_ = 0;

    std::mutex noteMutex_;
    StepRecord* current_ = nullptr;
    FileSnapshot before_;
};

} // namespace sandbox
