#include "host/CtcPlugin.h"

namespace host {

DWORD CtcPlugin::GetStatus(uint32_t* status) {
    ServedPlugin::Call call(served);
    ++queries_;
    if (!status) return ERROR_INVALID_PARAMETER;
    *status = 0;
    return ERROR_SUCCESS;
}

} // namespace host
