#pragma once
// One opened section of the settings store; a heap object that deletes itself on Release.
#include "sdk/IKXSettings.h"

#include <string>

namespace host {

class SettingsStore;

class SettingsSection final : public IKXSettingsSection {
public:
    SettingsSection(SettingsStore* store, const wchar_t* path);

    bool GetValue(const wchar_t* key, Json::Value& out) override;
    bool GetBool(const wchar_t* key, bool& out) override;
    bool GetUInt(const wchar_t* key, uint32_t& out) override;
    bool GetString(const wchar_t* key, std::string& out) override;
    bool SetValue(const wchar_t* key, const Json::Value& value) override;
    bool SetBool(const wchar_t* key, bool value) override;
    bool SetUInt(const wchar_t* key, uint32_t value) override;
    bool SetString(const wchar_t* key, const wchar_t* value) override;
    void Release() override;

private:
    SettingsStore* store_;
    std::wstring path_;
    std::string pathUtf8_;
};

} // namespace host
