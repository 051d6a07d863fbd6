#include "tests/common/FaultInjection.h"

#include "sdk/PluginIds.h"

#include <atomic>
#include <new>
#include <stdexcept>

namespace testing_support {

using qv::kxsdk::AntivirusScan::IRemoteScan;
using qv::kxsdk::Update::IUpdate;
namespace ids = qv::kxsdk::ids;

void FaultPlan::Arm(const std::string& site, int occurrence, Failure how) {
    std::lock_guard<std::mutex> lock(mutex_);
    armed_ = true;
    target_ = site;
    occurrence_ = occurrence;
    how_ = how;
    seen_ = 0;
    sites_.clear();
    failed_ = false;
}

void FaultPlan::Disarm() {
    std::lock_guard<std::mutex> lock(mutex_);
    armed_ = false;
}

void FaultPlan::HoldFirst(const std::string& site, std::function<void()> hold) {
    std::lock_guard<std::mutex> lock(mutex_);
    holdSite_ = site;
    hold_ = std::move(hold);
}

bool FaultPlan::Hit(const std::string& site) {
    std::function<void()> hold;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (hold_ && site == holdSite_) hold.swap(hold_);
    }
    if (hold) hold();
    Failure how;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!armed_) return false;
        sites_.push_back(site);
        if (target_.empty() || site != target_ || ++seen_ != occurrence_) return false;
        failed_ = true;
        how = how_;
    }
    if (how == Failure::OutOfMemory) throw std::bad_alloc();
    if (how == Failure::Throw) throw std::runtime_error("injected by " + site);
    return true;
}

std::vector<std::string> FaultPlan::Sites() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sites_;
}

bool FaultPlan::Failed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return failed_;
}

namespace {

std::string Narrow(const wchar_t* text) {
    std::string out;
    for (const wchar_t* p = text ? text : L""; *p; ++p) out += *p < 128 ? static_cast<char>(*p) : '?';
    return out;
}

} // namespace

class FaultyServConfig : public IServConfig {
public:
    FaultyServConfig(IServConfig* real, FaultPlan& plan) : real_(real), plan_(plan) {}
    const wchar_t* GetProductName() override { return real_->GetProductName(); }
    const wchar_t* GetProductVersion() override { return real_->GetProductVersion(); }
    const wchar_t* GetLanguage() override { return real_->GetLanguage(); }
    DWORD GetNumber(int32_t c, const wchar_t* n, int64_t* v) override { return real_->GetNumber(c, n, v); }
    DWORD GetFlag(int32_t c, const wchar_t* n, bool* v) override { return real_->GetFlag(c, n, v); }
    DWORD Reload() override { return real_->Reload(); }
    // A failed query answers as an unconfigured one.
    const wchar_t* GetText(int32_t category, const wchar_t* name) override {
        if (plan_.Hit("ServConfig::GetText(" + std::to_string(category) + "," + Narrow(name) + ")")) return nullptr;
        return real_->GetText(category, name);
    }

private:
    IServConfig* real_;
    FaultPlan& plan_;
};

class FaultySection final : public IKXSettingsSection {
public:
    FaultySection(IKXSettingsSection* real, FaultPlan& plan) : real_(real), plan_(plan) {}
    bool GetValue(const wchar_t* key, Json::Value& out) override {
        return !Fail("GetValue", key) && real_->GetValue(key, out);
    }
    bool GetBool(const wchar_t* key, bool& out) override { return !Fail("GetBool", key) && real_->GetBool(key, out); }
    bool GetUInt(const wchar_t* key, uint32_t& out) override {
        return !Fail("GetUInt", key) && real_->GetUInt(key, out);
    }
    bool GetString(const wchar_t* key, std::string& out) override {
        return !Fail("GetString", key) && real_->GetString(key, out);
    }
    bool SetValue(const wchar_t* key, const Json::Value& value) override {
        return !Fail("SetValue", key) && real_->SetValue(key, value);
    }
    bool SetBool(const wchar_t* key, bool value) override {
        return !Fail("SetBool", key) && real_->SetBool(key, value);
    }
    bool SetUInt(const wchar_t* key, uint32_t value) override {
        return !Fail("SetUInt", key) && real_->SetUInt(key, value);
    }
    bool SetString(const wchar_t* key, const wchar_t* value) override {
        return !Fail("SetString", key) && real_->SetString(key, value);
    }
    void Release() override {
        real_->Release();
        delete this;
    }

private:
    bool Fail(const char* op, const wchar_t* key) {
        return plan_.Hit(std::string("Section::") + op + "(" + Narrow(key) + ")");
    }
    IKXSettingsSection* real_;
    FaultPlan& plan_;
};

