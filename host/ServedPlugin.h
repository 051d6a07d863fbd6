#pragma once
// What the host knows of one of its plug-ins while another plug-in holds it: the component
// manager counts it held on every get and handed back on every release, and each operation of
// the plug-in runs inside a Call. A call that begins while nobody holds the plug-in, or a
// release while a call is still running, is counted, so that a caller that keeps using a
// plug-in after handing it back is caught even when the call happens to do no harm.
#include <atomic>

namespace host {

class ServedPlugin {
public:
    class Call {
    public:
        explicit Call(ServedPlugin& served) : served_(served) {
            served_.inFlight_.fetch_add(1);
            if (served_.held_.load() <= 0) served_.callsAfterRelease_.fetch_add(1);
        }
        ~Call() { served_.inFlight_.fetch_sub(1); }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

    private:
        ServedPlugin& served_;
    };

    void OnGet() { held_.fetch_add(1); }
    void OnRelease() {
        held_.fetch_sub(1);
        if (inFlight_.load() > 0) releasesUnderCall_.fetch_add(1);
    }
    int CallsAfterRelease() const { return callsAfterRelease_.load(); }
    int ReleasesUnderCall() const { return releasesUnderCall_.load(); }
    int Held() const { return held_.load(); }

private:
    std::atomic<int> held_{0};
    std::atomic<int> inFlight_{0};
    std::atomic<int> callsAfterRelease_{0};
    std::atomic<int> releasesUnderCall_{0};
};

} // namespace host
