#include "tests/common/ScanSlots.h"

#include "host/SettingsFile.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace testing_support {
namespace slots {

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
