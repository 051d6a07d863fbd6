#include "plugin/FeatureNames.h"

#include "support/Log.h"

namespace qv {

namespace {

struct ReservedKey {
    const wchar_t* name;
    size_t length;
};

const ReservedKey kReservedKeys[] = {
    {L"enableBackup", 12}, {L"reportHashChain", 15}, {L"reportSignatureInfo", 19}, {L"engines", 7}};

bool SameText(const wchar_t* a, const wchar_t* b, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (a[i] != b[i]) return false;
    return true;
}

} // namespace

// One pass over the name, with no library calls: GetFeatureStatus runs this on every query.
bool AcceptFeatureName(const wchar_t* function, const StringW& name) {
    using namespace logging;
    const size_t length = name.Length();
    const wchar_t* text = name.c_str();
    if (length == 0) {
        WriteMessage(LOG_SEV_ERROR, function, L"Feature name refused: empty");
        return false;
    }
    // The first step of the path the store would walk: [start, end).
    size_t start = 0, end = 0;
    bool inFirstStep = true;
    for (size_t i = 0; i < length; ++i) {
        const wchar_t c = text[i];
        if (c == L'\0') {
            WriteMessage(LOG_SEV_ERROR, function,
                         L"Feature name refused: holds a NUL character [name = %s] [length = %llu]", text,
                         static_cast<unsigned long long>(length));
            return false;
        }
        if (!inFirstStep) continue;
        if (c != L'/') {
            end = i + 1;
        } else if (end > 0) {
            inFirstStep = false;
        } else {
            start = i + 1;
        }
    }
    if (end == 0) {
        WriteMessage(LOG_SEV_ERROR, function, L"Feature name refused: names no key [name = %s]", text);
        return false;
    }
    for (const ReservedKey& key : kReservedKeys) {
        if (key.length == end - start && SameText(key.name, text + start, key.length)) {
            WriteMessage(LOG_SEV_ERROR, function,
                         L"Feature name refused: reaches the module's key [name = %s] [key = %s]", text, key.name);
            return false;
        }
    }
    return true;
}

} // namespace qv
