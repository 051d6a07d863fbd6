#pragma once
// The CTC update plug-in ("ctc"). Held while the plug-in runs; no operation of it is called.
#include "sdk/QvBase.h"

struct ICtcUpdate {
    virtual DWORD GetStatus(uint32_t* status) = 0;
};
