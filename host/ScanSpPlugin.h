#pragma once
// The scan service provider ("scansp") as the host serves it: options recorded, engine reloads
// counted and answered as configured, and its crash-handler face handed out by id.
#include "host/ServedPlugin.h"
#include "host/ScanCrashHandler.h"
#include "sdk/IScanSp.h"

#include <functional>
#include <map>
#include <mutex>
#include <vector>

namespace host {

class ScanSpPlugin : public IScanSp {
public:
    ServedPlugin served; // held and handed back by the component manager
    struct Counts {
        int setOptions = 0;
        int reloads = 0;
        int getInterfaces = 0; // every call, failed ones included
        int releaseInterfaces = 0;
    };
    struct OptionRecord {
        uint32_t option = 0;
        uint32_t reserved = 0;
        uint32_t value = 0; // the 4-byte value; 0 when fewer bytes or none were given
        uint32_t size = 0;
        bool nullValue = false;
        DWORD result = 0;
    };
    // Decides a reload's answer, on the reloading thread; replaces the fixed result while set.
    using ReloadHandler = std::function<DWORD()>;

    void SetOptionResult(DWORD code);                     // every option
    void SetOptionResultFor(uint32_t option, DWORD code); // one option; overrides the above
    void SetReloadResult(DWORD code);
    void SetReloadHandler(ReloadHandler handler);
    // GetInterface answers code; with writeObject the crash handler is written out all the same.
    void FailGetInterface(DWORD code, bool writeObject = false);

    ScanCrashHandler& CrashHandler() { return crashHandler_; }
    Counts GetCounts() const;
    int OutstandingInterfaces() const; // objects written out and not yet given back
    std::vector<OptionRecord> Options() const;
    std::vector<DWORD> ReloadThreads() const; // thread id of every reload, in order

    DWORD SetOption(uint32_t option, uint32_t reserved, const void* value, uint32_t size) override;
    DWORD ReloadEngines() override;
    DWORD GetInterface(const GUID& interfaceId, void** object) override;
    void ReleaseInterface(void* object) override;

private:
    mutable std::mutex mutex_;
    DWORD optionResult_ = 0;
    std::map<uint32_t, DWORD> optionResults_;
    DWORD reloadResult_ = 0;
    ReloadHandler reloadHandler_;
    DWORD getInterfaceError_ = 0;
    bool getInterfaceWrites_ = false;
    int handedOut_ = 0;
    Counts counts_;
    std::vector<OptionRecord> options_;
    std::vector<DWORD> reloadThreads_;
    ScanCrashHandler crashHandler_;
};

} // namespace host
