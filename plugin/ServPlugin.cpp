#include "plugin/ServPlugin.h"

namespace qv {

namespace {
int HexDigit(wchar_t c) {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    if (c >= L'A' && c <= L'F') return c - L'A' + 10;
    return -1;
}
} // namespace

// Read in place, without a copy or the C library's scanf: the id is needed on every lookup of the
// telemetry plug-in, also when memory has run out. Groups that cannot be read stay zero, as they
// would with "%llx-%llx-%llx-%llx-%llx".
GUID TelemetryIdFromText(const wchar_t* text) {
    uint64_t groups[5] = {};
    const wchar_t* p = text ? text : L"";
    for (uint64_t& group : groups) {
        if (HexDigit(*p) < 0) break;
        for (; HexDigit(*p) >= 0; ++p) group = (group << 4) | static_cast<uint64_t>(HexDigit(*p));
        if (*p != L'-') break;
        ++p;
    }
    uint64_t first = (groups[3] << 48) + groups[4];
    uint64_t second = (((groups[0] << 16) + groups[1]) << 16) + groups[2];
    return MakeInterfaceId(first, second);
}

} // namespace qv
