#pragma once
// Names and interface ids under which the host's component manager serves each plug-in.
#include "sdk/QvBase.h"

namespace qv { namespace kxsdk { namespace ids {

constexpr const wchar_t* kServConfigName = L"productinfo";
constexpr const wchar_t* kSettingsName = L"KXSettings";
constexpr const wchar_t* kUpdateName = L"Update.UpdateAL";
constexpr const wchar_t* kRemoteScanName = L"AntivirusScan.Remote";
constexpr const wchar_t* kCtcName = L"ctc";
constexpr const wchar_t* kScanSpName = L"scansp";
constexpr const wchar_t* kTelemetryName = L"Product.Matrix";
constexpr const wchar_t* kAntivirusScanObjectName = L"AntivirusScan";

constexpr GUID kServConfigId = MakeInterfaceId(0x666B97245666C9D0ull, 0xF666C93D61084666ull);
constexpr GUID kSettingsId = MakeInterfaceId(0xA7437BACBCFD0D41ull, 0xA1A3677FC7A64ED6ull);
constexpr GUID kUpdateId = MakeInterfaceId(0xBBEE167D7F70900Dull, 0x0EADD2510D2D4B63ull);
constexpr GUID kRemoteScanId = MakeInterfaceId(0xBB4746611F985942ull, 0xB58B31E4438C42E6ull);
constexpr GUID kCtcId = MakeInterfaceId(0x9BB34F4A24F25A8Cull, 0x1164EB8B868244DDull);
constexpr GUID kScanSpId = MakeInterfaceId(0x941E8A629E28D4D6ull, 0xADE5B3C84B7443B4ull);
// "872DA2C0-CDA8-4CEF-8348-02768709E306": the last two groups form the first half, the first
// three groups the second half.
constexpr GUID kTelemetryId = MakeInterfaceId(0x834802768709E306ull, 0x872DA2C0CDA84CEFull);

// Faces of the AntivirusScan object.
constexpr GUID kPrimaryFaceId = MakeInterfaceId(0xBC90FCA366551AB3ull, 0x514BE292F7C5425Full);
constexpr GUID kServPluginFaceId = MakeInterfaceId(0x983304D0414E2323ull, 0xE952825D7C884176ull);
constexpr GUID kDelayedServPluginFaceId = MakeInterfaceId(0x983304D6666E2323ull, 0xE952DEAD7C884176ull);
constexpr GUID kAntivirusScanFaceId = MakeInterfaceId(0x8BD9C31D0510F31Aull, 0x51CEB7407EDE4363ull);

}}} // namespace qv::kxsdk::ids
