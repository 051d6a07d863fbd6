#pragma once
// Fails the plug-in's own allocations and file calls one at a time, the way SQLite tests itself:
// the loaded DLL's import table is patched from the test process, so that its malloc, calloc and
// realloc (operator new goes through them), its file calls and the NtCreateFile it asks
// GetProcAddress for reach the hooks below first. Other modules are untouched.
//   ImportFaults::Install(module);                    // once, right after LoadLibraryW
//   ImportFaults::Arm(ImportFaults::Kind::Allocation, 3);  // the third allocation from now fails
//   ...; bool reached = ImportFaults::Disarm();
// The hooks allocate nothing, so that a heap walk around a run sees only what the run left.
#include <windows.h>

#include <cstddef>

namespace testing_support {

class ImportFaults {
public:
    enum class Kind { Allocation, File };

    // Patches the module's imports; false when one of them could not be found.
    static bool Install(HMODULE module);
    // Counting starts afresh; the failAt-th call of that kind fails (0: none), a file call with
    // `error` (its NTSTATUS equivalent for NtCreateFile).
    static void Arm(Kind kind, long failAt, DWORD error = ERROR_ACCESS_DENIED);
    // Stops failing; true when the armed call was reached.
    static bool Disarm();
    // Calls of the armed kind counted since Arm.
    static long Counted();
    // The sizes of the allocations counted from the next Arm on go to `into` (none: not kept).
    static void KeepSizes(size_t* into, long room);
    // Return addresses of the failed call's stack (its caller first), for telling where a point
    // is; the number copied.
    static int FailedStack(void** frames, int room);

    // Every path the plug-in hands to a file call must lie below `folder` (none: no check).
    static void Confine(const wchar_t* folder);
    // Paths outside the folder since Confine, and the first of them.
    static long OutsideCount();
    static const wchar_t* FirstOutside();
};

// Points the module's import of `function` from `library` at `hook`, the former target kept in
// `real`; false when the module does not import it.
bool PatchImport(HMODULE module, const char* library, const char* function, void* hook, void** real);

// Bytes and blocks in use in the C runtime's heap (the one malloc serves), by walking it.
struct HeapUse {
    size_t bytes = 0;
    size_t blocks = 0;
    bool operator==(const HeapUse& other) const { return bytes == other.bytes && blocks == other.blocks; }
};
HeapUse CrtHeapInUse();

} // namespace testing_support
