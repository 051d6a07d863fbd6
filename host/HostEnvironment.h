#pragma once
// One host as the scan module meets it: a sibling plug-in of each kind, offered by the component
// manager under its name and id, and the host object that yields the manager.
//   host::HostEnvironment env;             // settings in memory
//   env.manager.SetMissing(L"scansp");
//   plugin->Init(&env.host);
#include "host/ComponentManager.h"
#include "host/CtcPlugin.h"
#include "host/RemoteScanPlugin.h"
#include "host/ScanSpPlugin.h"
#include "host/ServConfigPlugin.h"
#include "host/SettingsStore.h"
#include "host/TelemetryPlugin.h"
#include "host/UpdatePlugin.h"

#include <string>

namespace host {

class HostEnvironment {
public:
    // An empty settingsPath keeps the settings store in memory only.
    explicit HostEnvironment(const std::wstring& settingsPath = std::wstring());
    // Waits for notification threads still running: they may call back into the manager.
    ~HostEnvironment();
    HostEnvironment(const HostEnvironment&) = delete;
    HostEnvironment& operator=(const HostEnvironment&) = delete;

    // Offers every plug-in again, present, under its name and id (undoes SetMissing/SetRefusing).
    void OfferAll();

    ServConfigPlugin servConfig;
    SettingsStore settings;
    UpdatePlugin update;
    RemoteScanPlugin remoteScan;
    CtcPlugin ctc;
    ScanSpPlugin scanSp;
    TelemetryPlugin telemetry;
    ComponentManager manager;
    HostObject host{&manager};
};

} // namespace host