class FaultySettings : public IKXSettings {
public:
    FaultySettings(IKXSettings* real, FaultPlan& plan) : real_(real), plan_(plan) {}
    IKXSettingsSection* OpenSection(const wchar_t* path, uint32_t a, uint32_t b, uint32_t c) override {
        if (plan_.Hit("Settings::OpenSection(" + Narrow(path) + ")")) return nullptr;
        IKXSettingsSection* section = real_->OpenSection(path, a, b, c);
        return section ? new FaultySection(section, plan_) : nullptr;
    }

private:
    IKXSettings* real_;
    FaultPlan& plan_;
};

class FaultyUpdate : public IUpdate {
public:
    FaultyUpdate(IUpdate* real, FaultPlan& plan) : real_(real), plan_(plan) {}
    DWORD GetStatistics(Statistics* s) override {
        return plan_.Hit("Update::GetStatistics") ? kInjectedError : real_->GetStatistics(s);
    }
    DWORD GetUpdateSettings(UpdateSettings* s) override {
        return plan_.Hit("Update::GetUpdateSettings") ? kInjectedError : real_->GetUpdateSettings(s);
    }
    DWORD StartUpdate(const UpdateRequest& r, uint32_t* status) override {
        return plan_.Hit("Update::StartUpdate") ? kInjectedError : real_->StartUpdate(r, status);
    }
    DWORD RestartService(uint32_t value, const wchar_t* service) override {
        return plan_.Hit("Update::RestartService") ? kInjectedError : real_->RestartService(value, service);
    }
    DWORD StopUpdate() override { return Other("StopUpdate"); }
    DWORD IsUpdateRunning(bool*) override { return Other("IsUpdateRunning"); }
    DWORD SetUpdateSettings(const UpdateSettings&) override { return Other("SetUpdateSettings"); }
    DWORD GetLastResult(DWORD*) override { return Other("GetLastResult"); }
    DWORD GetLastUpdateTime(uint64_t*) override { return Other("GetLastUpdateTime"); }
    DWORD GetComponentVersion(const wchar_t*, qv::StringW*) override { return Other("GetComponentVersion"); }
    DWORD ScheduleUpdate(uint32_t) override { return Other("ScheduleUpdate"); }
    DWORD CancelSchedule() override { return Other("CancelSchedule"); }
    DWORD Rollback(const wchar_t*) override { return Other("Rollback"); }
    DWORD GetDownloadProgress(uint32_t*) override { return Other("GetDownloadProgress"); }
    DWORD VerifyComponent(const wchar_t*) override { return Other("VerifyComponent"); }
    DWORD GetUpdateServer(qv::StringW*) override { return Other("GetUpdateServer"); }
    DWORD SetLicense(const wchar_t*) override { return Other("SetLicense"); }
    DWORD Flush() override { return Other("Flush"); }
    DWORD RegisterEvents(IEvents* sink, uint32_t reserved, const char* filter) override {
        return plan_.Hit("Update::RegisterEvents") ? kInjectedError : real_->RegisterEvents(sink, reserved, filter);
    }
    DWORD UnregisterEvents(IEvents* sink, uint32_t reserved, const char* filter) override {
        return plan_.Hit("Update::UnregisterEvents") ? kInjectedError : real_->UnregisterEvents(sink, reserved, filter);
    }

private:
    // Operations the plug-in has no business calling: counted, so that a call shows up as an
    // unknown site, and answered as the host does.
    DWORD Other(const char* op) {
        plan_.Hit(std::string("Update::") + op);
        return ERROR_NOT_SUPPORTED;
    }
    IUpdate* real_;
    FaultPlan& plan_;
};

