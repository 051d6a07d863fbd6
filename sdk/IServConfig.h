#pragma once
// The service configuration plug-in ("productinfo"): texts of the installation by (category, name).
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
#include "sdk/QvBase.h"

struct IServConfig {
    // Slots 0-5 are the host's own configuration queries; this plug-in uses none of them.
    virtual const wchar_t* GetProductName() = 0;
    virtual const wchar_t* GetProductVersion() = 0;
    virtual const wchar_t* GetLanguage() = 0;
    virtual DWORD GetNumber(int32_t category, const wchar_t* name, int64_t* value) = 0;
    virtual DWORD GetFlag(int32_t category, const wchar_t* name, bool* value) = 0;
    virtual DWORD Reload() = 0;
    // Slot 6: the text for (category, name), zero-terminated, or null when it is not configured.
    // The text stays valid while the plug-in is held.
    virtual const wchar_t* GetText(int32_t category, const wchar_t* name) = 0;
};

namespace qv {
namespace kxsdk {
namespace config {
// (category, name) pairs this plug-in reads.
constexpr int32_t kScanTypeCategory = 51;     // "BASE": "full", "light" or "remote"
constexpr int32_t kCoreTempCategory = 17;     // "scansp": the provider's core temp folder
constexpr int32_t kEnginesFolderCategory = 2; // "scansp": the provider's engines folder
constexpr int32_t kFoldersCategory = 0;       // "signaturesPatterns", "common"
} // namespace config
} // namespace kxsdk
} // namespace qv

namespace qv {
namespace kxsdk {
namespace ids {
constexpr GUID kServConfigId = MakeInterfaceId(0x666B97245666C9D0ull, 0xF666C93D61084666ull);
}
} // namespace kxsdk
} // namespace qv
