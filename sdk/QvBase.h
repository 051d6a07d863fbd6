#pragma once
// Base types shared by the host and every plug-in: interface ids, the root interface, the host
// object and its component manager, and the host's lifecycle interface with its slot numbers.
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
#include <windows.h>
#include <cstdint>
#include <cstring>

// Ids are compared as 16 bytes, whichever compiler built the caller.
static_assert(sizeof(GUID) == 16, "interface id");

namespace qv {

// A 16-byte interface id, compared as two unsigned 64-bit halves stored little-endian, the
// first half in the first eight bytes.
constexpr GUID MakeInterfaceId(uint64_t first, uint64_t second) {
    return GUID{static_cast<unsigned long>(first & 0xFFFFFFFFu),
                static_cast<unsigned short>((first >> 32) & 0xFFFFu),
                static_cast<unsigned short>((first >> 48) & 0xFFFFu),
                {static_cast<unsigned char>(second), static_cast<unsigned char>(second >> 8),
                 static_cast<unsigned char>(second >> 16), static_cast<unsigned char>(second >> 24),
                 static_cast<unsigned char>(second >> 32), static_cast<unsigned char>(second >> 40),
                 static_cast<unsigned char>(second >> 48), static_cast<unsigned char>(second >> 56)}};
}

inline bool SameInterfaceId(const GUID& a, const GUID& b) {
    uint64_t ha[2], hb[2];
    memcpy(ha, &a, sizeof ha);
    memcpy(hb, &b, sizeof hb);
    return ha[0] == hb[0] && ha[1] == hb[1];
}

} // namespace qv

// Slot 0 of every object the host talks to. Hands out a face of the object by id, without
// counting a reference; null for an id the object does not implement.
struct IQvBaseInterface {
    virtual void* QueryInterface(const GUID& interfaceId) = 0;
};

// The host's component manager: sibling plug-ins by name and interface id.
struct IComponentManager {
    // Slot 0: stores the interface in *plugin and returns 0, or returns a Windows error code.
    virtual DWORD GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) = 0;
    // Slot 1: gives back one plug-in obtained by GetPlugin, by name ("" for an unnamed holder).
    virtual DWORD ReleasePlugin(const wchar_t* name) = 0;
};

// The host object passed to Init. Slot 1 yields the component manager.
struct IQvHost : IQvBaseInterface {
    virtual IComponentManager* GetComponentManager() = 0;
};

// Plug-in lifecycle, driven by the host one call at a time. Results are Windows error codes.
struct IServPlugin : IQvBaseInterface {
    virtual DWORD Init(IQvHost* host) = 0;
    virtual DWORD UnInit() = 0;
    virtual DWORD Start() = 0;
    virtual DWORD Stop() = 0;
};

struct IDelayedServPlugin : IServPlugin {
    virtual DWORD DelayedStart() = 0;
};

namespace qv {
namespace kxsdk {

// Faces of the AntivirusScan object that share one pointer: IQvBaseInterface, IServPlugin and
// IDelayedServPlugin. kPrimaryFaceId is the one that creating the object uses.
namespace ids {
constexpr GUID kPrimaryFaceId = MakeInterfaceId(0xBC90FCA366551AB3ull, 0x514BE292F7C5425Full);
constexpr GUID kServPluginFaceId = MakeInterfaceId(0x983304D0414E2323ull, 0xE952825D7C884176ull);
constexpr GUID kDelayedServPluginFaceId = MakeInterfaceId(0x983304D6666E2323ull, 0xE952DEAD7C884176ull);
} // namespace ids

// Slot numbers of the lifecycle face (IDelayedServPlugin with its bases), the binary contract that
// a caller's compiled code uses.
namespace slots {
enum Lifecycle { kQueryInterface = 0, kInit = 1, kUnInit = 2, kStart = 3, kStop = 4, kDelayedStart = 5 };
} // namespace slots

} // namespace kxsdk
} // namespace qv
