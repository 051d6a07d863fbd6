#pragma once
// The settings store ("KXSettings"): sections of JSON documents addressed by path. Keys with a
// "/" in them are paths below the section; the store resolves them. Every set is durable by itself.
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
// Json::Value is only named here: callers that build or read values include <json/json.h>.
#include "sdk/QvBase.h"
#include <json/forwards.h>
#include <string>

struct IKXSettingsSection {
    // Each get returns false when the key is absent or holds another JSON type, leaving out as is.
    virtual bool GetValue(const wchar_t* key, Json::Value& out) = 0; // slot 0
    virtual bool GetBool(const wchar_t* key, bool& out) = 0;         // slot 1
    virtual bool GetUInt(const wchar_t* key, uint32_t& out) = 0;     // slot 2
    // Strings are exchanged as UTF-8, as the store keeps them.
    virtual bool GetString(const wchar_t* key, std::string& out) = 0;        // slot 3
    virtual bool SetValue(const wchar_t* key, const Json::Value& value) = 0; // slot 4
    virtual bool SetBool(const wchar_t* key, bool value) = 0;                // slot 5
    virtual bool SetUInt(const wchar_t* key, uint32_t value) = 0;            // slot 6
    virtual bool SetString(const wchar_t* key, const wchar_t* value) = 0;    // slot 7
    // Gives the section object back; it must not be used afterwards.
    virtual void Release() = 0; // slot 8
};

struct IKXSettings {
    // Slot 0: opens a section ("/AntivirusScan"); the three reserved arguments are 0. Null on failure.
    virtual IKXSettingsSection* OpenSection(const wchar_t* path, uint32_t reserved1, uint32_t reserved2,
                                            uint32_t reserved3) = 0;
};

namespace qv {
namespace kxsdk {
namespace ids {
constexpr GUID kSettingsId = MakeInterfaceId(0xA7437BACBCFD0D41ull, 0xA1A3677FC7A64ED6ull);
}
} // namespace kxsdk
} // namespace qv
