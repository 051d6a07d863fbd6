#pragma once
// Timing stand-ins for the host's sibling plug-ins: each forwards every call to the real plug-in
// of a host::HostEnvironment and adds the time spent there, and the number of calls, to one
// clock per sibling. The plug-in gets them through a component manager of the same kind, so that
// its start-up can be split into the siblings' own work and the plug-in's.
#include "host/HostEnvironment.h"
#include "sdk/ICtcUpdate.h"
#include "sdk/IKXSettings.h"
#include "sdk/IRemoteScan.h"
#include "sdk/IScanSp.h"
#include "sdk/IServConfig.h"
#include "sdk/ITelemetry.h"
#include "sdk/IUpdate.h"

#include <map>
#include <string>

namespace bench {

struct SiblingTotals {
    double seconds = 0;
    uint64_t calls = 0;
};

class SiblingClock {
public:
    // Time and calls per sibling name, since construction or the last Reset.
    std::map<std::wstring, SiblingTotals> totals;

    SiblingTotals All() const;
    void Reset() { totals.clear(); }
    // "productinfo 7, KXSettings 12, ..." in name order.
    std::string CallsText() const;

    // Measures one call (nested calls into the same clock count once, at the outermost level).
    class Scope {
    public:
        Scope(SiblingClock& clock, const wchar_t* sibling);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        SiblingClock& clock_;
        const wchar_t* sibling_;
        double start_;
    };

private:
    int depth_ = 0;
};

// The stand-ins, wired to one environment and one clock; `host` is what the plug-in's Init gets.
class TimedSiblings {
public:
    TimedSiblings(host::HostEnvironment& env, SiblingClock& clock);
    ~TimedSiblings();
    TimedSiblings(const TimedSiblings&) = delete;
    TimedSiblings& operator=(const TimedSiblings&) = delete;

    IQvHost* Host();

private:
    struct Impl;
    Impl* impl_;
};

} // namespace bench
