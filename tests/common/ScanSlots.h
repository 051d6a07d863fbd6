#pragma once
// IAntivirusScan called by slot number, as another plug-in's compiled code calls it, for the
// whole-plug-in tests (load, faults, bad input). Each returns the slot's own result.
#include "tests/common/PluginHarness.h"

#include <json/json.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {
namespace slots {

using qv::kxsdk::AntivirusScan::HashChainSettings;
using qv::kxsdk::AntivirusScan::IAntivirusScan;
using qv::kxsdk::AntivirusScan::ScanMode;
using qv::kxsdk::AntivirusScan::ScanType;

inline DWORD RegisterEngines(void* scan, IAntivirusScan::IEnginesEvents* s) {
    return CallSlot<DWORD>(scan, kRegisterEnginesEvents, s);
}
inline DWORD RegisterScan(void* scan, IAntivirusScan::IScanEvents* s) {
    return CallSlot<DWORD>(scan, kRegisterScanEvents, s);
}
inline DWORD RegisterSettings(void* scan, IAntivirusScan::ISettingsEvents* s) {
    return CallSlot<DWORD>(scan, kRegisterSettingsEvents, s);
}
inline DWORD UnregisterEngines(void* scan, IAntivirusScan::IEnginesEvents* s) {
    return CallSlot<DWORD>(scan, kUnregisterEnginesEvents, s);
}
inline DWORD UnregisterScan(void* scan, IAntivirusScan::IScanEvents* s) {
    return CallSlot<DWORD>(scan, kUnregisterScanEvents, s);
}
inline DWORD UnregisterSettings(void* scan, IAntivirusScan::ISettingsEvents* s) {
    return CallSlot<DWORD>(scan, kUnregisterSettingsEvents, s);
}
inline DWORD GetScanType(void* scan, ScanType* type) { return CallSlot<DWORD>(scan, kGetScanType, type); }
inline DWORD GetScanModes(void* scan, ScanMode* primary, ScanMode* fallback) {
    return CallSlot<DWORD>(scan, kGetScanModes, primary, fallback);
}
inline DWORD EnableBackup(void* scan, bool on) { return CallSlot<DWORD>(scan, kEnableBackup, on); }
inline DWORD IsBackupEnabled(void* scan, bool* on) { return CallSlot<DWORD>(scan, kIsBackupEnabled, on); }
inline DWORD GetEnginesVersion(void* scan, qv::StringW* version) {
    return CallSlot<DWORD>(scan, kGetEnginesVersion, version);
}
inline DWORD GetSignaturesCount(void* scan, uint64_t* count) {
    return CallSlot<DWORD>(scan, kGetSignaturesCount, count);
}
inline DWORD SetFeatureStatus(void* scan, const qv::StringW& name, bool locked) {
    return CallSlot<DWORD, const qv::StringW&, bool>(scan, kSetFeatureStatus, name, locked);
}
inline DWORD GetFeatureStatus(void* scan, const qv::StringW& name, bool* locked) {
    return CallSlot<DWORD, const qv::StringW&, bool*>(scan, kGetFeatureStatus, name, locked);
}
inline DWORD ReportHashChain(void* scan, bool on) {
    HashChainSettings settings{on};
    return CallSlot<DWORD, const HashChainSettings&>(scan, kReportHashChain, settings);
}
inline DWORD GetHashChainSettings(void* scan, HashChainSettings* settings) {
    return CallSlot<DWORD>(scan, kGetHashChainSettings, settings);
}
inline DWORD ReportSignatureInfo(void* scan, bool on) { return CallSlot<DWORD>(scan, kReportSignatureInfo, on); }
inline DWORD IsSignatureInfoReported(void* scan, bool* on) {
    return CallSlot<DWORD>(scan, kIsSignatureInfoReported, on);
}

// The host's sibling plug-ins, each of which must be handed back after UnInit.
extern const wchar_t* const kSiblingNames[7];

// Sinks of all three containers that answer 0. The first notification named `heldEvent`
// ("reload started", "reload ended", "scan modes", "backup", "feature", "hash chain",
// "signature info") runs `hold` on the notifying thread; set both before it is fired.
struct NullSinks : IAntivirusScan::IEnginesEvents, IAntivirusScan::IScanEvents, IAntivirusScan::ISettingsEvents {
    int OnReloadStarted(const qv::StringW&) override { return Reach("reload started"); }
    int OnReloadEnded(const qv::StringW&, int) override { return Reach("reload ended"); }
    int OnScanModesChanged(ScanMode, ScanMode) override { return Reach("scan modes"); }
    int OnBackupStatusChanged(bool) override { return Reach("backup"); }
    int OnFeatureStatusChanged(const qv::StringW&, bool) override { return Reach("feature"); }
    int OnHashChainSettingsChanged(const HashChainSettings&) override { return Reach("hash chain"); }
    int OnSignatureInfoReportingChanged(bool) override { return Reach("signature info"); }

