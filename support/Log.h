#pragma once
// Logging through "log.dll", loaded at run time and never linked. Every operation opens a
// call trace; messages carry a severity and the name of the function that writes them.
#include "support/WinHandle.h"

#include <windows.h>
#include <cstdarg>
#include <cstdint>

namespace logging {

enum LogSeverity : uint32_t {
    LOG_SEV_ERROR = 4,
    LOG_SEV_WARNING = 8,
    LOG_SEV_DETAIL = 16,
    LOG_SEV_INFO = 32,
};

// (nesting, severity, module, function, format, arguments)
using LogWriteFn = HRESULT (*)(uint16_t, const uint32_t*, HMODULE, const wchar_t*, const wchar_t*, va_list);
using LogVoidFn = void (*)();
using LogRemoveModuleFn = void (*)(const char*);

// The loaded library and its resolved entry points; eighteen pointer-sized slots in a fixed order.
class CLogDLL {
public:
    CLogDLL();
    ~CLogDLL();
    CLogDLL(const CLogDLL&) = delete;
    CLogDLL& operator=(const CLogDLL&) = delete;

    qv::UniqueHModule module;
    void* applySettings;
    void* setSettingsFile;
    void* enable;
    void* setLevel;
    void* setPath;
    void* setType;
    void* setMode;
    void* setMaxSize;
    void* setDepth;
    LogWriteFn write;
    void* isEnabled;
    void* monitorSettings;
    LogVoidFn uninitDeskMetrics;
    void* trackEvent;
    void* trackEventData;
    LogRemoveModuleFn removeModule;
    void* getLevel;
};
static_assert(sizeof(qv::UniqueHModule) == sizeof(HMODULE), "the module slot holds just the handle");
static_assert(sizeof(CLogDLL) == 18 * sizeof(void*), "log.dll slots are pointer-sized and fixed in number");

// Holder of references on the process-wide CLogDLL instance.
class CLogDLLRef {
public:
    CLogDLLRef() = default;
    ~CLogDLLRef() { Release(); }
    CLogDLLRef(const CLogDLLRef&) = delete;
    CLogDLLRef& operator=(const CLogDLLRef&) = delete;

    void Acquire();
    void Release();
    CLogDLL* Get() const { return instance_; }
    long Count() const { return count_; }

private:
    CLogDLL* instance_ = nullptr;
    volatile long count_ = 0;
};

// True while a reference on the library is outstanding (use count plus the second count).
bool IsLoggingInUse();
// Process-wide counters, for tests and diagnostics.
long UseCount();
long SecondCount();
CLogDLL* CurrentInstance();
// The image this code is linked into; log.dll tells the writers apart by it.
HMODULE CurrentModule();

HRESULT Write(CLogDLL* instance, uint16_t nesting, const uint32_t* severity, HMODULE module, const wchar_t* function,
              const wchar_t* format, ...);
HRESULT WriteV(CLogDLL* instance, uint16_t nesting, const uint32_t* severity, HMODULE module, const wchar_t* function,
               const wchar_t* format, va_list args);

// A line written through a reference of its own on the library, loading it if need be.
void WriteHeld(uint16_t nesting, uint32_t severity, const wchar_t* function, const wchar_t* format, ...);
void WriteHeldV(uint16_t nesting, uint32_t severity, const wchar_t* function, const wchar_t* format, va_list args);

// A plain message: written only while logging is in use; never loads the library itself.
void WriteMessage(uint32_t severity, const wchar_t* function, const wchar_t* format, ...);
void WriteMessageV(uint32_t severity, const wchar_t* function, const wchar_t* format, va_list args);

// Entry line "-> name()" at construction, exit line "<- name() [ms]" at destruction.
class CFunctionTrace {
public:
    explicit CFunctionTrace(const wchar_t* name);
    ~CFunctionTrace();
    CFunctionTrace(const CFunctionTrace&) = delete;
    CFunctionTrace& operator=(const CFunctionTrace&) = delete;

    const wchar_t* Title() const { return title_; }
    const wchar_t* Function() const { return function_; }

private:
    DWORD start_;
    wchar_t title_[260];
    wchar_t function_[260];
};

} // namespace logging

// QV_TRACE opens the call trace of the enclosing operation; QV_FUNCTION only names it, for
// operations that log without a trace. QV_LOG(severity, format, ...) writes under that name.
#define QV_FUNCTION(name) static const wchar_t* const qvFunctionName_ = name
#define QV_TRACE(name)                                                                                                 \
    QV_FUNCTION(name);                                                                                                 \
    ::logging::CFunctionTrace qvTrace_(qvFunctionName_)
#define QV_LOG(severity, ...) ::logging::WriteMessage((severity), qvFunctionName_, __VA_ARGS__)
