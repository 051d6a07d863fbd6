#include "support/Log.h"

#include <cwchar>
#include <mmsystem.h>

namespace logging {
namespace {

constexpr uint16_t kEntryNesting = 1;
constexpr uint16_t kExitNesting = 0xFFFF;

} // namespace

CFunctionTrace::CFunctionTrace(const wchar_t* name) : start_(timeGetTime()) {
    if (name == nullptr) name = L"";
    // What wcsncpy_s with truncation gives (at most 257 characters in the title, keeping room
    // for the "()" suffix, and 259 in the function), measured once: this runs on every call.
    const size_t length = wcsnlen(name, 259);
    const size_t titleLength = length < 257 ? length : 257;
    wmemcpy(title_, name, titleLength);
    title_[titleLength] = L'(';
    title_[titleLength + 1] = L')';
    title_[titleLength + 2] = L'\0';
    wmemcpy(function_, name, length);
    function_[length] = L'\0';

    // The entry line is written whether or not anyone keeps the library loaded; tracing never
    // changes the outcome of the traced operation.
    WriteHeld(kEntryNesting, LOG_SEV_INFO, function_, L"-> %s", title_);
}

CFunctionTrace::~CFunctionTrace() {
    WriteHeld(kExitNesting, LOG_SEV_INFO, function_, L"<- %s [%d]", title_, static_cast<int>(timeGetTime() - start_));
}

} // namespace logging
