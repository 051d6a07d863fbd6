#pragma once
// The settings store ("KXSettings"): one JSON object {"<section path>": {...}} kept in memory
// and, when bound to a file, written durably to that file on every set. A missing file starts
// empty; an unreadable, non-object or too deeply nested file starts empty too and is reported,
// never fatal; a set of a value that would nest too deeply fails.
#include "host/ServedPlugin.h"
#include "sdk/IKXSettings.h"

#include <json/json.h>

#include <mutex>
#include <string>
#include <vector>

namespace host {

class SettingsStore : public IKXSettings {
public:
    ServedPlugin served; // held and handed back by the component manager
    struct Counts {
        int opens = 0;        // sections handed out
        int refusedOpens = 0; // OpenSection calls answered with null
        int releases = 0;     // sections given back
        int sets = 0;         // every set call, failed ones included
        int failedSets = 0;
        int gets = 0; // every get call, whatever it found
    };
    struct SetRecord {
        std::wstring section;
        std::wstring key;
        std::string value; // compact JSON text
        bool succeeded = false;
    };

    SettingsStore() = default; // memory only
    explicit SettingsStore(const std::wstring& path) { UseFile(path); }
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    // Binds the store to a file and loads it (an empty path: memory only, document kept).
    // False when the file exists but holds no JSON object; the store then starts empty.
    bool UseFile(const std::wstring& path);
    // Reads the bound file again, with the same rules.
    bool Reload();
    std::wstring FilePath() const;
    bool LoadedCorrupt() const;

    Json::Value Document() const;
    // The section's object, or a null value when there is none.
    Json::Value Section(const std::wstring& path) const;
    // Replaces the document (a non-object becomes {}) and writes it to the bound file. A document
    // nested deeper than settingsfile::kMaxDepth is refused: false, and the old one stays.
    bool SetDocument(const Json::Value& document);

    void RefuseOpen(bool refuse);
    // The next n OpenSection calls are answered with null; 0 cancels.
    void RefuseNextOpens(int n);
    // The n-th set from now (1-based) fails without writing anything; 0 cancels.
    void FailSetNumber(int n);
    void FailAllSets(bool fail);

    Counts GetCounts() const;
    int Outstanding() const; // sections opened and not yet released
    // Zeroes the counters and empties the logs; sections still out stay counted as opened.
    void ResetCounts();
    std::vector<SetRecord> SetLog() const;
    std::vector<std::wstring> OpenedPaths() const;

    IKXSettingsSection* OpenSection(const wchar_t* path, uint32_t reserved1, uint32_t reserved2,
                                    uint32_t reserved3) override;

    // Called by the section objects.
    bool GetEntry(const std::string& section, const wchar_t* key, Json::Value& out);
    bool SetEntry(const std::wstring& section, const wchar_t* key, const Json::Value& value);
    void SectionReleased();

private:
    bool LoadLocked();
    bool WriteLocked(const Json::Value& document);

    mutable std::mutex mutex_;
    std::wstring path_;
    Json::Value document_{Json::objectValue};
    bool corrupt_ = false;
    bool refuseOpen_ = false;
    int refuseNext_ = 0;
    bool failAll_ = false;
    int failAt_ = 0; // value of counts_.sets whose call fails; 0 for none
    Counts counts_;
    std::vector<SetRecord> setLog_;
    std::vector<std::wstring> openedPaths_;
};

} // namespace host
