#include "plugin/FeatureNames.h"

#include "support/Log.h"

#include <cwchar>

namespace qv {

namespace {

const wchar_t* const kReservedKeys[] = {L"enableBackup", L"reportHashChain", L"reportSignatureInfo", L"engines"};

} // namespace

bool AcceptFeatureName(const wchar_t* function, const StringW& name) {
    using namespace logging;
    const size_t length = name.Length();
    const wchar_t* text = name.c_str();
    if (length == 0) {
        WriteMessage(LOG_SEV_ERROR, function, L"Feature name refused: empty");
        return false;
    }
    if (wcsnlen(text, length) != length) {
        WriteMessage(LOG_SEV_ERROR, function, L"Feature name refused: holds a NUL character [name = %s] [length = %llu]",
                     text, static_cast<unsigned long long>(length));
        return false;
    }
    // The first step of the path the store would walk.
    size_t start = 0;
    while (start < length && text[start] == L'/') ++start;
    if (start == length) {
        WriteMessage(LOG_SEV_ERROR, function, L"Feature name refused: names no key [name = %s]", text);
        return false;
    }
    size_t end = start;
    while (end < length && text[end] != L'/') ++end;
    for (const wchar_t* key : kReservedKeys) {
        if (wcslen(key) == end - start && wmemcmp(key, text + start, end - start) == 0) {
            WriteMessage(LOG_SEV_ERROR, function, L"Feature name refused: reaches the module's key [name = %s] [key = %s]",
                         text, key);
            return false;
        }
    }
    return true;
}

} // namespace qv
