#pragma once
// Every interface slot runs its body through GuardedSlot: no exception may reach the caller,
// who is another plug-in or the host service itself.
#include "support/Log.h"
#include <exception>
#include <new>

namespace qv {

template <class Body> DWORD GuardedSlot(const wchar_t* function, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        logging::WriteMessage(logging::LOG_SEV_ERROR, function, L"out of memory");
        return ERROR_NOT_ENOUGH_MEMORY;
    } catch (const std::exception& e) {
        logging::WriteMessage(logging::LOG_SEV_ERROR, function, L"unexpected exception [what = %S]", e.what());
        return ERROR_INTERNAL_ERROR;
    } catch (...) {
        logging::WriteMessage(logging::LOG_SEV_ERROR, function, L"unexpected exception");
        return ERROR_INTERNAL_ERROR;
    }
}

// For internal steps whose failure is only logged: runs the body, swallowing exceptions.
template <class Body> void GuardedStep(const wchar_t* function, Body&& body) noexcept {
    GuardedSlot(function, [&]() -> DWORD { body(); return 0; });
}

} // namespace qv
