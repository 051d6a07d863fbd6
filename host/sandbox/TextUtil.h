#pragma once
// Small text helpers of the sandbox host: UTF-8 and wide conversions, error-code names, and
// JSON comparison that treats 5 and 5u as the same number.
#include <windows.h>

#include <json/json.h>

#include <string>

namespace sandbox {

std::string Utf8(const std::wstring& text);
std::wstring Wide(const std::string& utf8);
bool EqualNoCase(const std::wstring& a, const std::wstring& b);

// "0", "5002 (dependency not found)", "0x8004D082 (engines recovery in progress)".
std::string CodeText(DWORD code);

// Deep equality of two JSON values, numbers compared by value whatever their storage type.
bool SameJson(const Json::Value& a, const Json::Value& b);
// One-line JSON text of a value ("[3,5]", "\"full\"").
std::string CompactJson(const Json::Value& value);
// The document as indented text, for files and --json.
std::string PrettyJson(const Json::Value& value);

} // namespace sandbox
