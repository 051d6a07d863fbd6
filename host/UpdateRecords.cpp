#include "host/UpdateRecords.h"

namespace host {
namespace updaterecords {

namespace {

template <class T, class F> void EachOf(const qv::List<T>& list, F&& f) {
    qv::ConstListEnum<T>* it = list.EnumerateConst();
    if (!it) return;
    while (it->HasMore()) {
        const typename qv::ConstListEnum<T>::Node* node = it->Next();
        if (!node) break;
        f(node->value);
    }
    it->Release();
}

} // namespace

std::vector<ProxyRecord> CopyProxies(const qv::List<IUpdate::Proxy>& list) {
    std::vector<ProxyRecord> out;
    EachOf(list, [&](const IUpdate::Proxy& p) {
        out.push_back(ProxyRecord{p.address.c_str(), p.port, p.user.c_str(), p.password.c_str()});
    });
    return out;
}

std::vector<LocationRecord> CopyLocations(const qv::List<IUpdate::Location>& list) {
    std::vector<LocationRecord> out;
    EachOf(list, [&](const IUpdate::Location& l) { out.push_back(LocationRecord{l.url.c_str(), l.kind}); });
    return out;
}

UpdateRequestRecord CopyRequest(const IUpdate::UpdateRequest& request) {
    UpdateRequestRecord r;
    r.requester = request.requester.c_str();
    r.proxies = CopyProxies(request.proxies);
    r.locations = CopyLocations(request.locations);
    r.schedule = request.schedule;
    r.timeout = request.timeout;
    r.reserved = request.reserved.c_str();
    r.options = request.options;
    r.interactive = request.interactive;
    r.signaturesOnly = request.signaturesOnly;
    r.threadId = GetCurrentThreadId();
    return r;
}

void FillSettings(const UpdateSettingsRecord& from, IUpdate::UpdateSettings& to) {
    for (const ProxyRecord& p : from.proxies) {
        IUpdate::Proxy proxy;
        proxy.address = p.address.c_str();
        proxy.port = p.port;
        proxy.user = p.user.c_str();
        proxy.password = p.password.c_str();
        to.proxies.PushBack(proxy);
    }
    for (const LocationRecord& l : from.locations) {
        IUpdate::Location location;
        location.url = l.url.c_str();
        location.kind = l.kind;
        to.locations.PushBack(location);
    }
    to.schedule = from.schedule;
    to.timeout = from.timeout;
}

} // namespace updaterecords
} // namespace host
