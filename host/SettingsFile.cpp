#include "host/SettingsFile.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <memory>

namespace host {
namespace settingsfile {

ReadResult ReadWhole(const std::wstring& path, std::string& bytes) {
    bytes.clear();
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? ReadResult::Missing
                                                                              : ReadResult::Failed;
    }
    bool ok = true;
    char chunk[16384];
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(file, chunk, sizeof chunk, &got, nullptr)) {
            ok = false;
            break;
        }
        if (got == 0) break;
        bytes.append(chunk, got);
    }
    CloseHandle(file);
    return ok ? ReadResult::Read : ReadResult::Failed;
}

bool WriteDurably(const std::wstring& path, const std::string& bytes) {
    static std::atomic<unsigned> sequence{0};
    // Windows refuses to replace a read-only file; Wine's rename does not, so ask first.
    DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY)) return false;
    std::wstring temp =
        path + L"." + std::to_wstring(GetCurrentProcessId()) + L"." + std::to_wstring(++sequence) + L".tmp";
    HANDLE file = CreateFileW(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    bool ok = true;
    size_t done = 0;
    while (ok && done < bytes.size()) {
        DWORD wrote = 0;
        DWORD want = static_cast<DWORD>(std::min<size_t>(bytes.size() - done, 1u << 20));
        ok = WriteFile(file, bytes.data() + done, want, &wrote, nullptr) && wrote == want;
        done += wrote;
    }
    ok = ok && FlushFileBuffers(file);
    CloseHandle(file);
    ok = ok && MoveFileExW(temp.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
    if (!ok) DeleteFileW(temp.c_str());
    return ok;
}

bool WithinDepth(const Json::Value& value, size_t levelsAbove) {
    if (levelsAbove >= kMaxDepth) return false;
    std::vector<std::pair<const Json::Value*, size_t>> pending{{&value, levelsAbove + 1}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        if (depth > kMaxDepth) return false;
        if (!node->isArray() && !node->isObject()) continue;
        for (const Json::Value& child : *node) pending.emplace_back(&child, depth + 1);
    }
    return true;
}

// Measures the nesting of the text before jsoncpp does: past its stack limit the reader throws
// from the deepest of its recursive calls, and unwinding a thousand frames under Wine's exception
// dispatch can itself run out of stack.
bool TextWithinDepth(const std::string& text) {
    size_t depth = 0;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (++depth > kMaxDepth) return false;
        } else if ((c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return true;
}

bool ParseDocument(const std::string& text, Json::Value& document) {
    if (!TextWithinDepth(text)) return false;
    try {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        builder["rejectDupKeys"] = false;
        builder["stackLimit"] = kMaxDepth;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value parsed;
        std::string errors;
        if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors) || !parsed.isObject())
            return false;
        document = std::move(parsed);
        return true;
    } catch (...) {
        return false;
    }
}

std::string Serialize(const Json::Value& value, bool compact) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = compact ? "" : "  ";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

std::string ToUtf8(const wchar_t* text) {
    if (!text || !*text) return std::string();
    int length = static_cast<int>(wcslen(text));
    int size = WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string out(size > 0 ? size : 0, '\0');
    if (size > 0) WideCharToMultiByte(CP_UTF8, 0, text, length, &out[0], size, nullptr, nullptr);
    return out;
}

std::wstring FromUtf8(const std::string& text) {
    if (text.empty()) return std::wstring();
    int length = static_cast<int>(text.size());
    int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring out(size > 0 ? size : 0, L'\0');
    if (size > 0) MultiByteToWideChar(CP_UTF8, 0, text.data(), length, &out[0], size);
    return out;
}

std::vector<std::string> SplitKey(const wchar_t* key) {
    std::vector<std::string> parts;
    if (!key) return parts;
    std::wstring part;
    for (const wchar_t* p = key;; ++p) {
        if (*p == L'/' || *p == L'\0') {
            if (!part.empty()) parts.push_back(ToUtf8(part.c_str()));
            part.clear();
            if (*p == L'\0') break;
        } else {
            part.push_back(*p);
        }
    }
    return parts;
}

} // namespace settingsfile
} // namespace host
