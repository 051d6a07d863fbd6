#include "host/ServConfigPlugin.h"

#include <algorithm>

namespace host {

void ServConfigPlugin::SetText(int32_t category, const wchar_t* name, const wchar_t* text) {
    if (!name) return;
    if (!text) {
        ClearText(category, name);
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    storage_.emplace_back(text);
    texts_[Query(category, name)] = storage_.back().c_str();
}

void ServConfigPlugin::ClearText(int32_t category, const wchar_t* name) {
    if (!name) return;
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.erase(Query(category, name));
}

void ServConfigPlugin::ClearAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    texts_.clear();
}

std::vector<ServConfigPlugin::Query> ServConfigPlugin::Queries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return queries_;
}

int ServConfigPlugin::QueryCount(int32_t category, const wchar_t* name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    Query q(category, name ? name : L"");
    return static_cast<int>(std::count(queries_.begin(), queries_.end(), q));
}

const wchar_t* ServConfigPlugin::GetText(int32_t category, const wchar_t* name) {
    ServedPlugin::Call call(served);
    if (!name) return nullptr;
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        Query q(category, name);
        queries_.push_back(q);
        auto it = texts_.find(q);
        return it == texts_.end() ? nullptr : it->second;
    } catch (...) {
        return nullptr;
    }
}

} // namespace host
