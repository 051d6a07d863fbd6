#pragma once
// File side of the settings store: the document is read whole and replaced whole, through a
// temporary file in the same folder, so that a crash in the middle of a write leaves either the
// old file or the new one, never a torn or empty one.
#include <json/json.h>

#include <string>
#include <vector>

namespace host {
namespace settingsfile {

enum class ReadResult { Missing, Read, Failed };

ReadResult ReadWhole(const std::wstring& path, std::string& bytes);
bool WriteDurably(const std::wstring& path, const std::string& bytes);

// jsoncpp parses, copies, writes and destroys values recursively, so the store holds no value
// nested deeper than this (a scalar is one level, each array or object around it one more): a
// deeper one would end the calling thread on its stack before anyone could refuse it. The parser
// is given the same limit.
constexpr unsigned kMaxDepth = 1000;
// True when `value`, placed `levelsAbove` levels down, stays within kMaxDepth. Iterative.
bool WithinDepth(const Json::Value& value, size_t levelsAbove = 0);

// True only for text that is one JSON object, nested at most kMaxDepth levels, and nothing else.
bool ParseDocument(const std::string& text, Json::Value& document);
std::string Serialize(const Json::Value& value, bool compact);

std::string ToUtf8(const wchar_t* text);
std::wstring FromUtf8(const std::string& text);

// "engines/reloadStatus" -> {"engines", "reloadStatus"}; empty parts are dropped.
std::vector<std::string> SplitKey(const wchar_t* key);

} // namespace settingsfile
} // namespace host
