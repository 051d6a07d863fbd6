#pragma once
// Whether the process is ending. Once ExitProcess has run, every other thread is gone, the locks
// they held stay held, and sibling modules may already be detached: code that runs then (the
// library's unload among it) must neither wait for anything nor call out of this module.
namespace qv {

// True from the moment the loader began shutting the process down.
bool ProcessIsEnding() noexcept;

// Called from the library's entry point at DLL_PROCESS_DETACH with its reserved argument, which
// is non-null when the detach comes from the process ending rather than from FreeLibrary.
void NoteProcessDetach(const void* reserved) noexcept;

} // namespace qv
