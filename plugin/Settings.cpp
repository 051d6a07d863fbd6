// The module's settings document "/AntivirusScan" in the host's settings store.
#include "plugin/AntivirusScanAL.h"
#include "plugin/SettingsSection.h"
#include "support/QvValue.h"

#include <json/json.h>

namespace qv {

using namespace logging;

bool AntivirusScanAL::LoadSettings(AntivirusScanSettings& out) {
    SettingsSection section(settingsPlugin);
    if (!section) return false;

    if (!section->GetBool(L"enableBackup", out.enableBackup)) out.enableBackup = false;

    Json::Value hashChain(Json::objectValue);
    if (section->GetValue(L"reportHashChain", hashChain) && hashChain.isObject()) {
        static const char kEnabled[] = "enabled";
        const Json::Value* enabled = hashChain.find(kEnabled, kEnabled + sizeof kEnabled - 1);
        if (enabled && !enabled->isNull()) {
            try {
                // Only the member is converted: whatever else the object carries, however large
                // or deep, is never walked.
                out.hashChain.enabled = Value::FromJson(*enabled).AsBool();
            } catch (const ValueException&) {
                // An ill-typed or too deeply nested member leaves the switch as it was, silently,
                // as any ill-typed key of the document does.
            }
        }
    }

    if (!section->GetBool(L"reportSignatureInfo", out.reportSignatureInfo)) out.reportSignatureInfo = false;
    if (!section->GetUInt(L"engines/reloadStatus", out.reloadStatus)) out.reloadStatus = kReloadLoaded;

    std::string folder;
    if (!section->GetString(L"engines/folder", folder)) folder.clear();
    out.enginesFolder = StringW::FromUtf8(folder);
    return true;
}

bool AntivirusScanAL::SaveSettings(const AntivirusScanSettings& in) {
    SettingsSection section(settingsPlugin);
    if (!section) return false;
    if (!section->SetBool(L"enableBackup", in.enableBackup)) return false;
    try {
        Value hashChain;
        if (!hashChain.Entry(L"enabled").SetBool(in.hashChain.enabled)) return false;
        if (!section->SetValue(L"reportHashChain", hashChain.ToJson())) return false;
    } catch (const ValueException&) {
        return false;
    }
    return section->SetBool(L"reportSignatureInfo", in.reportSignatureInfo);
}

bool AntivirusScanAL::InitSettings() {
    QV_TRACE(L"AntivirusScanAL::InitSettings");
    AntivirusScanSettings loaded;
    if (!LoadSettings(loaded)) {
        QV_LOG(LOG_SEV_WARNING, L"Cannot load settings.");
        loaded.enableBackup = false;
        loaded.reportSignatureInfo = false;
        loaded.hashChain.enabled = false;
        // A fresh store receives the defaults.
        SaveSettings(loaded);
    }
    QV_LOG(LOG_SEV_INFO, L"[backup = %d]", loaded.enableBackup ? 1 : 0);
    auto lock = stateLock.Lock();
    settings = loaded;
    return true;
}

void AntivirusScanAL::UnInitSettings() { QV_TRACE(L"AntivirusScanAL::UnInitSettings"); }

} // namespace qv
