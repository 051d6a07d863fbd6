#pragma once
// The scan service provider ("scansp"), owner of the scanning engines.
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
#include "sdk/QvBase.h"

// Crash-handler interface of the provider, obtained through IScanSp::GetInterface.
struct IScanCrashHandler {
    virtual DWORD SetOption(uint32_t option, uint32_t value) = 0;
};

struct IScanSp {
    // Slot 0: sets a provider option from a value of the given size; 0 on success.
    virtual DWORD SetOption(uint32_t option, uint32_t reserved, const void* value, uint32_t size) = 0;
    // Slot 1: reloads the engines; the provider finds the new engines folder itself.
    virtual DWORD ReloadEngines() = 0;
    // Slot 2: an auxiliary interface of the provider by id; give it back with ReleaseInterface.
    virtual DWORD GetInterface(const GUID& interfaceId, void** object) = 0;
    // Slot 3
    virtual void ReleaseInterface(void* object) = 0;
};

namespace qv {
namespace kxsdk {
namespace scansp {
constexpr uint32_t kOptionBackup = 9;
constexpr uint32_t kOptionSilentSubmitDump = 6001;
constexpr uint32_t kOptionSilentSubmitDefaultAction = 6002;
// {840BC59B-90C4-A238-9049-76B0CBDE3FD0}
constexpr GUID kCrashHandlerId = {0x840BC59B, 0x90C4, 0xA238, {0x90, 0x49, 0x76, 0xB0, 0xCB, 0xDE, 0x3F, 0xD0}};
} // namespace scansp
} // namespace kxsdk
} // namespace qv

namespace qv {
namespace kxsdk {
namespace ids {
constexpr GUID kScanSpId = MakeInterfaceId(0x941E8A629E28D4D6ull, 0xADE5B3C84B7443B4ull);
}
} // namespace kxsdk
} // namespace qv
