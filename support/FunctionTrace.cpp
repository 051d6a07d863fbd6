#include "support/Log.h"

#include <cwchar>
#include <mmsystem.h>

namespace logging {
namespace {

constexpr uint16_t kEntryNesting = 1;
constexpr uint16_t kExitNesting = 0xFFFF;

} // namespace

CFunctionTrace::CFunctionTrace(const wchar_t* name)
    : start_(timeGetTime())
{
    title_[0] = L'\0';
    function_[0] = L'\0';
    if (name == nullptr)
        name = L"";
    // Room for the "()" suffix is kept free in the title.
    wcsncpy_s(title_, 258, name, _TRUNCATE);
    wcscat_s(title_, 260, L"()");
    wcsncpy_s(function_, 260, name, _TRUNCATE);

    // The entry line is written whether or not anyone keeps the library loaded; tracing never
    // changes the outcome of the traced operation.
    try {
        CLogDLLRef holder;
        holder.Acquire();
        if (holder.Get() == nullptr)
            holder.Acquire();
        uint32_t severity = LOG_SEV_INFO;
        Write(holder.Get(), kEntryNesting, &severity, CurrentModule(), function_, L"-> %s", title_);
    } catch (...) {
    }
}

CFunctionTrace::~CFunctionTrace()
{
    try {
        CLogDLLRef holder;
        holder.Acquire();
        if (holder.Get() == nullptr)
            holder.Acquire();
        DWORD elapsed = timeGetTime() - start_;
        uint32_t severity = LOG_SEV_INFO;
        Write(holder.Get(), kExitNesting, &severity, CurrentModule(), function_, L"<- %s [%d]", title_,
              static_cast<int>(elapsed));
    } catch (...) {
    }
}

} // namespace logging