class FaultyRemoteScan : public IRemoteScan {
public:
    FaultyRemoteScan(IRemoteScan* real, FaultPlan& plan) : real_(real), plan_(plan) {}
    // A failed query answers with the error and leaves its output alone.
    DWORD GetStatus(bool* v) override {
        return plan_.Hit("RemoteScan::GetStatus") ? kInjectedError : real_->GetStatus(v);
    }
    DWORD GetServerCount(uint32_t* v) override {
        return plan_.Hit("RemoteScan::GetServerCount") ? kInjectedError : real_->GetServerCount(v);
    }
    DWORD GetFallbackMode(uint32_t* v) override {
        return plan_.Hit("RemoteScan::GetFallbackMode") ? kInjectedError : real_->GetFallbackMode(v);
    }
    DWORD GetServer(wchar_t*, uint32_t) override { return Other("GetServer"); }
    DWORD GetTimeout(uint32_t*) override { return Other("GetTimeout"); }
    DWORD SetTimeout(uint32_t) override { return Other("SetTimeout"); }
    DWORD GetQueueLength(uint32_t*) override { return Other("GetQueueLength"); }
    DWORD GetStatistics(uint64_t*, uint64_t*) override { return Other("GetStatistics"); }
    DWORD Connect() override { return Other("Connect"); }
    DWORD Disconnect() override { return Other("Disconnect"); }
    DWORD IsConnected(bool*) override { return Other("IsConnected"); }
    DWORD RegisterEvents(IEvents* sink, uint32_t reserved) override {
        return plan_.Hit("RemoteScan::RegisterEvents") ? kInjectedError : real_->RegisterEvents(sink, reserved);
    }
    DWORD UnregisterEvents(IEvents* sink, uint32_t reserved) override {
        return plan_.Hit("RemoteScan::UnregisterEvents") ? kInjectedError : real_->UnregisterEvents(sink, reserved);
    }

private:
    DWORD Other(const char* op) {
        plan_.Hit(std::string("RemoteScan::") + op);
        return ERROR_NOT_SUPPORTED;
    }
    IRemoteScan* real_;
    FaultPlan& plan_;
};

class FaultyCrashHandler final : public IScanCrashHandler {
public:
    FaultyCrashHandler(IScanCrashHandler* real, FaultPlan& plan) : real(real), plan_(plan) {}
    DWORD SetOption(uint32_t option, uint32_t value) override {
        if (plan_.Hit("CrashHandler::SetOption(" + std::to_string(option) + ")")) return kInjectedError;
        return real->SetOption(option, value);
    }
    IScanCrashHandler* real;

private:
    FaultPlan& plan_;
};

class FaultyScanSp : public IScanSp {
public:
    FaultyScanSp(IScanSp* real, FaultPlan& plan) : real_(real), plan_(plan) {}
    DWORD SetOption(uint32_t option, uint32_t reserved, const void* value, uint32_t size) override {
        if (plan_.Hit("ScanSp::SetOption(" + std::to_string(option) + ")")) return kInjectedError;
        return real_->SetOption(option, reserved, value, size);
    }
    DWORD ReloadEngines() override {
        return plan_.Hit("ScanSp::ReloadEngines") ? kInjectedError : real_->ReloadEngines();
    }
    DWORD GetInterface(const GUID& id, void** object) override {
        if (plan_.Hit("ScanSp::GetInterface")) return kInjectedError;
        DWORD error = real_->GetInterface(id, object);
        if (object && *object) {
            auto* wrapper = new FaultyCrashHandler(static_cast<IScanCrashHandler*>(*object), plan_);
            std::lock_guard<std::mutex> lock(mutex_);
            wrappers_.insert(wrapper);
            *object = wrapper;
        }
        return error;
    }
    void ReleaseInterface(void* object) override {
        FaultyCrashHandler* wrapper = static_cast<FaultyCrashHandler*>(object);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!wrappers_.erase(wrapper)) {
                real_->ReleaseInterface(object); // not ours: the host judges it
                return;
            }
        }
        real_->ReleaseInterface(wrapper->real);
        delete wrapper;
    }
    int Outstanding() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(wrappers_.size());
    }

