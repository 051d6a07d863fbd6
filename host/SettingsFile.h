#pragma once
// File side of the settings store: the document is read whole and replaced whole, through a
// temporary file in the same folder, so that a crash in the middle of a write leaves either the
// old file or the new one, never a torn or empty one.
#include <json/json.h>

#include <string>
#include <vector>

namespace host { namespace settingsfile {

enum class ReadResult { Missing, Read, Failed };

ReadResult ReadWhole(const std::wstring& path, std::string& bytes);
bool WriteDurably(const std::wstring& path, const std::string& bytes);

// True only for text that is one JSON object and nothing else.
bool ParseDocument(const std::string& text, Json::Value& document);
std::string Serialize(const Json::Value& value, bool compact);

std::string ToUtf8(const wchar_t* text);
std::wstring FromUtf8(const std::string& text);

// "engines/reloadStatus" -> {"engines", "reloadStatus"}; empty parts are dropped.
std::vector<std::string> SplitKey(const wchar_t* key);

}} // namespace host::settingsfile
