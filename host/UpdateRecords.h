#pragma once
// Plain copies of the update plug-in's SDK records, as the host keeps and reports them. The SDK
// lists are read and filled only through their virtual slots, as any other plug-in would.
#include "sdk/IUpdate.h"

#include <string>
#include <vector>

namespace host {

struct ProxyRecord {
    std::wstring address;
    uint32_t port = 0;
    std::wstring user;
    std::wstring password;
    bool operator==(const ProxyRecord& o) const {
        return address == o.address && port == o.port && user == o.user && password == o.password;
    }
};

struct LocationRecord {
    std::wstring url;
    uint32_t kind = 0;
    bool operator==(const LocationRecord& o) const { return url == o.url && kind == o.kind; }
};

struct UpdateSettingsRecord {
    std::vector<ProxyRecord> proxies;
    std::vector<LocationRecord> locations;
    uint32_t schedule = 0;
    uint32_t timeout = 0;
};

struct UpdateRequestRecord {
    std::wstring requester;
    std::vector<ProxyRecord> proxies;
    std::vector<LocationRecord> locations;
    uint32_t schedule = 0;
    uint32_t timeout = 0;
    std::wstring reserved;
    uint32_t options = 0;
    uint8_t interactive = 0;
    uint8_t signaturesOnly = 0;
    DWORD threadId = 0; // caller's thread
};

namespace updaterecords {

using IUpdate = qv::kxsdk::Update::IUpdate;

std::vector<ProxyRecord> CopyProxies(const qv::List<IUpdate::Proxy>& list);
std::vector<LocationRecord> CopyLocations(const qv::List<IUpdate::Location>& list);
UpdateRequestRecord CopyRequest(const IUpdate::UpdateRequest& request);
// Appends the record's entries to the caller's lists and sets its two values.
void FillSettings(const UpdateSettingsRecord& from, IUpdate::UpdateSettings& to);

} // namespace updaterecords
} // namespace host
