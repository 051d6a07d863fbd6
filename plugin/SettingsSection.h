#pragma once
// The "/AntivirusScan" section of the settings store for the length of a scope.
#include "sdk/IKXSettings.h"

namespace qv {

class SettingsSection {
public:
    explicit SettingsSection(IKXSettings* store)
        : section_(store ? store->OpenSection(L"/AntivirusScan", 0, 0, 0) : nullptr) {}
    ~SettingsSection() {
        if (section_) section_->Release();
    }
    SettingsSection(const SettingsSection&) = delete;
    SettingsSection& operator=(const SettingsSection&) = delete;

    explicit operator bool() const { return section_ != nullptr; }
    IKXSettingsSection* operator->() const { return section_; }

private:
    IKXSettingsSection* section_;
};

} // namespace qv
