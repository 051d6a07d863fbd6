#pragma once
// The "/AntivirusScan" section of the settings store for the length of a scope. The store stays
// pinned while the section is open, so that it cannot be handed back under an open section.
#include "plugin/ServPlugin.h"
#include "sdk/IKXSettings.h"

namespace qv {

class SettingsSection {
public:
    explicit SettingsSection(ServPlugin<IKXSettings>& holder)
        : store_(holder), section_(store_ ? store_->OpenSection(L"/AntivirusScan", 0, 0, 0) : nullptr) {}
    ~SettingsSection() {
        if (section_) section_->Release();
    }
    SettingsSection(const SettingsSection&) = delete;
    SettingsSection& operator=(const SettingsSection&) = delete;

    explicit operator bool() const { return section_ != nullptr; }
    IKXSettingsSection* operator->() const { return section_; }

private:
    ServPlugin<IKXSettings>::Use store_;
    IKXSettingsSection* section_;
};

} // namespace qv
