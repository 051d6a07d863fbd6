#pragma once
// Every interface slot runs its body through GuardedSlot: no exception may reach the caller,
// who is another plug-in or the host service itself.
#include "plugin/ErrorCodes.h"
#include "support/Log.h"
#include <exception>
#include <new>

namespace qv {

template <class Body> DWORD GuardedSlot(const wchar_t* function, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        logging::WriteMessage(logging::LOG_SEV_ERROR, function, L"out of memory");
        return kNotEnoughMemory;
    } catch (const std::exception& e) {
        logging::WriteMessage(logging::LOG_SEV_ERROR, function, L"unexpected exception [what = %S]", e.what());
        return kInternalError;
    } catch (...) {
        logging::WriteMessage(logging::LOG_SEV_ERROR, function, L"unexpected exception");
        return kInternalError;
    }
}

// The one check of a slot's pointer arguments: true, after logging "invalid parameter" under the
// slot's name, when any of them is null; the slot then returns kInvalidParameter. (The exports
// write no log and answer a null result pointer themselves.)
template <class... Pointers> bool IsNullArgument(const wchar_t* function, const Pointers*... pointers) noexcept {
    if (((pointers != nullptr) && ...)) return false;
    logging::WriteMessage(logging::LOG_SEV_ERROR, function, L"invalid parameter");
    return true;
}

// For internal steps whose failure is only logged: runs the body, swallowing exceptions.
template <class Body> void GuardedStep(const wchar_t* function, Body&& body) noexcept {
    GuardedSlot(function, [&]() -> DWORD {
        body();
        return 0;
    });
}

} // namespace qv