    const char* heldEvent = nullptr;
    std::function<void()> hold;

private:
    int Reach(const char* event);
    std::atomic<bool> taken_{false};
};

enum Container { kEnginesSinks, kScanSinks, kSettingsSinks, kNoSinks };

// Every IAntivirusScan slot once on the calling thread, `sinks` registered and removed again and
// the switches set to `on`; the first answer outside its slot's documented codes, "" when none.
// The registrations of `busy` are left out: they wait, as they must, for that container's
// notification in progress. `shuttingDown`: the host may be between UnInit and Init meanwhile, so
// a switch may find no store (1013) and a container may have been emptied (1627).
std::string EveryOperation(void* scan, NullSinks& sinks, bool on, Container busy = kNoSinks, bool shuttingDown = false);

// "" when every sibling plug-in got was handed back exactly once and every settings section and
// crash-handler interface released; otherwise what is still held.
std::string StillHeld(host::HostEnvironment& env);

// "" when the three switches as answered are the values `section` of the store holds for them and
// the last backup option the provider accepted carries the backup value answered; else what not.
// `absentIsOff`: a switch the store does not hold counts as off, and a provider that accepted no
// backup option yet agrees.
std::string SwitchesDisagree(void* scan, const Json::Value& section, const host::ScanSpPlugin& provider,
                             bool absentIsOff = false);

// Every query and sink container once from another thread, changing nothing: false when that
// thread is not through within qvtest::kProceedMs (the object was left locked); `wrong` names the
// first answer that was not 0.
bool AnswersFromAnotherThread(void* scan, std::string& wrong);

// Reads a settings file as the store wrote it; false when it is not one JSON object.
bool ReadSettingsFile(const std::wstring& path, Json::Value& document);
// The "/AntivirusScan" section of a settings document, or null.
Json::Value ModuleSection(const Json::Value& document);

// True when some captured log line has exactly this text and severity.
bool LineWith(const std::wstring& text, uint32_t severity);
// True when some captured log line's text starts with the prefix.
bool LineStartingWith(const std::wstring& prefix);

// Writes bytes to a file, replacing it; false on failure.
bool WriteBytes(const std::wstring& path, const std::string& bytes);
bool Exists(const std::wstring& path);
// Removes a test's own folder with everything in it, read-only entries included; links are
// removed as entries, never walked into.
void RemoveFolder(const std::wstring& path);

// Readers of the switches and locks through their slots; each expects its slot to succeed.
bool BackupOf(void* scan);
bool HashChainOf(void* scan);
bool SignatureInfoOf(void* scan);
bool FeatureLocked(void* scan, const wchar_t* name);

// A settings document holding `section` as the module's section.
Json::Value WithSection(const Json::Value& section);

// Captured-log queries beyond LineWith: number of lines with this text; the rest of the first
// line starting with `prefix` ("<none>" if none); a line of this text, severity and function.
int CountOf(const std::wstring& text);
std::wstring LineAfter(const std::wstring& prefix);
bool LineIn(const std::wstring& text, uint32_t severity, const std::wstring& function);

// Texts that are hard on wide-string code: 1 MiB, non-BMP, lone and reversed surrogates,
// format directives, empty, roots. Describe() names one briefly for a failure message.
std::vector<std::wstring> HostileTexts();
std::string Describe(const std::wstring& text);

// A host-side notification waits at most this long; one still stuck after it would keep the
// program from ending (the host waits for its notification threads), so EndIfStuck ends the
// program as a failure on WAIT_TIMEOUT and passes every other result through.
constexpr DWORD kFireTimeoutMs = 30000;
DWORD EndIfStuck(DWORD result);

} // namespace slots
} // namespace testing_support
