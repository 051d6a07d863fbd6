#include "plugin/ServPlugin.h"

namespace qv {

GUID TelemetryIdFromText(const wchar_t* text) {
    unsigned long long a = 0, b = 0, c = 0, d = 0, e = 0;
    StringW(text).Scan(L"%llx-%llx-%llx-%llx-%llx", &a, &b, &c, &d, &e);
    uint64_t first = (static_cast<uint64_t>(d) << 48) + e;
    uint64_t second = (((static_cast<uint64_t>(a) << 16) + b) << 16) + c;
    return MakeInterfaceId(first, second);
}

} // namespace qv
