#include "tests/common/ScanSlots.h"

#include "host/SettingsFile.h"

namespace testing_support { namespace slots {

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
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && !(entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
                RemoveFolder(full);
            else if (!DeleteFileW(full.c_str()))
                RemoveDirectoryW(full.c_str());
        } while (FindNextFileW(find, &entry));
        FindClose(find);
    }
    RemoveDirectoryW(path.c_str());
}

}} // namespace testing_support::slots
