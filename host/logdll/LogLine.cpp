#include "host/logdll/LogLine.h"

#include <cwchar>

namespace logdll {
namespace {

const wchar_t* SeverityName(uint32_t severity, wchar_t* buffer, size_t capacity) {
    switch (severity) {
    case 4:
        return L"ERROR";
    case 8:
        return L"WARNING";
    case 16:
        return L"DETAIL";
    case 32:
        return L"INFO";
    default:
        _snwprintf(buffer, capacity - 1, L"%u", severity);
        buffer[capacity - 1] = L'\0';
        return buffer;
    }
}

std::wstring ModuleName(HMODULE module) {
    wchar_t path[MAX_PATH] = {};
    if (module == nullptr || GetModuleFileNameW(module, path, MAX_PATH) == 0) return L"?";
    const wchar_t* name = wcsrchr(path, L'\\');
    name = name != nullptr ? name + 1 : path;
    std::wstring result(name);
    size_t dot = result.rfind(L'.');
    if (dot != std::wstring::npos && dot > 0) result.erase(dot);
    return result;
}

bool IsTraceLine(uint16_t nesting) { return nesting == 1 || nesting == 0xFFFF; }

void WriteUtf8(HANDLE handle, const std::wstring& text) {
    int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    if (size <= 0) return;
    std::string bytes(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &bytes[0], size, nullptr, nullptr);
    DWORD written = 0;
    WriteFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

} // namespace

std::wstring FormatLine(const LogRecord& record, int depth) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    wchar_t number[16];
    wchar_t head[96];
    _snwprintf(head, 95, L"%04u-%02u-%02u %02u:%02u:%02u.%03u [%6lu] %-7s ", now.wYear, now.wMonth, now.wDay, now.wHour,
               now.wMinute, now.wSecond, now.wMilliseconds, record.thread, SeverityName(record.severity, number, 16));
    head[95] = L'\0';

    std::wstring line(head);
    line += ModuleName(record.module);
    line += L"  ";
    line.append(static_cast<size_t>(depth) * 2, L' ');
    if (!IsTraceLine(record.nesting) && !record.function.empty()) {
        line.append(record.function.data(), record.function.size());
        line += L": ";
    }
    line.append(record.text.data(), record.text.size());
    line += L"\r\n";
    return line;
}

void EmitLine(LogStore* store, const std::wstring& line) {
    if (store->file != INVALID_HANDLE_VALUE) WriteUtf8(store->file, line);
    if (store->console) {
        HANDLE console = GetStdHandle(STD_ERROR_HANDLE);
        DWORD mode = 0;
        if (console == nullptr || console == INVALID_HANDLE_VALUE) return;
        DWORD written = 0;
        if (GetConsoleMode(console, &mode))
            WriteConsoleW(console, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
        else
            WriteUtf8(console, line);
    }
}

} // namespace logdll
