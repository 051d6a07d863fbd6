#include "host/sandbox/SandboxFolder.h"

#include "host/sandbox/TextUtil.h"

#include <shlwapi.h>

#include <algorithm>

namespace sandbox {
namespace {

std::wstring Join(const std::wstring& folder, const std::wstring& name) {
    if (name.empty()) return folder;
    if (folder.empty()) return name;
    const wchar_t last = folder.back();
    return (last == L'\\' || last == L'/') ? folder + name : folder + L"\\" + name;
}

std::wstring Parent(const std::wstring& path) {
    size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

// Each file says where it came from, so that a kit's copy differs from what it replaces.
std::string FileBytes(const std::wstring& name, const std::string& origin) {
    return "sandbox file " + Utf8(name) + " (" + origin + ")\n";
}

uint64_t ContentHash(const std::wstring& path) {
    std::string bytes;
    if (!ReadFileText(path, bytes)) return 0;
    uint64_t hash = 1469598103934665603ull; // FNV-1a
    for (unsigned char c : bytes) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

std::string UpdateFileBytes(const EnginesContent& content) {
    // The plug-in takes the last blank-separated word of lines 2 and 4.
    return "[Antivirus signatures]\nSignatures count: " + std::to_string(content.count) +
           "\nEngines kit: sandbox\nSignatures version: " + Utf8(content.version) + "\n";
}

bool WriteContent(const std::wstring& folder, const EnginesContent& content, const std::string& origin,
                  std::string& error) {
    if (!CreateFolders(folder)) {
        error = "cannot create folder " + Utf8(folder);
        return false;
    }
    for (const std::wstring& name : content.files) {
        const std::wstring path = Join(folder, name);
        if (!CreateFolders(Parent(path)) || !WriteFileText(path, FileBytes(name, origin))) {
            error = "cannot write " + Utf8(path);
            return false;
        }
    }
    for (const std::wstring& name : content.emptyFiles) {
        const std::wstring path = Join(folder, name);
        if (!CreateFolders(Parent(path)) || !WriteFileText(path, std::string())) {
            error = "cannot write " + Utf8(path);
            return false;
        }
    }
    if (content.hasUpdateFile) {
        const std::wstring path = Join(folder, L"Plugins\\update.txt");
        if (!CreateFolders(Parent(path)) || !WriteFileText(path, UpdateFileBytes(content))) {
            error = "cannot write " + Utf8(path);
            return false;
        }
    }
    return true;
}

void ExpandStrings(Json::Value& value, const SandboxLayout& layout) {
    if (value.isString()) {
        value = Utf8(layout.Expand(Wide(value.asString())));
    } else if (value.isArray()) {
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) ExpandStrings(value[i], layout);
    } else if (value.isObject()) {
        for (const std::string& key : value.getMemberNames()) ExpandStrings(value[key], layout);
    }
}

bool IsEmptyFolder(const std::wstring& folder) {
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW(Join(folder, L"*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return true;
    bool empty = true;
    do {
        if (wcscmp(entry.cFileName, L".") != 0 && wcscmp(entry.cFileName, L"..") != 0) empty = false;
    } while (empty && FindNextFileW(find, &entry));
    FindClose(find);
    return empty;
}

std::wstring FullPath(const std::wstring& path) {
    wchar_t buffer[MAX_PATH * 2];
    DWORD n = GetFullPathNameW(path.c_str(), MAX_PATH * 2, buffer, nullptr);
    std::wstring full = (n == 0 || n >= MAX_PATH * 2) ? path : std::wstring(buffer, n);
    while (full.size() > 3 && (full.back() == L'\\' || full.back() == L'/')) full.pop_back();
    return full;
}

void Walk(const std::wstring& folder, const std::wstring& relative, const std::wstring& skip, FileSnapshot& out) {
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW(Join(folder, L"*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return;
    do {
        const std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..") continue;
        const std::wstring rel = relative.empty() ? name : relative + L"\\" + name;
        FileEntry e;
        e.folder = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (e.folder) {
            if (EqualNoCase(rel, skip)) continue;
            out[rel + L"\\"] = e;
            Walk(Join(folder, name), rel, skip, out);
        } else {
            e.size = (static_cast<uint64_t>(entry.nFileSizeHigh) << 32) | entry.nFileSizeLow;
            e.written = (static_cast<uint64_t>(entry.ftLastWriteTime.dwHighDateTime) << 32) |
                        entry.ftLastWriteTime.dwLowDateTime;
            // Sandbox files are small: their content tells a replaced file from an untouched one.
            if (e.size <= (1u << 20)) e.hash = ContentHash(Join(folder, name));
            out[rel] = e;
        }
    } while (FindNextFileW(find, &entry));
    FindClose(find);
}

std::string LastWord(std::string line) {
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    size_t blank = line.rfind(' ');
    return blank == std::string::npos ? line : line.substr(blank + 1);
}

} // namespace

std::wstring SandboxLayout::Expand(const std::wstring& text) const {
    const std::pair<const wchar_t*, const std::wstring*> names[] = {
        {L"{sandbox}", &root},  {L"{engines}", &engines},   {L"{signatures}", &signatures},
        {L"{common}", &common}, {L"{coretemp}", &coreTemp}, {L"{kits}", &kits}};
    std::wstring out = text;
    for (const auto& n : names) {
        const std::wstring key = n.first;
        for (size_t at = out.find(key); at != std::wstring::npos; at = out.find(key, at + n.second->size()))
            out.replace(at, key.size(), *n.second);
    }
    return out;
}

std::wstring SandboxLayout::Absolute(const std::wstring& relative) const { return Join(root, relative); }

std::wstring SandboxLayout::Relative(const std::wstring& path) const {
    if (path.size() > root.size() && _wcsnicmp(path.c_str(), root.c_str(), root.size()) == 0 &&
        (path[root.size()] == L'\\' || path[root.size()] == L'/'))
        return path.substr(root.size() + 1);
    if (EqualNoCase(path, root)) return L".";
    return path;
}

bool MakeTemporaryRoot(std::wstring& root, std::string& error) {
    wchar_t temp[MAX_PATH];
    DWORD n = GetTempPathW(MAX_PATH, temp);
    if (n == 0 || n >= MAX_PATH) {
        error = "no temporary folder";
        return false;
    }
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::wstring candidate = FullPath(Join(temp, L"avsandbox-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                                         std::to_wstring(GetTickCount() + attempt)));
        if (CreateDirectoryW(candidate.c_str(), nullptr)) {
            root = candidate;
            return true;
        }
    }
    error = "cannot create a folder under " + Utf8(temp);
    return false;
}

bool PrepareGivenRoot(const std::wstring& folder, std::wstring& root, std::string& error) {
    const std::wstring full = FullPath(folder);
    if (PathFileExistsW(full.c_str())) {
        if (!PathIsDirectoryW(full.c_str())) {
            error = "--sandbox " + Utf8(folder) + " is a file, not a folder";
            return false;
        }
        if (!IsEmptyFolder(full)) {
            error = "--sandbox " + Utf8(folder) + " is not empty; give a new or empty folder";
            return false;
        }
    } else if (!CreateFolders(full)) {
        error = "cannot create the sandbox folder " + Utf8(full);
        return false;
    }
    root = full;
    return true;
}

SandboxLayout LayOut(const std::wstring& root, const Scenario& scenario) {
    SandboxLayout l;
    l.root = root;
    l.engines = Join(root, scenario.enginesFolder);
    l.signatures = Join(root, L"signatures");
    l.common = Join(root, L"common");
    l.coreTemp = Join(root, L"temp\\scansp");
    l.kits = Join(root, L"kits");
    l.hostFolder = Join(root, L"host");
    l.settingsFile = Join(l.hostFolder, L"settings.json");
    l.telemetryFile = Join(l.hostFolder, L"telemetry.jsonl");
    l.logFile = Join(l.hostFolder, L"avscan.log");
    return l;
}

bool Populate(const SandboxLayout& layout, const Scenario& scenario, std::string& error) {
    if (!CreateFolders(layout.hostFolder)) {
        error = "cannot create " + Utf8(layout.hostFolder);
        return false;
    }
    if (!WriteContent(layout.engines, scenario.engines, "installed engines", error)) return false;
    if (!CreateFolders(layout.signatures)) {
        error = "cannot create " + Utf8(layout.signatures);
        return false;
    }
    for (const std::wstring& name : scenario.signatureFolders) {
        if (!CreateFolders(Join(layout.signatures, name))) {
            error = "cannot create signature folder " + Utf8(name);
            return false;
        }
    }
    EnginesContent common;
    common.files = scenario.commonFiles;
    if (!WriteContent(layout.common, common, "scan cache", error)) return false;
    // The core temp folder itself is left for the plug-in to create; only its neighbours exist.
    EnginesContent leftovers;
    leftovers.files = scenario.tempLeftovers;
    if (!WriteContent(Parent(layout.coreTemp), leftovers, "leftover", error)) return false;
    for (const auto& kit : scenario.kits) {
        if (!WriteContent(Join(layout.kits, kit.first), kit.second, "kit " + Utf8(kit.first), error)) return false;
    }
    if (!scenario.settings.section.isNull()) {
        Json::Value section = scenario.settings.section;
        ExpandStrings(section, layout);
        Json::Value document(Json::objectValue);
        document["/AntivirusScan"] = section;
        if (!WriteFileText(layout.settingsFile, PrettyJson(document))) {
            error = "cannot write " + Utf8(layout.settingsFile);
            return false;
        }
    }
    return true;
}

bool CreateFolders(const std::wstring& folder) {
    if (folder.empty() || PathIsDirectoryW(folder.c_str())) return true;
    const std::wstring parent = Parent(folder);
    if (!parent.empty() && parent != folder && !CreateFolders(parent)) return false;
    return CreateDirectoryW(folder.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS;
}

bool WriteFileText(const std::wstring& path, const std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    const bool ok =
        bytes.empty() ||
        (WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) && written == bytes.size());
    CloseHandle(file);
    return ok;
}

bool ReadFileText(const std::wstring& path, std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    bytes.clear();
    char buffer[65536];
    DWORD got = 0;
    bool ok = true;
    while ((ok = ReadFile(file, buffer, sizeof buffer, &got, nullptr) != FALSE) && got > 0) bytes.append(buffer, got);
    CloseHandle(file);
    return ok;
}

bool CopyTree(const std::wstring& from, const std::wstring& to, std::vector<std::wstring>& copied, std::string& error) {
    if (!PathIsDirectoryW(from.c_str())) {
        error = "kit folder " + Utf8(from) + " not found";
        return false;
    }
    if (!CreateFolders(to)) {
        error = "cannot create " + Utf8(to);
        return false;
    }
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW(Join(from, L"*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return true;
    bool ok = true;
    do {
        const std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..") continue;
        const std::wstring source = Join(from, name), target = Join(to, name);
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            ok = CopyTree(source, target, copied, error);
        } else if (CopyFileW(source.c_str(), target.c_str(), FALSE)) {
            copied.push_back(target);
        } else {
            error = "cannot copy " + Utf8(source) + " [error = " + std::to_string(GetLastError()) + "]";
            ok = false;
        }
    } while (ok && FindNextFileW(find, &entry));
    FindClose(find);
    return ok;
}

bool FileExists(const std::wstring& path) { return PathFileExistsW(path.c_str()) != FALSE; }

bool FileSize(const std::wstring& path, uint64_t& size) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return false;
    size = (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
    return true;
}

bool ReadUpdateFile(const std::wstring& enginesFolder, std::wstring& version, int64_t& count) {
    std::string bytes;
    if (!ReadFileText(Join(enginesFolder, L"Plugins\\update.txt"), bytes)) return false;
    std::vector<std::string> lines;
    size_t start = 0;
    while (lines.size() < 4 && start < bytes.size()) {
        size_t end = bytes.find('\n', start);
        if (end == std::string::npos) end = bytes.size();
        lines.push_back(bytes.substr(start, end - start));
        start = end + 1;
    }
    if (lines.size() < 4) return false;
    version = Wide(LastWord(lines[3]));
    count = _strtoi64(LastWord(lines[1]).c_str(), nullptr, 10);
    return true;
}

FileSnapshot TakeSnapshot(const SandboxLayout& layout) {
    FileSnapshot snapshot;
    Walk(layout.root, std::wstring(), layout.Relative(layout.hostFolder), snapshot);
    return snapshot;
}

FileChanges CompareSnapshots(const FileSnapshot& before, const FileSnapshot& after) {
    FileChanges changes;
    for (const auto& kv : after) {
        auto it = before.find(kv.first);
        if (it == before.end()) {
            changes.created.push_back(kv.first);
        } else if (!kv.second.folder && (it->second.size != kv.second.size || it->second.written != kv.second.written ||
                                         it->second.hash != kv.second.hash)) {
            changes.changed.push_back(kv.first);
        }
    }
    for (const auto& kv : before) {
        if (!after.count(kv.first)) changes.deleted.push_back(kv.first);
    }
    return changes;
}

} // namespace sandbox
