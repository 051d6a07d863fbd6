#include "host/RemoveTree.h"

#include "support/WinHandle.h"

#include <windows.h>

namespace host {
namespace {

std::wstring Join(const std::wstring& folder, const std::wstring& name) {
    if (folder.empty()) return name;
    const wchar_t last = folder.back();
    return (last == L'\\' || last == L'/') ? folder + name : folder + L"\\" + name;
}

} // namespace

bool RemoveTree(const std::wstring& folder) {
    WIN32_FIND_DATAW entry;
    qv::UniqueHFind find(FindFirstFileW(Join(folder, L"*").c_str(), &entry));
    if (find) {
        do {
            const std::wstring name = entry.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring path = Join(folder, name);
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_READONLY)
                SetFileAttributesW(path.c_str(), entry.dwFileAttributes & ~FILE_ATTRIBUTE_READONLY);
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(path);
            else
                DeleteFileW(path.c_str());
        } while (FindNextFileW(find.Get(), &entry));
        find.Reset();
    }
    return RemoveDirectoryW(folder.c_str()) != FALSE;
}

} // namespace host
