// Registration of the sinks that other plug-ins subscribe with.
#include "plugin/AntivirusScanAL.h"
#include "plugin/SlotGuard.h"

namespace qv {

namespace {
template <class Container, class Sink>
DWORD ChangeSinks(const wchar_t* function, Container& sinks, Sink* sink, bool add) {
    if (IsNullArgument(function, sink)) return kInvalidParameter;
    return GuardedSlot(function, [&]() -> DWORD { return add ? sinks.Register(sink) : sinks.Unregister(sink); });
}
} // namespace

DWORD AntivirusScanAL::RegisterEnginesEvents(IEnginesEvents* sink) {
    return ChangeSinks(L"AntivirusScanAL::RegisterEnginesEvents", enginesSinks, sink, true);
}
DWORD AntivirusScanAL::RegisterScanEvents(IScanEvents* sink) {
    return ChangeSinks(L"AntivirusScanAL::RegisterScanEvents", scanSinks, sink, true);
}
DWORD AntivirusScanAL::RegisterSettingsEvents(ISettingsEvents* sink) {
    return ChangeSinks(L"AntivirusScanAL::RegisterSettingsEvents", settingsSinks, sink, true);
}
DWORD AntivirusScanAL::UnregisterEnginesEvents(IEnginesEvents* sink) {
    return ChangeSinks(L"AntivirusScanAL::UnregisterEnginesEvents", enginesSinks, sink, false);
}
DWORD AntivirusScanAL::UnregisterScanEvents(IScanEvents* sink) {
    return ChangeSinks(L"AntivirusScanAL::UnregisterScanEvents", scanSinks, sink, false);
}
DWORD AntivirusScanAL::UnregisterSettingsEvents(ISettingsEvents* sink) {
    return ChangeSinks(L"AntivirusScanAL::UnregisterSettingsEvents", settingsSinks, sink, false);
}

} // namespace qv
