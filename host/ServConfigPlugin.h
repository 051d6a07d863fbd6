#pragma once
// The service configuration plug-in ("productinfo") as the host serves it: texts by
// (category, name), set by whoever builds the host. A text handed out stays readable for the
// life of the plug-in, even when it is replaced or cleared later.
#include "host/ServedPlugin.h"
#include "sdk/IServConfig.h"

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace host {

class ServConfigPlugin : public IServConfig {
public:
    ServedPlugin served; // held and handed back by the component manager
    using Query = std::pair<int32_t, std::wstring>;

    // A null text clears the entry.
    void SetText(int32_t category, const wchar_t* name, const wchar_t* text);
    void ClearText(int32_t category, const wchar_t* name);
    void ClearAll();

    // Every GetText call in order, and how often one (category, name) was asked for.
    std::vector<Query> Queries() const;
    int QueryCount(int32_t category, const wchar_t* name) const;

    const wchar_t* GetProductName() override { return L"Security Service"; }
    const wchar_t* GetProductVersion() override { return L"1.0.0.0"; }
    const wchar_t* GetLanguage() override { return L"en-US"; }
    DWORD GetNumber(int32_t, const wchar_t*, int64_t*) override { return ERROR_NOT_SUPPORTED; }
    DWORD GetFlag(int32_t, const wchar_t*, bool*) override { return ERROR_NOT_SUPPORTED; }
    DWORD Reload() override { return ERROR_SUCCESS; }
    const wchar_t* GetText(int32_t category, const wchar_t* name) override;

private:
    mutable std::mutex mutex_;
    // Texts are never freed while the plug-in lives; the map points into this store.
    std::deque<std::wstring> storage_;
    std::map<Query, const wchar_t*> texts_;
    std::vector<Query> queries_;
};

} // namespace host
