#pragma once
// A component manager that stands between the plug-in and the host's sibling plug-ins. Every
// call the plug-in makes into a sibling goes through a forwarding wrapper that names the call
// ("site": plug-in, operation and the argument that tells calls apart), records it, and fails
// it when it is the chosen one. A fault is chosen by what it hits, never by its position.
//   FaultyHost faults(plugin.env);        // installs itself as the host's manager
//   faults.plan.Arm();  ...;  faults.plan.Sites();                   // what was called, in order
//   faults.plan.Arm("ScanSp::ReloadEngines");  ...;  faults.plan.Failed();  // it was called and failed
#include "host/HostEnvironment.h"

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace testing_support {

// The error code a failed sibling call answers with (ERROR_GEN_FAILURE).
constexpr DWORD kInjectedError = 31;
// The code of a refused plug-in (ERROR_ACCESS_DENIED).
constexpr DWORD kRefusedError = 5;

class FaultPlan {
public:
    // How the chosen call fails: with its error answer, or by throwing out of the sibling, which
    // the contract forbids but a faulty sibling may do all the same.
    enum class Failure { Error, Throw, OutOfMemory };

    // Recording starts afresh; the `occurrence`-th call of `site` from now fails (none for "").
    void Arm(const std::string& site = std::string(), int occurrence = 1, Failure how = Failure::Error);
    // Calls are no longer recorded nor failed.
    void Disarm();
    // Called by the wrappers: records the call and says whether it is to fail, or throws.
    bool Hit(const std::string& site);
    // The calls recorded since Arm, in order.
    std::vector<std::string> Sites() const;
    // Whether the armed call was made (and failed).
    bool Failed() const;
    // The first call of `site` from now, armed or not, runs `hold` on the calling thread before
    // it goes on: the plug-in stays inside that call until `hold` returns.
    void HoldFirst(const std::string& site, std::function<void()> hold);

private:
    mutable std::mutex mutex_;
    bool armed_ = false;
    std::string target_;
    int occurrence_ = 0;
    Failure how_ = Failure::Error;
    int seen_ = 0;
    std::vector<std::string> sites_;
    bool failed_ = false;
    std::string holdSite_;
    std::function<void()> hold_;
};

class FaultyServConfig;
class FaultySettings;
class FaultyUpdate;
class FaultyRemoteScan;
class FaultyScanSp;
class FaultyTelemetry;

class FaultyHost : public IComponentManager {
public:
    explicit FaultyHost(host::HostEnvironment& env);
    ~FaultyHost();
    FaultyHost(const FaultyHost&) = delete;
    FaultyHost& operator=(const FaultyHost&) = delete;

    DWORD GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) override;
    DWORD ReleasePlugin(const wchar_t* name) override;

    // Wrappers of the scan provider's crash handler still handed out.
    int OutstandingCrashHandlers() const;

    // How a failed GetPlugin answers: as a missing plug-in (1168, nothing written), as a refusal
    // (kRefusedError, nothing written), or as a refusal that writes the interface all the same.
    enum class Refusal { Missing, Refused, RefusedButWritten };
    Refusal refusal = Refusal::Missing;

    FaultPlan plan;
    host::HostEnvironment& env;

private:
    // The face handed out for a plug-in name: its wrapper, or the host's own plug-in.
    void* Face(const std::wstring& name, void* real);

    std::unique_ptr<FaultyServConfig> servConfig_;
    std::unique_ptr<FaultySettings> settings_;
    std::unique_ptr<FaultyUpdate> update_;
    std::unique_ptr<FaultyRemoteScan> remoteScan_;
    std::unique_ptr<FaultyScanSp> scanSp_;
    std::unique_ptr<FaultyTelemetry> telemetry_;
};

} // namespace testing_support
