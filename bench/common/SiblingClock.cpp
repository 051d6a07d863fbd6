#include "bench/common/SiblingClock.h"

#include "bench/common/Harness.h"
#include "sdk/PluginIds.h"

#include <memory>
#include <vector>

namespace bench {

namespace ids = qv::kxsdk::ids;
using qv::kxsdk::AntivirusScan::IRemoteScan;
using qv::kxsdk::Update::IUpdate;

SiblingTotals SiblingClock::All() const {
    SiblingTotals all;
    for (const auto& entry : totals) {
        all.seconds += entry.second.seconds;
        all.calls += entry.second.calls;
    }
    return all;
}

std::string SiblingClock::CallsText() const {
    std::string text;
    for (const auto& entry : totals) {
        if (!text.empty()) text += ", ";
        text += std::string(entry.first.begin(), entry.first.end()) + " " + std::to_string(entry.second.calls);
    }
    return text;
}

SiblingClock::Scope::Scope(SiblingClock& clock, const wchar_t* sibling)
    : clock_(clock), sibling_(sibling), start_(clock.depth_++ == 0 ? Now() : 0) {}

SiblingClock::Scope::~Scope() {
    if (--clock_.depth_ != 0) return;
    SiblingTotals& t = clock_.totals[sibling_];
    t.seconds += Now() - start_;
    ++t.calls;
}

// Forwards one method and times it. ARGS are the parameter names, in parentheses.
#define TIMED(ret, name, params, args)                                                                                 \
    ret name params override {                                                                                         \
        SiblingClock::Scope scope(clock_, sibling_);                                                                   \
        return inner_->name args;                                                                                      \
    }

namespace {

template <class I> class Timed : public I {
public:
    Timed(I* inner, SiblingClock& clock, const wchar_t* sibling) : inner_(inner), clock_(clock), sibling_(sibling) {}

protected:
    I* inner_;
    SiblingClock& clock_;
    const wchar_t* sibling_;
};

class TimedServConfig : public Timed<IServConfig> {
public:
    using Timed::Timed;
    TIMED(const wchar_t*, GetProductName, (), ())
    TIMED(const wchar_t*, GetProductVersion, (), ())
    TIMED(const wchar_t*, GetLanguage, (), ())
    TIMED(DWORD, GetNumber, (int32_t c, const wchar_t* n, int64_t* v), (c, n, v))
    TIMED(DWORD, GetFlag, (int32_t c, const wchar_t* n, bool* v), (c, n, v))
    TIMED(DWORD, Reload, (), ())
    TIMED(const wchar_t*, GetText, (int32_t c, const wchar_t* n), (c, n))
};

class TimedSection final : public Timed<IKXSettingsSection> {
public:
    using Timed::Timed;
    TIMED(bool, GetValue, (const wchar_t* k, Json::Value& o), (k, o))
    TIMED(bool, GetBool, (const wchar_t* k, bool& o), (k, o))
    TIMED(bool, GetUInt, (const wchar_t* k, uint32_t& o), (k, o))
    TIMED(bool, GetString, (const wchar_t* k, std::string& o), (k, o))
    TIMED(bool, SetValue, (const wchar_t* k, const Json::Value& v), (k, v))
    TIMED(bool, SetBool, (const wchar_t* k, bool v), (k, v))
    TIMED(bool, SetUInt, (const wchar_t* k, uint32_t v), (k, v))
    TIMED(bool, SetString, (const wchar_t* k, const wchar_t* v), (k, v))
    void Release() override {
        {
            SiblingClock::Scope scope(clock_, sibling_);
            inner_->Release();
        }
        delete this;
    }
};

class TimedSettings : public Timed<IKXSettings> {
public:
    using Timed::Timed;
    IKXSettingsSection* OpenSection(const wchar_t* path, uint32_t a, uint32_t b, uint32_t c) override {
        SiblingClock::Scope scope(clock_, sibling_);
        IKXSettingsSection* section = inner_->OpenSection(path, a, b, c);
        return section ? new TimedSection(section, clock_, sibling_) : nullptr;
    }
};

class TimedUpdate : public Timed<IUpdate> {
public:
    using Timed::Timed;
    TIMED(DWORD, GetStatistics, (Statistics * s), (s))
    TIMED(DWORD, GetUpdateSettings, (UpdateSettings * s), (s))
    TIMED(DWORD, StartUpdate, (const UpdateRequest& r, uint32_t* s), (r, s))
    TIMED(DWORD, RestartService, (uint32_t v, const wchar_t* n), (v, n))
    TIMED(DWORD, StopUpdate, (), ())
    TIMED(DWORD, IsUpdateRunning, (bool* r), (r))
    TIMED(DWORD, SetUpdateSettings, (const UpdateSettings& s), (s))
    TIMED(DWORD, GetLastResult, (DWORD * e), (e))
    TIMED(DWORD, GetLastUpdateTime, (uint64_t * t), (t))
    TIMED(DWORD, GetComponentVersion, (const wchar_t* c, qv::StringW* v), (c, v))
    TIMED(DWORD, ScheduleUpdate, (uint32_t m), (m))
    TIMED(DWORD, CancelSchedule, (), ())
    TIMED(DWORD, Rollback, (const wchar_t* c), (c))
    TIMED(DWORD, GetDownloadProgress, (uint32_t * p), (p))
    TIMED(DWORD, VerifyComponent, (const wchar_t* c), (c))
    TIMED(DWORD, GetUpdateServer, (qv::StringW * s), (s))
    TIMED(DWORD, SetLicense, (const wchar_t* l), (l))
    TIMED(DWORD, Flush, (), ())
    TIMED(DWORD, RegisterEvents, (IEvents * s, uint32_t r, const char* f), (s, r, f))
    TIMED(DWORD, UnregisterEvents, (IEvents * s, uint32_t r, const char* f), (s, r, f))
};

class TimedRemoteScan : public Timed<IRemoteScan> {
public:
    using Timed::Timed;
    TIMED(DWORD, GetStatus, (bool* e), (e))
    TIMED(DWORD, GetServerCount, (uint32_t * c), (c))
    TIMED(DWORD, GetFallbackMode, (uint32_t * m), (m))
    TIMED(DWORD, GetServer, (wchar_t * b, uint32_t s), (b, s))
    TIMED(DWORD, GetTimeout, (uint32_t * m), (m))
    TIMED(DWORD, SetTimeout, (uint32_t m), (m))
    TIMED(DWORD, GetQueueLength, (uint32_t * l), (l))
    TIMED(DWORD, GetStatistics, (uint64_t * s, uint64_t* f), (s, f))
    TIMED(DWORD, Connect, (), ())
    TIMED(DWORD, Disconnect, (), ())
    TIMED(DWORD, IsConnected, (bool* c), (c))
    TIMED(DWORD, RegisterEvents, (IEvents * s, uint32_t r), (s, r))
    TIMED(DWORD, UnregisterEvents, (IEvents * s, uint32_t r), (s, r))
};

class TimedCtc : public Timed<ICtcUpdate> {
public:
    using Timed::Timed;
    TIMED(DWORD, GetStatus, (uint32_t * s), (s))
};

class TimedCrashHandler : public Timed<IScanCrashHandler> {
public:
    using Timed::Timed;
    TIMED(DWORD, SetOption, (uint32_t o, uint32_t v), (o, v))
    IScanCrashHandler* Inner() const { return inner_; }
    void SetInner(IScanCrashHandler* inner) { inner_ = inner; }
};

class TimedScanSp : public Timed<IScanSp> {
public:
    TimedScanSp(IScanSp* inner, SiblingClock& clock, const wchar_t* sibling)
        : Timed(inner, clock, sibling), handler_(nullptr, clock, sibling) {}
    TIMED(DWORD, SetOption, (uint32_t o, uint32_t r, const void* v, uint32_t s), (o, r, v, s))
    TIMED(DWORD, ReloadEngines, (), ())
    DWORD GetInterface(const GUID& id, void** object) override {
        SiblingClock::Scope scope(clock_, sibling_);
        DWORD error = inner_->GetInterface(id, object);
        if (object && *object && qv::SameInterfaceId(id, qv::kxsdk::scansp::kCrashHandlerId)) {
            handler_.SetInner(static_cast<IScanCrashHandler*>(*object));
            *object = static_cast<IScanCrashHandler*>(&handler_);
        }
        return error;
    }
    void ReleaseInterface(void* object) override {
        SiblingClock::Scope scope(clock_, sibling_);
        if (object == static_cast<IScanCrashHandler*>(&handler_)) object = handler_.Inner();
        inner_->ReleaseInterface(object);
    }

private:
    TimedCrashHandler handler_;
};

class TimedTelemetry : public Timed<Telemetry::ITelemetry> {
public:
    using Timed::Timed;
    TIMED(DWORD, SubmitEvent, (const Json::Value& e, int32_t f), (e, f))
};

// Serves the stand-ins in place of the real plug-ins; whether a name is present, missing or
// refused is still decided by the environment's own manager.
class TimedManager : public IComponentManager {
public:
    TimedManager(host::ComponentManager& inner, SiblingClock& clock) : inner_(inner), clock_(clock) {}
    void Add(const wchar_t* name, void* standIn) { standIns_[name] = standIn; }

