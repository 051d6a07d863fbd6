#pragma once
// Base types shared by the host and every plug-in: interface ids, the root interface, the host
// object and its component manager.
#include <windows.h>
#include <cstdint>
#include <cstring>

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
