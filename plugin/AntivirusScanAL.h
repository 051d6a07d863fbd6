#pragma once
// The plug-in object: the one instance the host creates through QvCreateObject.
#include "plugin/AntivirusScanSettings.h"
#include "plugin/ErrorCodes.h"
#include "plugin/ServPlugin.h"
#include "support/CriticalSection.h"
#include "support/Log.h"
#include "sdk/QvMap.h"
#include "support/SinkContainer.h"
#include "sdk/StringT.h"

#include <atomic>
#include <vector>

namespace qv {

using kxsdk::AntivirusScan::HashChainSettings;
using kxsdk::AntivirusScan::IAntivirusScan;
using kxsdk::AntivirusScan::IRemoteScan;
using kxsdk::AntivirusScan::ScanMode;
using kxsdk::AntivirusScan::ScanType;
using kxsdk::Update::IUpdate;

// Ids the object answers in QueryInterface.
GUID PrimaryInterfaceId();
GUID ServPluginInterfaceId();
GUID DelayedServPluginInterfaceId();
GUID AntivirusScanInterfaceId();

class AntivirusScanAL : public IDelayedServPlugin,
                        public IAntivirusScan,
                        public IUpdate::IEvents,
                        public IRemoteScan::IEvents {
public:
    AntivirusScanAL();
    ~AntivirusScanAL() override;
    AntivirusScanAL(const AntivirusScanAL&) = delete;
    AntivirusScanAL& operator=(const AntivirusScanAL&) = delete;

    // The id QvCreateObject's constructor asks for: the primary face.
    static GUID CreateInterfaceId() { return PrimaryInterfaceId(); }

    // IQvBaseInterface / IServPlugin / IDelayedServPlugin
    void* QueryInterface(const GUID& interfaceId) override;
    DWORD Init(IQvHost* host) override;
    DWORD UnInit() override;
    DWORD Start() override;
    DWORD Stop() override;
    DWORD DelayedStart() override;

    // IAntivirusScan: sinks
    DWORD RegisterEnginesEvents(IEnginesEvents* sink) override;
    DWORD RegisterScanEvents(IScanEvents* sink) override;
    DWORD RegisterSettingsEvents(ISettingsEvents* sink) override;
    DWORD UnregisterEnginesEvents(IEnginesEvents* sink) override;
    DWORD UnregisterScanEvents(IScanEvents* sink) override;
    DWORD UnregisterSettingsEvents(ISettingsEvents* sink) override;
    // IAntivirusScan: operations
    DWORD GetScanType(ScanType* type) override;
    DWORD GetScanModes(ScanMode* primary, ScanMode* fallback) override;
    DWORD EnableBackup(bool status) override;
    DWORD IsBackupEnabled(bool* enabled) override;
    DWORD GetEnginesVersion(StringW* version) override;
    DWORD GetSignaturesCount(uint64_t* count) override;
    DWORD SetFeatureStatus(const StringW& name, bool isLocked) override;
    DWORD GetFeatureStatus(const StringW& name, bool* isLocked) override;
    DWORD ReportHashChain(const HashChainSettings& settings) override;
    DWORD GetHashChainSettings(HashChainSettings* settings) override;
    DWORD ReportSignatureInfo(bool enabled) override;
    DWORD IsSignatureInfoReported(bool* enabled) override;

    // IUpdate::IEvents: only an installed component matters here.
    DWORD OnUpdateStarted(const wchar_t*) override { return kSuccess; }
    DWORD OnUpdateProgress(uint32_t) override { return kSuccess; }
    DWORD OnUpdateFinished(DWORD) override { return kSuccess; }
    DWORD OnComponentDownloaded(const IUpdate::ComponentInfo&) override { return kSuccess; }
    DWORD OnComponentVerified(const IUpdate::ComponentInfo&) override { return kSuccess; }
    DWORD OnComponentInstalling(const IUpdate::ComponentInfo&) override { return kSuccess; }
    DWORD OnComponentFailed(const IUpdate::ComponentInfo&, DWORD) override { return kSuccess; }
    DWORD OnComponentInstalled(const IUpdate::ComponentInfo& info, const wchar_t* enginesPath) override;
    DWORD OnComponentRolledBack(const IUpdate::ComponentInfo&) override { return kSuccess; }
    DWORD OnRestartRequired(uint32_t) override { return kSuccess; }
    DWORD OnUpdateSettingsChanged() override { return kSuccess; }
    DWORD OnScheduleChanged() override { return kSuccess; }
    DWORD OnLicenseChanged() override { return kSuccess; }
    DWORD OnProxyChanged() override { return kSuccess; }
    DWORD OnServiceStopping() override { return kSuccess; }

    // IRemoteScan::IEvents
    DWORD OnStatusChanged(bool status) override;
    DWORD OnSettingsChanged() override;
    DWORD OnConnectionChanged(bool) override { return kSuccess; }
    DWORD OnScanModeChanged() override;
    DWORD OnServerChanged(const wchar_t*) override { return kSuccess; }

private:
    IComponentManager* ComponentManager() const;
    DWORD InitSteps(IQvHost* host);

    // Module settings
    bool LoadSettings(AntivirusScanSettings& out);
    bool SaveSettings(const AntivirusScanSettings& in);
    bool InitSettings();
    void UnInitSettings();

    // Scan type and modes
    bool InitScanType();
    uint32_t InitScanMode();
    bool ComputeScanModes(ScanMode& primary, ScanMode& fallback);
    bool RefreshScanModes();
    void UnInitScanMode();

    // Switches
    template <class Field, class Notify>
    DWORD ChangeReportingSwitch(const wchar_t* function, bool enabled, Field field, Notify notify);
    bool ApplyBackupStatus(bool status);
    uint32_t RefreshBackupStatus();
    bool SaveSwitches(const AntivirusScanSettings& record);
    void BeginBackupCall();
    bool EndBackupCall();
    bool PushBackupStatus(bool& status, bool& again);
    bool ApplyCountedBackupCall(bool status);
    void RepeatBackupPush(bool again);
    DWORD GetUnlistedFeatureStatus(const wchar_t* function, const StringW& name, bool* isLocked);

    // Core temp folder and crash handler
    void InitCoreTempFolder();
    void CleanCoreTempFolder();
    void DisableScanCrashHandler();

    // Engines information and reload
    void ComputeSigInfo();
    bool GetEnginesInfoFromUpdate(StringW& version, uint64_t& count);
    bool GetEnginesInfoFromFile(const StringW& folder, StringW& version, StringW& countText);
    DWORD ReloadEngines(const StringW& path);
    void OnBeforeReload(ReloadStatus newStatus);
    void OnReloadSuccessfull();
    std::vector<StringW> GetSigFolders();
    void LogEnginesFolder();
    StringW GetScanSpFolder();
    StringW ConfigText(int32_t category, const wchar_t* name);

    // Engines recovery
    bool RecoveryStep_InvalidateCache();
    bool RecoveryStep_GenDummyMissingFiles();
    bool RecoveryStep_StartUpdateSig();
    bool RecoveryStep_RestartService();
    bool GenerateDummyFile(const StringW& folder, const wchar_t* name);
    StringW GetCommonFolder();
    void GenerateNonRemoteScanPlugins();
    void RemoveNonRemoteScanPlugins();
    void SendEnginesRecoveryStartedEvent();

    using ISettingsEvents = IAntivirusScan::ISettingsEvents;
    using IEnginesEvents = IAntivirusScan::IEnginesEvents;
    using IScanEvents = IAntivirusScan::IScanEvents;

    std::atomic<IQvHost*> hostContext{nullptr};
    ServPlugin<IScanSp> scanSpPlugin{kxsdk::ids::kScanSpName};
    ServPlugin<ICtcUpdate> ctcPlugin{kxsdk::ids::kCtcName};
    ServPlugin<IRemoteScan> remoteScanPlugin{kxsdk::ids::kRemoteScanName};
    ServPlugin<IUpdate> updatePlugin{kxsdk::ids::kUpdateName};
    ServPlugin<IKXSettings> settingsPlugin{kxsdk::ids::kSettingsName};
    ServPlugin<IServConfig> servConfigPlugin{kxsdk::ids::kServConfigName};
    Map<StringW, bool> featureLocks;
    // Guards featureLocks, settings, the two scan modes, the signature cache (version and count)
    // and coreTempFolder: the members below that change while other threads call in. scanType
    // and enginesRecoveryInProgress are written only by Init, before Start publishes the object
    // to other plug-ins, and only read afterwards, so they may be read without it.
    CriticalSection stateLock{1000};
    AntivirusScanSettings settings;
    // How the switches reach the store and the backup option the provider, under stateLock
    // (Switches.cpp): saves of the switches' record, and provider calls in flight.
    uint64_t switchSaves = 0;
    uint32_t backupCalls = 0;
    bool backupCallsOverlapped = false;
    ScanMode primaryScanMode = kxsdk::AntivirusScan::ScanModeNone;
    ScanMode fallbackScanMode = kxsdk::AntivirusScan::ScanModeNone;
    uint32_t scanType = kxsdk::AntivirusScan::Full;
    StringW signaturesVersion;
    uint64_t signaturesCount = 0;
    StringW coreTempFolder;
    bool enginesRecoveryInProgress = false;
    bool cleanAllowed = true;

    SynchronyzedObjectContainer<ISettingsEvents*> settingsSinks;
    Event<MemberFunction_1_args<ISettingsEvents, int, bool, &ISettingsEvents::OnBackupStatusChanged>>
        backupStatusChanged{settingsSinks};
    Event<MemberFunction_2_args<ISettingsEvents, int, const StringW&, bool, &ISettingsEvents::OnFeatureStatusChanged>>
        featureStatusChanged{settingsSinks};
    Event<MemberFunction_1_args<ISettingsEvents, int, const HashChainSettings&,
                                &ISettingsEvents::OnHashChainSettingsChanged>>
        hashChainSettingsChanged{settingsSinks};
    Event<MemberFunction_1_args<ISettingsEvents, int, bool, &ISettingsEvents::OnSignatureInfoReportingChanged>>
        signatureInfoReportingChanged{settingsSinks};

    SynchronyzedObjectContainer<IEnginesEvents*> enginesSinks;
    Event<MemberFunction_1_args<IEnginesEvents, int, const StringW&, &IEnginesEvents::OnReloadStarted>> reloadStarted{
        enginesSinks};
    Event<MemberFunction_2_args<IEnginesEvents, int, const StringW&, int, &IEnginesEvents::OnReloadEnded>> reloadEnded{
        enginesSinks};

    SynchronyzedObjectContainer<IScanEvents*> scanSinks;
    Event<MemberFunction_2_args<IScanEvents, int, ScanMode, ScanMode, &IScanEvents::OnScanModesChanged>>
        scanModesChanged{scanSinks};

    logging::CLogDLLRef logRef;
};

} // namespace qv
