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

// The six slots differ only in the sink kind and the direction, so each is written as one line
// and the kinds read side by side.
// NOLINTBEGIN(bugprone-macro-parentheses): the arguments are names and a type, not expressions.
#define QV_SINK_SLOT(Slot, Sink, sinks, add)                                                                           \
    DWORD AntivirusScanAL::Slot(Sink* sink) { return ChangeSinks(L"AntivirusScanAL::" #Slot, sinks, sink, add); }
// NOLINTEND(bugprone-macro-parentheses)

QV_SINK_SLOT(RegisterEnginesEvents, IEnginesEvents, enginesSinks, true)
QV_SINK_SLOT(RegisterScanEvents, IScanEvents, scanSinks, true)
QV_SINK_SLOT(RegisterSettingsEvents, ISettingsEvents, settingsSinks, true)
QV_SINK_SLOT(UnregisterEnginesEvents, IEnginesEvents, enginesSinks, false)
QV_SINK_SLOT(UnregisterScanEvents, IScanEvents, scanSinks, false)
QV_SINK_SLOT(UnregisterSettingsEvents, ISettingsEvents, settingsSinks, false)

#undef QV_SINK_SLOT

} // namespace qv
