#pragma once
// The log.dll beside the benchmark program, loaded for the whole run: its write entry point for
// the baselines, and the switch that decides what its writes keep.
#include "host/logdll/LogTestApi.h"
#include "support/Log.h"

#include <windows.h>
#include <string>

namespace bench {

enum class LogKeeps { Lines = 0, TextOnly = 1, Nothing = 2 };

class LogLibrary {
public:
    LogLibrary() {
        wchar_t path[MAX_PATH];
        DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
        std::wstring file(path, n);
        file = file.substr(0, file.find_last_of(L'\\')) + L"\\log.dll";
        module_ = LoadLibraryW(file.c_str());
        if (!module_) return;
        write = reinterpret_cast<logging::LogWriteFn>(reinterpret_cast<void*>(GetProcAddress(module_, "LogWrite")));
        setRecording_ = reinterpret_cast<LogTestSetRecordingFn>(
            reinterpret_cast<void*>(GetProcAddress(module_, "LogTestSetRecording")));
    }
    ~LogLibrary() {
        if (module_) {
            Keep(LogKeeps::Lines);
            FreeLibrary(module_);
        }
    }
    LogLibrary(const LogLibrary&) = delete;
    LogLibrary& operator=(const LogLibrary&) = delete;

    bool Ready() const { return module_ && write && setRecording_; }
    HMODULE Module() const { return module_; }
    void Keep(LogKeeps what) {
        if (setRecording_) setRecording_(static_cast<int>(what));
    }

    // A direct call of the library's write, as the plug-in's logging makes it.
    HRESULT Write(uint16_t nesting, uint32_t severity, HMODULE module, const wchar_t* function, const wchar_t* format,
                  ...) {
        va_list args;
        va_start(args, format);
        HRESULT result = write(nesting, &severity, module, function, format, args);
        va_end(args);
        return result;
    }

    logging::LogWriteFn write = nullptr;

private:
    HMODULE module_ = nullptr;
    LogTestSetRecordingFn setRecording_ = nullptr;
};

} // namespace bench
