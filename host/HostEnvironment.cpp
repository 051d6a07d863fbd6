#include "host/HostEnvironment.h"

#include "sdk/PluginIds.h"

namespace host {

HostEnvironment::HostEnvironment(const std::wstring& settingsPath) {
    namespace config = qv::kxsdk::config;
    servConfig.SetText(config::kScanTypeCategory, L"BASE", L"full");
    if (!settingsPath.empty()) settings.UseFile(settingsPath);
    OfferAll();
}

HostEnvironment::~HostEnvironment() {
    update.WaitForDeliveries(INFINITE);
    remoteScan.WaitForFires(INFINITE);
}

void HostEnvironment::OfferAll() {
    namespace ids = qv::kxsdk::ids;
    manager.Offer(ids::kServConfigName, ids::kServConfigId, static_cast<IServConfig*>(&servConfig), &servConfig.served);
    manager.Offer(ids::kSettingsName, ids::kSettingsId, static_cast<IKXSettings*>(&settings), &settings.served);
    manager.Offer(ids::kUpdateName, ids::kUpdateId, static_cast<qv::kxsdk::Update::IUpdate*>(&update), &update.served);
    manager.Offer(ids::kRemoteScanName, ids::kRemoteScanId,
                  static_cast<qv::kxsdk::AntivirusScan::IRemoteScan*>(&remoteScan), &remoteScan.served);
    manager.Offer(ids::kCtcName, ids::kCtcId, static_cast<ICtcUpdate*>(&ctc), &ctc.served);
    manager.Offer(ids::kScanSpName, ids::kScanSpId, static_cast<IScanSp*>(&scanSp), &scanSp.served);
    manager.Offer(ids::kTelemetryName, ids::kTelemetryId, static_cast<Telemetry::ITelemetry*>(&telemetry),
                  &telemetry.served);
}

} // namespace host
