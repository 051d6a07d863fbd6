#include "tests/common/ScanSlots.h"

#include "host/SettingsFile.h"
#include "tests/common/ThreadProbe.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>

namespace testing_support {
namespace slots {

namespace ids = qv::kxsdk::ids;

const wchar_t* const kSiblingNames[7] = {ids::kServConfigName, ids::kSettingsName, ids::kUpdateName,
                                         ids::kRemoteScanName, ids::kCtcName,      ids::kScanSpName,
                                         ids::kTelemetryName};

int NullSinks::Reach(const char* event) {
    if (heldEvent && strcmp(event, heldEvent) == 0 && !taken_.exchange(true)) hold();
    return 0;
}

std::string EveryOperation(void* scan, NullSinks& sinks, bool on, Container busy, bool shuttingDown) {
    constexpr DWORD kRecovery = 0x8004D082;
    std::string wrong;
    auto expect = [&](const char* what, DWORD result, std::initializer_list<DWORD> allowed, DWORD whileDown = 0) {
        for (DWORD code : allowed)
            if (result == code) return;
        if (shuttingDown && whileDown != 0 && result == whileDown) return;
        if (wrong.empty()) wrong = std::string(what) + " answered " + std::to_string(result);
    };
    constexpr DWORD kNotThere = 1627, kNoStore = ERROR_CANTWRITE;
    if (busy != kEnginesSinks) expect("RegisterEngines", RegisterEngines(scan, &sinks), {0}, kNotThere);
    if (busy != kScanSinks) expect("RegisterScan", RegisterScan(scan, &sinks), {0}, kNotThere);
    if (busy != kSettingsSinks) expect("RegisterSettings", RegisterSettings(scan, &sinks), {0}, kNotThere);
    ScanType type;
    expect("GetScanType", GetScanType(scan, &type), {0});
    ScanMode primary, fallback;
    expect("GetScanModes", GetScanModes(scan, &primary, &fallback), {0, kRecovery});
    for (bool value : {on, !on}) expect("EnableBackup", EnableBackup(scan, value), {0, ERROR_INTERNAL_ERROR}, kNoStore);
    bool flag;
    expect("IsBackupEnabled", IsBackupEnabled(scan, &flag), {0});
    qv::StringW version;
    expect("GetEnginesVersion", GetEnginesVersion(scan, &version), {0, kRecovery});
    uint64_t count;
    expect("GetSignaturesCount", GetSignaturesCount(scan, &count), {0, kRecovery});
    expect("SetFeatureStatus", SetFeatureStatus(scan, qv::StringW(L"Quarantine"), on), {0});
    expect("GetFeatureStatus", GetFeatureStatus(scan, qv::StringW(L"Firewall"), &flag), {0});
    expect("ReportHashChain", ReportHashChain(scan, on), {0}, kNoStore);
    HashChainSettings chain;
    expect("GetHashChainSettings", GetHashChainSettings(scan, &chain), {0});
    expect("ReportSignatureInfo", ReportSignatureInfo(scan, on), {0}, kNoStore);
    expect("IsSignatureInfoReported", IsSignatureInfoReported(scan, &flag), {0});
    if (busy != kEnginesSinks) expect("UnregisterEngines", UnregisterEngines(scan, &sinks), {0}, kNotThere);
    if (busy != kScanSinks) expect("UnregisterScan", UnregisterScan(scan, &sinks), {0}, kNotThere);
    if (busy != kSettingsSinks) expect("UnregisterSettings", UnregisterSettings(scan, &sinks), {0}, kNotThere);
    return wrong;
}

std::string StillHeld(host::HostEnvironment& env) {
    for (const wchar_t* name : kSiblingNames)
        if (env.manager.Outstanding(name) != 0) return "still held: " + std::string(name, name + wcslen(name));
    if (!env.manager.Balanced()) return "plug-in gets and releases do not balance";
    if (env.settings.Outstanding() != 0) return "settings sections not released";
    if (env.scanSp.OutstandingInterfaces() != 0) return "crash-handler interfaces not released";
    return "";
}

std::string SwitchesDisagree(void* scan, const Json::Value& section, const host::ScanSpPlugin& provider,
                             bool absentIsOff) {
    const bool backup = BackupOf(scan);
    const Json::Value hashChain = section["reportHashChain"];
    const std::pair<const char*, Json::Value> stored[] = {
        {"backup", section["enableBackup"]},
        {"hash chain", hashChain.isObject() || !absentIsOff ? hashChain["enabled"] : hashChain},
        {"signature info", section["reportSignatureInfo"]}};
    const bool answered[] = {backup, HashChainOf(scan), SignatureInfoOf(scan)};
    for (int i = 0; i < 3; ++i) {
        const Json::Value value = stored[i].second.isNull() && absentIsOff ? Json::Value(false) : stored[i].second;
        if (value != Json::Value(answered[i])) return std::string(stored[i].first) + ": answer and store disagree";
    }
    int last = -1;
    for (const auto& option : provider.Options())
        if (option.option == 9 && option.result == 0) last = static_cast<int>(option.value);
    if (last == -1 && absentIsOff) return "";
    return last == (backup ? 1 : 0) ? "" : "the provider runs with another backup value";
}

bool AnswersFromAnotherThread(void* scan, std::string& wrong) {
    // Shared with the thread, which is abandoned when it is stuck.
    auto sinks = std::make_shared<NullSinks>();
    auto answers = std::make_shared<std::vector<DWORD>>();
    qvtest::TestThread probe([scan, sinks, answers] {
        ScanType type;
        bool b;
        HashChainSettings hc;
        *answers = {GetScanType(scan, &type),
                    IsBackupEnabled(scan, &b),
                    GetHashChainSettings(scan, &hc),
                    IsSignatureInfoReported(scan, &b),
                    GetFeatureStatus(scan, qv::StringW(L"Probe"), &b),
                    RegisterSettings(scan, sinks.get()),
                    RegisterEngines(scan, sinks.get()),
                    RegisterScan(scan, sinks.get()),
                    UnregisterSettings(scan, sinks.get()),
                    UnregisterEngines(scan, sinks.get()),
                    UnregisterScan(scan, sinks.get())};
    });
    if (!probe.Finished(qvtest::kProceedMs)) return false;
    for (size_t i = 0; i < answers->size() && wrong.empty(); ++i)
        if ((*answers)[i] != 0)
            wrong = "probe call " + std::to_string(i) + " answered " + std::to_string((*answers)[i]);
    return true;
}

bool ReadSettingsFile(const std::wstring& path, Json::Value& document) {
    std::string bytes;
    if (host::settingsfile::ReadWhole(path, bytes) != host::settingsfile::ReadResult::Read) return false;
    return host::settingsfile::ParseDocument(bytes, document);
}

Json::Value ModuleSection(const Json::Value& document) {
    if (!document.isObject() || !document.isMember("/AntivirusScan")) return Json::Value();
    return document["/AntivirusScan"];
}

bool LineWith(const std::wstring& text, uint32_t severity) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity) return true;
    }
    return false;
}