    DWORD GetPlugin(const wchar_t* name, const GUID* id, void** plugin) override {
        SiblingClock::Scope scope(clock_, L"manager");
        DWORD error = inner_.GetPlugin(name, id, plugin);
        if (error == 0 && plugin && *plugin && name) {
            auto found = standIns_.find(name);
            if (found != standIns_.end()) *plugin = found->second;
        }
        return error;
    }
    DWORD ReleasePlugin(const wchar_t* name) override {
        SiblingClock::Scope scope(clock_, L"manager");
        return inner_.ReleasePlugin(name);
    }

private:
    host::ComponentManager& inner_;
    SiblingClock& clock_;
    std::map<std::wstring, void*> standIns_;
};

} // namespace

struct TimedSiblings::Impl {
    Impl(host::HostEnvironment& env, SiblingClock& clock)
        : servConfig(&env.servConfig, clock, ids::kServConfigName), settings(&env.settings, clock, ids::kSettingsName),
          update(&env.update, clock, ids::kUpdateName), remoteScan(&env.remoteScan, clock, ids::kRemoteScanName),
          ctc(&env.ctc, clock, ids::kCtcName), scanSp(&env.scanSp, clock, ids::kScanSpName),
          telemetry(&env.telemetry, clock, ids::kTelemetryName), manager(env.manager, clock), host(&manager) {
        manager.Add(ids::kServConfigName, static_cast<IServConfig*>(&servConfig));
        manager.Add(ids::kSettingsName, static_cast<IKXSettings*>(&settings));
        manager.Add(ids::kUpdateName, static_cast<IUpdate*>(&update));
        manager.Add(ids::kRemoteScanName, static_cast<IRemoteScan*>(&remoteScan));
        manager.Add(ids::kCtcName, static_cast<ICtcUpdate*>(&ctc));
        manager.Add(ids::kScanSpName, static_cast<IScanSp*>(&scanSp));
        manager.Add(ids::kTelemetryName, static_cast<Telemetry::ITelemetry*>(&telemetry));
    }
    TimedServConfig servConfig;
    TimedSettings settings;
    TimedUpdate update;
    TimedRemoteScan remoteScan;
    TimedCtc ctc;
    TimedScanSp scanSp;
    TimedTelemetry telemetry;
    TimedManager manager;
    host::HostObject host;
};

TimedSiblings::TimedSiblings(host::HostEnvironment& env, SiblingClock& clock) : impl_(new Impl(env, clock)) {}
TimedSiblings::~TimedSiblings() { delete impl_; }
IQvHost* TimedSiblings::Host() { return &impl_->host; }

} // namespace bench
