#pragma once
// The CTC update plug-in ("ctc"). Held while the plug-in runs; no operation of it is called.
// A released interface never changes: its slots keep their order, arguments and meaning, and new
// operations go into a new interface with an id of its own.
#include "sdk/QvBase.h"

struct ICtcUpdate {
    virtual DWORD GetStatus(uint32_t* status) = 0;
};

namespace qv {
namespace kxsdk {
namespace ids {
constexpr GUID kCtcId = MakeInterfaceId(0x9BB34F4A24F25A8Cull, 0x1164EB8B868244DDull);
}
} // namespace kxsdk
} // namespace qv
