#pragma once
// The event-sink bookkeeping the host's notifying plug-ins share: every register and unregister
// recorded with its answer, the sinks registered now in registration order, and a code to refuse
// registrations with. The lock lives here and is the deriving plug-in's lock too, so a call is
// counted by the plug-in and recorded here in one step.
#include <windows.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace host {

// Record: an aggregate with a `result` member, filled in by the host before AddSink/RemoveSink.
template <class Sink, class Record> class SinkRegistry {
public:
    void RefuseRegistration(DWORD code) { // 0 accepts again
        std::lock_guard<std::mutex> lock(mutex_);
        refuseCode_ = code;
    }
    std::vector<Record> Registrations() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return registrations_;
    }
    std::vector<Record> Unregistrations() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return unregistrations_;
    }
    std::vector<Sink*> RegisteredSinks() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return sinks_;
    }

protected:
    // The three below run with mutex_ held. A sink registered twice is told once.
    DWORD AddSink(Sink* sink, Record record) {
        record.result = !sink ? ERROR_INVALID_PARAMETER : refuseCode_;
        registrations_.push_back(record);
        if (record.result == ERROR_SUCCESS && std::find(sinks_.begin(), sinks_.end(), sink) == sinks_.end())
            sinks_.push_back(sink);
        return record.result;
    }
    DWORD RemoveSink(Sink* sink, Record record) {
        auto it = std::find(sinks_.begin(), sinks_.end(), sink);
        record.result = it == sinks_.end() ? ERROR_NOT_FOUND : ERROR_SUCCESS;
        if (it != sinks_.end()) sinks_.erase(it);
        unregistrations_.push_back(record);
        return record.result;
    }
    const std::vector<Sink*>& SinksHeld() const { return sinks_; }

    mutable std::mutex mutex_;

private:
    DWORD refuseCode_ = 0;
    std::vector<Record> registrations_, unregistrations_;
    std::vector<Sink*> sinks_;
};

} // namespace host
