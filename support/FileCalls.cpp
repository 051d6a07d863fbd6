#include "support/FileCalls.h"

#include "support/NtFile.h"

#include <atomic>

namespace qv {
namespace file {

namespace {

// A constant table of plain function addresses: initialised at load, nothing runs to make it.
const FileCalls kSystem = {
    &nt::SystemNtCreateFile,
    &CreateFileW,
    &GetFileInformationByHandleEx,
    &SetFileInformationByHandle,
    &GetFileInformationByHandle,
    &GetFinalPathNameByHandleW,
    &GetFullPathNameW,
    &GetVolumePathNameW,
    &LoadLibraryExW,
    &Sleep,
};

std::atomic<const FileCalls*> g_calls{&kSystem};

} // namespace

const FileCalls& Calls() { return *g_calls.load(std::memory_order_acquire); }

const FileCalls& SystemCalls() { return kSystem; }

void ReplaceCalls(const FileCalls* calls) { g_calls.store(calls ? calls : &kSystem, std::memory_order_release); }

} // namespace file
} // namespace qv
