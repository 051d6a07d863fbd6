#include "host/sandbox/TextUtil.h"

#include <cstdio>
#include <memory>
#include <sstream>

namespace sandbox {

std::string Utf8(const std::wstring& text) {
    if (text.empty()) return std::string();
    int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    if (size <= 0) return std::string();
    std::string bytes(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &bytes[0], size, nullptr, nullptr);
    return bytes;
}

std::wstring Wide(const std::string& utf8) {
    if (utf8.empty()) return std::wstring();
    int size = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    if (size <= 0) return std::wstring();
    std::wstring text(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &text[0], size);
    return text;
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }

std::string CodeText(DWORD code) {
    const char* name = nullptr;
    switch (code) {
    case 0:
        return "0";
    case 2:
        name = "file not found";
        break;
    case 3:
        name = "path not found";
        break;
    case 13:
        name = "invalid data";
        break;
    case 87:
        name = "invalid parameter";
        break;
    case 126:
        name = "module not found";
        break;
    case 258:
        name = "timed out";
        break;
    case 1013:
        name = "cannot write";
        break;
    case 1168:
        name = "not found";
        break;
    case 1359:
        name = "internal error";
        break;
    case 1627:
        name = "function failed";
        break;
    case 5002:
        name = "dependency not found";
        break;
    case 5023:
        name = "invalid state";
        break;
    case 6843:
        name = "data lost, repaired";
        break;
    case 15025:
        name = "event registration refused";
        break;
    case 0x8004D082:
        name = "engines recovery in progress";
        break;
    default:
        break;
    }
    char text[80];
    if (code > 0xFFFF)
        snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(code));
    else
        snprintf(text, sizeof text, "%lu", static_cast<unsigned long>(code));
    return name ? std::string(text) + " (" + name + ")" : std::string(text);
}

bool SameJson(const Json::Value& a, const Json::Value& b) {
    if (a.isNumeric() && b.isNumeric() && !a.isBool() && !b.isBool()) {
        if (a.isUInt64() && b.isUInt64()) return a.asUInt64() == b.asUInt64();
        if (a.isInt64() && b.isInt64()) return a.asInt64() == b.asInt64();
        return a.asDouble() == b.asDouble();
    }
    if (a.type() != b.type()) return false;
    if (a.isArray()) {
        if (a.size() != b.size()) return false;
        for (Json::ArrayIndex i = 0; i < a.size(); ++i) {
            if (!SameJson(a[i], b[i])) return false;
        }
        return true;
    }
    if (a.isObject()) {
        if (a.getMemberNames() != b.getMemberNames()) return false;
        for (const std::string& key : a.getMemberNames()) {
            if (!SameJson(a[key], b[key])) return false;
        }
        return true;
    }
    return a == b;
}

namespace {
std::string Write(const Json::Value& value, const char* indentation) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["emitUTF8"] = true;
    std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    std::ostringstream out;
    writer->write(value, &out);
    return out.str();
}
} // namespace

std::string CompactJson(const Json::Value& value) { return Write(value, ""); }
std::string PrettyJson(const Json::Value& value) { return Write(value, "  ") + "\n"; }

} // namespace sandbox
