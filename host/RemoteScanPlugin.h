#pragma once
// The remote-scan plug-in ("AntivirusScan.Remote") as the host serves it: its state is set by the
// host, and its three notifications are delivered to the registered sinks on a thread of their own.
#include "host/ServedPlugin.h"
#include "host/NotifyThreads.h"
#include "host/SinkRegistry.h"
#include "sdk/IRemoteScan.h"

#include <mutex>
#include <vector>

namespace host {

struct RemoteScanRegistration {
    qv::kxsdk::AntivirusScan::IRemoteScan::IEvents* sink = nullptr;
    uint32_t reserved = 0;
    DWORD result = 0;
};

class RemoteScanPlugin : public qv::kxsdk::AntivirusScan::IRemoteScan,
                         public SinkRegistry<qv::kxsdk::AntivirusScan::IRemoteScan::IEvents, RemoteScanRegistration> {
public:
    using RegistrationRecord = RemoteScanRegistration;
    ServedPlugin served; // held and handed back by the component manager
    struct Counts {
        int statusQueries = 0;
        int serverCountQueries = 0; // the third query, between status and fallback mode
        int fallbackQueries = 0;
        int registers = 0; // refused ones included
        int unregisters = 0;
        int fires = 0;
    };
    struct FireRecord {
        DWORD threadId = 0;         // the notification thread
        std::vector<DWORD> results; // one per sink, in registration order
    };

    ~RemoteScanPlugin() { threads_.WaitAll(INFINITE); }

    void SetStatus(bool enabled);
    void SetFallbackMode(uint32_t mode);
    void SetServerCount(uint32_t count);
    // The three queries answer with this code (their values are still written); 0 for success.
    void FailQueries(DWORD code);

    // Each tells every registered sink on a new thread and waits up to timeoutMs. Returns the
    // last sink's answer, 1168 with no sink, 258 on a timeout.
    DWORD FireStatusChanged(bool status, DWORD timeoutMs = 60000);
    DWORD FireSettingsChanged(DWORD timeoutMs = 60000);
    DWORD FireScanModeChanged(DWORD timeoutMs = 60000);
    // Waits for notification threads left running by a timed-out fire.
    bool WaitForFires(DWORD timeoutMs) { return threads_.WaitAll(timeoutMs); }

    Counts GetCounts() const;
    std::vector<FireRecord> Fires() const;

    DWORD GetStatus(bool* enabled) override;
    DWORD GetServerCount(uint32_t* count) override;
    DWORD GetFallbackMode(uint32_t* mode) override;
    DWORD GetServer(wchar_t*, uint32_t) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetTimeout(uint32_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD SetTimeout(uint32_t) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetQueueLength(uint32_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetStatistics(uint64_t*, uint64_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD Connect() override { return ERROR_NOT_SUPPORTED; }
    DWORD Disconnect() override { return ERROR_NOT_SUPPORTED; }
    DWORD IsConnected(bool*) override { return ERROR_NOT_SUPPORTED; }
    DWORD RegisterEvents(IEvents* sink, uint32_t reserved) override;
    DWORD UnregisterEvents(IEvents* sink, uint32_t reserved) override;

private:
    DWORD Fire(DWORD (*call)(IEvents*, bool), bool argument, DWORD timeoutMs);

    bool status_ = false;
    uint32_t fallbackMode_ = NoFallback;
    uint32_t serverCount_ = 0;
    DWORD queryError_ = 0;
    Counts counts_;
    std::vector<FireRecord> fires_;
    NotifyThreads threads_;
};

} // namespace host
