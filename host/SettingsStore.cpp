#include "host/SettingsStore.h"

#include "host/SettingsFile.h"
#include "host/SettingsSection.h"

namespace host {

namespace {

const Json::Value* Member(const Json::Value& node, const std::string& name) {
    if (!node.isObject()) return nullptr;
    return node.find(name.data(), name.data() + name.size());
}

// Walks to the key's value, making objects of every missing or non-object step on the way.
Json::Value& MakePath(Json::Value& root, const std::string& section, const std::vector<std::string>& parts) {
    Json::Value* node = &root[section];
    for (const std::string& part : parts) {
        if (!node->isObject()) *node = Json::Value(Json::objectValue);
        node = &(*node)[part];
    }
    return *node;
}

} // namespace

bool SettingsStore::UseFile(const std::wstring& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    path_ = path;
    if (path_.empty()) {
        corrupt_ = false;
        return true;
    }
    return LoadLocked();
}

bool SettingsStore::Reload() {
    std::lock_guard<std::mutex> lock(mutex_);
    return path_.empty() ? true : LoadLocked();
}

bool SettingsStore::LoadLocked() {
    std::string bytes;
    Json::Value loaded(Json::objectValue);
    corrupt_ = false;
    switch (settingsfile::ReadWhole(path_, bytes)) {
    case settingsfile::ReadResult::Missing:
        break;
    case settingsfile::ReadResult::Read:
        corrupt_ = !settingsfile::ParseDocument(bytes, loaded);
        if (corrupt_) loaded = Json::Value(Json::objectValue);
        break;
    case settingsfile::ReadResult::Failed:
        corrupt_ = true;
        break;
    }
    document_ = std::move(loaded);
    return !corrupt_;
}

bool SettingsStore::WriteLocked(const Json::Value& document) {
    if (path_.empty()) return true;
    return settingsfile::WriteDurably(path_, settingsfile::Serialize(document, false));
}

std::wstring SettingsStore::FilePath() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return path_;
}

bool SettingsStore::LoadedCorrupt() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return corrupt_;
}

Json::Value SettingsStore::Document() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return document_;
}

Json::Value SettingsStore::Section(const std::wstring& path) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const Json::Value* section = Member(document_, settingsfile::ToUtf8(path.c_str()));
    return section ? *section : Json::Value();
}

bool SettingsStore::SetDocument(const Json::Value& document) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!settingsfile::WithinDepth(document)) return false;
    document_ = document.isObject() ? document : Json::Value(Json::objectValue);
    return WriteLocked(document_);
}

void SettingsStore::RefuseOpen(bool refuse) {
    std::lock_guard<std::mutex> lock(mutex_);
    refuseOpen_ = refuse;
}

void SettingsStore::RefuseNextOpens(int n) {
    std::lock_guard<std::mutex> lock(mutex_);
    refuseNext_ = n > 0 ? n : 0;
}

void SettingsStore::FailSetNumber(int n) {
    std::lock_guard<std::mutex> lock(mutex_);
    failAt_ = n > 0 ? counts_.sets + n : 0;
}

void SettingsStore::FailAllSets(bool fail) {
    std::lock_guard<std::mutex> lock(mutex_);
    failAll_ = fail;
}

SettingsStore::Counts SettingsStore::GetCounts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

int SettingsStore::Outstanding() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_.opens - counts_.releases;
}

void SettingsStore::ResetCounts() {
    std::lock_guard<std::mutex> lock(mutex_);
    int outstanding = counts_.opens - counts_.releases;
    failAt_ = failAt_ > counts_.sets ? failAt_ - counts_.sets : 0;
    counts_ = Counts{};
    counts_.opens = outstanding; // sections still out must still balance
    setLog_.clear();
    openedPaths_.clear();
}

std::vector<SettingsStore::SetRecord> SettingsStore::SetLog() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return setLog_;
}

std::vector<std::wstring> SettingsStore::OpenedPaths() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return openedPaths_;
}

IKXSettingsSection* SettingsStore::OpenSection(const wchar_t* path, uint32_t, uint32_t, uint32_t) {
    ServedPlugin::Call call(served);
    try {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!path || !*path || refuseOpen_ || refuseNext_ > 0) {
            if (refuseNext_ > 0) --refuseNext_;
            ++counts_.refusedOpens;
            return nullptr;
        }
        auto* section = new SettingsSection(this, path);
        ++counts_.opens;
        openedPaths_.push_back(path);
        return section;
    } catch (...) {
        return nullptr;
    }
}

bool SettingsStore::GetEntry(const std::string& section, const wchar_t* key, Json::Value& out) {
    std::vector<std::string> parts = settingsfile::SplitKey(key);
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.gets;
    if (parts.empty()) return false;
    const Json::Value* node = Member(document_, section);
    for (const std::string& part : parts) {
        if (!node) return false;
        node = Member(*node, part);
    }
    if (!node) return false;
    out = *node;
    return true;
}

bool SettingsStore::SetEntry(const std::wstring& section, const wchar_t* key, const Json::Value& value) {
    std::vector<std::string> parts = settingsfile::SplitKey(key);
    // Below the document's root and the section, one level per part of the key.
    const bool fits = settingsfile::WithinDepth(value, 2 + parts.size());
    std::string text = fits ? settingsfile::Serialize(value, true) : std::string("<nested too deeply>");
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.sets;
    SetRecord record{section, key ? key : L"", text, false};
    bool fail = !fits || parts.empty() || failAll_ || counts_.sets == failAt_;
    if (!fail) {
        Json::Value updated = document_;
        MakePath(updated, settingsfile::ToUtf8(section.c_str()), parts) = value;
        fail = !WriteLocked(updated);
        if (!fail) document_ = std::move(updated);
    }
    if (fail) ++counts_.failedSets;
    record.succeeded = !fail;
    setLog_.push_back(std::move(record));
    return !fail;
}

void SettingsStore::SectionReleased() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.releases;
}

} // namespace host
