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
#include "plugin/SlotGuard.h"
#include "support/CriticalSection.h"
#include "support/Log.h"
#include "support/ProcessExit.h"
#include "support/RundownProtection.h"
#include "sdk/StringT.h"

#include <atomic>

namespace qv {

// Id and trace name of each plug-in interface the object looks up.
template <class T> struct PluginTraits;

#define QV_PLUGIN_TRAITS(T, TEXT, ID)                                                                                  \
    template <> struct PluginTraits<T> {                                                                               \
        static GUID Id() { return ID; }                                                                                \
        static constexpr const wchar_t* kTraceName = L"ServPlugin<struct " TEXT ">::GetPlugin";                        \
        static constexpr const wchar_t* kReleaseName = L"ServPlugin<struct " TEXT ">::Release";                        \
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
    static constexpr const wchar_t* kReleaseName = L"ServPlugin<struct qv::kxsdk::Update::IUpdate>::Release";
};

// The host's telemetry plug-in is registered under these exact 16 bytes: the last two groups of
// the text form the first half and the first three groups the second half.
GUID TelemetryIdFromText(const wchar_t* text);

template <> struct PluginTraits<Telemetry::ITelemetry> {
    static GUID Id() { return TelemetryIdFromText(L"872DA2C0-CDA8-4CEF-8348-02768709E306"); }
    static constexpr const wchar_t* kTraceName = L"ServPlugin<struct Telemetry::ITelemetry>::GetPlugin";
    static constexpr const wchar_t* kReleaseName = L"ServPlugin<struct Telemetry::ITelemetry>::Release";
};

// The object's sibling plug-ins are used from callers' and notification threads while the host
// may be stopping the object on its own thread. Every use therefore goes through a Use, which
// either pins the live interface until it goes out of scope or finds the holder empty; handing
// the plug-in back closes the holder to new uses and waits for the pinned ones first, so that no
// call reaches a plug-in after it was handed back.
//
// Gets and releases of one holder are made by one thread at a time, but no lock is held while
// the component manager answers: a manager that waits for another thread of the host must not
// find that thread stuck on this holder. A thread that finds another one in the middle of a get
// or a hand-back does not wait for it: a release is left to that thread, which hands the plug-in
// back as soon as its own change is done, and a get is answered as not available now. So each
// get is handed back exactly once, by whichever of the two comes second.
template <class T> class ServPlugin {
public:
    class Use {
    public:
        explicit Use(ServPlugin& holder) noexcept : holder_(holder), plugin_(holder.BeginUse()) {}
        ~Use() {
            if (plugin_) holder_.EndUse();
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;

        T* Get() const { return plugin_; }
        T* operator->() const { return plugin_; }
        explicit operator bool() const { return plugin_ != nullptr; }

    private:
        ServPlugin& holder_;
        T* const plugin_;
    };

    explicit ServPlugin(const wchar_t* name) : name_(name) {}
    ~ServPlugin() { Release(); }
    ServPlugin(const ServPlugin&) = delete;
    ServPlugin& operator=(const ServPlugin&) = delete;

    // True when an interface is held afterwards. No retry: a plug-in that is not available now
    // is reported missing, and the caller decides.
    bool GetPlugin(IComponentManager* componentManager) {
        QV_TRACE(PluginTraits<T>::kTraceName);
        if (!BeginChange(false)) {
            QV_LOG(logging::LOG_SEV_WARNING, L"Plugin \"%s\" busy", name_.c_str());
            return false;
        }
        Change change(*this);
        HandBack();
        if (!componentManager) {
            QV_LOG(logging::LOG_SEV_ERROR, L"Null component manager");
            return false;
        }
        GUID id = PluginTraits<T>::Id();
        void* raw = nullptr;
        DWORD error = componentManager->GetPlugin(name_.c_str(), &id, &raw);
        if (error == 0) {
            manager_ = componentManager;
        } else {
            QV_LOG(logging::LOG_SEV_WARNING, L"Error %d getting plugin \"%s\"", static_cast<int>(error), name_.c_str());
        }
        if (!raw) return false;
        plugin_.store(static_cast<T*>(raw));
        rundown_.Open();
        // A release asked for while the manager answered is carried out here, before returning.
        return !change.End();
    }

    // Hands the plug-in back to the manager that served it, by name, once the uses in flight
    // have ended; or leaves that to the thread in the middle of a get or hand-back of this holder.
    // Never call it while holding a Use of this holder or a lock that a user takes.
    void Release() noexcept {
        if (!BeginChange(true)) return;
        Change change(*this);
        HandBack();
    }

    // Pins the plug-in for the caller's scope, or finds the holder empty.
    Use Acquire() noexcept { return Use(*this); }

    // A snapshot, for decisions that tolerate a release right after; calls go through a Use.
    bool IsHeld() const { return plugin_.load() != nullptr; }
    const StringW& Name() const { return name_; }

private:
    // The thread's claim on changing the holder, given up on every way out of the scope.
    class Change {
    public:
        explicit Change(ServPlugin& holder) noexcept : holder_(holder) {}
        ~Change() { End(); }
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;
        // True when a release asked for by another thread was carried out.
        bool End() noexcept {
            if (ended_) return false;
            ended_ = true;
            return holder_.EndChange();
        }

    private:
        ServPlugin& holder_;
        bool ended_ = false;
    };

    // True when this thread may change the holder. False when another thread is changing it;
    // a release is then recorded for that thread to carry out.
    bool BeginChange(bool release) noexcept {
        auto lock = stateLock_.Lock();
        if (changing_) {
            if (release) releaseAsked_ = true;
            return false;
        }
        changing_ = true;
        return true;
    }

    bool EndChange() noexcept {
        bool released = false;
        for (;;) {
            {
                auto lock = stateLock_.Lock();
                if (!releaseAsked_) {
                    changing_ = false;
                    return released;
                }
                releaseAsked_ = false;
            }
            HandBack();
            released = true;
        }
    }

    // Only by the thread that changes the holder.
    void HandBack() noexcept {
        if (!plugin_.load()) return;
        // While the process ends, the uses in flight belong to threads that are gone, and the
        // manager may be gone too: the holder is only emptied.
        const bool drained = rundown_.CloseAndWait();
        // A manager that throws still counts as having taken the plug-in back: the holder is empty
        // afterwards, and the holders released after this one are released all the same.
        if (drained && manager_ && !ProcessIsEnding())
            GuardedStep(PluginTraits<T>::kReleaseName, [&] { (void)manager_->ReleasePlugin(name_.c_str()); });
        manager_ = nullptr;
        plugin_.store(nullptr);
    }

    // AVSCAN_UNGUARDED_SIBLINGS is set only in a benchmark copy of the plug-in, which measures
    // what the guard costs by leaving it out; never in the plug-in that ships.
    T* BeginUse() noexcept {
#ifdef AVSCAN_UNGUARDED_SIBLINGS
        return plugin_.load();
#else
        return rundown_.TryAcquire() ? plugin_.load() : nullptr;
#endif
    }
    void EndUse() noexcept {
#ifndef AVSCAN_UNGUARDED_SIBLINGS
        rundown_.ReleaseUse();
#endif
    }

    // Guards only the two flags below, never a call.
    CriticalSection stateLock_;
    bool changing_ = false;
    bool releaseAsked_ = false;
    RundownProtection rundown_;
    IComponentManager* manager_ = nullptr;
    std::atomic<T*> plugin_{nullptr};
    StringW name_;
};

} // namespace qv