private:
    IScanSp* real_;
    FaultPlan& plan_;
    mutable std::mutex mutex_;
    std::set<FaultyCrashHandler*> wrappers_;
};

class FaultyTelemetry : public Telemetry::ITelemetry {
public:
    FaultyTelemetry(Telemetry::ITelemetry* real, FaultPlan& plan) : real_(real), plan_(plan) {}
    DWORD SubmitEvent(const Json::Value& event, int32_t flags) override {
        return plan_.Hit("Telemetry::SubmitEvent") ? kInjectedError : real_->SubmitEvent(event, flags);
    }

private:
    Telemetry::ITelemetry* real_;
    FaultPlan& plan_;
};

FaultyHost::FaultyHost(host::HostEnvironment& environment)
    : env(environment), servConfig_(new FaultyServConfig(&env.servConfig, plan)),
      settings_(new FaultySettings(&env.settings, plan)), update_(new FaultyUpdate(&env.update, plan)),
      remoteScan_(new FaultyRemoteScan(&env.remoteScan, plan)), scanSp_(new FaultyScanSp(&env.scanSp, plan)),
      telemetry_(new FaultyTelemetry(&env.telemetry, plan)) {
    env.host.SetComponentManager(this);
}

FaultyHost::~FaultyHost() { env.host.SetComponentManager(&env.manager); }

int FaultyHost::OutstandingCrashHandlers() const { return scanSp_->Outstanding(); }

void* FaultyHost::Face(const std::wstring& n, void* real) {
    if (n == ids::kServConfigName) return static_cast<IServConfig*>(servConfig_.get());
    if (n == ids::kSettingsName) return static_cast<IKXSettings*>(settings_.get());
    if (n == ids::kUpdateName) return static_cast<IUpdate*>(update_.get());
    if (n == ids::kRemoteScanName) return static_cast<IRemoteScan*>(remoteScan_.get());
    if (n == ids::kScanSpName) return static_cast<IScanSp*>(scanSp_.get());
    if (n == ids::kTelemetryName) return static_cast<Telemetry::ITelemetry*>(telemetry_.get());
    if (n == ids::kCtcName) return static_cast<ICtcUpdate*>(&env.ctc);
    return real;
}

DWORD FaultyHost::GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) {
    if (plan.Hit("Manager::GetPlugin(" + Narrow(name) + ")")) {
        if (refusal == Refusal::Missing) return ERROR_NOT_FOUND;
        // Nothing is counted as got: a plug-in refused is not to be released.
        if (refusal == Refusal::RefusedButWritten && plugin && name) *plugin = Face(name, nullptr);
        return kRefusedError;
    }
    DWORD error = env.manager.GetPlugin(name, interfaceId, plugin);
    if (!plugin || !*plugin || !name) return error;
    *plugin = Face(name, *plugin);
    return error;
}

// A failed release still gives the plug-in back; only the answer is an error (or an exception).
DWORD FaultyHost::ReleasePlugin(const wchar_t* name) {
    DWORD error = env.manager.ReleasePlugin(name);
    return plan.Hit("Manager::ReleasePlugin(" + Narrow(name) + ")") ? kInjectedError : error;
}

} // namespace testing_support