bool LineStartingWith(const std::wstring& prefix) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text.compare(0, prefix.size(), prefix) == 0) return true;
    }
    return false;
}

bool WriteBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD wrote = 0;
    bool ok = bytes.empty() || (WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr) &&
                                wrote == bytes.size());
    CloseHandle(file);
    return ok;
}

bool Exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void RemoveFolder(const std::wstring& path) {
    if (path.empty()) return;
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &entry);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = entry.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring full = path + L"\\" + name;
            SetFileAttributesW(full.c_str(), FILE_ATTRIBUTE_NORMAL);
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
                !(entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
                RemoveFolder(full);
            else if (!DeleteFileW(full.c_str()))
                RemoveDirectoryW(full.c_str());
        } while (FindNextFileW(find, &entry));
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}

bool BackupOf(void* scan) {
    bool on = false;
    EXPECT_EQ(0u, IsBackupEnabled(scan, &on));
    return on;
}
bool HashChainOf(void* scan) {
    HashChainSettings settings{false};
    EXPECT_EQ(0u, GetHashChainSettings(scan, &settings));
    return settings.enabled;
}
bool SignatureInfoOf(void* scan) {
    bool on = false;
    EXPECT_EQ(0u, IsSignatureInfoReported(scan, &on));
    return on;
}
bool FeatureLocked(void* scan, const wchar_t* name) {
    bool locked = false;
    EXPECT_EQ(0u, GetFeatureStatus(scan, qv::StringW(name), &locked));
    return locked;
}

Json::Value WithSection(const Json::Value& section) {
    Json::Value document(Json::objectValue);
    document["/AntivirusScan"] = section;
    return document;
}

int CountOf(const std::wstring& text) {
    int count = 0;
    for (const auto& line : avhost::CapturedLines()) count += line.text == text ? 1 : 0;
    return count;
}

std::wstring LineAfter(const std::wstring& prefix) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text.compare(0, prefix.size(), prefix) == 0) return line.text.substr(prefix.size());
    }
    return L"<none>";
}

bool LineIn(const std::wstring& text, uint32_t severity, const std::wstring& function) {
    for (const auto& line : avhost::CapturedLines()) {
        if (line.text == text && line.severity == severity && line.function == function) return true;
    }
    return false;
}

std::vector<std::wstring> HostileTexts() {
    const size_t mib = 1u << 20;
    return {std::wstring(mib, L'a'),
            L"C:\\" + std::wstring(mib, L'x'),
            L"\xD83D\xDE00 face \xD800\xDF48 gothic",
            L"name\xD800",
            L"\xDC00name",
            L"\xDE00\xD83D",
            L"%s%s%s%d%n%ls",
            L"",
            L" ",
            L"\\",
            L"C:"};
}

std::string Describe(const std::wstring& text) {
    std::string out = "text of " + std::to_string(text.size()) + " units:";
    for (size_t i = 0; i < text.size() && i < 12; ++i) out += " " + std::to_string(static_cast<unsigned>(text[i]));
    return out;
}

DWORD EndIfStuck(DWORD result) {
    if (result != WAIT_TIMEOUT) return result;
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::fprintf(stderr, "FAILED: %s: a notification did not return in time\n", test ? test->name() : "?");
    std::fflush(stdout);
    std::fflush(stderr);
    TerminateProcess(GetCurrentProcess(), 3);
    return result;
}

} // namespace slots
} // namespace testing_support
