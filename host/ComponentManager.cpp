#include "host/ComponentManager.h"

namespace host {

void ComponentManager::Offer(const wchar_t* name, const GUID& id, void* plugin, ServedPlugin* served) {
    std::lock_guard<std::mutex> lock(mutex_);
    Entry& e = entries_[name];
    e.id = id;
    e.plugin = plugin;
    e.served = served;
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
    journal_.clear();
}

std::vector<ComponentManager::JournalEntry> ComponentManager::Journal() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return journal_;
}

DWORD ComponentManager::GetPlugin(const wchar_t* name, const GUID* interfaceId, void** plugin) {
    if (!name || !interfaceId || !plugin) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(name);
    if (it == entries_.end()) return ERROR_NOT_FOUND;
    Entry& e = it->second;
    ++e.counts.attempts;
    DWORD result = ERROR_SUCCESS;
    if (e.mode == Mode::Missing) {
        result = ERROR_NOT_FOUND;
    } else if (e.mode == Mode::Refusing) {
        // Written anyway, the interface is in use as if served: the plug-in may call it.
        if (e.writeAnyway) *plugin = e.plugin;
        if (e.writeAnyway && e.served) e.served->OnGet();
        result = e.refuseCode;
    } else if (!qv::SameInterfaceId(*interfaceId, e.id) || !e.plugin) {
        result = ERROR_NOT_FOUND;
    }
    journal_.push_back(JournalEntry{result == ERROR_SUCCESS ? JournalEntry::Get : JournalEntry::Refused, name});
    if (result != ERROR_SUCCESS) return result;
    *plugin = e.plugin;
    ++e.counts.gets;
    if (e.served) e.served->OnGet();
    return ERROR_SUCCESS;
}

DWORD ComponentManager::ReleasePlugin(const wchar_t* name) {
    if (!name) return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(name);
    if (it == entries_.end()) return ERROR_NOT_FOUND;
    ++it->second.counts.releases;
    journal_.push_back(JournalEntry{JournalEntry::Release, name});
    if (it->second.served) it->second.served->OnRelease();
    return ERROR_SUCCESS;
}

} // namespace host
