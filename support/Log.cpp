#include "support/Log.h"

#include "support/FileCalls.h"
#include "support/ProcessExit.h"
#include "support/SpinGuard.h"

#include <cstdlib>
#include <cwchar>
#include <memory>

// The image that contains this code: the plug-in DLL, a test program or the host.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's name for it.
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace logging {
namespace {

// Process-wide state of this image, all zero at load. The counts and the instance pointer change
// only under the spin word; message sites read the counts without it.
CLogDLL* g_instance;
volatile LONG g_useCount;
volatile LONG g_secondCount;
volatile LONG g_spin;
bool g_exitHookSet;

constexpr DWORD kPathCapacity = 32767;

HMODULE ThisModule() { return reinterpret_cast<HMODULE>(&__ImageBase); }

HRESULT StubWrite(uint16_t, const uint32_t*, HMODULE, const wchar_t*, const wchar_t*, va_list) { return E_NOINTERFACE; }

void* Resolve(HMODULE module, const char* name) { return reinterpret_cast<void*>(GetProcAddress(module, name)); }

void CallIfPresent(void* entry) {
    if (entry != nullptr) reinterpret_cast<LogVoidFn>(entry)();
}

// Looks for log.dll beside the image that contains this code.
HMODULE LoadFromOwnFolder() {
    std::unique_ptr<wchar_t[]> path(new wchar_t[kPathCapacity]());
    DWORD length = GetModuleFileNameW(ThisModule(), path.get(), kPathCapacity);
    if (length == 0 || length >= kPathCapacity) return nullptr;
    wchar_t* slash = wcsrchr(path.get(), L'\\');
    if (slash == nullptr) return nullptr;
    size_t room = kPathCapacity - static_cast<size_t>(slash - path.get());
    if (wcscpy_s(slash, room, L"\\log.dll") != 0) return nullptr;
    // Its own imports are looked for beside it and in the system folder only, never in the
    // current folder or along PATH.
    return qv::file::Calls().loadLibraryEx(path.get(), nullptr,
                                           LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
}

// Registered once and deliberately empty: log.dll stays loaded at process exit, because other
// modules may still write their last lines while the process winds down.
void OnProcessExit() {}

} // namespace

CLogDLL::CLogDLL()
    : module(), applySettings(nullptr), setSettingsFile(nullptr), enable(nullptr), setLevel(nullptr), setPath(nullptr),
      setType(nullptr), setMode(nullptr), setMaxSize(nullptr), setDepth(nullptr), write(nullptr), isEnabled(nullptr),
      monitorSettings(nullptr), uninitDeskMetrics(nullptr), trackEvent(nullptr), trackEventData(nullptr),
      removeModule(nullptr), getLevel(nullptr) {
    if (!GetModuleHandleExW(0, L"log.dll", module.Put())) module.Reset();
    if (!module) module.Reset(LoadFromOwnFolder());
    if (!module) {
        write = &StubWrite;
        return;
    }

    CallIfPresent(Resolve(module.Get(), "LogInit"));

    applySettings = Resolve(module.Get(), "LogApplySettings");
    setSettingsFile = Resolve(module.Get(), "LogSetSettingsFile");
    enable = Resolve(module.Get(), "LogEnable");
    setLevel = Resolve(module.Get(), "LogSetLevel");
    setPath = Resolve(module.Get(), "LogSetPath");
    setType = Resolve(module.Get(), "LogSetType");
    setMode = Resolve(module.Get(), "LogSetMode");
    setMaxSize = Resolve(module.Get(), "LogSetMaxSize");
    setDepth = Resolve(module.Get(), "LogSetDepth");
    write = reinterpret_cast<LogWriteFn>(Resolve(module.Get(), "LogWrite"));
    isEnabled = Resolve(module.Get(), "LogIsEnabled");
    monitorSettings = Resolve(module.Get(), "LogMonitorSettings");
    getLevel = Resolve(module.Get(), "LogGetLevel");
    uninitDeskMetrics = reinterpret_cast<LogVoidFn>(Resolve(module.Get(), "LogUninitDeskMetrics"));
    trackEvent = Resolve(module.Get(), "LogTrackEvent");
    trackEventData = Resolve(module.Get(), "LogTrackEventData");
    removeModule = reinterpret_cast<LogRemoveModuleFn>(Resolve(module.Get(), "LogRemoveModule"));

    if (write == nullptr) write = &StubWrite;
}

// The module owner unloads the library after this body, last of all.
CLogDLL::~CLogDLL() {
    if (!module) return;
    CallIfPresent(Resolve(module.Get(), "LogDeinit"));
    if (uninitDeskMetrics != nullptr) uninitDeskMetrics();
    if (removeModule != nullptr) removeModule("logging::CLogDLL::~CLogDLL");
}

void CLogDLLRef::Acquire() {
    CLogDLL* instance = nullptr;
    {
        // An allocation failure below leaves through std::bad_alloc with nothing counted; the
        // guard frees the spin word on the way out.
        qv::SpinGuard spin(g_spin);
        if (g_secondCount == 0 && g_useCount == 0) {
            if (g_instance != nullptr) {
                delete g_instance;
                g_instance = nullptr;
            }
            g_instance = new CLogDLL();
            if (!g_exitHookSet && std::atexit(&OnProcessExit) == 0) g_exitHookSet = true;
        }
        ++g_useCount;
        instance = g_instance;
    }

    instance_ = instance;
    InterlockedIncrement(&count_);
}

void CLogDLLRef::Release() {
    instance_ = nullptr;
    if (InterlockedDecrement(&count_) < 0) {
        InterlockedIncrement(&count_);
        return;
    }
    do {
        qv::SpinGuard spin(g_spin);
        if (g_useCount > 0)
            --g_useCount;
        else if (g_secondCount > 0)
            g_secondCount = 0;
        if (g_instance != nullptr && g_useCount == 0 && g_secondCount == 0) {
            delete g_instance;
            g_instance = nullptr;
        }
    } while (InterlockedDecrement(&count_) >= 0);
    InterlockedIncrement(&count_);
}

bool IsLoggingInUse() { return g_useCount + g_secondCount != 0; }

long UseCount() { return g_useCount; }

long SecondCount() { return g_secondCount; }

CLogDLL* CurrentInstance() { return g_instance; }

HRESULT WriteV(CLogDLL* instance, uint16_t nesting, const uint32_t* severity, HMODULE module, const wchar_t* function,
               const wchar_t* format, va_list args) {
    if (instance == nullptr || instance->write == nullptr) return E_NOINTERFACE;
    return instance->write(nesting, severity, module, function, format, args);
}

HRESULT Write(CLogDLL* instance, uint16_t nesting, const uint32_t* severity, HMODULE module, const wchar_t* function,
              const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    HRESULT result = WriteV(instance, nesting, severity, module, function, format, args);
    va_end(args);
    return result;
}

void WriteHeldV(uint16_t nesting, uint32_t severity, const wchar_t* function, const wchar_t* format, va_list args) {
    // log.dll may be detached already, or its lock left held by a thread the exit ended.
    if (qv::ProcessIsEnding()) return;
    // A line must never change the outcome of the operation that writes it.
    try {
        CLogDLLRef holder;
        holder.Acquire();
        // Acquire always leaves an instance or throws, so the second take is a guard that costs
        // nothing; the holder gives back every reference it took, once or twice.
        if (holder.Get() == nullptr) holder.Acquire();
        uint32_t level = severity;
        (void)WriteV(holder.Get(), nesting, &level, ThisModule(), function, format, args);
    } catch (...) {
    }
}

void WriteHeld(uint16_t nesting, uint32_t severity, const wchar_t* function, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    WriteHeldV(nesting, severity, function, format, args);
    va_end(args);
}

void WriteMessageV(uint32_t severity, const wchar_t* function, const wchar_t* format, va_list args) {
    if (!IsLoggingInUse()) return;
    WriteHeldV(0, severity, function, format, args);
}

void WriteMessage(uint32_t severity, const wchar_t* function, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    WriteMessageV(severity, function, format, args);
    va_end(args);
}

HMODULE CurrentModule() { return ThisModule(); }

} // namespace logging
