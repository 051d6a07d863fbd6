// The module's settings document "/AntivirusScan" in the host's settings store.
#include "plugin/AntivirusScanAL.h"
#include "plugin/SettingsSection.h"
#include "support/QvValue.h"

#include <json/json.h>
#include <utility>

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

namespace {
// {"enabled": value}, built through the typed value. False when it could not be built.
bool HashChainDocument(bool enabled, Json::Value& out) {
    try {
        Value hashChain;
        if (!hashChain.Entry(L"enabled").SetBool(enabled)) return false;
        out = hashChain.ToJson();
        return true;
    } catch (const ValueException&) {
        return false;
    }
}
} // namespace

// Everything that may run out of memory is built before the first write: a save that cannot be
// built leaves the store as it was, so store and record still agree. A store that refuses a set
// keeps the keys already written, and the later ones are not tried.
bool AntivirusScanAL::SaveSettings(const AntivirusScanSettings& in) {
    Json::Value hashChain;
    if (!HashChainDocument(in.hashChain.enabled, hashChain)) return false;
    SettingsSection section(settingsPlugin);
    if (!section) return false;
    if (!section->SetBool(L"enableBackup", in.enableBackup)) return false;
    if (!section->SetValue(L"reportHashChain", hashChain)) return false;
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
    // Moved, not copied: a copy of the folder could run out of memory half-way through the record.
    settings = std::move(loaded);
    return true;
}

void AntivirusScanAL::UnInitSettings() { QV_TRACE(L"AntivirusScanAL::UnInitSettings"); }

} // namespace qv
