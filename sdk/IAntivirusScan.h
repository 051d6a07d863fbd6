#pragma once
// The published interface of this plug-in, for the host's other plug-ins.
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
#include "sdk/LayoutCheck.h"
#include "sdk/QvBase.h"
#include "sdk/StringT.h"

namespace qv {
namespace kxsdk {
namespace AntivirusScan {

enum ScanType : uint32_t { RemoteOnly = 0, Light = 1, Full = 2 };

enum ScanMode : uint32_t {
    ScanModeNone = 0,
    ScanModeRemote = 1,
    ScanModeRemoteLight = 2,
    ScanModeRemoteFull = 3,
    ScanModeLocalLight = 4,
    ScanModeLocalFull = 5,
};

struct HashChainSettings {
    bool enabled;
};

// Results are Windows error codes (0 success, 87 invalid parameter, 1013 cannot write, 1359
// internal error, 1627 function failed) or 0x8004D082 while the engines are being recovered.
struct IAntivirusScan {
    struct ISettingsEvents {
        virtual int OnBackupStatusChanged(bool enabled) = 0;
        virtual int OnFeatureStatusChanged(const qv::StringW& feature, bool isLocked) = 0;
        virtual int OnHashChainSettingsChanged(const HashChainSettings& settings) = 0;
        virtual int OnSignatureInfoReportingChanged(bool enabled) = 0;
    };
    struct IEnginesEvents {
        virtual int OnReloadStarted(const qv::StringW& enginesPath) = 0;
        virtual int OnReloadEnded(const qv::StringW& enginesPath, int error) = 0;
    };
    struct IScanEvents {
        virtual int OnScanModesChanged(ScanMode primary, ScanMode fallback) = 0;
    };

    virtual DWORD RegisterEnginesEvents(IEnginesEvents* sink) = 0;     // slot 0
    virtual DWORD RegisterScanEvents(IScanEvents* sink) = 0;           // slot 1
    virtual DWORD RegisterSettingsEvents(ISettingsEvents* sink) = 0;   // slot 2
    virtual DWORD UnregisterEnginesEvents(IEnginesEvents* sink) = 0;   // slot 3
    virtual DWORD UnregisterScanEvents(IScanEvents* sink) = 0;         // slot 4
    virtual DWORD UnregisterSettingsEvents(ISettingsEvents* sink) = 0; // slot 5
    // Out-pointers must not be null (87).
    virtual DWORD GetScanType(ScanType* type) = 0;                         // slot 6
    virtual DWORD GetScanModes(ScanMode* primary, ScanMode* fallback) = 0; // slot 7
    virtual DWORD EnableBackup(bool status) = 0;                           // slot 8
    virtual DWORD IsBackupEnabled(bool* enabled) = 0;                      // slot 9
    virtual DWORD GetEnginesVersion(qv::StringW* version) = 0;             // slot 10
    virtual DWORD GetSignaturesCount(uint64_t* count) = 0;                 // slot 11
    // Feature locks are kept in the module's settings beside its own keys, a "/" in a name being
    // a step down a path. Both refuse with 87 and one error log line, storing, caching and
    // announcing nothing (isLocked is not written), a name that is empty, holds a NUL (the length
    // counts past it), is made of "/" alone, or whose first step (leading "/" skipped) is
    // "enableBackup", "reportHashChain", "reportSignatureInfo" or "engines", such as
    // "engines/folder".
    virtual DWORD SetFeatureStatus(const qv::StringW& name, bool isLocked) = 0;  // slot 12
    virtual DWORD GetFeatureStatus(const qv::StringW& name, bool* isLocked) = 0; // slot 13
    virtual DWORD ReportHashChain(const HashChainSettings& settings) = 0;        // slot 14
    virtual DWORD GetHashChainSettings(HashChainSettings* settings) = 0;         // slot 15
    virtual DWORD ReportSignatureInfo(bool enabled) = 0;                         // slot 16
    virtual DWORD IsSignatureInfoReported(bool* enabled) = 0;                    // slot 17
    virtual ~IAntivirusScan() = default;                                         // slot 18
};

constexpr DWORD kRecoveryInProgress = 0x8004D082; // XACT_E_RECOVERYINPROGRESS

// Slot numbers of IAntivirusScan, the binary contract that a caller's compiled code uses.
namespace slots {
enum Scan {
    kRegisterEnginesEvents = 0,
    kRegisterScanEvents = 1,
    kRegisterSettingsEvents = 2,
    kUnregisterEnginesEvents = 3,
    kUnregisterScanEvents = 4,
    kUnregisterSettingsEvents = 5,
    kGetScanType = 6,
    kGetScanModes = 7,
    kEnableBackup = 8,
    kIsBackupEnabled = 9,
    kGetEnginesVersion = 10,
    kGetSignaturesCount = 11,
    kSetFeatureStatus = 12,
    kGetFeatureStatus = 13,
    kReportHashChain = 14,
    kGetHashChainSettings = 15,
    kReportSignatureInfo = 16,
    kIsSignatureInfoReported = 17,
};
} // namespace slots

} // namespace AntivirusScan
} // namespace kxsdk
} // namespace qv

namespace qv {
namespace kxsdk {
namespace ids {
// The IAntivirusScan face of the AntivirusScan object.
constexpr GUID kAntivirusScanFaceId = MakeInterfaceId(0x8BD9C31D0510F31Aull, 0x51CEB7407EDE4363ull);
} // namespace ids
} // namespace kxsdk
} // namespace qv

#if QV_SDK_CHECK_LAYOUT
static_assert(sizeof(qv::kxsdk::AntivirusScan::ScanType) == 4, "scan type");
static_assert(sizeof(qv::kxsdk::AntivirusScan::ScanMode) == 4, "scan mode");
static_assert(sizeof(qv::kxsdk::AntivirusScan::HashChainSettings) == 1, "hash-chain settings");
static_assert(offsetof(qv::kxsdk::AntivirusScan::HashChainSettings, enabled) == 0, "hash-chain settings");
#endif
