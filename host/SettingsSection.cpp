#include "host/SettingsSection.h"

#include "host/SettingsFile.h"
#include "host/SettingsStore.h"

namespace host {

SettingsSection::SettingsSection(SettingsStore* store, const wchar_t* path)
    : store_(store), path_(path), pathUtf8_(settingsfile::ToUtf8(path)) {}

bool SettingsSection::GetValue(const wchar_t* key, Json::Value& out) {
    ServedPlugin::Call call(store_->served);
    try {
        Json::Value found;
        if (!store_->GetEntry(pathUtf8_, key, found)) return false;
        out = std::move(found);
        return true;
    } catch (...) {
        return false;
    }
}

bool SettingsSection::GetBool(const wchar_t* key, bool& out) {
    ServedPlugin::Call call(store_->served);
    try {
        Json::Value found;
        if (!store_->GetEntry(pathUtf8_, key, found) || !found.isBool()) return false;
        out = found.asBool();
        return true;
    } catch (...) {
        return false;
    }
}

bool SettingsSection::GetUInt(const wchar_t* key, uint32_t& out) {
    ServedPlugin::Call call(store_->served);
    try {
        Json::Value found;
        if (!store_->GetEntry(pathUtf8_, key, found)) return false;
        // Integers only: a double such as 2.0 is another JSON type for the store.
        bool integer = found.type() == Json::intValue || found.type() == Json::uintValue;
        if (!integer || !found.isUInt()) return false;
        out = found.asUInt();
        return true;
    } catch (...) {
        return false;
    }
}

bool SettingsSection::GetString(const wchar_t* key, std::string& out) {
    ServedPlugin::Call call(store_->served);
    try {
        Json::Value found;
        if (!store_->GetEntry(pathUtf8_, key, found) || !found.isString()) return false;
        out = found.asString();
        return true;
    } catch (...) {
        return false;
    }
}

bool SettingsSection::SetValue(const wchar_t* key, const Json::Value& value) {
    ServedPlugin::Call call(store_->served);
    try {
        return store_->SetEntry(path_, key, value);
    } catch (...) {
        return false;
    }
}

bool SettingsSection::SetBool(const wchar_t* key, bool value) {
    ServedPlugin::Call call(store_->served);
    try {
        return store_->SetEntry(path_, key, Json::Value(value));
    } catch (...) {
        return false;
    }
}

bool SettingsSection::SetUInt(const wchar_t* key, uint32_t value) {
    ServedPlugin::Call call(store_->served);
    try {
        return store_->SetEntry(path_, key, Json::Value(static_cast<Json::UInt>(value)));
    } catch (...) {
        return false;
    }
}

bool SettingsSection::SetString(const wchar_t* key, const wchar_t* value) {
    ServedPlugin::Call call(store_->served);
    if (!value) return false;
    try {
        return store_->SetEntry(path_, key, Json::Value(settingsfile::ToUtf8(value)));
    } catch (...) {
        return false;
    }
}

void SettingsSection::Release() {
    ServedPlugin::Call call(store_->served);
    store_->SectionReleased();
    delete this;
}

} // namespace host
