#pragma once
// A component manager that stands between the plug-in and the host's sibling plug-ins. Every
// call the plug-in makes into a sibling goes through a forwarding wrapper that names the call
// ("site"), counts it, and fails it when it is the chosen one. Run a scenario once to learn the
// sites, then again once per site with that call failing.
//   FaultyHost faults(plugin.env);        // installs itself as the host's manager
//   faults.plan.Arm(0);  ...;  faults.plan.Sites();   // what was called
//   faults.plan.Arm(3);  ...;  faults.plan.Failed();  // the third call failed
#include "host/HostEnvironment.h"

#include <map>
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
    // Counting starts from zero; the failAt-th call (1-based) from now fails, 0 for none.
    void Arm(int failAt);
    // Calls are no longer counted nor failed.
    void Disarm();
    // Called by the wrappers: counts the call and says whether it is to fail.
    bool Hit(const std::string& site);
    // The calls counted since Arm, as "site#n" (n-th call of that site since Arm), in order.
    std::vector<std::string> Sites() const;
    // The "site#n" that was failed, or "" when none was.
    std::string Failed() const;

private:
    mutable std::mutex mutex_;
    bool armed_ = false;
    int failAt_ = 0;
    std::vector<std::string> sites_;
    std::map<std::string, int> seen_;
    std::string failed_;
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
