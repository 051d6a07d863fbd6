#pragma once
// Names under which the host's component manager serves each plug-in. The interface ids stand
// beside their interfaces (sdk/I*.h, and sdk/QvBase.h for the lifecycle faces).

namespace qv {
namespace kxsdk {
namespace ids {

constexpr const wchar_t* kServConfigName = L"productinfo";
constexpr const wchar_t* kSettingsName = L"KXSettings";
constexpr const wchar_t* kUpdateName = L"Update.UpdateAL";
constexpr const wchar_t* kRemoteScanName = L"AntivirusScan.Remote";
constexpr const wchar_t* kCtcName = L"ctc";
constexpr const wchar_t* kScanSpName = L"scansp";
constexpr const wchar_t* kTelemetryName = L"Product.Matrix";
constexpr const wchar_t* kAntivirusScanObjectName = L"AntivirusScan";

} // namespace ids
} // namespace kxsdk
} // namespace qv
