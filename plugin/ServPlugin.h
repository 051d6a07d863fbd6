#pragma once
// Typed holder of a sibling plug-in obtained from the host's component manager by name and id.
#include "sdk/IAntivirusScan.h"
#include "sdk/ICtcUpdate.h"
#include "sdk/IKXSettings.h"
#include "sdk/IRemoteScan.h"
#include "sdk/IScanSp.h"
#include "sdk/IServConfig.h"
#include "sdk/ITelemetry.h"
#include "sdk/IUpdate.h"
#include "sdk/PluginIds.h"
#include "support/Log.h"
#include "support/StringT.h"

namespace qv {

// Id and trace name of each plug-in interface the object looks up.
template <class T> struct PluginTraits;

#define QV_PLUGIN_TRAITS(T, TEXT, ID)                                                             \
    template <> struct PluginTraits<T> {                                                          \
        static GUID Id() { return ID; }                                                           \
        static constexpr const wchar_t* kTraceName = L"ServPlugin<struct " TEXT ">::GetPlugin";    \
    }

QV_PLUGIN_TRAITS(IServConfig, L"IServConfig", kxsdk::ids::kServConfigId);
QV_PLUGIN_TRAITS(IKXSettings, L"IKXSettings", kxsdk::ids::kSettingsId);
QV_PLUGIN_TRAITS(kxsdk::AntivirusScan::IRemoteScan, L"qv::kxsdk::AntivirusScan::IRemoteScan",
                 kxsdk::ids::kRemoteScanId);
QV_PLUGIN_TRAITS(ICtcUpdate, L"ICtcUpdate", kxsdk::ids::kCtcId);
QV_PLUGIN_TRAITS(IScanSp, L"IScanSp", kxsdk::ids::kScanSpId);
#undef QV_PLUGIN_TRAITS

template <> struct PluginTraits<kxsdk::Update::IUpdate> {
    static GUID Id() {
        static const GUID id = kxsdk::ids::kUpdateId;
        return id;
    }
    static constexpr const wchar_t* kTraceName = L"ServPlugin<struct qv::kxsdk::Update::IUpdate>::GetPlugin";
};

// The host's telemetry plug-in is registered under these exact 16 bytes: the last two groups of
// the text form the first half and the first three groups the second half.
GUID TelemetryIdFromText(const wchar_t* text);

template <> struct PluginTraits<Telemetry::ITelemetry> {
    static GUID Id() { return TelemetryIdFromText(L"872DA2C0-CDA8-4CEF-8348-02768709E306"); }
    static constexpr const wchar_t* kTraceName = L"ServPlugin<struct Telemetry::ITelemetry>::GetPlugin";
};

template <class T> class ServPlugin {
public:
    explicit ServPlugin(const wchar_t* name) : name_(name) {}
    ~ServPlugin() { Release(); }
    ServPlugin(const ServPlugin&) = delete;
    ServPlugin& operator=(const ServPlugin&) = delete;

    // True when an interface is held afterwards. No retry: a plug-in that is not available now
    // is reported missing, and the caller decides.
    bool GetPlugin(IComponentManager* componentManager) {
        QV_TRACE(PluginTraits<T>::kTraceName);
        Release();
        if (!componentManager) {
            QV_LOG(logging::LOG_SEV_ERROR, L"Null component manager");
            return false;
        }
        GUID id = PluginTraits<T>::Id();
        void* raw = nullptr;
        DWORD error = componentManager->GetPlugin(name_.c_str(), &id, &raw);
        plugin_ = static_cast<T*>(raw);
        if (error == 0) {
            manager_ = componentManager;
        } else {
            QV_LOG(logging::LOG_SEV_WARNING, L"Error %d getting plugin \"%s\"", static_cast<int>(error), name_.c_str());
        }
        return plugin_ != nullptr;
    }

    // Hands the plug-in back to the manager that served it, by name.
    void Release() {
        if (!plugin_) return;
        if (manager_) manager_->ReleasePlugin(name_.c_str());
        manager_ = nullptr;
        plugin_ = nullptr;
    }

    T* Get() const { return plugin_; }
    T* operator->() const { return plugin_; }
    explicit operator bool() const { return plugin_ != nullptr; }
    IComponentManager* Manager() const { return manager_; }
    const StringW& Name() const { return name_; }

private:
    IComponentManager* manager_ = nullptr;
    T* plugin_ = nullptr;
    StringW name_;
};

} // namespace qv
