#include "host/ComponentManager.h"

namespace host {

void ComponentManager::Offer(const wchar_t* name, const GUID& id, void* plugin) {
    std::lock_guard<std::mutex> lock(mutex_);
    Entry& e = entries_[name];
    e.id = id;
    e.plugin = plugin;
    e.mode = Mode::Present;
}

void ComponentManager::SetMissing(const wchar_t* name) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_[name].mode = Mode::Missing;
}

void ComponentManager::SetRefusing(const wchar_t* name, DWORD code, bool writeAnyway) {
    std::lock_guard<std::mutex> lock(mutex_);
    Entry& e = entries_[name];
    e.mode = Mode::Refusing;
    e.refuseCode = code;
    e.writeAnyway = writeAnyway;
}

void ComponentManager::Restore(const wchar_t* name) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_[name].mode = Mode::Present;
}

ComponentManager::Counts ComponentManager::CountsOf(const wchar_t* name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(name);
    return it == entries_.end() ? Counts{} : it->second.counts;
}

bool ComponentManager::Balanced() const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& kv : entries_) {
        if (kv.second.counts.gets != kv.second.counts.releases) return false;
    }
    return true;
}

int ComponentManager::Outstanding(const wchar_t* name) const {
    Counts c = CountsOf(name);
    return c.gets - c.releases;
}

void ComponentManager::ResetCounts() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& kv : entries_) kv.second.counts = Counts{};
}

DWORD ComponentManager::GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) {
    if (!name || !interfaceId || !plugin) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(name);
    if (it == entries_.end()) return ERROR_NOT_FOUND;
    Entry& e = it->second;
    ++e.counts.attempts;
    switch (e.mode) {
    case Mode::Missing:
        return ERROR_NOT_FOUND;
    case Mode::Refusing:
        if (e.writeAnyway) *plugin = e.plugin;
        return e.refuseCode;
    case Mode::Present:
        break;
    }
    if (!qv::SameInterfaceId(*interfaceId, e.id) || !e.plugin) return ERROR_NOT_FOUND;
    *plugin = e.plugin;
    ++e.counts.gets;
    return ERROR_SUCCESS;
}

DWORD ComponentManager::ReleasePlugin(const wchar_t* name) {
    if (!name) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(name);
    if (it == entries_.end()) return ERROR_NOT_FOUND;
    ++it->second.counts.releases;
    return ERROR_SUCCESS;
}

} // namespace host
